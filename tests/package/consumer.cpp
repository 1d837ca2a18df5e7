// Prints the privacy status the library resolves for the config file in VELMORA_PACKAGE_DIR.
#include <velmora/Velmora.h>

#include <chrono>
#include <iostream>

int main() {
    Velmora::Config::SetDebugLogging(true);
    auto status = Velmora::Config::GetPrivacyStatusAsync().get();
    std::cout << "privacy " << static_cast<int>(status) << " version " << Velmora::Config::GetVersion() << std::endl;
    return Velmora::Host::Flush(std::chrono::seconds(5)) ? 0 : 1;
}
