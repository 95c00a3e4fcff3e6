// The version that programs ask while they are compiled.

#include <gilvane/base/gvversion.h>

#include <gtest/gtest.h>

#include <string>

// What the preprocessor makes of comparisons. No version before this one had the macros.
#if GILVANE_VERSION < 10000 || GILVANE_VERSION >= 1000000
#error the version is not one number that comparisons take
#endif
#if GILVANE_VERSION_MINOR > 99 || GILVANE_VERSION_PATCH > 99
#error another version has the same number
#endif

TEST(Version, isTheSameAsNumbersAsOneNumberAndAsText) {
    EXPECT_EQ(GILVANE_VERSION, ((GILVANE_VERSION_MAJOR * 100) + GILVANE_VERSION_MINOR) * 100 + GILVANE_VERSION_PATCH);
    EXPECT_EQ(GILVANE_VERSION_STRING, std::to_string(GILVANE_VERSION_MAJOR) + '.' +
                                          std::to_string(GILVANE_VERSION_MINOR) + '.' +
                                          std::to_string(GILVANE_VERSION_PATCH));
}
