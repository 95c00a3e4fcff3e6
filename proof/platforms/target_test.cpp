// Says what the target is that it was compiled for, and that the suite's run can fail there: with GILVANE_PLANTED_FAULT=1
// its expectation is broken, and with 2 the program ends before it has run all of its tests.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>

namespace {

int plantedFault() {
    const char* const text = std::getenv("GILVANE_PLANTED_FAULT");
    return text == nullptr ? 0 : std::atoi(text);
}

// What the machine does, not what the compiler says.
const char* byteOrder() {
    const volatile unsigned int number = 1;
    return *reinterpret_cast<const volatile unsigned char*>(&number) == 1 ? "little-endian" : "big-endian";
}

#if defined(_LIBCPP_VERSION)
constexpr const char* library = "libc++";
#else
constexpr const char* library = "libstdc++";
#endif

} // namespace

TEST(Target, doesArithmeticAsTheTestsExpect) {
    const volatile int two = 2;
    EXPECT_EQ(two + two, plantedFault() == 1 ? 5 : 4);
}

TEST(Target, saysWhatItIs) {
    if (plantedFault() == 2) {
        std::_Exit(0);
    }
    std::printf("target: %u bits, %s, C++ %ld, %s\n", static_cast<unsigned int>(8 * sizeof(void*)), byteOrder(),
                __cplusplus, library);
}
