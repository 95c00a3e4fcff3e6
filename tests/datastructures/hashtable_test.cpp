// Storing, finding, removing and forgetting keys in a table that does not grow; layout and ownership.

#include "tablesupport.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <type_traits>
#include <vector>

namespace Gilvane {

namespace {

using Table = GVHashTable<unsigned int, int>;

/// Equal by its number alone; the note tells which of two equal keys is stored.
struct NotedKey {
    unsigned int number;
    int note;
    bool operator==(const NotedKey& other) const { return number == other.number; }
};
struct NotedKeyHash {
    unsigned int operator()(const NotedKey& key) const { return key.number; }
};

struct UnequalKey {
    unsigned int number;
    bool operator==(const UnequalKey&) const { return false; }
};
struct UnequalKeyHash {
    unsigned int operator()(const UnequalKey& key) const { return key.number; }
};

/// A pointed-to object that counts its ends.
struct Mortal {
    explicit Mortal(int& deaths) : theDeaths(deaths) {}
    Mortal(const Mortal&) = delete;
    Mortal& operator=(const Mortal&) = delete;
    ~Mortal() { ++theDeaths; }
    int& theDeaths;
};

/// Throws an int when it is told to refuse and then overwritten.
struct Unforgettable {
    static bool& refuses() {
        static bool theRefusal = false;
        return theRefusal;
    }
    Unforgettable() = default;
    Unforgettable(const Unforgettable&) = default;
    Unforgettable& operator=(const Unforgettable&) {
        if (refuses()) {
            throw 0;
        }
        return *this;
    }
};

/// A key that counts how often it is compared.
struct ComparedKey {
    static int& comparisons() {
        static int theCount = 0;
        return theCount;
    }
    bool operator==(const ComparedKey& other) const {
        ++comparisons();
        return number == other.number;
    }
    unsigned int number;
};
struct ComparedKeyHash {
    unsigned int operator()(const ComparedKey& key) const { return key.number; }
};

/// Hooks that write down, at each release, how many keys a table says it has.
struct CountsAtReleases {
    static const Table*& table() {
        static const Table* theTable = nullptr;
        return theTable;
    }
    static std::vector<unsigned int>& counts() {
        static std::vector<unsigned int> theCounts;
        return theCounts;
    }
    static void* allocate(unsigned int numberOfBytes) { return std::malloc(numberOfBytes); }
    static void release(void* block) {
        counts().push_back(table()->getUsedCount());
        std::free(block);
    }
};

/// Never gives the same hash twice.
struct UnsteadyHash {
    static unsigned int& next() {
        static unsigned int theNext = 0;
        return theNext;
    }
    unsigned int operator()(unsigned int) const { return next()++; }
};

// The layouts that the fields' declaration order and number give.
struct EntryModel {
    virtual ~EntryModel() = default;
    unsigned int key;
    int* value;
    unsigned int hash;
    unsigned int state;
};
struct TableModel {
    virtual ~TableModel() = default;
    unsigned int used;
    unsigned int fill;
    unsigned int mask;
    EntryModel* table;
    EntryModel smallTable[9];
    GVGenericHashFunction<unsigned int> hash;
};

const void* addressOf(const void* object) { return object; }

} // namespace

TEST(HashTable, startsWithEightEmptySlotsOfItsOwn) {
    HookLedger ledger;
    const Table table;
    EXPECT_EQ(table.getUsedCount(), 0U);
    EXPECT_EQ(GVTestPeer::fillCount(table), 0U);
    EXPECT_EQ(GVTestPeer::mask(table), 7U);
    EXPECT_EQ(GVTestPeer::slots(table), GVTestPeer::smallSlots(table));
    for (unsigned int slot = 0; slot <= 8; ++slot) {
        EXPECT_EQ(GVTestPeer::slots(table)[slot].theState, gvemptyentry) << slot;
    }
    EXPECT_EQ(ledger.allocationCount(), 0U);
}

TEST(HashTable, findsNothingWhenNew) {
    const Table table;
    EXPECT_EQ(table.get(0), nullptr);
    EXPECT_EQ(table.get(7), nullptr);
    EXPECT_EQ(table.get(4294967295U), nullptr);
}

TEST(HashTable, holdsNothingBeyondItsFields) {
    using PointerTable = GVHashTable<unsigned int, int*>;
    EXPECT_EQ(sizeof(PointerTable::Entry), sizeof(EntryModel));
    EXPECT_EQ(sizeof(PointerTable), sizeof(TableModel));
    EXPECT_EQ(sizeof(GVGenericHashFunction<unsigned int>), sizeof(void*));
}

TEST(HashTable, keepsItsFieldsInOrder) {
    const GVHashTable<unsigned int, int*> table;
    EXPECT_LT(addressOf(&GVTestPeer::usedCount(table)), addressOf(&GVTestPeer::fillCount(table)));
    EXPECT_LT(addressOf(&GVTestPeer::fillCount(table)), addressOf(&GVTestPeer::mask(table)));
    EXPECT_LT(addressOf(&GVTestPeer::mask(table)), addressOf(&GVTestPeer::slots(table)));
    EXPECT_LT(addressOf(&GVTestPeer::slots(table)), addressOf(GVTestPeer::smallSlots(table)));
    EXPECT_LT(addressOf(GVTestPeer::smallSlots(table) + 8), addressOf(&GVTestPeer::hashFunction(table)));
    const auto& entry = *GVTestPeer::smallSlots(table);
    EXPECT_LT(addressOf(&entry.theKey), addressOf(&entry.theValue));
    EXPECT_LT(addressOf(&entry.theValue), addressOf(&entry.theHash));
    EXPECT_LT(addressOf(&entry.theHash), addressOf(&entry.theState));
}

TEST(HashTable, isMadeOfObjectsWithVirtualDestructors) {
    EXPECT_TRUE((std::is_base_of_v<GVObject, Table>));
    EXPECT_TRUE((std::is_base_of_v<GVObject, Table::Entry>));
    EXPECT_TRUE((std::is_base_of_v<GVObject, Table::Iterator>));
    EXPECT_TRUE((std::is_base_of_v<GVObject, GVGenericHashFunction<unsigned int>>));
    EXPECT_TRUE(std::has_virtual_destructor_v<Table>);
    EXPECT_TRUE(std::has_virtual_destructor_v<Table::Entry>);
    EXPECT_TRUE(std::has_virtual_destructor_v<Table::Iterator>);
    EXPECT_TRUE(std::has_virtual_destructor_v<GVGenericHashFunction<unsigned int>>);
}

TEST(HashTable, isNotAssignable) { EXPECT_FALSE(std::is_copy_assignable_v<Table>); }

TEST(HashTable, hashesByTheGenericFunctionUnlessToldOtherwise) {
    EXPECT_TRUE((std::is_same_v<Table, GVHashTable<unsigned int, int, GVGenericHashFunction<unsigned int>>>));
}

TEST(HashTable, numbersTheStatesOfASlot) {
    EXPECT_EQ(static_cast<unsigned int>(gvemptyentry), 0U);
    EXPECT_EQ(static_cast<unsigned int>(gvoccupiedentry), 1U);
    EXPECT_EQ(static_cast<unsigned int>(gvdeletedentry), 2U);
}

TEST(HashTableEntry, isEmptyWhenNew) {
    using Entry = GVHashTableEntry<unsigned int, int>;
    HookLedger ledger; // fills memory with 0xa5 before the entry is built in it
    const Entry* const entry = new Entry;
    const unsigned int state = entry->theState;
    delete entry;
    EXPECT_EQ(state, 0U);
}

TEST(HashTable, storesAKeyInItsHomeSlot) {
    Table table;
    EXPECT_EQ(table.insert(3, 30), 2);
    EXPECT_EQ(table.insert(14, 140), 2);
    //  slot                    0 1 2 3 4 5 6  7
    EXPECT_EQ(slotsOf(table), ". . . 3 . . 14 .");
    const Table::Entry* const entry = table.get(14);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->theKey, 14U);
    EXPECT_EQ(entry->theValue, 140);
    EXPECT_EQ(entry->theHash, 14U);
    EXPECT_EQ(entry->theState, gvoccupiedentry);
    EXPECT_EQ(table.getUsedCount(), 2U);
    EXPECT_EQ(GVTestPeer::fillCount(table), 2U);
}

