// Walking a table's values, the key list, and every misuse of an iterator.

#include "tablesupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <list>
#include <new>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace Gilvane {

namespace {

using Table = GVHashTable<unsigned int, int>;
using Iterator = Table::Iterator;

constexpr const char* atEndMessage = "Iterator at end.";
constexpr const char* invalidEntryMessage = "Iterator refers to invalid table entry.";

// Where a message stands in the source more than once: which of the throws is whose.
constexpr int incrementsEnd = 1;
constexpr int dereferencesEnd = 2;
constexpr int keysEntry = 1;
constexpr int valuesEntry = 2;

void expectMisuse(const Iterator& iterator, void (*operation)(Iterator&), const std::string& message,
                  int occurrence = 1) {
    Iterator copy(iterator);
    expectTableException([&] { operation(copy); }, gviteratormisuse, message, occurrence);
    EXPECT_TRUE(copy == iterator) << "the position stays";
}

void increment(Iterator& iterator) { ++iterator; }
void incrementPostfix(Iterator& iterator) { iterator++; }
void getKey(Iterator& iterator) { static_cast<void>(iterator.GetKey()); }
void getValue(Iterator& iterator) { static_cast<void>(iterator.GetValue()); }
void dereference(Iterator& iterator) { static_cast<void>(*iterator); }

/// An iterator whose current slot's address comes out as 0: its array would start just before the end of the address
/// space.
Iterator iteratorOnAddressZero() {
    const std::uintptr_t start = std::uintptr_t{0} - sizeof(Table::Entry);
    return GVTestPeer::iteratorOn(reinterpret_cast<Table::Entry*>(start), 3, 1);
}

template <typename K>
std::vector<K> asVector(const std::list<K, GVStdAllocator<K>>& list) {
    return std::vector<K>(list.begin(), list.end());
}

using Keys = std::vector<unsigned int>;

/// Layout of an iterator.
struct IteratorModel {
    virtual ~IteratorModel() = default;
    void* table;
    unsigned int capacity;
    unsigned int index;
};

} // namespace

TEST(HashTableIterator, isNotReadyWhenMadeByItself) {
    Iterator iterator;
    EXPECT_EQ(GVTestPeer::slots(iterator), nullptr);
    EXPECT_EQ(GVTestPeer::capacity(iterator), 0U);
    EXPECT_EQ(GVTestPeer::index(iterator), 0U);
}

TEST(HashTableIterator, holdsTableCapacityAndIndexInThatOrderAndNothingElse) {
    Iterator iterator;
    EXPECT_EQ(sizeof(Iterator), sizeof(IteratorModel));
    const void* const table = &GVTestPeer::slots(iterator);
    const void* const capacity = &GVTestPeer::capacity(iterator);
    const void* const index = &GVTestPeer::index(iterator);
    EXPECT_LT(table, capacity);
    EXPECT_LT(capacity, index);
}

TEST(HashTableIterator, refusesEveryOperationWhenNotReadyEachWithItsOwnMessage) {
    const Iterator iterator;
    expectMisuse(iterator, increment, "Iterator not ready to increment.");
    expectMisuse(iterator, incrementPostfix, "Iterator not ready to increment.");
    expectMisuse(iterator, getKey, "Iterator not ready to get key.");
    expectMisuse(iterator, getValue, "Iterator not ready to get value.");
    expectMisuse(iterator, dereference, "Iterator not ready to dereference.");
}

TEST(HashTableIterator, isNotReadyRatherThanAtTheEndWhenBothHold) {
    const Iterator iterator = GVTestPeer::iteratorOn<unsigned int, int>(nullptr, 1, 0);
    expectMisuse(iterator, increment, "Iterator not ready to increment.");
    expectMisuse(iterator, dereference, "Iterator not ready to dereference.");
}

TEST(HashTableIterator, beginsAtTheEndOfAnEmptyTable) {
    const Table table;
    Iterator iterator = table.begin();
    EXPECT_EQ(GVTestPeer::slots(iterator), GVTestPeer::slots(table));
    EXPECT_EQ(GVTestPeer::capacity(iterator), 9U);
    EXPECT_EQ(GVTestPeer::index(iterator), 8U);
    EXPECT_TRUE(iterator == table.end());
}

