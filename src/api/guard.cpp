#include "api/guard.h"

#include <cstdio>

namespace velmora {

void ReportEscapedError(const char* what) noexcept {
    try {
        Runtime::Process().Log().Error("Config - Unexpected error (%s)", what);
    } catch (...) {
        std::fprintf(stderr, "Velmora Error:Config - Unexpected error (%s)\n", what);
    }
}

Runtime* OpenRuntime() {
    Runtime& runtime = Runtime::Process();
    if (!runtime.Closed()) return &runtime;
    if (runtime.FirstIgnoredCall()) runtime.Log().Warning("Config - Call ignored: the library has been shut down");
    return nullptr;
}

}  // namespace velmora
