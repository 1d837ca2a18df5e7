#pragma once

namespace velmora {

// The library's own threads (work queues, the hit sender, timers) mark themselves, so that a
// public call made from a host callback running on one of them knows it must not wait for the
// library's queues: the queue it would wait for may be the one waiting for it.
inline thread_local bool tLibraryThread = false;

inline void MarkLibraryThread() { tLibraryThread = true; }
inline bool OnLibraryThread() { return tLibraryThread; }

}  // namespace velmora
