#pragma once

// Clang thread-safety annotations. A clang build with -Wthread-safety checks that guarded members
// are only touched with their mutex held; other compilers see nothing.

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
#define BASTION_TRY_ACQUIRE(...) BASTION_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define BASTION_EXCLUDES(...) BASTION_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define BASTION_RETURN_CAPABILITY(x) BASTION_THREAD_ANNOTATION(lock_returned(x))
#define BASTION_NO_THREAD_SAFETY_ANALYSIS BASTION_THREAD_ANNOTATION(no_thread_safety_analysis)
