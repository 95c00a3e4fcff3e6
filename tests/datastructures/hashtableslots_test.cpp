// A look at a table's slots: how many there are, what each holds, and how many a search looks at.

#include "tablesupport.h"

#include <gtest/gtest.h>

namespace Gilvane {

namespace {

using Table = GVHashTable<unsigned int, int>;

/// Occupies every slot of a small table with a key of its own, but for one slot, which gets this key.
void fillAround(Table& table, unsigned int slot, unsigned int key) {
    for (unsigned int other = 0; other < table.getSlotCount(); ++other) {
        Table::Entry& entry = GVTestPeer::slots(table)[other];
        entry.theKey = other == slot ? key : 100 + other;
        entry.theHash = entry.theKey;
        entry.theState = gvoccupiedentry;
    }
}

} // namespace

TEST(HashTableSlots, areEightInTheTableItselfAtFirst) {
    const Table table;
    EXPECT_EQ(table.getSlotCount(), 8U);
    EXPECT_EQ(table.getHeapEntryCount(), 0U);
}

TEST(HashTableSlots, onTheHeapComeWithAnEndSlot) {
    Table table;
    insertKeys(table, 0, 5);
    EXPECT_EQ(table.getSlotCount(), 8U);
    EXPECT_EQ(table.getHeapEntryCount(), 0U);
    insertKeys(table, 5, 1);
    EXPECT_EQ(table.getSlotCount(), 32U);
    EXPECT_EQ(table.getHeapEntryCount(), 33U);
    table.resize(99);
    EXPECT_EQ(table.getSlotCount(), 128U);
    EXPECT_EQ(table.getHeapEntryCount(), 129U);
}

TEST(HashTableSlots, lieInTheTableItselfAgainAfterTheHeapArrayIsGone) {
    Table resized;
    resized.resize(15);
    resized.resize(7);
    EXPECT_EQ(resized.getSlotCount(), 8U);
    EXPECT_EQ(resized.getHeapEntryCount(), 0U);
    Table cleared;
    insertKeys(cleared, 0, 6);
    cleared.clear();
    EXPECT_EQ(cleared.getSlotCount(), 8U);
    EXPECT_EQ(cleared.getHeapEntryCount(), 0U);
}

TEST(HashTableSlots, areNotOnTheHeapWhereThereIsNoArray) {
    Table table;
    GVTestPeer::mask(table) = 31;
    GVTestPeer::slots(table) = nullptr;
    EXPECT_EQ(table.getHeapEntryCount(), 0U);
}

TEST(HashTableSlots, giveTheirEntriesWhateverTheState) {
    Table table;
    insertKeys(table, 3, 2);
    table.remove(3);
    //  slot                    0 1 2 3 4 5 6 7
    EXPECT_EQ(slotsOf(table), ". . . x 4 . . .");
    EXPECT_EQ(table.getEntry(2).theState, gvemptyentry);
    EXPECT_EQ(table.getEntry(3).theState, gvdeletedentry);
    EXPECT_EQ(table.getEntry(3).theKey, 3U);
    EXPECT_EQ(table.getEntry(4).theState, gvoccupiedentry);
    EXPECT_EQ(&table.getEntry(4), table.get(4));
    EXPECT_EQ(table.getEntry(7).theState, gvemptyentry);
}

TEST(HashTableProbeCount, isOneForAKeyInItsHomeSlot) {
    Table table;
    insertKeys(table, 2, 3);
    //  slot                    0 1 2 3 4 5 6 7
    EXPECT_EQ(slotsOf(table), ". . 2 3 4 . . .");
    EXPECT_EQ(table.countProbes(2), 1U);
    EXPECT_EQ(table.countProbes(3), 1U);
    EXPECT_EQ(table.countProbes(4), 1U);
}

TEST(HashTableProbeCount, countsTheSlotsOnTheWay) {
    Table table;
    for (const unsigned int key : {0U, 8U, 16U}) {
        table.insert(key, 0);
    }
    //  slot                    0 1 2 3 4 5 6  7
    EXPECT_EQ(slotsOf(table), "0 8 . . . . 16 .");
    EXPECT_EQ(table.countProbes(0), 1U);
    EXPECT_EQ(table.countProbes(1), 2U);
    EXPECT_EQ(table.countProbes(6), 3U);
}

TEST(HashTableProbeCount, countsADeletedHomeSlot) {
    Table table;
    table.insert(0, 0);
    table.insert(8, 0);
    table.remove(0);
    //  slot                    0 1 2 3 4 5 6 7
    EXPECT_EQ(slotsOf(table), "x 8 . . . . . .");
    EXPECT_EQ(table.countProbes(1), 2U);
}

TEST(HashTableProbeCount, isZeroForAKeyBehindADeletedSlot) {
    Table table;
    for (const unsigned int key : {0U, 8U, 16U}) {
        table.insert(key, 0);
    }
    table.remove(8);
    //  slot                    0 1 2 3 4 5 6  7
    EXPECT_EQ(slotsOf(table), "0 x . . . . 16 .");
    EXPECT_EQ(table.countProbes(6), 0U);
}

TEST(HashTableProbeCount, isZeroForTheSecondEntryOfAKey) {
    Table table;
    for (const unsigned int key : {0U, 8U, 16U}) {
        table.insert(key, 0);
    }
    table.remove(8);
    table.insert(16, 0);
    //  slot                    0 1  2 3 4 5 6  7
    EXPECT_EQ(slotsOf(table), "0 16 . . . . 16 .");
    EXPECT_EQ(table.countProbes(1), 2U);
    EXPECT_EQ(table.countProbes(6), 0U);
}

TEST(HashTableProbeCount, isTheNumberOfSlotsAfterAFullWalk) {
    //  hash 0 at 8 slots: 0 1 6 7 4 5 2 3
    Table table;
    fillAround(table, 3, 0);
    EXPECT_EQ(slotsOf(table), "100 101 102 0 104 105 106 107");
    EXPECT_EQ(table.countProbes(3), 8U);
}

TEST(HashTableProbeCount, countsASlotEachTimeThatTheSearchLooksAtIt) {
    //  1000000007 at 8 slots: 7 3 0 3 5 3 5 2 3 0 1 6
    Table table;
    fillAround(table, 6, 1000000007);
    EXPECT_EQ(table.countProbes(6), 12U);
}

} // namespace Gilvane
