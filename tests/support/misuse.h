/// @file
/// For tests of what misuse comes to where nothing checks for it.
#ifndef GILVANE_TESTS_SUPPORT_MISUSE_H
#define GILVANE_TESTS_SUPPORT_MISUSE_H

#include <gtest/gtest.h>

/// Put first in a test: what it does is misuse that a hardened library ends the program for, as tests/hardened shows.
#if defined(GILVANE_HARDENED)
#define GILVANE_TEST_OF_MISUSE() GTEST_SKIP() << "the hardened library ends the program here, by design"
#else
#define GILVANE_TEST_OF_MISUSE() static_cast<void>(0)
#endif

#endif