TEST(HashTable, keepsKeysThatShareAHomeSlotRetrievable) {
    Table table;
    table.insert(0, 1);
    table.insert(8, 2);
    table.insert(16, 3);
    //  slot                    0 1 2 3 4 5 6  7
    EXPECT_EQ(slotsOf(table), "0 8 . . . . 16 .");
    EXPECT_EQ(table.get(0)->theValue, 1);
    EXPECT_EQ(table.get(8)->theValue, 2);
    EXPECT_EQ(table.get(16)->theValue, 3);
    EXPECT_EQ(table.get(24), nullptr);
}

TEST(HashTable, lookupGivesTheSlotWhereAnAbsentKeyWouldBeStored) {
    Table table;
    table.insert(0, 1);
    EXPECT_EQ(slotOf(table, table.lookup(5, 5)), 5U);
    EXPECT_EQ(slotOf(table, table.lookup(8, 8)), 1U);
    EXPECT_EQ(table.lookup(8, 8)->theState, gvemptyentry);
}

TEST(HashTable, getAddsNoAbsentKey) {
    Table table;
    insertKeys(table, 1, 3);
    const std::string before = stateOf(table);
    EXPECT_EQ(table.get(4), nullptr);
    EXPECT_EQ(stateOf(table), before);
}

TEST(HashTable, lookupTrustsTheHashItIsHanded) {
    GVHashTable<unsigned int, int, LoggingHash> table;
    table.insert(3, 30);
    LoggingHash::log().clear();
    EXPECT_EQ(slotOf(table, table.lookup(3, 3)), 3U);
    EXPECT_EQ(slotOf(table, table.lookup(3, 4)), 4U);
    EXPECT_TRUE(LoggingHash::log().empty());
}

