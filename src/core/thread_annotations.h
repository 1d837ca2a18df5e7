#pragma once

// Clang's thread-safety analysis (-Wthread-safety): which lock guards which member, checked at
// compile time. Other compilers see nothing.
#if defined(__clang__)
#define VELMORA_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define VELMORA_THREAD_ANNOTATION(x)
#endif

#define CAPABILITY(x) VELMORA_THREAD_ANNOTATION(capability(x))
#define SCOPED_CAPABILITY VELMORA_THREAD_ANNOTATION(scoped_lockable)
#define GUARDED_BY(x) VELMORA_THREAD_ANNOTATION(guarded_by(x))
#define PT_GUARDED_BY(x) VELMORA_THREAD_ANNOTATION(pt_guarded_by(x))
#define ACQUIRED_BEFORE(...) VELMORA_THREAD_ANNOTATION(acquired_before(__VA_ARGS__))
#define ACQUIRED_AFTER(...) VELMORA_THREAD_ANNOTATION(acquired_after(__VA_ARGS__))
#define REQUIRES(...) VELMORA_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define ACQUIRE(...) VELMORA_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define RELEASE(...) VELMORA_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) VELMORA_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define EXCLUDES(...) VELMORA_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define ASSERT_CAPABILITY(x) VELMORA_THREAD_ANNOTATION(assert_capability(x))
#define RETURN_CAPABILITY(x) VELMORA_THREAD_ANNOTATION(lock_returned(x))
#define NO_THREAD_SAFETY_ANALYSIS VELMORA_THREAD_ANNOTATION(no_thread_safety_analysis)
