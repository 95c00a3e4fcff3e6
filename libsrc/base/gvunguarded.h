/// @file
/// Marks the accesses to shared memory that are required to take no lock.
#ifndef GILVANE_BASE_GVUNGUARDED_H
#define GILVANE_BASE_GVUNGUARDED_H

/// Put before a function that does nothing but one such access, with its reason. ThreadSanitizer then leaves alone this
/// access, and the getter that the function may call for it, but not the neighbours of the function's callers: hence no
/// inlining there. It does nothing in other builds. GCC does not inline the getter either, and reports what it reads.
#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define GILVANE_UNGUARDED __attribute__((no_sanitize("thread"), noinline, flatten))
#endif
#elif defined(__SANITIZE_THREAD__)
#define GILVANE_UNGUARDED __attribute__((no_sanitize("thread"), noinline, flatten))
#endif
#ifndef GILVANE_UNGUARDED
#define GILVANE_UNGUARDED
#endif

#endif
