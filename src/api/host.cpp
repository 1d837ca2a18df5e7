#include <velmora/Host.h>

#include "api/guard.h"

namespace Velmora {

bool Host::Configure(HostOptions options) {
    return velmora::Guard(false, [&] { return velmora::Runtime::ConfigureProcess(std::move(options)); });
}

bool Host::Flush(std::chrono::milliseconds timeout) {
    return velmora::Call(false, [&](velmora::Runtime& runtime) { return runtime.Flush(timeout); });
}

bool Host::Shutdown(std::chrono::milliseconds timeout) {
    return velmora::Call(false, [&](velmora::Runtime& runtime) { return runtime.Shutdown(timeout, /*deliver=*/true); });
}

}  // namespace Velmora