TEST(HashTable, appliesItsHashFunctionWhereverAKeyComesAlone) {
    GVHashTable<unsigned int, int, LoggingHash> table;
    LoggingHash::log().clear();
    table.insert(3, 30);
    EXPECT_EQ(LoggingHash::log(), LoggedCalls({":3"}));
    table.get(4);
    EXPECT_EQ(LoggingHash::log(), LoggedCalls({":3", ":4"}));
    table[3] = 31;
    EXPECT_EQ(LoggingHash::log(), LoggedCalls({":3", ":4", ":3"}));
    table.remove(3);
    EXPECT_EQ(LoggingHash::log(), LoggedCalls({":3", ":4", ":3", ":3"}));
    // Absent, so: looked for, inserted, looked for again.
    table[5] = 50;
    EXPECT_EQ(LoggingHash::log(), LoggedCalls({":3", ":4", ":3", ":3", ":5", ":5", ":5"}));
}

TEST(HashTable, hasNoSlotToGiveWithoutASlotArray) {
    Table table;
    GVTestPeer::slots(table) = nullptr;
    EXPECT_EQ(table.lookup(1, 1), nullptr);
    EXPECT_EQ(table.get(1), nullptr);
    EXPECT_FALSE(table.remove(1));
    EXPECT_EQ(table.insert_helper(1, 10), 1);
    EXPECT_EQ(table.getUsedCount(), 0U);
    EXPECT_EQ(GVTestPeer::fillCount(table), 0U);
}

TEST(HashTable, comparesTheStoredHashAtTheHomeSlot) {
    Table table;
    table.insert(4, 40);
    table.get(4)->theHash = 12; // the same home slot, another hash
    EXPECT_EQ(table.get(4), nullptr);
    table.insert(4, 41);
    //  slot                    0 1 2 3 4 5 6 7
    EXPECT_EQ(slotsOf(table), ". 4 . . 4 . . .");
    EXPECT_EQ(table.get(4)->theValue, 41);
    EXPECT_EQ(slotOf(table, table.lookup(4, 12)), 4U);
    EXPECT_NE(slotOf(table, table.lookup(4, 20)), 4U) << "a greater hash than the stored one is another hash too";
}