TEST(HashTableIterator, refusesEveryOperationAtTheEnd) {
    const Table table;
    const Iterator iterator = table.begin();
    expectMisuse(iterator, increment, atEndMessage, incrementsEnd);
    expectMisuse(iterator, incrementPostfix, atEndMessage, incrementsEnd);
    expectMisuse(iterator, dereference, atEndMessage, dereferencesEnd);
    expectMisuse(iterator, getKey, invalidEntryMessage, keysEntry);
    expectMisuse(iterator, getValue, invalidEntryMessage, valuesEntry);
}

TEST(HashTableIterator, getKeyAndGetValueLookAtTheStateOfTheEndSlotAndNotForTheEnd) {
    Table table;
    GVTestPeer::smallSlots(table)[8].theKey = 81;
    GVTestPeer::smallSlots(table)[8].theValue = 82;
    GVTestPeer::smallSlots(table)[8].theState = gvoccupiedentry;
    const Iterator iterator = table.end();
    EXPECT_EQ(iterator.GetKey(), 81U);
    EXPECT_EQ(iterator.GetValue(), 82);
    expectMisuse(iterator, dereference, atEndMessage, dereferencesEnd);
}

TEST(HashTableIterator, throwsFromTheIncrementAndNotFromTheDereferenceWhenWalkedPastTheEnd) {
    Table table;
    insertKeys(table, 1, 3);
    Iterator iterator = table.begin();
    unsigned int line = 0;
    try {
        for (;;) {
            iterator++;
        }
    } catch (const GVException& exception) {
        line = exception.getLine();
    }
    EXPECT_EQ(line, lineOfThrow("libsrc/datastructures/gvhashtable", atEndMessage, incrementsEnd));
    EXPECT_NE(line, lineOfThrow("libsrc/datastructures/gvhashtable", atEndMessage, dereferencesEnd));
    EXPECT_TRUE(iterator == table.end());
}

TEST(HashTableIterator, refusesASlotWhoseAddressIsNull) {
    const Iterator iterator = iteratorOnAddressZero();
    expectMisuse(iterator, getKey, invalidEntryMessage, keysEntry);
    expectMisuse(iterator, getValue, invalidEntryMessage, valuesEntry);
    expectMisuse(iterator, dereference, "Iterator does not point to valid hash table entry.");
}

TEST(HashTableIterator, dereferencesADeletedSlotThatGetValueRefuses) {
    Table table;
    insertKeys(table, 3, 1);
    const Iterator iterator = table.begin();
    table.remove(3);
    EXPECT_EQ(*iterator, 3);
    expectMisuse(iterator, getValue, invalidEntryMessage, valuesEntry);
    expectMisuse(iterator, getKey, invalidEntryMessage, keysEntry);
}

TEST(HashTableIterator, stepsOnFromADeletedSlot) {
    Table table;
    insertKeys(table, 3, 2);
    Iterator iterator = table.begin();
    table.remove(3);
    EXPECT_EQ((++iterator).GetKey(), 4U);
}

TEST(HashTableIterator, dereferencesAnEmptySlotBeforeTheEndThatGetValueRefuses) {
    Table table;
    GVTestPeer::slots(table)[2].theValue = 22;
    const Iterator iterator = GVTestPeer::iteratorOn(GVTestPeer::slots(table), 9, 2);
    EXPECT_EQ(*iterator, 22);
    expectMisuse(iterator, getValue, invalidEntryMessage, valuesEntry);
    expectMisuse(iterator, getKey, invalidEntryMessage, keysEntry);
}

