/// @file
/// The hardened build: checks that end the program, and marks on the bytes of free blocks.
///
/// `GILVANE_HARDENED` is defined for the library and for every program that uses it, or for neither; CMake and
/// pkg-config pass the definition on. The checks are always compiled; `detail::isHardened` decides whether they are
/// called. All classes have the same layout in both builds. A program that uses pools does not link with a library of
/// the other build, since the pool's symbols have other names there.
#ifndef GILVANE_BASE_GVHARDENED_H
#define GILVANE_BASE_GVHARDENED_H

#include <gilvane/base/gvcompiler.h>

#if defined(GILVANE_HARDENED)

/// Marks a class whose symbols have other names in each build, so that a program links with a library of its own build
/// only.
#define GILVANE_OF_THIS_BUILD __attribute__((__abi_tag__("hardened")))
/// Marks a function that only hardened programs call. The default library hides it.
#define GILVANE_HARDENED_ONLY GILVANE_EXPORT __attribute__((__abi_tag__("hardened")))

#else

#define GILVANE_OF_THIS_BUILD
#define GILVANE_HARDENED_ONLY __attribute__((__visibility__("hidden")))

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
[[noreturn, gnu::__format__(__printf__, 1, 2)]] GILVANE_HARDENED_ONLY void reportMisuse(const char* format,
                                                                                        ...) noexcept;

/// Reports misuse unless `condition` holds.
/// @param text  the operation, and what is wrong
inline void requireOrReport(bool condition, const char* text) noexcept {
    if (!condition) {
        reportMisuse("%s", text);
    }
}

/// Makes every use of these bytes a fault that AddressSanitizer or Valgrind reports, if the program runs under one of
/// them. The bytes keep their values.
/// @param bytes  the first byte; may be null when there are none
GILVANE_HARDENED_ONLY void markBytesUntouchable(const void* bytes, unsigned int numberOfBytes) noexcept;

/// Allows uses of these bytes again. They still have their values, which Valgrind takes for uninitialised.
/// @param bytes  the first byte; may be null when there are none
GILVANE_HARDENED_ONLY void markBytesUsable(const void* bytes, unsigned int numberOfBytes) noexcept;

} // namespace Gilvane::detail

#endif
