// The copy constructor, and equality of tables.

#include "tablesupport.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <new>
#include <string>
#include <vector>

namespace Gilvane {

namespace {

using Table = GVHashTable<unsigned int, int>;
using PointerTable = GVHashTable<unsigned int, int*>;

/// Counts the living.
struct CountedValue {
    CountedValue() { ++living(); }
    CountedValue(const CountedValue&) { ++living(); }
    CountedValue& operator=(const CountedValue&) = default;
    ~CountedValue() { --living(); }
    static int& living() {
        static int theCount = 0;
        return theCount;
    }
};

/// Equal when the tens are, and counts the comparisons.
struct RoundedValue {
    int number = 0;
    bool operator==(const RoundedValue& other) const {
        ++comparisons();
        return number / 10 == other.number / 10;
    }
    static int& comparisons() {
        static int theCount = 0;
        return theCount;
    }
};

/// Hashes a key to itself and what this function object was told to add.
struct ShiftingHash {
    unsigned int operator()(unsigned int key) const { return key + theShift; }
    unsigned int theShift = 0;
};

using LoggedTable = GVHashTable<unsigned int, int, LoggingHash>;

/// A table with the given keys, each its own value, whose hash function bears a name.
template <typename T>
void fill(T& table, const std::string& owner, const std::vector<unsigned int>& keys) {
    for (const unsigned int key : keys) {
        table.insert(key, static_cast<int>(key));
    }
    GVTestPeer::hashFunction(table).theOwner = owner;
}

} // namespace

TEST(HashTableCopy, holdsTheSameKeysAndValues) {
    Table table;
    insertKeys(table, 0, 100);
    const Table copy(table);
    EXPECT_EQ(copy.getUsedCount(), 100U);
    for (unsigned int key = 0; key < 100; ++key) {
        ASSERT_NE(copy.get(key), nullptr) << key;
        EXPECT_EQ(copy.get(key)->theValue, static_cast<int>(key));
    }
    EXPECT_TRUE(copy == table);
}

TEST(HashTableCopy, ofAnEmptyTableIsANewTable) {
    HookLedger ledger;
    const Table table;
    const Table copy(table);
    EXPECT_EQ(GVTestPeer::slots(copy), GVTestPeer::smallSlots(copy));
    EXPECT_EQ(GVTestPeer::mask(copy), 7U);
    EXPECT_EQ(slotsOf(copy), ". . . . . . . .");
    EXPECT_EQ(GVTestPeer::fillCount(copy), 0U);
    EXPECT_EQ(ledger.allocationCount(), 0U);
}

TEST(HashTableCopy, sharesWhatTheValuesPointTo) {
    int first = 1;
    int second = 2;
    PointerTable table;
    table.insert(1, &first);
    table.insert(2, &second);
    const PointerTable copy(table);
    EXPECT_EQ(copy.get(1)->theValue, &first);
    EXPECT_EQ(copy.get(2)->theValue, &second);
    EXPECT_NE(copy.get(1), table.get(1));
}

TEST(HashTableCopy, livesByItself) {
    Table table;
    insertKeys(table, 1, 3);
    const std::string before = stateOf(table);
    {
        Table copy(table);
        copy.insert(9, 9);
        copy.insert(1, 100);
        copy.remove(2);
        EXPECT_FALSE(copy == table);
    }
    EXPECT_EQ(stateOf(table), before);
}

TEST(HashTableCopy, hasASizeOfItsOwn) {
    Table table;
    insertKeys(table, 1, 3);
    table.resize(100);
    const Table copy(table);
    EXPECT_EQ(GVTestPeer::mask(table), 127U);
    EXPECT_EQ(GVTestPeer::mask(copy), 7U);
    EXPECT_EQ(slotsOf(copy), ". 1 2 3 . . . .");
}

TEST(HashTableCopy, mayVisitItsKeysInAnotherOrder) {
    Table table;
    table.insert(7, 0);
    table.insert(15, 0);
    //  slot                    0 1 2 3  4 5 6 7
    EXPECT_EQ(slotsOf(table), ". . . 15 . . . 7");
    const Table copy(table); // 15 comes first this time, and takes their common home slot
    EXPECT_EQ(slotsOf(copy), ". . . 7 . . . 15");
    EXPECT_EQ(keysOf(table), "15 7");
    EXPECT_EQ(keysOf(copy), "7 15");
    EXPECT_TRUE(copy == table);
}

TEST(HashTableCopy, leavesDeletedSlotsBehind) {
    Table table;
    insertKeys(table, 0, 5);
    table.remove(1);
    table.remove(3);
    const Table copy(table);
    EXPECT_EQ(slotsOf(copy), "0 . 2 . 4 . . .");
    EXPECT_EQ(copy.getUsedCount(), 3U);
    EXPECT_EQ(GVTestPeer::fillCount(copy), 3U);
}

TEST(HashTableCopy, growsStepByStepAsItIsFilled) {
    HookLedger ledger;
    Table table;
    insertKeys(table, 0, 22);
    const std::size_t before = ledger.allocationCount();
    const Table copy(table);
    const std::vector<unsigned int> requests = ledger.requests();
    ASSERT_EQ(requests.size(), before + 2);
    EXPECT_EQ(requests[before], slotArrayBytes<Table>(ledger, 32));
    EXPECT_EQ(requests[before + 1], slotArrayBytes<Table>(ledger, 128));
    EXPECT_EQ(ledger.liveBlocks().size(), 2U) << "one array each";
}

TEST(HashTableCopy, hashesWithTheSourcesFunction) {
    LoggedTable table;
    fill(table, "source", {1, 2});
    LoggingHash::log().clear();
    const LoggedTable copy(table);
    EXPECT_EQ(LoggingHash::log(), LoggedCalls({"source:1", "source:2"}));
}

TEST(HashTableCopy, losesItsGrownArrayWhenAnInsertionThrows) {
    HookLedger ledger;
    {
        Table table;
        insertKeys(table, 0, 22);
        const std::string before = stateOf(table);
        const std::size_t live = ledger.liveBlocks().size();
        ledger.refuseOnce(1); // 32 slots are granted, 128 are not
        expectTableException([&table] { const Table copy(table); }, gvoutofmemory,
                             "Unable to allocate space for new table.");
        const std::vector<HookLedger::Block> blocks = ledger.liveBlocks();
        ASSERT_EQ(blocks.size(), live + 1);
        EXPECT_EQ(blocks.back().bytes, slotArrayBytes<Table>(ledger, 32));
        EXPECT_EQ(stateOf(table), before);
    }
    EXPECT_EQ(ledger.reclaimLiveBlocks(), 1U);
}

TEST(HashTableCopy, destroysItsMembersWhenAnInsertionThrows) {
    HookLedger ledger;
    {
        GVHashTable<unsigned int, CountedValue> table;
        for (unsigned int key = 0; key < 22; ++key) {
            table.insert(key, CountedValue());
        }
        const int living = CountedValue::living();
        ledger.refuseFrom(1);
        EXPECT_THROW((GVHashTable<unsigned int, CountedValue>(table)), std::bad_alloc);
        ledger.refuseNothing();
        EXPECT_EQ(CountedValue::living(), living + 33) << "the values in the lost array alone";
    }
    EXPECT_EQ(ledger.reclaimLiveBlocks(), 1U);
}

TEST(HashTableCopy, losesNothingWhenItsFirstGrowthIsRefused) {
    HookLedger ledger;
    Table table;
    insertKeys(table, 0, 6);
    ledger.refuseOnce(0);
    expectTableException([&table] { const Table copy(table); }, gvoutofmemory,
                         "Unable to allocate space for new table.");
    EXPECT_EQ(ledger.liveBlocks().size(), 1U) << "the source's array";
}

TEST(HashTableEquality, holdsForEmptyTables) {
    const Table one;
    const Table other;
    EXPECT_TRUE(one == other);
    EXPECT_FALSE(one != other);
}

TEST(HashTableEquality, holdsWithinOneTable) {
    Table table;
    insertKeys(table, 0, 10);
    EXPECT_TRUE(table == table);
}

TEST(HashTableEquality, ignoresTheOrderOfInsertion) {
    Table one;
    one.insert(1, 10);
    one.insert(9, 90);
    Table other;
    other.insert(9, 90);
    other.insert(1, 10);
    EXPECT_NE(slotsOf(one), slotsOf(other));
    EXPECT_TRUE(one == other);
    EXPECT_TRUE(other == one);
}

TEST(HashTableEquality, ignoresSizesAndDeletedSlots) {
    Table one;
    insertKeys(one, 1, 3);
    Table other;
    insertKeys(other, 0, 5);
    other.remove(0);
    other.remove(4);
    other.resize(100);
    other.insert(50, 0);
    other.remove(50);
    EXPECT_NE(GVTestPeer::mask(one), GVTestPeer::mask(other));
    EXPECT_NE(GVTestPeer::fillCount(one), GVTestPeer::fillCount(other));
    EXPECT_TRUE(one == other);
    EXPECT_TRUE(other == one);
}

TEST(HashTableEquality, failsForADifferentValue) {
    Table one;
    Table other;
    insertKeys(one, 1, 3);
    insertKeys(other, 1, 3);
    other[3] = 33;
    EXPECT_FALSE(one == other);
    EXPECT_TRUE(one != other);
}

TEST(HashTableEquality, failsForADifferentKey) {
    Table one;
    Table other;
    insertKeys(one, 1, 3);
    insertKeys(other, 1, 2);
    other.insert(4, 3);
    EXPECT_FALSE(one == other);
    EXPECT_FALSE(other == one);
}

TEST(HashTableEquality, comparesPointersAndNotWhatTheyPointTo) {
    int mine = 5;
    int yours = 5;
    PointerTable one;
    PointerTable other;
    one.insert(1, &mine);
    other.insert(1, &yours);
    EXPECT_FALSE(one == other);
    other.insert(1, &mine);
    EXPECT_TRUE(one == other);
}

TEST(HashTableEquality, usesTheValuesOwnComparison) {
    GVHashTable<unsigned int, RoundedValue> one;
    GVHashTable<unsigned int, RoundedValue> other;
    one.insert(1, RoundedValue{21});
    other.insert(1, RoundedValue{28});
    EXPECT_TRUE(one == other);
    other.insert(1, RoundedValue{30});
    EXPECT_FALSE(one == other);
}

TEST(HashTableEquality, walksNothingWhenTheLiveCountsDiffer) {
    GVHashTable<unsigned int, RoundedValue, LoggingHash> one;
    GVHashTable<unsigned int, RoundedValue, LoggingHash> other;
    one.insert(1, RoundedValue{10});
    other.insert(1, RoundedValue{10});
    other.insert(2, RoundedValue{20});
    LoggingHash::log().clear();
    RoundedValue::comparisons() = 0;
    EXPECT_FALSE(one == other);
    EXPECT_FALSE(other == one);
    EXPECT_TRUE(LoggingHash::log().empty());
    EXPECT_EQ(RoundedValue::comparisons(), 0);
}

TEST(HashTableEquality, looksUpWithItsOwnHashAndGetsWithTheOthers) {
    LoggedTable one;
    LoggedTable other;
    fill(one, "one", {1, 2});
    fill(other, "other", {2, 1});
    LoggingHash::log().clear();
    EXPECT_TRUE(one == other);
    EXPECT_EQ(LoggingHash::log(), LoggedCalls({"one:1", "other:1", "one:2", "other:2"}));
}

TEST(HashTableEquality, failsForAKeyThatTheOthersOwnHashFunctionDoesNotFind) {
    GVHashTable<unsigned int, int, ShiftingHash> one;
    GVHashTable<unsigned int, int, ShiftingHash> other;
    insertKeys(one, 1, 1);
    insertKeys(other, 1, 1);
    EXPECT_TRUE(one == other);
    GVTestPeer::hashFunction(other).theShift = 3; // looks for key 1 in slot 4 from now on
    ASSERT_NE(other.lookup(1, 1)->theState, gvemptyentry) << "the hash function of the one finds it";
    EXPECT_FALSE(one == other);
    EXPECT_FALSE(other == one);
}

TEST(HashTableEquality, stopsAtTheFirstAbsentKey) {
    LoggedTable one;
    LoggedTable other;
    fill(one, "one", {1, 2, 3});
    fill(other, "other", {1, 5, 3});
    LoggingHash::log().clear();
    EXPECT_FALSE(one == other);
    EXPECT_EQ(LoggingHash::log(), LoggedCalls({"one:1", "other:1", "one:2"}));
}

TEST(HashTableEquality, stopsAtTheFirstDifferentValue) {
    LoggedTable one;
    LoggedTable other;
    fill(one, "one", {1, 2, 3});
    fill(other, "other", {1, 2, 3});
    other.get(1)->theValue = 100;
    LoggingHash::log().clear();
    EXPECT_FALSE(one == other);
    EXPECT_EQ(LoggingHash::log(), LoggedCalls({"one:1", "other:1"}));
}

TEST(HashTableEquality, countsADeletedKeyAsAbsent) {
    Table one;
    Table other;
    insertKeys(one, 1, 2);
    insertKeys(other, 1, 3);
    other.remove(2); // its slot still holds key, value and hash
    EXPECT_EQ(one.getUsedCount(), other.getUsedCount());
    EXPECT_FALSE(one == other);
}

TEST(HashTableEquality, missesAKeyBehindADeletedSlot) {
    Table one;
    one.insert(0, 0);
    one.insert(16, 16);
    Table other;
    insertKeys(other, 0, 1);
    other.insert(8, 8);
    other.insert(16, 16);
    other.remove(8);
    //  slot                    0 1 2 3 4 5 6  7
    EXPECT_EQ(slotsOf(other), "0 x . . . . 16 .");
    EXPECT_FALSE(one == other);
    EXPECT_TRUE(other == one) << "each key of the left table is searched in the right one";
    const Table& itself = other;
    EXPECT_FALSE(other == itself) << "a table with a missed key differs from itself";
}

TEST(HashTableEquality, isAskedOfConstantTables) {
    const Table one;
    Table filled;
    insertKeys(filled, 1, 1);
    const Table& other = filled;
    EXPECT_FALSE(one == other);
    EXPECT_TRUE(one != other);
}

} // namespace Gilvane
