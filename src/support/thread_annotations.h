// Clang's thread-safety attributes under short names; empty for other compilers.
#pragma once

#if defined(__clang__)
#define TM_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define TM_THREAD_ATTRIBUTE(x)
#endif

#define CAPABILITY(x) TM_THREAD_ATTRIBUTE(capability(x))
#define SCOPED_CAPABILITY TM_THREAD_ATTRIBUTE(scoped_lockable)
#define GUARDED_BY(x) TM_THREAD_ATTRIBUTE(guarded_by(x))
#define REQUIRES(...) TM_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) TM_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define ACQUIRE(...) TM_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define RELEASE(...) TM_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) TM_THREAD_ATTRIBUTE(try_acquire_capability(__VA_ARGS__))
#define RETURN_CAPABILITY(x) TM_THREAD_ATTRIBUTE(lock_returned(x))
#define NO_THREAD_SAFETY_ANALYSIS TM_THREAD_ATTRIBUTE(no_thread_safety_analysis)
