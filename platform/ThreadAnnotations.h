// Clang's thread-safety attributes, so that a clang build with -Wthread-safety checks which lock
// guards what. Other compilers see empty macros; the code means the same either way.
#ifndef PLATFORM_THREADANNOTATIONS_H_
#define PLATFORM_THREADANNOTATIONS_H_

#if defined(__clang__)
#define QV_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define QV_THREAD_ANNOTATION(x)
#endif

// A class whose objects are locks.
#define CAPABILITY(x) QV_THREAD_ANNOTATION(capability(x))
// A class whose objects hold a lock for their lifetime.
#define SCOPED_CAPABILITY QV_THREAD_ANNOTATION(scoped_lockable)
// A member that may be read or written only while the named lock is held.
#define GUARDED_BY(x) QV_THREAD_ANNOTATION(guarded_by(x))
// A function that takes, or gives back, the named lock (none named: the object itself).
#define ACQUIRE(...) QV_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define RELEASE(...) QV_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
// A function that its callers may call only while they hold the named lock.
#define REQUIRES(...) QV_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
// A function that its callers must not call while they hold the named lock.
#define EXCLUDES(...) QV_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))

#endif  // PLATFORM_THREADANNOTATIONS_H_
