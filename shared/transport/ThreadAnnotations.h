// Internal: the annotations that let clang's -Wthread-safety check, at
// compile time, that every member guarded by a mutex is only touched with it
// held, and that functions which need a lock are called with it. Other
// compilers see nothing. Not installed.
#ifndef QX_SHARED_TRANSPORT_THREADANNOTATIONS_H
#define QX_SHARED_TRANSPORT_THREADANNOTATIONS_H

#if defined(__clang__)
#define QX_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define QX_THREAD_ANNOTATION(x)
#endif

// A type whose objects are locks.
#define CAPABILITY(x) QX_THREAD_ANNOTATION(capability(x))
// A type that holds a lock for its lifetime (a scoped lock).
#define SCOPED_CAPABILITY QX_THREAD_ANNOTATION(scoped_lockable)
// The member is read and written only with the lock held.
#define GUARDED_BY(x) QX_THREAD_ANNOTATION(guarded_by(x))
// What the pointer member points to is touched only with the lock held.
#define PT_GUARDED_BY(x) QX_THREAD_ANNOTATION(pt_guarded_by(x))
// The caller must hold the lock.
#define REQUIRES(...) QX_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
// The caller must not hold the lock (the function takes it).
#define EXCLUDES(...) QX_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
// The function takes the lock and returns with it held.
#define ACQUIRE(...) QX_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
// The function gives the lock back.
#define RELEASE(...) QX_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
// Tells the analysis that the lock is held here (checked at run time, if at
// all, by the function itself).
#define ASSERT_CAPABILITY(x) QX_THREAD_ANNOTATION(assert_capability(x))
// Leaves the function out of the analysis; say why wherever it is used.
#define NO_THREAD_SAFETY_ANALYSIS QX_THREAD_ANNOTATION(no_thread_safety_analysis)

#endif  // QX_SHARED_TRANSPORT_THREADANNOTATIONS_H