TEST(HashTableIterator, yieldsReferencesIntoTheSlot) {
    Table table;
    insertKeys(table, 3, 1);
    const Iterator iterator = table.begin();
    EXPECT_EQ(&iterator.GetKey(), &table.get(3)->theKey);
    EXPECT_EQ(&iterator.GetValue(), &table.get(3)->theValue);
    EXPECT_EQ(&*iterator, &table.get(3)->theValue);
    *iterator = 33;
    EXPECT_EQ(table.get(3)->theValue, 33);
    iterator.GetValue() = 34;
    EXPECT_EQ(table.get(3)->theValue, 34);
}

TEST(HashTableIterator, beginsOnTheLowestOccupiedSlot) {
    Table table;
    insertKeys(table, 1, 4);
    table.remove(1);
    //  slot                    0 1 2 3 4 5 6 7
    EXPECT_EQ(slotsOf(table), ". x 2 3 4 . . .");
    Iterator iterator = table.begin();
    EXPECT_EQ(GVTestPeer::index(iterator), 2U);
    EXPECT_EQ(iterator.GetKey(), 2U);
}

TEST(HashTableIterator, beginsOnSlotZeroWhenThatIsOccupied) {
    Table table;
    insertKeys(table, 0, 2);
    Iterator iterator = table.begin();
    EXPECT_EQ(GVTestPeer::index(iterator), 0U);
}

TEST(HashTableIterator, visitsKeysInTheOrderOfTheirSlots) {
    Table table;
    table.insert(3, 0);
    table.insert(1, 0);
    table.insert(2, 0);
    EXPECT_EQ(keysOf(table), "1 2 3");
}

TEST(HashTableIterator, visitsKeysInAnOrderThatDependsOnTheirInsertion) {
    Table oneFirst;
    oneFirst.insert(1, 0);
    oneFirst.insert(9, 0);
    //  slot                       0 1 2 3 4 5 6 7
    EXPECT_EQ(slotsOf(oneFirst), ". 1 . . . . . 9");
    EXPECT_EQ(keysOf(oneFirst), "1 9");
    Table nineFirst;
    nineFirst.insert(9, 0);
    nineFirst.insert(1, 0);
    EXPECT_EQ(slotsOf(nineFirst), ". 9 . . . . . 1");
    EXPECT_EQ(keysOf(nineFirst), "9 1");
}

TEST(HashTableIterator, stepsOverEmptyAndDeletedSlots) {
    Table table;
    for (const unsigned int key : {0U, 2U, 3U, 6U}) {
        table.insert(key, 0);
    }
    table.remove(2);
    //  slot                    0 1 2 3 4 5 6 7
    EXPECT_EQ(slotsOf(table), "0 . x 3 . . 6 .");
    Iterator iterator = table.begin();
    Keys indices;
    for (; iterator != table.end(); ++iterator) {
        indices.push_back(GVTestPeer::index(iterator));
    }
    EXPECT_EQ(indices, Keys({0, 3, 6}));
    EXPECT_EQ(GVTestPeer::index(iterator), 8U);
}

TEST(HashTableIterator, reachesTheLastSlotBeforeTheEnd) {
    Table table;
    table.insert(7, 0);
    Iterator iterator = table.begin();
    EXPECT_EQ(GVTestPeer::index(iterator), 7U);
    ++iterator;
    EXPECT_EQ(GVTestPeer::index(iterator), 8U);
    EXPECT_TRUE(iterator == table.end());
}

TEST(HashTableIterator, stopsAtTheEndSlotWhateverItHolds) {
    Table table;
    table.insert(7, 0);
    GVTestPeer::smallSlots(table)[8].theState = gvoccupiedentry;
    Iterator iterator = table.begin();
    ++iterator;
    EXPECT_EQ(GVTestPeer::index(iterator), 8U);
    expectMisuse(iterator, increment, atEndMessage, incrementsEnd);
}

TEST(HashTableIterator, postfixIncrementYieldsTheFormerPosition) {
    Table table;
    insertKeys(table, 1, 2);
    Iterator iterator = table.begin();
    const Iterator former = iterator++;
    EXPECT_EQ(former.GetKey(), 1U);
    EXPECT_EQ(iterator.GetKey(), 2U);
}

