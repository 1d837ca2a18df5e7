#include <velmora/Host.h>

#include "api/guard.h"
#include "core/runtime.h"

namespace Velmora {

bool Host::Configure(HostOptions options) {
    return velmora::Guard(false, [&] { return velmora::Runtime::ConfigureProcess(std::move(options)); });
}

bool Host::Flush(std::chrono::milliseconds timeout) {
    return velmora::Guard(false, [&] { return velmora::Runtime::Process().Flush(timeout); });
}

}  // namespace Velmora
