/// @file
/// The hardened build: checks that end the program, and marks on the bytes of free blocks.
///
/// `GILVANE_HARDENED` is defined for the library and for every program that uses it, or for neither; the build system
/// that hands out the library tells programs. Both builds compile the checks, a constant decides which of them makes
/// any. All classes have the same layout in both. A program of one build does not link with a library of the other:
/// what the headers call is named differently there.
#ifndef GILVANE_BASE_GVHARDENED_H
#define GILVANE_BASE_GVHARDENED_H

#include <gilvane/base/gvcompiler.h>

#if defined(GILVANE_HARDENED)

/// Marks a function that programs of both builds call: each build finds its own alone.
#define GILVANE_OF_THIS_BUILD __attribute__((__abi_tag__("hardened")))
/// Marks a check, and what checks are made of: called by programs of the hardened build, and hidden in the default one.
#define GILVANE_CHECK GILVANE_EXPORT __attribute__((__abi_tag__("hardened")))

#else

#define GILVANE_OF_THIS_BUILD
#define GILVANE_CHECK __attribute__((__visibility__("hidden")))

#endif

namespace Gilvane::detail {

/// Whether this is the hardened build.
#if defined(GILVANE_HARDENED)
inline constexpr bool isHardened = true;
#else
inline constexpr bool isHardened = false;
#endif

/// Writes one line to standard error, which begins with "gilvane: ", and ends the program with `abort`. Allocates
/// nothing and takes no lock.
/// @param format  of the rest of the line, as `printf` takes it
[[noreturn, gnu::__format__(__printf__, 1, 2)]] GILVANE_CHECK void reportMisuse(const char* format, ...) noexcept;

/// Reports misuse unless `condition` holds; does nothing in the default build.
/// @param text  the operation, and what is wrong
inline void requireOrReport(bool condition, const char* text) noexcept {
    if constexpr (isHardened) {
        if (!condition) {
            reportMisuse("%s", text);
        }
    }
}

/// Makes every use of these bytes a fault that AddressSanitizer or Valgrind reports, if the program runs under one of
/// them. The bytes keep their values.
/// @param bytes          the first byte; may be null when there are none
/// @param numberOfBytes  bytes
GILVANE_CHECK void markBytesUntouchable(const void* bytes, unsigned int numberOfBytes) noexcept;

/// Allows uses of these bytes again. They still have their values, which Valgrind takes for uninitialised.
/// @param bytes          the first byte; may be null when there are none
/// @param numberOfBytes  bytes
GILVANE_CHECK void markBytesUsable(const void* bytes, unsigned int numberOfBytes) noexcept;

} // namespace Gilvane::detail

#endif
