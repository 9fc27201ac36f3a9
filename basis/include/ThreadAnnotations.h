/// @file
/// Clang thread-safety annotations. Under clang with -Wthread-safety the compiler checks that the
/// fields marked VEL_GUARDED_BY are only touched with their lock held; under g++ they expand to
/// nothing and serve as documentation.
#ifndef BASIS_INCLUDE_THREADANNOTATIONS_H
#define BASIS_INCLUDE_THREADANNOTATIONS_H

#if defined(__clang__)
/// The attribute `x` under clang; nothing otherwise.
#define VEL_THREAD_ANNOTATION(x) __attribute__((x))
#else
/// Nothing: other compilers do not check the annotations.
#define VEL_THREAD_ANNOTATION(x)
#endif

/// A class that is a lock (named `x` in diagnostics).
#define VEL_CAPABILITY(x) VEL_THREAD_ANNOTATION(capability(x))
/// A field touched only with the lock `x` held.
#define VEL_GUARDED_BY(x) VEL_THREAD_ANNOTATION(guarded_by(x))
/// A pointer whose target is touched only with the lock `x` held.
#define VEL_PT_GUARDED_BY(x) VEL_THREAD_ANNOTATION(pt_guarded_by(x))
/// A function called with these locks held.
#define VEL_REQUIRES(...) VEL_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
/// A function that acquires these locks (the object itself when none is named).
#define VEL_ACQUIRE(...) VEL_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
/// A function that releases these locks (the object itself when none is named).
#define VEL_RELEASE(...) VEL_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
/// A function called without these locks held.
#define VEL_EXCLUDES(...) VEL_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
/// A function the analysis does not check.
#define VEL_NO_THREAD_SAFETY_ANALYSIS VEL_THREAD_ANNOTATION(no_thread_safety_analysis)

#endif  // BASIS_INCLUDE_THREADANNOTATIONS_H
