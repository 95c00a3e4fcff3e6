// The hash that a table uses when it is given no function of its own.

#include <gilvane/datastructures/gvhashtable.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <limits>
#include <string>

namespace Gilvane {

namespace {

template <typename K>
unsigned int hashOf(const K& key) {
    const GVGenericHashFunction<K> function;
    return function(key);
}

/// The low and the high half of 64 bits, combined by exclusive or.
unsigned int folded(std::uint64_t bits) {
    return static_cast<unsigned int>(bits % 4294967296U) ^ static_cast<unsigned int>(bits / 4294967296U);
}

enum Colour : int { red = 1, missing = -3 };
enum class Wide : std::uint64_t { value = 0x500000007U };
enum class Tiny : unsigned char { value = 200 };
enum class Signed : signed char { value = -2 };

} // namespace

TEST(GenericHashFunction, leavesAnUnsignedIntAsItIs) {
    for (const unsigned int key : {0U, 1U, 7U, 2147483648U, 4294967295U}) {
        EXPECT_EQ(hashOf(key), key);
    }
}

TEST(GenericHashFunction, leavesSmallPositiveIntegersAsTheyAre) {
    EXPECT_EQ(hashOf(5), 5U);
    EXPECT_EQ(hashOf(short{6}), 6U);
    EXPECT_EQ(hashOf(static_cast<unsigned char>(200)), 200U);
    EXPECT_EQ(hashOf(static_cast<unsigned short>(65535)), 65535U);
    EXPECT_EQ(hashOf(7LL), 7U);
    EXPECT_EQ(hashOf(8UL), 8U);
    EXPECT_EQ(hashOf('a'), 97U);
    EXPECT_EQ(hashOf(true), 1U);
    EXPECT_EQ(hashOf(false), 0U);
}

TEST(GenericHashFunction, extendsNegativeIntegersWithTheirSignAndFoldsThem) {
    EXPECT_EQ(hashOf(-1), 0U); // all ones in both halves
    EXPECT_EQ(hashOf(-2), 1U);
    EXPECT_EQ(hashOf(static_cast<signed char>(-5)), 4U);
    EXPECT_EQ(hashOf(static_cast<short>(-300)), 299U);
    EXPECT_EQ(hashOf(-4LL), 3U);
    EXPECT_EQ(hashOf(std::numeric_limits<int>::min()), 2147483647U);
}

TEST(GenericHashFunction, foldsBothHalvesOfWideIntegers) {
    EXPECT_EQ(hashOf(std::uint64_t{0x0000000100000002U}), 3U);
    EXPECT_EQ(hashOf(std::uint64_t{0xdeadbeef00000000U}), 0xdeadbeefU);
    EXPECT_EQ(hashOf(std::uint64_t{0xffffffffffffffffU}), 0U);
    EXPECT_EQ(hashOf(std::int64_t{0x1234567812345678}), 0U);
    EXPECT_EQ(hashOf(std::numeric_limits<std::int64_t>::min()), 0x80000000U);
}

TEST(GenericHashFunction, hashesEnumerationsAsIntegers) {
    EXPECT_EQ(hashOf(red), 1U);
    EXPECT_EQ(hashOf(missing), 2U);
    EXPECT_EQ(hashOf(Wide::value), 2U);
    EXPECT_EQ(hashOf(Tiny::value), 200U);
    EXPECT_EQ(hashOf(Signed::value), 1U);
}

TEST(GenericHashFunction, foldsTheStandardHashOfPointers) {
    int target = 0;
    int* const pointer = &target;
    EXPECT_EQ(hashOf<int*>(pointer), folded(std::hash<int*>{}(pointer)));
    EXPECT_EQ(hashOf<const int*>(pointer), folded(std::hash<const int*>{}(pointer)));
    EXPECT_EQ(hashOf<int*>(nullptr), folded(std::hash<int*>{}(nullptr)));
}

TEST(GenericHashFunction, foldsTheStandardHashOfOtherTypes) {
    EXPECT_EQ(hashOf(std::string("key")), folded(std::hash<std::string>{}("key")));
    EXPECT_EQ(hashOf(2.5), folded(std::hash<double>{}(2.5)));
    EXPECT_EQ(hashOf(2.5F), folded(std::hash<float>{}(2.5F)));
}

TEST(GenericHashFunction, servesATableOfTexts) {
    GVHashTable<std::string, int> table;
    for (int number = 0; number < 100; ++number) {
        table.insert("key " + std::to_string(number), number);
    }
    EXPECT_EQ(table.getUsedCount(), 100U);
    for (int number = 0; number < 100; ++number) {
        const auto* const entry = table.get("key " + std::to_string(number));
        ASSERT_NE(entry, nullptr) << number;
        EXPECT_EQ(entry->theValue, number);
    }
    EXPECT_EQ(table.get("key 100"), nullptr);
}

} // namespace Gilvane
