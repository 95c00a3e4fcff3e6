/// @file
/// What the compiler cannot know about the paths that programs take all the time.
#ifndef GILVANE_BASE_GVHOTPATH_H
#define GILVANE_BASE_GVHOTPATH_H

/// Put before a function whose callers are meant to stay small: the rare half of an operation whose other half is
/// compiled into programs.
#define GILVANE_OUT_OF_LINE __attribute__((noinline))

/// A condition that mostly holds: the code for it comes first, without a jump.
#define GILVANE_LIKELY(condition) __builtin_expect(static_cast<bool>(condition), true)

/// A condition that mostly does not hold.
#define GILVANE_UNLIKELY(condition) __builtin_expect(static_cast<bool>(condition), false)

#endif
