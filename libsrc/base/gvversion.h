/// @file
/// Which version of the library these headers are of, and the language that they need.
#ifndef GILVANE_BASE_GVVERSION_H
#define GILVANE_BASE_GVVERSION_H

#if __cplusplus < 201703L
#error Gilvane needs C++17 or later: compile as C++ with -std=c++17
// There is no such file: the compilation ends here, before what it lacks of the language fills pages with errors.
#include <gilvane/base/needs-C++17>
#endif

// The one place of the version: CMakeLists.txt, and by it all else that names the version, reads these lines. Each
// number is below 100.
/// The version's first number: another one is another binary interface, and another name of the shared library.
#define GILVANE_VERSION_MAJOR 1
/// The version's second number, which rises when something is added.
#define GILVANE_VERSION_MINOR 0
/// The version's third number, which rises when something is repaired.
#define GILVANE_VERSION_PATCH 0

/// The version as one number, for comparisons: 10203 is 1.2.3. `#if GILVANE_VERSION >= 10100` asks for 1.1.0 or later.
#define GILVANE_VERSION (GILVANE_VERSION_MAJOR * 10000 + GILVANE_VERSION_MINOR * 100 + GILVANE_VERSION_PATCH)

/// The version as text: "1.2.3".
#define GILVANE_VERSION_STRING                                                                                         \
    GILVANE_DETAIL_TEXT(GILVANE_VERSION_MAJOR)                                                                         \
    "." GILVANE_DETAIL_TEXT(GILVANE_VERSION_MINOR) "." GILVANE_DETAIL_TEXT(GILVANE_VERSION_PATCH)

/// @cond  for the line above alone
#define GILVANE_DETAIL_TEXT(macro) GILVANE_DETAIL_QUOTED(macro)
#define GILVANE_DETAIL_QUOTED(text) #text
/// @endcond

#endif