TEST(HashTable, comparesTheKeyAtTheHomeSlotToo) {
    Table table;
    table.insert(0, 1);
    EXPECT_EQ(slotOf(table, table.lookup(77, 0)), 1U); // the hash of key 0, but another key
}

TEST(HashTable, comparesOnlyKeysPastTheHomeSlot) {
    Table table;
    table.insert(0, 1);
    table.insert(8, 2);
    //  slot                    0 1 2 3 4 5 6 7
    EXPECT_EQ(slotsOf(table), "0 8 . . . . . .");
    GVTestPeer::slots(table)[1].theHash = 999;
    ASSERT_NE(table.get(8), nullptr);
    EXPECT_EQ(slotOf(table, table.get(8)), 1U);
    table.insert(8, 3);
    EXPECT_EQ(slotsOf(table), "0 8 . . . . . .");
    EXPECT_EQ(table.get(8)->theValue, 3);
}

TEST(HashTable, aReplacementOverwritesTheKeyAndTheValueAlone) {
    GVHashTable<NotedKey, int, NotedKeyHash> table;
    table.insert({0, 1}, 10);
    table.insert({8, 1}, 80);
    auto* const entry = table.get({8, 0});
    ASSERT_NE(entry, nullptr);
    entry->theHash = 999; // past the home slot nobody looks at it
    EXPECT_EQ(table.insert({8, 2}, 81), 2);
    EXPECT_EQ(entry->theKey.note, 2);
    EXPECT_EQ(entry->theValue, 81);
    EXPECT_EQ(entry->theHash, 999U);
    EXPECT_EQ(entry->theState, gvoccupiedentry);
    EXPECT_EQ(table.getUsedCount(), 2U);
    EXPECT_EQ(GVTestPeer::fillCount(table), 2U);
}

TEST(HashTable, insertHelperStoresWithoutGrowing) {
    HookLedger ledger;
    Table table;
    for (unsigned int key = 0; key < 7; ++key) {
        EXPECT_EQ(table.insert_helper(key, static_cast<int>(key)), 2);
    }
    EXPECT_EQ(slotsOf(table), "0 1 2 3 4 5 6 .");
    EXPECT_EQ(GVTestPeer::mask(table), 7U);
    EXPECT_EQ(GVTestPeer::fillCount(table), 7U);
    EXPECT_EQ(ledger.allocationCount(), 0U);
}

TEST(HashTable, insertHelperReportsAReplacementAsStored) {
    Table table;
    EXPECT_EQ(table.insert_helper(4, 1), 2);
    EXPECT_EQ(table.insert_helper(4, 2), 2);
    EXPECT_EQ(table.get(4)->theValue, 2);
    EXPECT_EQ(table.getUsedCount(), 1U);
    EXPECT_EQ(GVTestPeer::fillCount(table), 1U);
}

TEST(HashTable, removalMarksTheSlotAndTouchesNothingElse) {
    Table table;
    insertKeys(table, 1, 3);
    EXPECT_TRUE(table.remove(2));
    //  slot                    0 1 2 3 4 5 6 7
    EXPECT_EQ(slotsOf(table), ". 1 x 3 . . . .");
    EXPECT_EQ(table.getUsedCount(), 2U);
    EXPECT_EQ(GVTestPeer::fillCount(table), 3U);
    const Table::Entry& slot = GVTestPeer::slots(table)[2];
    EXPECT_EQ(slot.theKey, 2U);
    EXPECT_EQ(slot.theValue, 2);
    EXPECT_EQ(slot.theHash, 2U);
    EXPECT_EQ(table.get(2), nullptr);
}

TEST(HashTable, removalOfAnAbsentKeyChangesNothing) {
    Table table;
    insertKeys(table, 1, 3);
    table.remove(2);
    const std::string before = stateOf(table);
    EXPECT_FALSE(table.remove(2));
    EXPECT_FALSE(table.remove(5));
    EXPECT_FALSE(table.remove(9)); // steps on from slot 1 to an empty one
    EXPECT_EQ(stateOf(table), before);
}

