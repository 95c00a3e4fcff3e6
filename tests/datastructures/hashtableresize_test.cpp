// resize by itself: which array it makes, what it copies, in which order it stores and releases.

#include "tablesupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <new>
#include <ostream>
#include <string>
#include <vector>

namespace Gilvane {

namespace {

using Table = GVHashTable<unsigned int, int>;

constexpr const char* noMemoryMessage = "Unable to allocate space for new table.";

unsigned int sizeAfterResize(unsigned int minUsed) {
    Table table;
    EXPECT_EQ(table.resize(minUsed), 2);
    return GVTestPeer::mask(table) + 1;
}

/// What happens to values and to the hash function, in order: the address of each value that is destroyed, and the
/// marks.
struct Diary {
    static constexpr std::uintptr_t hashed = 0;
    static constexpr std::uintptr_t functionDestroyed = 1;

    static std::vector<std::uintptr_t>& entries() {
        static std::vector<std::uintptr_t> theEntries;
        return theEntries;
    }
    static std::vector<std::uintptr_t> take() {
        std::vector<std::uintptr_t> taken;
        taken.swap(entries());
        return taken;
    }
};

struct DiaryValue {
    DiaryValue() = default;
    DiaryValue(const DiaryValue&) = default;
    DiaryValue& operator=(const DiaryValue&) = default;
    ~DiaryValue() { Diary::entries().push_back(reinterpret_cast<std::uintptr_t>(this)); }
    int number = 0;
};

struct DiaryHash {
    DiaryHash() = default;
    DiaryHash(const DiaryHash&) = default;
    DiaryHash& operator=(const DiaryHash&) = default;
    ~DiaryHash() { Diary::entries().push_back(Diary::functionDestroyed); }
    unsigned int operator()(unsigned int key) const {
        Diary::entries().push_back(Diary::hashed);
        return key;
    }
};

using DiaryTable = GVHashTable<unsigned int, DiaryValue, DiaryHash>;

/// The diary's lines for an array of that many entries destroyed from the last to the first.
std::vector<std::uintptr_t> destruction(const DiaryTable::Entry* slots, unsigned int entries) {
    std::vector<std::uintptr_t> addresses;
    while (entries > 0) {
        addresses.push_back(reinterpret_cast<std::uintptr_t>(&slots[--entries].theValue));
    }
    return addresses;
}

void append(std::vector<std::uintptr_t>& diary, const std::vector<std::uintptr_t>& more) {
    diary.insert(diary.end(), more.begin(), more.end());
}

/// Counts assignments from values that bear a mark.
struct CountedValue {
    static int& markedAssignments() {
        static int theCount = 0;
        return theCount;
    }
    CountedValue() = default;
    CountedValue(const CountedValue&) = default;
    CountedValue& operator=(const CountedValue& other) {
        mark = other.mark;
        markedAssignments() += mark;
        return *this;
    }
    ~CountedValue() = default;
    int mark = 0;
};

/// A value whose construction fails on demand.
struct FragileValue {
    struct Failure {};
    static int& constructionsLeft() {
        static int theCount = 0;
        return theCount;
    }
    FragileValue() {
        if (constructionsLeft() == 0) {
            throw Failure();
        }
        --constructionsLeft();
    }
};

/// What an array may have at most: the hooks count in 32 bits, and the language in differences of pointers.
constexpr std::size_t mostBytes = std::min<std::size_t>(std::numeric_limits<unsigned int>::max(), PTRDIFF_MAX);

/// A table whose entries have so many bytes.
template <std::size_t Bytes>
struct Vast {
    char bytes[Bytes];
};
template <std::size_t EntryBytes>
using TableOfEntriesOf = GVHashTable<unsigned int, Vast<EntryBytes - sizeof(void*) - 3 * sizeof(unsigned int)>>;

/// A key that insert_helper, as specialised below, refuses when it is told to.
struct RefusedKey {
    unsigned int number;
    bool operator==(const RefusedKey& other) const { return number == other.number; }
};
std::ostream& operator<<(std::ostream& stream, const RefusedKey& key) { return stream << key.number; }
struct RefusedKeyHash {
    unsigned int operator()(const RefusedKey& key) const { return key.number; }
};
struct Refusal {
    unsigned int key; // refused with this number …
    int result;       // … and this result
};
constexpr Refusal noRefusal{4294967295U, 2};
Refusal theRefusal = noRefusal;
using RefusingTable = GVHashTable<RefusedKey, int, RefusedKeyHash>;

} // namespace

/// Stores as the table does, except for the refused key.
template <>
int GVHashTable<RefusedKey, int, RefusedKeyHash>::insert_helper(const RefusedKey& key, const int& value) {
    if (key.number == theRefusal.key) {
        return theRefusal.result;
    }
    const unsigned int hash = key.number;
    Entry* const entry = lookup(key, hash);
    theFillCount += entry->theState == gvemptyentry ? 1U : 0U;
    theUsedCount += entry->theState == gvoccupiedentry ? 0U : 1U;
    entry->theKey = key;
    entry->theValue = value;
    entry->theHash = hash;
    entry->theState = gvoccupiedentry;
    return 2;
}

TEST(HashTableResize, makesTheSmallestPowerOfTwoAboveWhatIsAskedFor) {
    EXPECT_EQ(sizeAfterResize(8), 16U);
    EXPECT_EQ(sizeAfterResize(15), 16U);
    EXPECT_EQ(sizeAfterResize(16), 32U);
    EXPECT_EQ(sizeAfterResize(24), 32U);
    EXPECT_EQ(sizeAfterResize(88), 128U);
    EXPECT_EQ(sizeAfterResize(1023), 1024U);
    EXPECT_EQ(sizeAfterResize(1024), 2048U);
}

TEST(HashTableResize, makesAHeapArrayWithAnEndSlotInOneBlock) {
    HookLedger ledger;
    Table table;
    EXPECT_EQ(table.resize(8), 2);
    ASSERT_EQ(ledger.allocationCount(), 1U);
    const unsigned int request = ledger.requests().front();
    EXPECT_EQ(request, slotArrayBytes<Table>(ledger, 16));
    for (unsigned int slot = 0; slot <= 16; ++slot) {
        EXPECT_EQ(GVTestPeer::slots(table)[slot].theState, gvemptyentry) << slot;
    }
}

TEST(HashTableResize, doesNothingForASmallTableWithoutDeletedSlots) {
    HookLedger ledger;
    Table table;
    insertKeys(table, 1, 4);
    const std::string before = stateOf(table);
    const std::size_t allocations = ledger.allocationCount();
    EXPECT_EQ(table.resize(7), 0);
    EXPECT_EQ(table.resize(0), 0);
    EXPECT_EQ(ledger.allocationCount(), allocations);
    EXPECT_EQ(stateOf(table), before);
}

TEST(HashTableResize, dropsTheDeletedSlotsOfASmallTable) {
    HookLedger ledger;
    Table table;
    table.insert(0, 1);
    table.insert(8, 2);
    table.insert(3, 3);
    table.remove(0);
    //  slot                    0 1 2 3 4 5 6 7
    EXPECT_EQ(slotsOf(table), "x 8 . 3 . . . .");
    EXPECT_EQ(table.resize(7), 2);
    EXPECT_EQ(slotsOf(table), "8 . . 3 . . . .");
    EXPECT_EQ(GVTestPeer::slots(table), GVTestPeer::smallSlots(table));
    EXPECT_EQ(GVTestPeer::mask(table), 7U);
    EXPECT_EQ(table.getUsedCount(), 2U);
    EXPECT_EQ(GVTestPeer::fillCount(table), 2U);
    EXPECT_EQ(table.get(8)->theValue, 2);
    EXPECT_EQ(table.get(3)->theValue, 3);
    const std::vector<unsigned int> requests = ledger.requests();
    ASSERT_EQ(requests.size(), 1U) << "the temporary copy";
    EXPECT_EQ(requests[0], slotArrayBytes<Table>(ledger, 8));
    EXPECT_TRUE(ledger.liveBlocks().empty());
}

TEST(HashTableResize, copiesEvenAHeapArrayFirst) {
    HookLedger ledger;
    Table table;
    insertKeys(table, 0, 6);
    table.remove(5);
    ASSERT_EQ(ledger.liveBlocks().size(), 1U);
    void* const heapArray = ledger.liveBlocks()[0].start;
    EXPECT_EQ(table.resize(7), 2);
    //  slot                    0 1 2 3 4 5 6 7
    EXPECT_EQ(slotsOf(table), "0 1 2 3 4 . . .");
    EXPECT_EQ(GVTestPeer::slots(table), GVTestPeer::smallSlots(table));
    EXPECT_EQ(table.get(4)->theValue, 4);
    const std::vector<unsigned int> requests = ledger.requests();
    const std::vector<void*> releases = ledger.releases();
    ASSERT_EQ(requests.size(), 2U) << "the heap array, and its copy";
    EXPECT_EQ(requests[1], requests[0]);
    ASSERT_EQ(releases.size(), 2U);
    EXPECT_EQ(releases[0], heapArray);
    EXPECT_TRUE(ledger.liveBlocks().empty());
}

TEST(HashTableResize, returnsAHeapArrayToTheEmbeddedOneEvenWithoutDeletedSlots) {
    Table table;
    table.insert(1, 10);
    table.resize(100);
    EXPECT_EQ(GVTestPeer::mask(table), 127U);
    EXPECT_EQ(table.resize(7), 2);
    EXPECT_EQ(slotsOf(table), ". 1 . . . . . .");
}

TEST(HashTableResize, tellsAHeapArrayByItsAddressAlone) {
    HookLedger ledger;
    Table table;
    insertKeys(table, 0, 6);
    GVTestPeer::mask(table) = 7; // no longer the size of its array
    EXPECT_EQ(table.resize(7), 2);
    EXPECT_EQ(GVTestPeer::slots(table), GVTestPeer::smallSlots(table));
    EXPECT_EQ(slotsOf(table), "0 1 2 3 4 5 . .");
    EXPECT_TRUE(ledger.liveBlocks().empty());
}

TEST(HashTableResize, copiesEverySlotOfTheOldArrayButTheEndSlot) {
    GVHashTable<unsigned int, CountedValue> table;
    table.resize(8);
    for (unsigned int slot = 0; slot <= 16; ++slot) {
        GVTestPeer::slots(table)[slot].theValue.mark = 1; // all slots are empty: nothing is stored again
    }
    CountedValue::markedAssignments() = 0;
    EXPECT_EQ(table.resize(7), 2);
    EXPECT_EQ(CountedValue::markedAssignments(), 16);
}

TEST(HashTableResize, copiesNothingWhenTheNewArrayIsOnTheHeap) {
    GVHashTable<unsigned int, CountedValue> table;
    table.resize(8);
    for (unsigned int slot = 0; slot <= 16; ++slot) {
        GVTestPeer::slots(table)[slot].theValue.mark = 1;
    }
    CountedValue::markedAssignments() = 0;
    EXPECT_EQ(table.resize(100), 2);
    EXPECT_EQ(CountedValue::markedAssignments(), 0);
}

TEST(HashTableResize, replacesAHeapArrayByOneOfTheSameSizeToo) {
    HookLedger ledger;
    Table table;
    table.resize(8);
    table.insert(1, 10);
    table.insert(17, 20);
    table.remove(1);
    EXPECT_EQ(table.resize(8), 2);
    EXPECT_EQ(slotsOf(table), ". 17 . . . . . . . . . . . . . .");
    EXPECT_EQ(GVTestPeer::fillCount(table), 1U);
    EXPECT_EQ(ledger.allocationCount(), 2U);
    EXPECT_EQ(ledger.liveBlocks().size(), 1U);
}

TEST(HashTableResize, storesTheKeysAgainInTheOrderOfTheirOldSlots) {
    GVHashTable<unsigned int, int, LoggingHash> table;
    table.insert(7, 1);
    table.insert(15, 2);
    table.insert(1, 3);
    //  slot                    0 1 2 3  4 5 6 7
    EXPECT_EQ(slotsOf(table), ". 1 . 15 . . . 7");
    LoggingHash::log().clear();
    EXPECT_EQ(table.resize(8), 2);
    EXPECT_EQ(LoggingHash::log(), LoggedCalls({":1", ":15", ":7"}));
}

TEST(HashTableResize, computesTheHashesAnew) {
    Table table;
    insertKeys(table, 1, 3);
    GVTestPeer::slots(table)[2].theHash = 999;
    table.resize(8);
    EXPECT_EQ(GVTestPeer::slots(table)[2].theKey, 2U);
    EXPECT_EQ(GVTestPeer::slots(table)[2].theHash, 2U);
}

TEST(HashTableResize, dropsDeletedSlotsAndCountsThemOff) {
    Table table;
    insertKeys(table, 0, 5);
    table.remove(0);
    table.remove(3);
    EXPECT_EQ(table.resize(8), 2);
    EXPECT_EQ(slotsOf(table), ". 1 2 . 4 . . . . . . . . . . .");
    EXPECT_EQ(table.getUsedCount(), 3U);
    EXPECT_EQ(GVTestPeer::fillCount(table), 3U);
}

TEST(HashTableResize, walksTheOldArrayOnlyUntilTheFilledSlotsAreCountedOff) {
    Table table;
    insertKeys(table, 0, 5);
    table.remove(1);
    GVTestPeer::fillCount(table) = 3;
    //  slot                    0 1 2 3 4 5 6 7
    EXPECT_EQ(slotsOf(table), "0 x 2 3 4 . . .");
    EXPECT_EQ(table.resize(8), 2);
    EXPECT_EQ(slotsOf(table), "0 . 2 . . . . . . . . . . . . .");
    EXPECT_EQ(table.getUsedCount(), 2U);
}

TEST(HashTableResize, resetsTheStateOfTheEmbeddedSlotsAlone) {
    Table table;
    insertKeys(table, 1, 3);
    table.resize(8); // the embedded slots keep what they held
    table.remove(1);
    table.remove(2);
    table.resize(7);
    //  slot                    0 1 2 3 4 5 6 7
    EXPECT_EQ(slotsOf(table), ". . . 3 . . . .");
    EXPECT_EQ(GVTestPeer::slots(table)[1].theKey, 1U);
    EXPECT_EQ(GVTestPeer::slots(table)[1].theValue, 1);
}

TEST(HashTableResize, resetsTheLastEmbeddedSlotToo) {
    Table table;
    insertKeys(table, 6, 2);
    table.remove(7);
    EXPECT_EQ(table.resize(7), 2);
    //  slot                    0 1 2 3 4 5 6 7
    EXPECT_EQ(slotsOf(table), ". . . . . . 6 .");
}

TEST(HashTableResize, neverWritesTheEmbeddedEndSlot) {
    Table table;
    Table::Entry& endSlot = GVTestPeer::smallSlots(table)[8];
    endSlot.theKey = 71;
    endSlot.theValue = 72;
    endSlot.theHash = 73;
    endSlot.theState = 74;
    insertKeys(table, 0, 5);
    table.remove(2);
    table.resize(7);
    table.resize(100);
    table.resize(7);
    EXPECT_EQ(endSlot.theKey, 71U);
    EXPECT_EQ(endSlot.theValue, 72);
    EXPECT_EQ(endSlot.theHash, 73U);
    EXPECT_EQ(endSlot.theState, 74U);
}

TEST(HashTableResize, neverWritesTheEndSlotOfAHeapArray) {
    Table table;
    table.resize(8);
    Table::Entry& endSlot = GVTestPeer::slots(table)[16];
    endSlot.theKey = 71;
    endSlot.theValue = 72;
    endSlot.theHash = 73;
    for (unsigned int key = 6; key < 16; ++key) {
        table.insert(key, 1);
        table.insert(key, 2);
    }
    for (unsigned int key = 6; key < 16; ++key) {
        table.remove(key);
    }
    EXPECT_EQ(GVTestPeer::mask(table), 15U);
    EXPECT_EQ(endSlot.theKey, 71U);
    EXPECT_EQ(endSlot.theValue, 72);
    EXPECT_EQ(endSlot.theHash, 73U);
    EXPECT_EQ(endSlot.theState, gvemptyentry);
}

TEST(HashTableResize, destroysTheOldHeapArrayFromLastToFirstAfterStoringAgain) {
    DiaryTable table;
    table.insert(1, DiaryValue());
    table.insert(2, DiaryValue());
    table.resize(8);
    std::vector<std::uintptr_t> expected{Diary::hashed, Diary::hashed};
    append(expected, destruction(GVTestPeer::slots(table), 17));
    Diary::take();
    EXPECT_EQ(table.resize(100), 2);
    EXPECT_EQ(Diary::take(), expected);
}

TEST(HashTableResize, leavesTheEmbeddedArrayAliveWhenItMovesToTheHeap) {
    DiaryTable table;
    table.insert(1, DiaryValue());
    Diary::take();
    EXPECT_EQ(table.resize(8), 2);
    EXPECT_EQ(Diary::take(), std::vector<std::uintptr_t>({Diary::hashed}));
}

TEST(HashTableResize, leavesWhatTheEmbeddedSlotsHoldWhenItMovesToTheHeap) {
    Table table;
    table.insert(1, 10);
    table.insert(2, 20);
    table.remove(2);
    EXPECT_EQ(table.resize(8), 2);
    const Table::Entry* const slots = GVTestPeer::smallSlots(table);
    EXPECT_EQ(slots[1].theKey, 1U);
    EXPECT_EQ(slots[1].theValue, 10);
    EXPECT_EQ(slots[1].theState, static_cast<unsigned int>(gvoccupiedentry));
    EXPECT_EQ(slots[2].theKey, 2U);
    EXPECT_EQ(slots[2].theValue, 20);
    EXPECT_EQ(slots[2].theState, static_cast<unsigned int>(gvdeletedentry));
}

TEST(HashTableResize, destroysAHeapArrayBeforeStoringInTheEmbeddedOneAndTheCopyAfter) {
    DiaryTable table;
    table.insert(1, DiaryValue());
    table.resize(8);
    std::vector<std::uintptr_t> expected = destruction(GVTestPeer::slots(table), 17);
    expected.push_back(Diary::hashed);
    Diary::take();
    EXPECT_EQ(table.resize(7), 2);
    const std::vector<std::uintptr_t> diary = Diary::take();
    ASSERT_EQ(diary.size(), 17U + 1U + 17U);
    EXPECT_TRUE(std::equal(expected.begin(), expected.end(), diary.begin()));
    for (std::size_t line = 19; line < diary.size(); ++line) {
        EXPECT_EQ(diary[line - 1] - diary[line], sizeof(DiaryTable::Entry)) << "from last to first";
    }
}

TEST(HashTableClear, destroysTheHeapArrayFromLastToFirst) {
    DiaryTable table;
    table.resize(8);
    const std::vector<std::uintptr_t> expected = destruction(GVTestPeer::slots(table), 17);
    Diary::take();
    table.clear();
    const std::vector<std::uintptr_t> diary = Diary::take();
    ASSERT_GE(diary.size(), expected.size());
    EXPECT_TRUE(std::equal(expected.begin(), expected.end(), diary.begin()));
}

TEST(HashTable, destroysTheHeapArrayThenTheHashFunctionThenTheEmbeddedSlots) {
    std::vector<std::uintptr_t> expected;
    {
        DiaryTable table;
        table.resize(8);
        expected = destruction(GVTestPeer::slots(table), 17);
        expected.push_back(Diary::functionDestroyed);
        append(expected, destruction(GVTestPeer::smallSlots(table), 9));
        Diary::take();
    }
    EXPECT_EQ(Diary::take(), expected);
}

TEST(HashTableResize, returnsOneAndKeepsTheOldArrayWhenAKeyFindsNoSlot) {
    for (const int result : {0, 1}) {
        HookLedger ledger;
        {
            RefusingTable table;
            theRefusal = noRefusal;
            table.resize(8);
            for (const unsigned int key : {1U, 2U, 3U}) {
                table.insert({key}, static_cast<int>(key));
            }
            theRefusal = {2, result};
            EXPECT_EQ(table.resize(31), 1);
            theRefusal = noRefusal;
            //  the new array is in its place, with the keys up to the refused one
            EXPECT_EQ(slotsOf(table), ". 1 . . . . . . . . . . . . . . . . . . . . . . . . . . . . . .");
            EXPECT_EQ(table.getUsedCount(), 1U);
            EXPECT_EQ(GVTestPeer::fillCount(table), 1U);
            EXPECT_EQ(ledger.releaseCount(), 0U);
        }
        EXPECT_EQ(ledger.releaseCount(), 1U) << "the new array, with its table";
        EXPECT_EQ(ledger.reclaimLiveBlocks(), 1U) << "the old array";
    }
}

TEST(HashTableResize, keepsTheTemporaryCopyWhenAKeyFindsNoSlotInTheEmbeddedArray) {
    HookLedger ledger;
    {
        RefusingTable table;
        theRefusal = noRefusal;
        for (const unsigned int key : {1U, 2U, 3U}) {
            table.insert({key}, static_cast<int>(key));
        }
        table.remove({1});
        theRefusal = {3, 1};
        EXPECT_EQ(table.resize(7), 1);
        theRefusal = noRefusal;
        //  slot                    0 1 2 3 4 5 6 7
        EXPECT_EQ(slotsOf(table), ". . 2 . . . . .");
        EXPECT_EQ(GVTestPeer::slots(table), GVTestPeer::smallSlots(table));
    }
    EXPECT_EQ(ledger.releaseCount(), 0U);
    EXPECT_EQ(ledger.reclaimLiveBlocks(), 1U);
}

TEST(HashTableResize, insertionReportsAGrowthThatFoundNoSlot) {
    HookLedger ledger;
    {
        RefusingTable table;
        theRefusal = noRefusal;
        for (const unsigned int key : {0U, 1U, 2U, 3U, 4U, 5U}) {
            table.insert_helper({key}, 0);
        }
        theRefusal = {3, 1};
        expectTableException([&table] { table.insert({5}, 55); }, gvhashtablefailure,
                             "Error occured while resizing table.");
        theRefusal = noRefusal;
        EXPECT_EQ(GVTestPeer::mask(table), 31U);
        EXPECT_EQ(keysOf(table), "0 1 2");
    }
    EXPECT_TRUE(ledger.liveBlocks().empty()) << "the old array was the embedded one";
}

TEST(HashTableResize, reportsARefusedHeapArrayAndLeavesTheTableAlone) {
    HookLedger ledger;
    Table table;
    insertKeys(table, 0, 5);
    table.remove(2);
    const std::string before = stateOf(table);
    ledger.refuseOnce(0);
    expectTableException([&table] { table.resize(8); }, gvoutofmemory, noMemoryMessage, 1);
    EXPECT_EQ(ledger.refusedCount(), 1U);
    EXPECT_EQ(stateOf(table), before);
    EXPECT_TRUE(ledger.liveBlocks().empty());
}

TEST(HashTableResize, reportsARefusedTemporaryCopyAndLeavesASmallTableAlone) {
    HookLedger ledger;
    Table table;
    insertKeys(table, 0, 5);
    table.remove(2);
    const std::string before = stateOf(table);
    ledger.refuseOnce(0);
    expectTableException([&table] { table.resize(7); }, gvoutofmemory, noMemoryMessage, 2);
    EXPECT_EQ(ledger.refusedCount(), 1U);
    EXPECT_EQ(stateOf(table), before);
    EXPECT_TRUE(ledger.liveBlocks().empty());
}

TEST(HashTableResize, reportsARefusedTemporaryCopyAndLeavesAHeapTableAlone) {
    HookLedger ledger;
    Table table;
    insertKeys(table, 0, 6);
    const std::string before = stateOf(table);
    ledger.refuseOnce(0);
    expectTableException([&table] { table.resize(7); }, gvoutofmemory, noMemoryMessage, 2);
    EXPECT_EQ(stateOf(table), before);
    EXPECT_EQ(ledger.liveBlocks().size(), 1U);
}

TEST(HashTableResize, throwsBadAllocWhileMemoryStaysExhausted) {
    HookLedger ledger;
    Table table;
    insertKeys(table, 0, 6);
    const std::string before = stateOf(table);
    ledger.refuseFrom(0);
    EXPECT_THROW(table.resize(100), std::bad_alloc);
    EXPECT_THROW(table.resize(7), std::bad_alloc);
    ledger.refuseNothing();
    EXPECT_EQ(stateOf(table), before);
    EXPECT_EQ(ledger.liveBlocks().size(), 1U);
}

TEST(HashTableResize, countsASizeThatNoBlockCanHaveAsExhaustion) {
    HookLedger ledger;
    Table table;
    insertKeys(table, 0, 3);
    const std::string before = stateOf(table);
    expectTableException([&table] { table.resize(2147483647U); }, gvoutofmemory, noMemoryMessage, 1);
    EXPECT_EQ(ledger.refusedCount(), 0U) << "the allocation function is not asked";
    EXPECT_EQ(stateOf(table), before);
}

TEST(HashTableResize, countsAnArrayThatTheLanguageCannotMeasureAsExhaustion) {
    HookLedger ledger;
    Table table;
    insertKeys(table, 0, 3);
    const std::string before = stateOf(table);
    // The hook could be asked for so many bytes, but where a difference of pointers has 32 bits no array is as large.
    constexpr unsigned int slots = 134217728;
    constexpr std::size_t countableBytes = std::numeric_limits<unsigned int>::max();
    static_assert(slots > (countableBytes / 2) / sizeof(Table::Entry) && slots < countableBytes / sizeof(Table::Entry),
                  "more than half of what 32 bits can count, and less than all");
    constexpr bool isMeasurable = sizeof(std::ptrdiff_t) > sizeof(unsigned int);
    if (isMeasurable) {
        ledger.refuseOnce(0);
    }
    expectTableException([&table] { table.resize(slots - 1); }, gvoutofmemory, noMemoryMessage, 1);
    EXPECT_EQ(ledger.refusedCount(), isMeasurable ? 1U : 0U) << "asked for the array or not";
    EXPECT_EQ(stateOf(table), before);
    EXPECT_TRUE(ledger.liveBlocks().empty());
}

TEST(HashTableResize, asksForTheLargestArrayThatCanBeCounted) {
    constexpr std::size_t entryBytes = mostBytes / 2049 / alignof(void*) * alignof(void*);
    static_assert(2049 * entryBytes <= mostBytes && 2049 * (entryBytes + 1) > mostBytes, "a byte more, and none fits");
    using LargeTable = TableOfEntriesOf<entryBytes>;
    static_assert(sizeof(LargeTable::Entry) == entryBytes, "nothing is added");
    const std::unique_ptr<LargeTable> table(new LargeTable);
    HookLedger ledger;
    ledger.refuseOnce(0);
    expectTableException([&table] { table->resize(2047); }, gvoutofmemory, noMemoryMessage, 1);
    EXPECT_EQ(ledger.refusedCount(), 1U);
}

TEST(HashTableResize, countsTheSmallestArrayThatIsTooLargeAsExhaustion) {
    constexpr std::size_t entryBytes = mostBytes / 257 + 1;
    static_assert(257 * entryBytes > mostBytes && 257 * (entryBytes - 1) <= mostBytes, "a byte less, and it fits");
    using LargeTable = TableOfEntriesOf<entryBytes>;
    static_assert(sizeof(LargeTable::Entry) == entryBytes, "nothing is added");
    const std::unique_ptr<LargeTable> table(new LargeTable);
    const HookLedger ledger;
    expectTableException([&table] { table->resize(255); }, gvoutofmemory, noMemoryMessage, 1);
    for (const unsigned int request : ledger.requests()) {
        EXPECT_LT(request, entryBytes) << "asked for more than the exception's texts";
    }
}

TEST(HashTableResize, doesNothingWhenItsSizeWouldNotFitIn32Bits) {
    HookLedger ledger;
    Table table;
    insertKeys(table, 0, 6);
    table.remove(2);
    const std::string before = stateOf(table);
    const std::size_t allocations = ledger.allocationCount();
    EXPECT_EQ(table.resize(2147483648U), 0);
    EXPECT_EQ(table.resize(4294967295U), 0);
    EXPECT_EQ(ledger.allocationCount(), allocations);
    EXPECT_EQ(stateOf(table), before);
}

TEST(HashTableResize, passesOnAnEntrysOwnExceptionAndLeavesTheTableAlone) {
    HookLedger ledger;
    FragileValue::constructionsLeft() = 10;
    GVHashTable<unsigned int, FragileValue> table; // takes 9
    EXPECT_THROW(table.resize(8), FragileValue::Failure);
    EXPECT_EQ(GVTestPeer::mask(table), 7U);
    EXPECT_EQ(GVTestPeer::slots(table), GVTestPeer::smallSlots(table));
    EXPECT_EQ(ledger.allocationCount(), 1U);
    EXPECT_TRUE(ledger.liveBlocks().empty());
}

} // namespace Gilvane
