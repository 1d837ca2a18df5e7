// The timed-actions file: any text gives the readable actions (and maybe the error), never a
// crash; the actions read, even those before damage, written back as the store saves them, read
// back unchanged.
#include "timed_actions/timed_actions.h"

#include <cstdint>
#include <exception>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    velmora::TimedActionMap actions;
    std::size_t skipped = 0;
    try {
        velmora::ParseTimedActionsFile(text, actions, [&](const std::string&, const std::string& reason) {
            if (reason.empty()) __builtin_trap();  // the log line needs a reason
            ++skipped;
        });
    } catch (const std::exception&) {
        // a damaged document keeps the complete actions before the damage: they must round-trip too
    }

    velmora::TimedActionMap reread;
    velmora::ParseTimedActionsFile(velmora::TimedActionsFileText(actions), reread,
                                   [](const std::string&, const std::string&) { __builtin_trap(); });
    if (reread.size() != actions.size()) __builtin_trap();
    for (const auto& [name, action] : actions) {
        auto it = reread.find(name);
        if (it == reread.end() || it->second.start != action.start || it->second.adjusted != action.adjusted ||
            it->second.data != action.data) {
            __builtin_trap();
        }
    }
    return 0;
}