TEST(HashTable, removalNeverGivesTheSlotArrayBack) {
    Table table;
    insertKeys(table, 0, 22);
    const Table::Entry* const slots = GVTestPeer::slots(table);
    for (unsigned int key = 0; key < 22; ++key) {
        EXPECT_TRUE(table.remove(key));
    }
    EXPECT_EQ(GVTestPeer::slots(table), slots);
    EXPECT_EQ(GVTestPeer::mask(table), 127U);
    EXPECT_EQ(GVTestPeer::fillCount(table), 22U);
    EXPECT_EQ(table.getUsedCount(), 0U);
}

TEST(HashTable, aDeletedHomeSlotIsPassedOverBySearches) {
    Table table;
    table.insert(0, 1);
    table.insert(8, 2);
    table.remove(0);
    //  slot                    0 1 2 3 4 5 6 7
    EXPECT_EQ(slotsOf(table), "x 8 . . . . . .");
    ASSERT_NE(table.get(8), nullptr);
    EXPECT_EQ(table.get(8)->theValue, 2);
    EXPECT_EQ(table.get(0), nullptr);
}

TEST(HashTable, aDeletedHomeSlotIsReusedWithoutRaisingTheFillCount) {
    Table table;
    table.insert(0, 1);
    table.insert(8, 2);
    table.remove(0);
    EXPECT_EQ(table.insert(16, 3), 2);
    //  16 steps on past 8 to the empty slot 6, and then takes the remembered home slot
    //  slot                    0  1 2 3 4 5 6 7
    EXPECT_EQ(slotsOf(table), "16 8 . . . . . .");
    EXPECT_EQ(table.getUsedCount(), 2U);
    EXPECT_EQ(GVTestPeer::fillCount(table), 2U);
    EXPECT_EQ(table.get(16)->theHash, 16U);
    EXPECT_EQ(table.get(16)->theValue, 3);
}

TEST(HashTable, aDeletedHomeSlotIsPreferredToADeletedSlotPastIt) {
    Table table;
    table.insert(0, 1);
    table.insert(8, 2);
    table.remove(8);
    table.remove(0);
    //  slot                    0 1 2 3 4 5 6 7
    EXPECT_EQ(slotsOf(table), "x x . . . . . .");
    EXPECT_EQ(slotOf(table, table.lookup(16, 16)), 0U);
    EXPECT_EQ(slotOf(table, table.lookup(8, 8)), 0U) << "even by the key that the slot past it held";
}

TEST(HashTable, aDeletedHomeSlotThatHeldTheKeyItselfDoesNotEndTheSearch) {
    Table table;
    table.insert(0, 1);
    table.insert(8, 2);
    table.insert(16, 3);
    table.remove(0);
    table.remove(8);
    table.insert(16, 4);
    table.remove(16);
    table.insert(1, 5);
    //  slot                    0 1 2 3 4 5 6  7
    EXPECT_EQ(slotsOf(table), "x 1 . . . . 16 .");
    ASSERT_EQ(GVTestPeer::slots(table)[0].theKey, 16U);
    EXPECT_EQ(slotOf(table, table.lookup(16, 16)), 6U);
}

TEST(HashTable, aDeletedSlotPastTheHomeSlotEndsTheSearch) {
    Table table;
    table.insert(0, 1);
    table.insert(8, 2);
    table.insert(16, 3);
    table.remove(8);
    //  slot                    0 1 2 3 4 5 6  7
    EXPECT_EQ(slotsOf(table), "0 x . . . . 16 .");
    EXPECT_EQ(slotOf(table, table.lookup(16, 16)), 1U);
    EXPECT_EQ(table.get(16), nullptr);
    EXPECT_FALSE(table.remove(16));
}

