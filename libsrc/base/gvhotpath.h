/// @file
/// What the compiler cannot know about the paths that programs take all the time.
#ifndef GILVANE_BASE_GVHOTPATH_H
#define GILVANE_BASE_GVHOTPATH_H

/// Put before a function whose callers are meant to stay small: the rare half of an operation whose other half is
/// compiled into programs.
#define GILVANE_OUT_OF_LINE __attribute__((noinline))

namespace Gilvane {

/// Its argument, which is mostly true: the code for that comes first, without a jump.
inline bool likely(bool condition) { return __builtin_expect(condition, true); }

/// Its argument, which is mostly false.
inline bool unlikely(bool condition) { return __builtin_expect(condition, false); }

/// Has the memory at an address, any address, brought near for what comes soon.
inline void prefetch(const void* address) { __builtin_prefetch(address); }

} // namespace Gilvane

#endif
