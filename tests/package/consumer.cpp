// A program built against the installed package, as an application would be.
//   consumer privacy   prints the privacy status resolved for VELMORA_PACKAGE_DIR's config
//   consumer aid       prints the tracking identifier
#include <velmora/Velmora.h>

#if defined(VELMORA_EXPECT_CXX20)
// Built as C++20: nothing the package adds may lower the standard.
static_assert(__cplusplus >= 202002L, "the package's flags lowered the language standard");
#endif

#include <chrono>
#include <iostream>
#include <string>

int main(int argc, char** argv) {
    const std::string mode = argc > 1 ? argv[1] : "privacy";
    Velmora::HostOptions options;
    options.internetAvailable = [] { return true; };  // the collector runs on this machine
    Velmora::Host::Configure(options);
    Velmora::Config::SetDebugLogging(true);
    if (mode == "privacy") {
        auto status = Velmora::Config::GetPrivacyStatusAsync().get();
        std::cout << "privacy " << static_cast<int>(status) << " version " << Velmora::Config::GetVersion() << std::endl;
        return Velmora::Host::Flush(std::chrono::seconds(5)) ? 0 : 1;
    }
    if (mode == "aid") {
        std::cout << "aid " << Velmora::Analytics::GetTrackingIdentifierAsync().get() << std::endl;
        return 0;
    }
    std::cerr << "usage: consumer [privacy | aid]\n";
    return 2;
}
