// When an insertion grows the table, and to what size.

#include "tablesupport.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <utility>
#include <vector>

namespace Gilvane {

namespace {

using Table = GVHashTable<unsigned int, int>;

constexpr unsigned int crowdedSize = 131072;
constexpr unsigned int crowdedFill = 87382; // the first fill count that makes a table of that size grow

/// Puts that many live keys, from 0 up, and enough deleted slots after them into a table that its next insertion makes
/// it grow.
void crowd(Table& table, unsigned int live) {
    table.resize(crowdedSize - 1);
    for (unsigned int key = 0; key < live; ++key) {
        table.insert_helper(key, static_cast<int>(key));
    }
    for (unsigned int slot = live; slot < crowdedFill; ++slot) {
        GVTestPeer::slots(table)[slot].theState = gvdeletedentry;
    }
    GVTestPeer::fillCount(table) = crowdedFill;
}

/// Slots that a crowded table with so many live keys has after it grew.
unsigned int sizeGrownTo(unsigned int live) {
    Table table;
    crowd(table, live);
    EXPECT_EQ(table.insert(0, 1), 2); // a replacement
    EXPECT_EQ(table.getUsedCount(), live);
    EXPECT_EQ(GVTestPeer::fillCount(table), live);
    return GVTestPeer::mask(table) + 1;
}

/// Slots that a table without a slot array, but with so many live keys on its books, makes before it stores.
unsigned int sizeMadeBeforeStoring(unsigned int live) {
    Table table;
    GVTestPeer::slots(table) = nullptr;
    GVTestPeer::usedCount(table) = live;
    EXPECT_EQ(table.insert(5, 50), 2);
    EXPECT_EQ(table.get(5)->theValue, 50);
    return GVTestPeer::mask(table) + 1;
}

} // namespace

TEST(HashTableGrowth, needsNoHeapForFiveKeys) {
    HookLedger ledger;
    Table table;
    insertKeys(table, 1, 5);
    //  slot                    0 1 2 3 4 5 6 7
    EXPECT_EQ(slotsOf(table), ". 1 2 3 4 5 . .");
    EXPECT_EQ(GVTestPeer::slots(table), GVTestPeer::smallSlots(table));
    EXPECT_EQ(ledger.allocationCount(), 0U);
}

TEST(HashTableGrowth, makesThirtyTwoSlotsAtTheSixthKey) {
    HookLedger ledger;
    Table table;
    insertKeys(table, 1, 5);
    EXPECT_EQ(table.insert(6, 6), 2);
    EXPECT_EQ(GVTestPeer::mask(table), 31U);
    EXPECT_NE(GVTestPeer::slots(table), GVTestPeer::smallSlots(table));
    EXPECT_EQ(slotsOf(table), ". 1 2 3 4 5 6 . . . . . . . . . . . . . . . . . . . . . . . . .");
    EXPECT_EQ(table.getUsedCount(), 6U);
    EXPECT_EQ(GVTestPeer::fillCount(table), 6U);
    ASSERT_EQ(ledger.allocationCount(), 1U);
    const unsigned int request = ledger.requests().front();
    EXPECT_EQ(request, slotArrayBytes<Table>(ledger, 32));
}

TEST(HashTableGrowth, happensExactlyWhenTwoThirdsOfTheSlotsAreFilled) {
    HookLedger ledger;
    Table table;
    std::vector<std::pair<unsigned int, unsigned int>> growths; // live keys, slots they grew the table to
    for (unsigned int key = 0; key < 90000; ++key) {
        const unsigned int before = GVTestPeer::mask(table);
        table.insert(key, 0);
        if (GVTestPeer::mask(table) != before) {
            growths.emplace_back(table.getUsedCount(), GVTestPeer::mask(table) + 1);
        }
        ASSERT_LT(GVTestPeer::fillCount(table) * 3, (GVTestPeer::mask(table) + 1) * 2);
    }
    const std::vector<std::pair<unsigned int, unsigned int>> expected{
        {6, 32},      {22, 128},     {86, 512},       {342, 2048},
        {1366, 8192}, {5462, 32768}, {21846, 131072}, {87382, 262144}, // the last one twofold: 174764 asked for
    };
    EXPECT_EQ(growths, expected);
    EXPECT_EQ(ledger.liveBlocks().size(), 1U) << "each growth gives the former array back";
    EXPECT_EQ(table.getUsedCount(), 90000U);
    EXPECT_NE(table.get(89999), nullptr);
}

TEST(HashTableGrowth, happensAtOneFilledSlotOverTwoThirdsWhereThatIsNoWholeNumber) {
    Table table;
    ASSERT_EQ(table.resize(8), 2);
    ASSERT_EQ(GVTestPeer::mask(table), 15U);
    insertKeys(table, 0, 10); // 10 * 3 < 16 * 2
    EXPECT_EQ(GVTestPeer::mask(table), 15U);
    table.insert(10, 10); // 11 * 3 is one above
    EXPECT_EQ(GVTestPeer::mask(table), 63U);
}

TEST(HashTableGrowth, asksForFourTimesTheLiveKeys) {
    EXPECT_EQ(sizeGrownTo(3), 16U);         // 12
    EXPECT_EQ(sizeGrownTo(4), 32U);         // 16: the new size lies above it
    EXPECT_EQ(sizeGrownTo(8191), 32768U);   // 32764
    EXPECT_EQ(sizeGrownTo(8192), 65536U);   // 32768
    EXPECT_EQ(sizeGrownTo(29999), 131072U); // 119996
}

TEST(HashTableGrowth, asksForTwiceTheLiveKeysFromThirtyThousandOn) {
    EXPECT_EQ(sizeGrownTo(30000), 65536U);  // 60000
    EXPECT_EQ(sizeGrownTo(32767), 65536U);  // 65534
    EXPECT_EQ(sizeGrownTo(32768), 131072U); // 65536
    EXPECT_EQ(sizeGrownTo(65535), 131072U); // 131070
    EXPECT_EQ(sizeGrownTo(65536), 262144U); // 131072
}

TEST(HashTableGrowth, countsTheKeyJustStored) {
    Table atTheLimit;
    crowd(atTheLimit, 29999);
    atTheLimit.insert(29999, 1); // takes the deleted slot at its home: now 30000 live keys
    EXPECT_EQ(atTheLimit.getUsedCount(), 30000U);
    EXPECT_EQ(GVTestPeer::mask(atTheLimit) + 1, 65536U);
}

TEST(HashTableGrowth, keepsEveryKeyAndValue) {
    Table table;
    for (unsigned int key = 0; key < 2000; ++key) {
        table.insert(key * 2654435761U, static_cast<int>(key));
    }
    EXPECT_EQ(table.getUsedCount(), 2000U);
    EXPECT_EQ(GVTestPeer::fillCount(table), 2000U);
    for (unsigned int key = 0; key < 2000; ++key) {
        const Table::Entry* const entry = table.get(key * 2654435761U);
        ASSERT_NE(entry, nullptr) << key;
        EXPECT_EQ(entry->theValue, static_cast<int>(key));
    }
}

TEST(HashTableGrowth, isCheckedAfterAMereReplacement) {
    Table table;
    for (unsigned int key = 0; key < 6; ++key) {
        table.insert_helper(key, 0); // does not grow
    }
    EXPECT_EQ(GVTestPeer::mask(table), 7U);
    EXPECT_EQ(table.insert(3, 33), 2);
    EXPECT_EQ(GVTestPeer::mask(table), 31U);
    EXPECT_EQ(table.getUsedCount(), 6U);
    EXPECT_EQ(table.get(3)->theValue, 33);
}

TEST(HashTableGrowth, countsDeletedSlotsAsFilled) {
    Table table;
    insertKeys(table, 0, 5);
    table.remove(1);
    table.remove(2);
    //  slot                    0 1 2 3 4 5 6 7
    EXPECT_EQ(slotsOf(table), "0 x x 3 4 . . .");
    table.insert(6, 6); // the sixth slot that is filled: 4 live keys ask for 16
    EXPECT_EQ(GVTestPeer::mask(table), 31U);
    EXPECT_EQ(table.getUsedCount(), 4U);
    EXPECT_EQ(GVTestPeer::fillCount(table), 4U);
}

TEST(HashTableGrowth, aReusedSlotDoesNotBringItCloser) {
    HookLedger ledger;
    Table table;
    insertKeys(table, 0, 5);
    for (int round = 0; round < 100; ++round) {
        table.remove(2);
        table.insert(2, round);
    }
    EXPECT_EQ(slotsOf(table), "0 1 2 3 4 . . .");
    EXPECT_EQ(GVTestPeer::fillCount(table), 5U);
    EXPECT_EQ(ledger.allocationCount(), 0U);
}

TEST(HashTableGrowth, shrinksATableFullOfDeletedSlots) {
    HookLedger ledger;
    Table table;
    insertKeys(table, 0, 22);
    EXPECT_EQ(GVTestPeer::mask(table), 127U);
    for (unsigned int key = 0; key < 22; ++key) {
        table.remove(key);
    }
    for (unsigned int key = 22; key < 85; ++key) {
        table.insert(key, 0);
        table.remove(key);
    }
    EXPECT_EQ(GVTestPeer::mask(table), 127U);
    EXPECT_EQ(GVTestPeer::fillCount(table), 85U);
    EXPECT_EQ(table.insert(85, 850), 2); // the 86th filled slot: one live key asks for 4
    //  slot                    0 1 2 3 4 5  6 7
    EXPECT_EQ(slotsOf(table), ". . . . . 85 . .");
    EXPECT_EQ(GVTestPeer::slots(table), GVTestPeer::smallSlots(table));
    EXPECT_EQ(GVTestPeer::fillCount(table), 1U);
    EXPECT_TRUE(ledger.liveBlocks().empty());
}

TEST(HashTableGrowth, givesATableWithoutASlotArrayOneBeforeStoring) {
    EXPECT_EQ(sizeMadeBeforeStoring(0), 8U);
    EXPECT_EQ(sizeMadeBeforeStoring(8), 64U);         // 32
    EXPECT_EQ(sizeMadeBeforeStoring(29999), 131072U); // 119996
    EXPECT_EQ(sizeMadeBeforeStoring(30000), 65536U);  // 60000
}

TEST(HashTableGrowth, keepsTheNewKeyWhenItsMemoryIsRefused) {
    HookLedger ledger;
    Table table;
    insertKeys(table, 0, 5);
    ledger.refuseOnce(0);
    expectTableException([&table] { table.insert(5, 50); }, gvoutofmemory, "Unable to allocate space for new table.");
    EXPECT_EQ(slotsOf(table), "0 1 2 3 4 5 . .");
    EXPECT_EQ(table.get(5)->theValue, 50);
    EXPECT_EQ(table.getUsedCount(), 6U);
    EXPECT_EQ(GVTestPeer::fillCount(table), 6U);
    EXPECT_EQ(GVTestPeer::slots(table), GVTestPeer::smallSlots(table));
}

TEST(HashTableGrowth, isMadeUpForByTheNextInsertion) {
    HookLedger ledger;
    Table table;
    insertKeys(table, 0, 5);
    ledger.refuseOnce(0);
    expectTableException([&table] { table.insert(5, 50); }, gvoutofmemory, "Unable to allocate space for new table.");
    EXPECT_EQ(table.insert(5, 51), 2);
    EXPECT_EQ(GVTestPeer::mask(table), 31U);
    EXPECT_EQ(table.getUsedCount(), 6U);
    EXPECT_EQ(table.get(5)->theValue, 51);
}

TEST(HashTableGrowth, survivesARefusalAtEveryAllocation) {
    HookLedger ledger;
    std::size_t refused = 0;
    const auto completesWithAllocationRefused = [&ledger](std::size_t allocationsBefore) {
        Table table;
        ledger.refuseOnce(allocationsBefore);
        bool complete = true;
        for (unsigned int key = 0; key < 100; ++key) {
            try {
                table.insert(key, static_cast<int>(key));
            } catch (const GVException& exception) {
                EXPECT_EQ(exception.getKind(), gvoutofmemory);
                complete = false;
            }
            EXPECT_NE(table.get(key), nullptr) << key;
        }
        EXPECT_EQ(table.getUsedCount(), 100U);
        ledger.refuseNothing();
        return complete;
    };
    while (!completesWithAllocationRefused(refused)) {
        ++refused;
    }
    EXPECT_GT(refused, 0U);
    EXPECT_EQ(ledger.refusedCount(), refused);
    EXPECT_TRUE(ledger.liveBlocks().empty());
}

} // namespace Gilvane
