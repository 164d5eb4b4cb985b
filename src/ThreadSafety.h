// What the compiler holds about locks: Clang checks it (-Wthread-safety), other compilers see
// nothing. https://clang.llvm.org/docs/ThreadSafetyAnalysis.html tells what each word promises.
#ifndef VELOCAST_THREADSAFETY_H
#define VELOCAST_THREADSAFETY_H

#if defined(__clang__)
#define VELOCAST_THREAD_SAFETY(x) __attribute__((x))
#else
#define VELOCAST_THREAD_SAFETY(x)
#endif

// Of classes: a lock, and a guard that holds one while it lives.
#define CAPABILITY(sName) VELOCAST_THREAD_SAFETY(capability(sName))
#define SCOPED_CAPABILITY VELOCAST_THREAD_SAFETY(scoped_lockable)

// Of members: touched only with the lock held; the same for what a pointer points to.
#define GUARDED_BY(mutex) VELOCAST_THREAD_SAFETY(guarded_by(mutex))
#define PT_GUARDED_BY(mutex) VELOCAST_THREAD_SAFETY(pt_guarded_by(mutex))
// Of locks: the nesting order.
#define ACQUIRED_BEFORE(...) VELOCAST_THREAD_SAFETY(acquired_before(__VA_ARGS__))
#define ACQUIRED_AFTER(...) VELOCAST_THREAD_SAFETY(acquired_after(__VA_ARGS__))

// Of functions: the caller holds the lock; holds it not; the function takes it, gives it back.
#define REQUIRES(...) VELOCAST_THREAD_SAFETY(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) VELOCAST_THREAD_SAFETY(locks_excluded(__VA_ARGS__))
#define ACQUIRE(...) VELOCAST_THREAD_SAFETY(acquire_capability(__VA_ARGS__))
#define RELEASE(...) VELOCAST_THREAD_SAFETY(release_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) VELOCAST_THREAD_SAFETY(try_acquire_capability(__VA_ARGS__))
#define RETURN_CAPABILITY(mutex) VELOCAST_THREAD_SAFETY(lock_returned(mutex))
// Of functions that the analysis cannot follow; the reason stands beside each.
#define NO_THREAD_SAFETY_ANALYSIS VELOCAST_THREAD_SAFETY(no_thread_safety_analysis)

#endif
