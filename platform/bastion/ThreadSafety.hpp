#pragma once

// Clang thread-safety annotations. A clang build with -Wthread-safety checks that guarded members
// are only touched with their mutex held; other compilers see nothing.
//
// BASTION_NO_THREAD_SAFETY_ANALYSIS turns the check off for one function: use it only where the
// analysis cannot follow the locking (a lock taken in one function and released in another, a
// mutex reached through a pointer it cannot name), with a comment saying which.

#if defined(__clang__)
#define BASTION_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define BASTION_THREAD_ANNOTATION(x)
#endif

#define BASTION_CAPABILITY(x) BASTION_THREAD_ANNOTATION(capability(x))
#define BASTION_SCOPED_CAPABILITY BASTION_THREAD_ANNOTATION(scoped_lockable)
#define BASTION_GUARDED_BY(x) BASTION_THREAD_ANNOTATION(guarded_by(x))
#define BASTION_PT_GUARDED_BY(x) BASTION_THREAD_ANNOTATION(pt_guarded_by(x))
#define BASTION_ACQUIRED_BEFORE(...) BASTION_THREAD_ANNOTATION(acquired_before(__VA_ARGS__))
#define BASTION_ACQUIRED_AFTER(...) BASTION_THREAD_ANNOTATION(acquired_after(__VA_ARGS__))
#define BASTION_REQUIRES(...) BASTION_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define BASTION_ACQUIRE(...) BASTION_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define BASTION_RELEASE(...) BASTION_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define BASTION_RELEASE_GENERIC(...) BASTION_THREAD_ANNOTATION(release_generic_capability(__VA_ARGS__))
#define BASTION_ACQUIRE_SHARED(...) BASTION_THREAD_ANNOTATION(acquire_shared_capability(__VA_ARGS__))
#define BASTION_RELEASE_SHARED(...) BASTION_THREAD_ANNOTATION(release_shared_capability(__VA_ARGS__))
#define BASTION_REQUIRES_SHARED(...) BASTION_THREAD_ANNOTATION(requires_shared_capability(__VA_ARGS__))
#define BASTION_TRY_ACQUIRE_SHARED(...) BASTION_THREAD_ANNOTATION(try_acquire_shared_capability(__VA_ARGS__))
#define BASTION_ASSERT_CAPABILITY(x) BASTION_THREAD_ANNOTATION(assert_capability(x))
#define BASTION_TRY_ACQUIRE(...) BASTION_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define BASTION_EXCLUDES(...) BASTION_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define BASTION_RETURN_CAPABILITY(x) BASTION_THREAD_ANNOTATION(lock_returned(x))
#define BASTION_NO_THREAD_SAFETY_ANALYSIS BASTION_THREAD_ANNOTATION(no_thread_safety_analysis)
