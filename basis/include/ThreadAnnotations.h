// Clang thread-safety annotations. Under clang with -Wthread-safety the compiler checks that the
// fields marked VEL_GUARDED_BY are only touched with their lock held; under g++ they expand to
// nothing and serve as documentation.
#ifndef BASIS_INCLUDE_THREADANNOTATIONS_H
#define BASIS_INCLUDE_THREADANNOTATIONS_H

#if defined(__clang__)
#define VEL_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define VEL_THREAD_ANNOTATION(x)
#endif

#define VEL_CAPABILITY(x) VEL_THREAD_ANNOTATION(capability(x))
#define VEL_GUARDED_BY(x) VEL_THREAD_ANNOTATION(guarded_by(x))
#define VEL_PT_GUARDED_BY(x) VEL_THREAD_ANNOTATION(pt_guarded_by(x))
#define VEL_REQUIRES(...) VEL_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define VEL_ACQUIRE(...) VEL_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define VEL_RELEASE(...) VEL_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define VEL_EXCLUDES(...) VEL_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define VEL_NO_THREAD_SAFETY_ANALYSIS VEL_THREAD_ANNOTATION(no_thread_safety_analysis)

#endif  // BASIS_INCLUDE_THREADANNOTATIONS_H
