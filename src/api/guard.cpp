#include "api/guard.h"

#include "core/runtime.h"

namespace velmora {

void ReportEscapedError(const char* what) noexcept {
    try {
        Runtime::Process().Log().Error("Config - Unexpected error (%s)", what);
    } catch (...) {
        std::fprintf(stderr, "Velmora Error:Config - Unexpected error (%s)\n", what);
    }
}

}  // namespace velmora
