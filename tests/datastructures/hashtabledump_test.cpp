// The text that a table and its entries write.

#include "tablesupport.h"
#include "writtentext.h"

#include <gtest/gtest.h>

#include <iomanip>
#include <ios>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

namespace Gilvane {

namespace {

using Table = GVHashTable<unsigned int, unsigned int>;

template <typename AnyTable>
std::string dumpOf(const AnyTable& table) {
    std::ostringstream stream;
    table.WriteTable(stream);
    return stream.str();
}

template <typename K, typename V>
std::string dumpOf(const K& key, const V& value) {
    GVHashTableEntry<K, V> entry;
    entry.theKey = key;
    entry.theValue = value;
    std::ostringstream stream;
    entry.WriteEntry(stream);
    return stream.str();
}

/// The text of an entry around the texts of its key and value.
std::string entryText(const std::string& key, const std::string& value) {
    return "\n\t<GVHashTableEntry>\n\t\t<K>" + key + "</K>\n\t\t<V>" + value + "</V>\n\t</GVHashTableEntry>\n";
}

struct Point {
    int x;
    int y;
};
std::ostream& operator<<(std::ostream& stream, const Point& point) { return stream << point.x << '|' << point.y; }

void aFunction() {}

} // namespace

TEST(HashTableDump, ofAnEmptyTableIsTwoTagsWithoutANewline) {
    EXPECT_EQ(dumpOf(Table()), "<GVHashTable></GVHashTable>");
}

TEST(HashTableDump, separatesTwoEntriesByAnEmptyLine) {
    Table table;
    table.insert(0, 77824);
    table.insert(1, 77856);
    EXPECT_EQ(dumpOf(table), "<GVHashTable>\n"
                             "\t<GVHashTableEntry>\n"
                             "\t\t<K>0</K>\n"
                             "\t\t<V>77824</V>\n"
                             "\t</GVHashTableEntry>\n"
                             "\n"
                             "\t<GVHashTableEntry>\n"
                             "\t\t<K>1</K>\n"
                             "\t\t<V>77856</V>\n"
                             "\t</GVHashTableEntry>\n"
                             "</GVHashTable>");
}

TEST(HashTableDump, writesPointersAsAddresses) {
    GVHashTable<unsigned int, GVMemoryPoolObject*> table;
    table.insert(5, reinterpret_cast<GVMemoryPoolObject*>(0x13020));
    table.insert(6, nullptr);
    EXPECT_EQ(dumpOf(table), "<GVHashTable>" + entryText("5", "0x13020") + entryText("6", "0") + "</GVHashTable>");
}

TEST(HashTableDump, followsTheOrderOfTheSlots) {
    Table table;
    for (const unsigned int key : {9U, 1U, 3U, 4U}) {
        table.insert(key, key);
    }
    table.remove(3);
    //  slot                    0 1 2 3 4 5 6 7
    EXPECT_EQ(slotsOf(table), ". 9 . x 4 . . 1");
    EXPECT_EQ(dumpOf(table),
              "<GVHashTable>" + entryText("9", "9") + entryText("4", "4") + entryText("1", "1") + "</GVHashTable>");
}

TEST(HashTableDump, isMadeOfOneInsertionForEachPiece) {
    Table table;
    table.insert(3, 30);
    const std::vector<std::string> expected{
        "<GVHashTable>",
        "\n",
        "\t<GVHashTableEntry>\n",
        "\t\t<K>",
        "3",
        "</K>\n",
        "\t\t<V>",
        "30",
        "</V>\n",
        "\t</GVHashTableEntry>\n",
        "</GVHashTable>",
    };
    EXPECT_EQ(insertionsOf([&table](std::ostream& stream) { table.WriteTable(stream); }), expected);
}

TEST(HashTableDump, obeysTheStreamsFormattingAndLeavesItAlone) {
    Table table;
    table.insert(3, 255);
    GVHashTable<unsigned int, const int*> pointers;
    pointers.insert(3, nullptr);
    std::ostringstream stream;
    stream << std::hex << std::showbase << std::uppercase << std::setfill('*') << std::setprecision(3);
    const std::ios_base::fmtflags flags = stream.flags();
    table.WriteTable(stream);
    EXPECT_EQ(stream.str(), "<GVHashTable>" + entryText("0X3", "0XFF") + "</GVHashTable>");
    pointers.WriteTable(stream);
    EXPECT_EQ(stream.flags(), flags);
    EXPECT_EQ(stream.fill(), '*');
    EXPECT_EQ(stream.precision(), 3);
}

TEST(HashTableDump, writesDecimalNumbersAfterAPointer) {
    GVHashTable<const int*, unsigned int> table;
    const int target = 0;
    table.insert(&target, 255);
    EXPECT_EQ(dumpOf(table), "<GVHashTable>" + entryText(addressText(&target), "255") + "</GVHashTable>");
}

TEST(HashTableDump, returnsTheStream) {
    Table table;
    std::ostringstream stream;
    EXPECT_EQ(&table.WriteTable(stream), &stream);
    table.insert(1, 1);
    EXPECT_EQ(&table.get(1)->WriteEntry(stream), &stream);
}

TEST(HashTableDump, writesAnEntryByItself) {
    Table table;
    table.insert(4294967295U, 7);
    std::ostringstream stream;
    table.get(4294967295U)->WriteEntry(stream);
    EXPECT_EQ(stream.str(), "\n\t<GVHashTableEntry>\n\t\t<K>4294967295</K>\n\t\t<V>7</V>\n\t</GVHashTableEntry>\n");
}

TEST(HashTableDump, writesPointersToTextAsAddresses) {
    const char text[] = "text";
    char letter = 'x';
    volatile int changing = 0;
    EXPECT_EQ((dumpOf<unsigned int, const char*>(1, text)), entryText("1", addressText(text)));
    EXPECT_EQ((dumpOf<unsigned int, char*>(1, &letter)), entryText("1", addressText(&letter)));
    EXPECT_EQ((dumpOf<unsigned int, volatile int*>(1, &changing)),
              entryText("1", addressText(const_cast<const int*>(&changing))));
    EXPECT_EQ((dumpOf<unsigned int, void (*)()>(1, &aFunction)),
              entryText("1", addressText(reinterpret_cast<const void*>(&aFunction))));
}

TEST(HashTableDump, writesOtherTypesByTheirOwnOperator) {
    EXPECT_EQ((dumpOf<std::string, int>("a<b", -5)), entryText("a<b", "-5")); // nothing is escaped
    EXPECT_EQ((dumpOf<Point, char>(Point{3, 4}, 'z')), entryText("3|4", "z"));
    EXPECT_EQ((dumpOf<unsigned short, double>(65535, 0.5)), entryText("65535", "0.5"));
    EXPECT_EQ((dumpOf<bool, unsigned long long>(true, 18446744073709551615ULL)),
              entryText("1", "18446744073709551615"));
}

TEST(HashTableDump, writesFlagsAsTheCallerLikesThem) {
    GVHashTable<unsigned int, bool> table;
    table.insert(1, true);
    std::ostringstream stream;
    stream << std::boolalpha;
    table.WriteTable(stream);
    EXPECT_EQ(stream.str(), "<GVHashTable>" + entryText("1", "true") + "</GVHashTable>");
}

TEST(HashTableDump, leavesTheTableAlone) {
    Table table;
    insertKeys(table, 1, 5);
    const std::string before = stateOf(table);
    dumpOf(table);
    EXPECT_EQ(stateOf(table), before);
}

} // namespace Gilvane
