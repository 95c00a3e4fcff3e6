#include <gilvane/base/gvdumpvalue.h>

#include "writtentext.h"

#include <gtest/gtest.h>

#include <iomanip>
#include <ios>
#include <limits>
#include <sstream>
#include <string>

namespace Gilvane {

namespace {

struct Celsius {
    int degrees;
};

std::ostream& operator<<(std::ostream& stream, const Celsius& temperature) {
    return stream << temperature.degrees << " C";
}

int doubled(int value) { return 2 * value; }

template <typename T>
std::string dumpOf(const T& value) {
    std::ostringstream stream;
    detail::writeDumpValue(stream, value);
    return stream.str();
}

} // namespace

TEST(DumpValue, writesAPointerAsAnAddress) {
    int number = 5;
    EXPECT_EQ(dumpOf(&number), addressText(&number));
    EXPECT_EQ(dumpOf(static_cast<const int*>(&number)), addressText(&number));
    EXPECT_EQ(dumpOf(static_cast<void*>(&number)), addressText(&number));
    EXPECT_EQ(dumpOf(&number).substr(0, 2), "0x");
}

TEST(DumpValue, writesANullPointerAsALoneZero) {
    EXPECT_EQ(dumpOf(static_cast<int*>(nullptr)), "0");
    EXPECT_EQ(dumpOf(static_cast<const char*>(nullptr)), "0");
    EXPECT_EQ(dumpOf(static_cast<volatile int*>(nullptr)), "0");
    EXPECT_EQ(dumpOf(static_cast<int (*)(int)>(nullptr)), "0");
}

TEST(DumpValue, writesAPointerToCharactersAsAnAddress) {
    char text[] = "text";
    EXPECT_EQ(dumpOf(static_cast<char*>(text)), addressText(text));
    EXPECT_EQ(dumpOf(static_cast<const char*>(text)), addressText(text));
    EXPECT_EQ(dumpOf(reinterpret_cast<const unsigned char*>(text)), addressText(text));
}

TEST(DumpValue, writesAPointerToVolatileAsAnAddress) {
    volatile int number = 5;
    EXPECT_EQ(dumpOf(&number), addressText(const_cast<int*>(&number)));
    EXPECT_EQ(dumpOf(static_cast<const volatile int*>(&number)), addressText(const_cast<int*>(&number)));
}

TEST(DumpValue, writesAFunctionPointerAsAnAddress) {
    int (*const function)(int) = &doubled;
    EXPECT_EQ(dumpOf(function), addressText(reinterpret_cast<const void*>(function)));
    EXPECT_EQ(dumpOf(function).substr(0, 2), "0x");
}

TEST(DumpValue, writesAnUnsignedNumberInDecimal) {
    EXPECT_EQ(dumpOf(0U), "0");
    EXPECT_EQ(dumpOf(std::numeric_limits<unsigned int>::max()), "4294967295");
}

TEST(DumpValue, writesABoolAsADigit) {
    EXPECT_EQ(dumpOf(true), "1");
    EXPECT_EQ(dumpOf(false), "0");
}

TEST(DumpValue, writesEverythingElseByItsOwnStreamOperator) {
    EXPECT_EQ(dumpOf(-7), "-7");
    EXPECT_EQ(dumpOf(2.5), "2.5");
    EXPECT_EQ(dumpOf('x'), "x");
    EXPECT_EQ(dumpOf(std::string("two words")), "two words");
    EXPECT_EQ(dumpOf(Celsius{21}), "21 C");
}

TEST(DumpValue, followsTheStreamsFormattingState) {
    std::ostringstream stream;
    stream << std::hex << std::boolalpha;
    detail::writeDumpValue(stream, 255U);
    stream << ' ';
    detail::writeDumpValue(stream, true);
    EXPECT_EQ(stream.str(), "ff true");
}

TEST(DumpValue, isOneInsertion) {
    int number = 5;
    std::ostringstream stream;
    stream << std::setfill('.') << std::setw(6);
    detail::writeDumpValue(stream, 42U);
    stream << std::setw(40) << std::left;
    detail::writeDumpValue(stream, &number);
    const std::string address = addressText(&number);
    EXPECT_EQ(stream.str(), "....42" + address + std::string(40 - address.size(), '.'));
}

TEST(DumpValue, leavesTheStreamsFormattingStateAlone) {
    int number = 5;
    std::ostringstream stream;
    stream.flags(std::ios_base::oct | std::ios_base::showpos | std::ios_base::boolalpha | std::ios_base::left);
    stream.fill('*');
    stream.precision(3);
    const std::ios_base::fmtflags flags = stream.flags();

    detail::writeDumpValue(stream, &number);
    detail::writeDumpValue(stream, &doubled);
    detail::writeDumpValue(stream, 8U);
    detail::writeDumpValue(stream, true);

    EXPECT_EQ(stream.flags(), flags);
    EXPECT_EQ(stream.fill(), '*');
    EXPECT_EQ(stream.precision(), 3);
}

} // namespace Gilvane