TEST(HashTable, aKeyMissedBehindADeletedSlotIsStoredASecondTime) {
    Table table;
    table.insert(0, 1);
    table.insert(8, 2);
    table.insert(16, 3);
    table.remove(8);
    EXPECT_EQ(table.insert(16, 4), 2);
    //  slot                    0 1  2 3 4 5 6  7
    EXPECT_EQ(slotsOf(table), "0 16 . . . . 16 .");
    EXPECT_EQ(table.get(16)->theValue, 4);
    EXPECT_EQ(GVTestPeer::slots(table)[6].theValue, 3);
    EXPECT_EQ(table.getUsedCount(), 3U);
    EXPECT_EQ(GVTestPeer::fillCount(table), 3U);
}

TEST(HashTable, aRemovalTakesOneOfTheTwoEntriesOfAKeyAway) {
    Table table;
    table.insert(0, 1);
    table.insert(8, 2);
    table.insert(16, 3);
    table.remove(8);
    table.insert(16, 4);
    EXPECT_TRUE(table.remove(16));
    //  slot                    0 1 2 3 4 5 6  7
    EXPECT_EQ(slotsOf(table), "0 x . . . . 16 .");
    EXPECT_FALSE(table.remove(16)) << "it is there, and missed";
}

TEST(HashTable, aKeyIsFoundAgainOnceTheDeletedSlotIsGone) {
    Table table;
    table.insert(0, 1);
    table.insert(8, 2);
    table.insert(16, 3);
    table.remove(8);
    EXPECT_EQ(table.get(16), nullptr);
    EXPECT_EQ(table.resize(7), 2);
    //  slot                    0 1  2 3 4 5 6 7
    EXPECT_EQ(slotsOf(table), "0 16 . . . . . .");
    EXPECT_EQ(table.get(16)->theValue, 3);
}

TEST(HashTableSubscript, storesAMissedKeyASecondTimeToo) {
    Table table;
    table.insert(0, 1);
    table.insert(8, 2);
    table.insert(16, 3);
    table.remove(8);
    EXPECT_EQ(table[16], 0);
    EXPECT_EQ(slotsOf(table), "0 16 . . . . 16 .");
}

TEST(HashTableSubscript, yieldsTheValueOfAPresentKeyAndChangesNothing) {
    HookLedger ledger;
    Table table;
    for (unsigned int key = 0; key < 6; ++key) {
        table.insert_helper(key, static_cast<int>(key)); // two thirds full: an insertion would grow the table
    }
    const std::string before = stateOf(table);
    const std::size_t allocations = ledger.allocationCount();
    int& value = table[4];
    EXPECT_EQ(&value, &GVTestPeer::slots(table)[4].theValue);
    EXPECT_EQ(ledger.allocationCount(), allocations);
    EXPECT_EQ(stateOf(table), before);
}

TEST(HashTableSubscript, addsAnAbsentKeyWithAValueInitialisedValue) {
    GVHashTable<unsigned int, int*> table;
    int stale = 0;
    for (unsigned int slot = 0; slot < 8; ++slot) {
        GVTestPeer::slots(table)[slot].theValue = &stale;
    }
    EXPECT_EQ(table[5], nullptr);
    EXPECT_EQ(table.getUsedCount(), 1U);
    table[5] = &stale;
    EXPECT_EQ(table.get(5)->theValue, &stale);
    EXPECT_EQ(table.getUsedCount(), 1U);
}

TEST(HashTableSubscript, refersToTheNewArrayWhenItsInsertionGrowsTheTable) {
    Table table;
    insertKeys(table, 0, 5);
    int& value = table[5];
    EXPECT_EQ(GVTestPeer::mask(table), 31U);
    EXPECT_EQ(&value, &GVTestPeer::slots(table)[5].theValue);
}

TEST(HashTableSubscript, throwsWhenTheKeyIsStillAbsentAfterItsInsertion) {
    UnsteadyHash::next() = 0;
    GVHashTable<unsigned int, int, UnsteadyHash> table;
    expectTableException([&table] { table[3]; }, gvhashtablefailure, "Internal lookup error during operator[].");
    EXPECT_EQ(UnsteadyHash::next(), 3U); // looked for at 0, stored at 1, looked for at 2
    EXPECT_EQ(slotsOf(table), ". 3 . . . . . .");
    EXPECT_EQ(table.getUsedCount(), 1U);
}

