/// @file
/// What the library tells the compiler and the linker beyond the language.
#ifndef GILVANE_BASE_GVCOMPILER_H
#define GILVANE_BASE_GVCOMPILER_H

/// Marks a class, function or variable that a shared library and the programs that link it must have in common: type
/// information that a handler matches, virtual tables, the token counter, the allocation hooks. It matters where the
/// library is compiled with `-fvisibility=hidden`, and does nothing elsewhere.
#define GILVANE_EXPORT __attribute__((__visibility__("default")))

/// Marks the rare half of an operation whose other half is compiled into programs: callers stay small.
#define GILVANE_OUT_OF_LINE __attribute__((__noinline__))

/// Marks a function that does nothing but one access to shared memory that takes no lock on purpose
/// (docs/deliberate.md, Locking).
///
/// ThreadSanitizer ignores what this function does, and what a getter does that it calls. It is not inlined there, so
/// that the code around its calls is still watched. In other builds the mark does nothing. GCC does not inline the
/// getter, and reports what the getter reads.
#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define GILVANE_UNGUARDED __attribute__((__no_sanitize__("thread"), __noinline__, __flatten__))
#endif
#elif defined(__SANITIZE_THREAD__)
#define GILVANE_UNGUARDED __attribute__((__no_sanitize__("thread"), __noinline__, __flatten__))
#endif
#ifndef GILVANE_UNGUARDED
#define GILVANE_UNGUARDED
#endif

/// What only the library's own code uses. Names in here change without notice.
namespace Gilvane::detail {

/// Returns `condition`, and lays the code out for true.
inline bool expectTrue(bool condition) { return __builtin_expect(condition, true); }

/// Returns `condition`, and lays the code out for false.
inline bool expectFalse(bool condition) { return __builtin_expect(condition, false); }

/// Prefetches the cache line that `address` lies in; any address will do.
inline void prefetchLine(const void* address) { __builtin_prefetch(address); }

} // namespace Gilvane::detail

#endif