TEST(HashTableIterator, prefixIncrementYieldsItself) {
    Table table;
    insertKeys(table, 1, 2);
    Iterator iterator = table.begin();
    EXPECT_EQ(&++iterator, &iterator);
    EXPECT_EQ(iterator.GetKey(), 2U);
}

TEST(HashTableIterator, knowsTheCapacityOfAGrownTable) {
    Table table;
    insertKeys(table, 0, 6);
    Iterator first = table.begin();
    Iterator end = table.end();
    EXPECT_EQ(GVTestPeer::capacity(first), 33U);
    EXPECT_EQ(GVTestPeer::slots(end), GVTestPeer::slots(table));
    EXPECT_EQ(GVTestPeer::capacity(end), 33U);
    EXPECT_EQ(GVTestPeer::index(end), 32U);
    EXPECT_EQ(keysOf(table), "0 1 2 3 4 5");
}

TEST(HashTableIterator, isEqualOnTheSameSlotOfTheSameArrayOnly) {
    Table table;
    const Iterator iterator = GVTestPeer::iteratorOn(GVTestPeer::slots(table), 9, 2);
    EXPECT_TRUE(iterator == GVTestPeer::iteratorOn(GVTestPeer::slots(table), 9, 2));
    EXPECT_FALSE(iterator != GVTestPeer::iteratorOn(GVTestPeer::slots(table), 9, 2));
    EXPECT_FALSE(iterator == GVTestPeer::iteratorOn(GVTestPeer::slots(table), 9, 3));
    EXPECT_TRUE(iterator != GVTestPeer::iteratorOn(GVTestPeer::slots(table), 9, 3));
    EXPECT_FALSE(GVTestPeer::iteratorOn(GVTestPeer::slots(table), 9, 3) == iterator);
    EXPECT_FALSE(iterator == GVTestPeer::iteratorOn(GVTestPeer::slots(table), 8, 2));
    EXPECT_FALSE(GVTestPeer::iteratorOn(GVTestPeer::slots(table), 8, 2) == iterator);
    const Table other;
    EXPECT_FALSE(iterator == GVTestPeer::iteratorOn(GVTestPeer::slots(other), 9, 2));
    EXPECT_TRUE(Iterator() == Iterator());
    EXPECT_FALSE(Iterator() == table.end());
}

TEST(HashTableIterator, walksTheValuesInARangeFor) {
    Table table;
    insertKeys(table, 1, 3);
    for (int& value : table) {
        value *= 10;
    }
    const Table& unchanging = table;
    std::vector<int> values;
    for (const int value : unchanging) {
        values.push_back(value);
    }
    EXPECT_EQ(values, std::vector<int>({10, 20, 30}));
}

TEST(HashTableIterator, isAForwardIteratorOverTheValues) {
    using Traits = std::iterator_traits<Iterator>;
    EXPECT_TRUE((std::is_same_v<Traits::iterator_category, std::forward_iterator_tag>));
    EXPECT_TRUE((std::is_same_v<Traits::value_type, int>));
    EXPECT_TRUE((std::is_same_v<Traits::reference, int&>));
    EXPECT_TRUE((std::is_same_v<Traits::pointer, int*>));
    EXPECT_TRUE((std::is_same_v<Traits::difference_type, std::ptrdiff_t>));
    EXPECT_TRUE((std::is_same_v<decltype(*std::declval<const Iterator&>()), Traits::reference>));
}

TEST(HashTableIterator, servesTheStandardAlgorithms) {
    Table table;
    insertKeys(table, 1, 5);
    table.remove(2);
    EXPECT_EQ(std::distance(table.begin(), table.end()), 4);
    EXPECT_EQ(std::find(table.begin(), table.end(), 4).GetKey(), 4U);
    EXPECT_TRUE(std::find(table.begin(), table.end(), 2) == table.end());
    EXPECT_EQ(std::count_if(table.begin(), table.end(), [](int value) { return value > 3; }), 2);
    std::for_each(table.begin(), table.end(), [](int& value) { value = 10 - value; });
    EXPECT_EQ(std::max_element(table.begin(), table.end()).GetKey(), 1U);
    EXPECT_EQ(std::min_element(table.begin(), table.end()).GetKey(), 5U);
    EXPECT_EQ(std::vector<int>(table.begin(), table.end()), std::vector<int>({9, 7, 6, 5}));
}