TEST(HashTableSubscript, throwsForAKeyThatIsUnequalToItself) {
    GVHashTable<UnequalKey, int, UnequalKeyHash> table;
    table.insert({1}, 10);
    GVTestPeer::slots(table)[1].theHash = 2; // past its home slot, the key that comes next is compared
    expectTableException([&table] { table[UnequalKey{1}]; }, gvhashtablefailure,
                         "Internal lookup error during operator[].");
    EXPECT_EQ(table.getUsedCount(), 2U);
}

TEST(HashTableSubscript, keepsTheKeyWhenTheGrowthAfterItFails) {
    HookLedger ledger;
    Table table;
    insertKeys(table, 0, 5);
    ledger.refuseOnce(0);
    expectTableException([&table] { table[5]; }, gvoutofmemory, "Unable to allocate space for new table.");
    EXPECT_EQ(slotsOf(table), "0 1 2 3 4 5 . .");
    EXPECT_EQ(table.get(5)->theValue, 0);
}

TEST(HashTableClear, returnsAGrownTableToItsEmbeddedSlots) {
    HookLedger ledger;
    Table table;
    insertKeys(table, 0, 22);
    EXPECT_EQ(ledger.liveBlocks().size(), 1U);
    table.clear();
    EXPECT_TRUE(ledger.liveBlocks().empty());
    EXPECT_EQ(GVTestPeer::mask(table), 7U);
    EXPECT_EQ(GVTestPeer::slots(table), GVTestPeer::smallSlots(table));
    EXPECT_EQ(table.getUsedCount(), 0U);
    EXPECT_EQ(GVTestPeer::fillCount(table), 0U);
    EXPECT_EQ(slotsOf(table), ". . . . . . . .");
    EXPECT_EQ(table.get(1), nullptr);
}

TEST(HashTableClear, givesTheArrayBackBeforeItForgetsTheKeys) {
    GVObject::SetAllocationHooks(&CountsAtReleases::allocate, &CountsAtReleases::release);
    Table table;
    insertKeys(table, 0, 6);
    CountsAtReleases::table() = &table;
    table.clear();
    GVObject::SetAllocationHooks(nullptr, nullptr);
    EXPECT_EQ(CountsAtReleases::counts(), std::vector<unsigned int>{6});
    EXPECT_EQ(table.getUsedCount(), 0U);
    CountsAtReleases::counts().clear();
}

TEST(HashTableClear, leavesNoKeyWithWhichSearchesCompareTheirs) {
    GVHashTable<ComparedKey, int, ComparedKeyHash> table;
    table.insert({3}, 30);
    table.clear();
    ComparedKey::comparisons() = 0;
    EXPECT_EQ(table.get({3}), nullptr);
    EXPECT_EQ(ComparedKey::comparisons(), 0);
}

TEST(HashTableClear, isHarmlessTheSecondTime) {
    HookLedger ledger;
    Table table;
    insertKeys(table, 0, 6);
    table.clear();
    const std::size_t releases = ledger.releaseCount();
    table.clear();
    EXPECT_EQ(ledger.releaseCount(), releases);
    EXPECT_EQ(slotsOf(table), ". . . . . . . .");
    table.insert(3, 30);
    EXPECT_EQ(table.get(3)->theValue, 30);
}

TEST(HashTableClear, forgetsTheValuesOfTheEmbeddedSlotsAndLeavesKeysAndHashes) {
    Table table;
    table.insert(3, 30);
    table.insert(12, 120);
    table.remove(3);
    for (unsigned int slot = 0; slot < 8; ++slot) {
        GVTestPeer::slots(table)[slot].theValue = 9;
    }
    table.clear();
    for (unsigned int slot = 0; slot < 8; ++slot) {
        EXPECT_EQ(GVTestPeer::slots(table)[slot].theState, gvemptyentry) << slot;
        EXPECT_EQ(GVTestPeer::slots(table)[slot].theValue, 0) << slot;
    }
    EXPECT_EQ(GVTestPeer::slots(table)[3].theKey, 3U);
    EXPECT_EQ(GVTestPeer::slots(table)[3].theHash, 3U);
    EXPECT_EQ(GVTestPeer::slots(table)[4].theKey, 12U);
    EXPECT_EQ(GVTestPeer::slots(table)[4].theHash, 12U);
}

