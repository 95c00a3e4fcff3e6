/// @file
/// What the hardened build adds: checks that end the program, and marks on the bytes of free blocks.
///
/// `GILVANE_HARDENED` is defined for the library and for every program that uses it, or for neither: the build system
/// that hands out the library says so. The layout of all classes is the same in both builds. Programs and libraries of
/// different builds do not link: the checks that hardened headers call are in hardened libraries alone, and the growth
/// that every loan may come to has another name there.
#ifndef GILVANE_BASE_GVHARDENED_H
#define GILVANE_BASE_GVHARDENED_H

#if defined(GILVANE_HARDENED)

#include <gilvane/base/gvexport.h>

/// Runs an expression in the hardened build, and is nothing in others.
#define GILVANE_IF_HARDENED(expression) (expression)

/// Put before a function of the library that programs cannot do without: those of another build do not find it.
#define GILVANE_OF_THIS_BUILD __attribute__((abi_tag("hardened")))

namespace Gilvane {

/// Writes one line on standard error, which begins with "gilvane: ", and ends the program with `abort`. Allocates
/// nothing and takes no lock.
/// @param format  of the rest of the line, as `printf` takes it
[[noreturn, gnu::format(printf, 1, 2)]] GILVANE_EXPORT void reportMisuse(const char* format, ...) noexcept;

/// Reports misuse, unless the condition holds.
/// @param text  the operation and what is wrong
inline void require(bool condition, const char* text) noexcept {
    if (!condition) {
        reportMisuse("%s", text);
    }
}

/// From now on a use of these bytes is a fault that AddressSanitizer or Valgrind reports, whichever the program runs
/// under; without them nothing happens. What the bytes hold stays.
/// @param bytes  the first one; may be null if there are none
void markUntouchable(const void* bytes, unsigned int numberOfBytes) noexcept;

/// The opposite. For Valgrind the bytes have then no value yet, though what they held is still there.
void markUsable(const void* bytes, unsigned int numberOfBytes) noexcept;

} // namespace Gilvane

#else

#define GILVANE_IF_HARDENED(expression)
#define GILVANE_OF_THIS_BUILD

#endif

#endif