TEST(HashTableIterator, allocatesNothing) {
    HookLedger ledger;
    Table table;
    insertKeys(table, 1, 3);
    EXPECT_EQ(keysOf(table), "1 2 3");
    EXPECT_EQ(ledger.allocationCount(), 0U);
}

TEST(HashTableKeys, areListedInTheOrderOfTheirSlots) {
    Table table;
    table.insert(9, 0);
    table.insert(1, 0);
    table.insert(0, 0);
    table.insert(3, 0);
    table.remove(3);
    //  slot                    0 1 2 3 4 5 6 7
    EXPECT_EQ(slotsOf(table), "0 9 . x . . . 1");
    EXPECT_EQ(asVector(table.get_keys()), Keys({0, 9, 1}));
}

TEST(HashTableKeys, followTheHistoryOfInsertionAsTheIteratorDoes) {
    Table oneFirst;
    oneFirst.insert(1, 0);
    oneFirst.insert(9, 0);
    EXPECT_EQ(asVector(oneFirst.get_keys()), Keys({1, 9}));
    Table nineFirst;
    nineFirst.insert(9, 0);
    nineFirst.insert(1, 0);
    EXPECT_EQ(asVector(nineFirst.get_keys()), Keys({9, 1}));
}

TEST(HashTableKeys, areNoneInAnEmptyTable) {
    HookLedger ledger;
    const Table table;
    EXPECT_TRUE(table.get_keys().empty());
    EXPECT_EQ(ledger.allocationCount(), 0U);
}

TEST(HashTableKeys, doNotIncludeTheEndSlots) {
    Table table;
    table.insert(7, 0);
    GVTestPeer::smallSlots(table)[8].theKey = 8;
    GVTestPeer::smallSlots(table)[8].theState = gvoccupiedentry;
    EXPECT_EQ(asVector(table.get_keys()), Keys({7}));
}

TEST(HashTableKeys, areAListWithTheSystemsAllocator) {
    using Expected = std::list<unsigned int, GVStdAllocator<unsigned int>>;
    EXPECT_TRUE((std::is_same_v<decltype(std::declval<const Table&>().get_keys()), Expected>));
}

TEST(HashTableKeys, takeOneBlockEach) {
    HookLedger ledger;
    Table table;
    insertKeys(table, 1, 3);
    {
        const Table::KeyList keys = table.get_keys();
        EXPECT_EQ(ledger.liveBlocks().size(), 3U);
    }
    EXPECT_TRUE(ledger.liveBlocks().empty());
}

TEST(HashTableKeys, stayGoodWhenTheTableChanges) {
    Table table;
    insertKeys(table, 1, 3);
    const Table::KeyList keys = table.get_keys();
    table.insert(4, 4);
    table.clear();
    EXPECT_EQ(asVector(keys), Keys({1, 2, 3}));
}

TEST(HashTableKeys, areGivenBackWhenMemoryRunsOutHalfway) {
    HookLedger ledger;
    Table table;
    insertKeys(table, 1, 5);
    std::size_t refused = 0;
    const auto completesWithAllocationRefused = [&](std::size_t allocationsBefore) {
        ledger.refuseFrom(allocationsBefore);
        try {
            const Table::KeyList keys = table.get_keys();
            ledger.refuseNothing();
            EXPECT_EQ(asVector(keys), Keys({1, 2, 3, 4, 5}));
            return true;
        } catch (const std::bad_alloc&) {
            ledger.refuseNothing();
            EXPECT_TRUE(ledger.liveBlocks().empty());
            return false;
        }
    };
    while (!completesWithAllocationRefused(refused)) {
        ++refused;
    }
    EXPECT_EQ(refused, 5U);
}

} // namespace Gilvane
