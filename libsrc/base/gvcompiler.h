/// @file
/// What the library tells the compiler and the linker beyond the language.
#ifndef GILVANE_BASE_GVCOMPILER_H
#define GILVANE_BASE_GVCOMPILER_H

#include <gilvane/base/gvversion.h>

/// Marks a class, function or variable that a shared library and the programs that link it must have in common: type
/// information that a handler matches, virtual tables, the token counter, the allocation hooks. It matters where the
/// library is compiled with `-fvisibility=hidden`, and does nothing elsewhere.
#define GILVANE_EXPORT __attribute__((__visibility__("default")))

/// Compiles a function into its callers, however large the compiler finds it.
#define GILVANE_ALWAYS_INLINE __attribute__((__always_inline__)) inline

/// Keeps a rare path out of line, so that its callers stay small.
#define GILVANE_OUT_OF_LINE __attribute__((__noinline__))

/// Marks a function whose only effect is one access to shared memory, made without a lock on purpose
/// (docs/deliberate.md, Locking).
///
/// Under clang++, ThreadSanitizer ignores the function and the getter that it calls; under g++ it still reports what
/// the getter reads. The function is not inlined there, so that its callers are watched. Other builds ignore the mark.
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
