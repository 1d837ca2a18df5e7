#include <velmora/Host.h>

#include "analytics/hit_queue.h"
#include "api/guard.h"

namespace Velmora {

bool Host::Configure(HostOptions options) {
    return velmora::Guard(false, [&] { return velmora::Runtime::ConfigureProcess(std::move(options)); });
}

namespace {

// The hit queue, made on the general queue, loads the hits an earlier run left, so that a flush
// can start the sender for them.
void LoadLeftHits(velmora::Runtime& runtime) {
    runtime.GeneralQueue().Post([&runtime] { runtime.GetHitQueue(); });
}

}  // namespace

bool Host::Flush(std::chrono::milliseconds timeout) {
    return velmora::Call(false, [&](velmora::Runtime& runtime) {
        LoadLeftHits(runtime);
        return runtime.Flush(timeout);
    });
}

// Read from the hit queue's recorder without starting the library, and after Shutdown too.
DeliveryStats Host::Stats() {
    return velmora::Guard(DeliveryStats{}, [] {
        velmora::Runtime* runtime = velmora::Runtime::ProcessIfCreated();
        velmora::HitQueue* hits = runtime != nullptr ? runtime->HitQueueIfCreated() : nullptr;
        return hits != nullptr ? hits->Stats() : DeliveryStats{};
    });
}

bool Host::Shutdown(std::chrono::milliseconds timeout) {
    return velmora::Call(false, [&](velmora::Runtime& runtime) {
        LoadLeftHits(runtime);
        return runtime.Shutdown(timeout, /*deliver=*/true);
    });
}

}  // namespace Velmora
