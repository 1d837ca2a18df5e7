#pragma once

#include <pthread.h>

namespace velmora {

// The library's own threads (work queues, the hit sender, timers) mark themselves, so that a
// public call made from a host callback running on one of them knows it must not wait for the
// library's queues: the queue it would wait for may be the one waiting for it.
inline thread_local bool tLibraryThread = false;

inline void MarkLibraryThread() { tLibraryThread = true; }
inline bool OnLibraryThread() { return tLibraryThread; }

// Marks the calling thread and gives it a name that top, gdb and /proc show ("velmora-…", at most
// 15 characters).
inline void StartLibraryThread(const char* name) {
    MarkLibraryThread();
    pthread_setname_np(pthread_self(), name);
}

}  // namespace velmora
