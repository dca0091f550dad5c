// Lock contracts that clang's thread-safety analysis (-Wthread-safety) checks at compile time;
// they expand to nothing for other compilers. GUARDED_BY(mu) on a member: read or written only
// with `mu` held. REQUIRES(mu) on a function: its caller holds `mu`. EXCLUDES(mu): its caller
// must not hold `mu` (the function takes it). ACQUIRE/RELEASE: the function takes or lets go.
#ifndef TIDEWAY_COMMON_THREADANNOTATIONS_H_
#define TIDEWAY_COMMON_THREADANNOTATIONS_H_

#if defined(__clang__)
#define TIDEWAY_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define TIDEWAY_THREAD_ANNOTATION(x)
#endif

#define CAPABILITY(x) TIDEWAY_THREAD_ANNOTATION(capability(x))
#define SCOPED_CAPABILITY TIDEWAY_THREAD_ANNOTATION(scoped_lockable)
#define GUARDED_BY(x) TIDEWAY_THREAD_ANNOTATION(guarded_by(x))
#define PT_GUARDED_BY(x) TIDEWAY_THREAD_ANNOTATION(pt_guarded_by(x))
#define ACQUIRED_BEFORE(...) TIDEWAY_THREAD_ANNOTATION(acquired_before(__VA_ARGS__))
#define ACQUIRED_AFTER(...) TIDEWAY_THREAD_ANNOTATION(acquired_after(__VA_ARGS__))
#define REQUIRES(...) TIDEWAY_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define ACQUIRE(...) TIDEWAY_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define RELEASE(...) TIDEWAY_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) TIDEWAY_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define EXCLUDES(...) TIDEWAY_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define ASSERT_CAPABILITY(x) TIDEWAY_THREAD_ANNOTATION(assert_capability(x))
#define RETURN_CAPABILITY(x) TIDEWAY_THREAD_ANNOTATION(lock_returned(x))
#define NO_THREAD_SAFETY_ANALYSIS TIDEWAY_THREAD_ANNOTATION(no_thread_safety_analysis)

#endif  // TIDEWAY_COMMON_THREADANNOTATIONS_H_
