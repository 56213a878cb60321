#pragma once

/// clang's thread-safety attributes, so that the lock of each member and method stands in its
/// declaration and `scripts/check` can prove it. Other compilers see nothing.
#if defined(__clang__)
#define MO_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define MO_THREAD_ATTRIBUTE(x)
#endif

#define MO_CAPABILITY(name) MO_THREAD_ATTRIBUTE(capability(name))
#define MO_SCOPED_CAPABILITY MO_THREAD_ATTRIBUTE(scoped_lockable)
#define MO_GUARDED_BY(mutex) MO_THREAD_ATTRIBUTE(guarded_by(mutex))
#define MO_REQUIRES(...) MO_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define MO_EXCLUDES(...) MO_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define MO_ACQUIRE(...) MO_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define MO_RELEASE(...) MO_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define MO_TRY_ACQUIRE(...) MO_THREAD_ATTRIBUTE(try_acquire_capability(__VA_ARGS__))