TEST(HashTableClear, doesNotTouchTheEndSlot) {
    Table table;
    Table::Entry& endSlot = GVTestPeer::smallSlots(table)[8];
    endSlot.theValue = 55;
    endSlot.theState = 7;
    table.clear();
    EXPECT_EQ(endSlot.theValue, 55);
    EXPECT_EQ(endSlot.theState, 7U);
}

TEST(HashTableClear, tellsAHeapArrayByTheSizeAlone) {
    HookLedger ledger;
    {
        Table table;
        insertKeys(table, 0, 6);
        GVTestPeer::mask(table) = 7;
        table.clear();
        EXPECT_EQ(ledger.liveBlocks().size(), 1U);
    }
    EXPECT_EQ(ledger.reclaimLiveBlocks(), 1U);
}

TEST(HashTableClear, isDoneButForTheValuesWhenOneCannotBeForgotten) {
    HookLedger ledger;
    GVHashTable<unsigned int, Unforgettable> table;
    for (unsigned int key = 0; key < 6; ++key) {
        table.insert(key, {});
    }
    table.resize(63);
    GVTestPeer::smallSlots(table)[0].theState = gvdeletedentry;
    Unforgettable::refuses() = true;
    EXPECT_THROW(table.clear(), int);
    Unforgettable::refuses() = false;
    EXPECT_TRUE(ledger.liveBlocks().empty());
    EXPECT_EQ(table.getUsedCount(), 0U);
    EXPECT_EQ(GVTestPeer::mask(table), 7U);
    EXPECT_EQ(GVTestPeer::slots(table), GVTestPeer::smallSlots(table));
    EXPECT_EQ(GVTestPeer::smallSlots(table)[0].theState, gvemptyentry);
}

TEST(HashTableClear, bringsATableBackThatHasNoSlotArray) {
    HookLedger ledger;
    Table table;
    GVTestPeer::slots(table) = nullptr;
    GVTestPeer::mask(table) = 31;
    table.clear();
    EXPECT_EQ(GVTestPeer::slots(table), GVTestPeer::smallSlots(table));
    EXPECT_EQ(GVTestPeer::mask(table), 7U);
    EXPECT_EQ(ledger.releaseCount(), 0U);
}

TEST(HashTable, neverEndsWhatItsValuesPointTo) {
    int deaths = 0;
    Mortal first(deaths);
    Mortal second(deaths);
    {
        GVHashTable<unsigned int, Mortal*> table;
        table.insert(1, &first);
        table.insert(1, &second); // replaced
        table.insert(2, &second);
        table.remove(2); // removed
        for (unsigned int key = 10; key < 40; ++key) {
            table.insert(key, &first); // moved by growth
        }
        table.clear(); // forgotten
        table.insert(3, &first);
    }
    EXPECT_EQ(deaths, 0);
}

TEST(HashTable, givesItsHeapArrayBackWhenDestroyed) {
    HookLedger ledger;
    {
        Table table;
        insertKeys(table, 0, 100);
        EXPECT_EQ(ledger.liveBlocks().size(), 1U);
    }
    EXPECT_TRUE(ledger.liveBlocks().empty());
}

TEST(HashTable, isDestroyedWithoutASlotArray) {
    HookLedger ledger;
    {
        Table table;
        GVTestPeer::slots(table) = nullptr;
        GVTestPeer::mask(table) = 31;
    }
    EXPECT_EQ(ledger.releaseCount(), 0U);
}

TEST(HashTable, livesInOneRawBlockWhenMadeByNew) {
    HookLedger ledger;
    delete new Table;
    EXPECT_EQ(ledger.requests(), std::vector<unsigned int>({static_cast<unsigned int>(sizeof(Table)) +
                                                            static_cast<unsigned int>(sizeof(void*))}));
    EXPECT_EQ(ledger.releaseCount(), 1U);
}

} // namespace Gilvane
