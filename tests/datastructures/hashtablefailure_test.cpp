// The ways insert fails. Most cannot be reached while the invariants hold, so the parts of insert are played by
// stand-ins or the table is put into a state that no operation leaves behind.

#include "tablesupport.h"

#include <gtest/gtest.h>

#include <deque>
#include <new>
#include <ostream>
#include <string>
#include <vector>

namespace Gilvane {

namespace {

using Table = GVHashTable<unsigned int, int>;

constexpr const char* beforeStoringMessage = "Error ocurred while resizing table.";
constexpr const char* insertingMessage = "Error occurred while inserting.";
constexpr const char* afterStoringMessage = "Error occured while resizing table.";

/// A key whose table consists of stand-ins that answer as the script says and write down how they were called.
struct StagedKey {
    unsigned int number;
    bool operator==(const StagedKey& other) const { return number == other.number; }
};
struct StagedKeyHash {
    unsigned int operator()(const StagedKey& key) const { return key.number; }
};
using StagedTable = GVHashTable<StagedKey, int, StagedKeyHash>;

struct Stage {
    static std::deque<int>& script() {
        static std::deque<int> theScript;
        return theScript;
    }
    static std::vector<std::string>& calls() {
        static std::vector<std::string> theCalls;
        return theCalls;
    }
    static void set(const std::deque<int>& script) {
        Stage::script() = script;
        calls().clear();
    }
    static int answer(const std::string& call) {
        calls().push_back(call);
        if (script().empty()) {
            ADD_FAILURE() << "not in the script: " << call;
            return 2;
        }
        const int result = script().front();
        script().pop_front();
        return result;
    }
};

using Calls = std::vector<std::string>;

/// A key or value whose copies can be made to fail.
struct Brittle {
    struct Failure {};

    Brittle() = default;
    Brittle(unsigned int initialNumber)
        : number(initialNumber) {} // NOLINT(google-explicit-constructor): keys by number
    Brittle(const Brittle& other) : number(other.number) { countCopy(); }
    Brittle& operator=(const Brittle& other) {
        countCopy();
        number = other.number;
        return *this;
    }
    ~Brittle() = default;
    bool operator==(const Brittle& other) const { return number == other.number; }

    /// Copies that succeed before one fails; below 0 none fails.
    static int& copiesLeft() {
        static int theCopies = -1;
        return theCopies;
    }

    unsigned int number = 0;

  private:
    static void countCopy() {
        if (copiesLeft() >= 0 && copiesLeft()-- == 0) {
            throw Failure();
        }
    }
};
std::ostream& operator<<(std::ostream& stream, const Brittle& brittle) { return stream << brittle.number; }
struct BrittleHash {
    unsigned int operator()(const Brittle& key) const { return key.number; }
};
using BrittleTable = GVHashTable<Brittle, Brittle, BrittleHash>;

/// Runs an operation of a table and expects that copy to fail in it, counted from 0.
template <typename Operation>
void expectCopyToFail(int copiesBefore, Operation operation) {
    Brittle::copiesLeft() = copiesBefore;
    EXPECT_THROW(operation(), Brittle::Failure);
    Brittle::copiesLeft() = -1;
}

} // namespace

template <>
int GVHashTable<StagedKey, int, StagedKeyHash>::insert_helper(const StagedKey& key, const int& value) {
    return Stage::answer("store " + std::to_string(key.number) + " " + std::to_string(value));
}

template <>
int GVHashTable<StagedKey, int, StagedKeyHash>::resize(unsigned int minUsed) {
    return Stage::answer("resize " + std::to_string(minUsed));
}

TEST(HashTableInsertion, storesOnceAndDoesNotGrowBelowTwoThirds) {
    StagedTable table;
    GVTestPeer::fillCount(table) = 5;
    Stage::set({2});
    EXPECT_EQ(table.insert({1}, 10), 2);
    EXPECT_EQ(Stage::calls(), Calls({"store 1 10"}));
}

TEST(HashTableInsertion, growsAfterStoringAtTwoThirds) {
    StagedTable table;
    GVTestPeer::usedCount(table) = 4;
    GVTestPeer::fillCount(table) = 6;
    Stage::set({2, 2});
    EXPECT_EQ(table.insert({1}, 10), 2);
    EXPECT_EQ(Stage::calls(), Calls({"store 1 10", "resize 16"}));
}

TEST(HashTableInsertion, returnsWhatTheGrowthAfterStoringReturned) {
    StagedTable table;
    GVTestPeer::fillCount(table) = 6;
    Stage::set({2, 3});
    EXPECT_EQ(table.insert({1}, 10), 3);
}

TEST(HashTableInsertion, asksForTwiceThirtyThousandAndFourTimesLess) {
    StagedTable table;
    GVTestPeer::fillCount(table) = 6;
    GVTestPeer::usedCount(table) = 29999;
    Stage::set({2, 2});
    table.insert({1}, 10);
    EXPECT_EQ(Stage::calls().back(), "resize 119996");
    GVTestPeer::usedCount(table) = 30000;
    Stage::set({2, 2});
    table.insert({1}, 10);
    EXPECT_EQ(Stage::calls().back(), "resize 60000");
}

TEST(HashTableInsertion, growsAndTriesAgainUntilThereIsASlot) {
    StagedTable table;
    GVTestPeer::usedCount(table) = 3;
    Stage::set({1, 2, 1, 2, 2});
    EXPECT_EQ(table.insert({1}, 10), 2);
    EXPECT_EQ(Stage::calls(), Calls({"store 1 10", "resize 12", "store 1 10", "resize 12", "store 1 10"}));
}

TEST(HashTableInsertion, asksForAsMuchBeforeStoringAsAfterIt) {
    StagedTable table;
    GVTestPeer::usedCount(table) = 29999;
    Stage::set({1, 2, 2});
    table.insert({1}, 10);
    EXPECT_EQ(Stage::calls()[1], "resize 119996");
    GVTestPeer::usedCount(table) = 30000;
    Stage::set({1, 2, 2});
    table.insert({1}, 10);
    EXPECT_EQ(Stage::calls()[1], "resize 60000");
}

TEST(HashTableInsertion, growsAfterStoringThoughItGrewBefore) {
    StagedTable table;
    GVTestPeer::fillCount(table) = 6;
    Stage::set({1, 2, 2, 2});
    EXPECT_EQ(table.insert({1}, 10), 2);
    EXPECT_EQ(Stage::calls(), Calls({"store 1 10", "resize 0", "store 1 10", "resize 0"}));
}

TEST(HashTableInsertion, throwsWhenStoringFails) {
    StagedTable table;
    GVTestPeer::fillCount(table) = 6; // growth is due, but is not tried
    Stage::set({0});
    expectTableException([&table] { table.insert({1}, 10); }, gvhashtablefailure, insertingMessage);
    EXPECT_EQ(Stage::calls(), Calls({"store 1 10"}));
}

TEST(HashTableInsertion, throwsWhenStoringFailsAfterGrowth) {
    StagedTable table;
    Stage::set({1, 2, 0});
    expectTableException([&table] { table.insert({1}, 10); }, gvhashtablefailure, insertingMessage);
    EXPECT_EQ(Stage::calls(), Calls({"store 1 10", "resize 0", "store 1 10"}));
}

TEST(HashTableInsertion, throwsWhenTheGrowthBeforeStoringFails) {
    for (const int result : {0, 1}) {
        StagedTable table;
        Stage::set({1, result});
        expectTableException([&table] { table.insert({1}, 10); }, gvhashtablefailure, beforeStoringMessage);
        EXPECT_EQ(Stage::calls(), Calls({"store 1 10", "resize 0"}));
    }
}

TEST(HashTableInsertion, throwsWhenTheGrowthAfterStoringFails) {
    for (const int result : {0, 1}) {
        StagedTable table;
        GVTestPeer::fillCount(table) = 6;
        Stage::set({2, result});
        expectTableException([&table] { table.insert({1}, 10); }, gvhashtablefailure, afterStoringMessage);
        EXPECT_EQ(Stage::calls(), Calls({"store 1 10", "resize 0"}));
    }
}

TEST(HashTableInsertion, throwsBeforeStoringWhenTheSizeToGrowToDoesNotFitIn32Bits) {
    Table table;
    GVTestPeer::slots(table) = nullptr;
    GVTestPeer::usedCount(table) = 1073741824U; // twice that is 2^31
    expectTableException([&table] { table.insert(1, 10); }, gvhashtablefailure, beforeStoringMessage);
    EXPECT_EQ(GVTestPeer::usedCount(table), 1073741824U);
    EXPECT_EQ(GVTestPeer::slots(table), nullptr);
}

TEST(HashTableInsertion, keepsTheKeyWhenTheSizeToGrowToDoesNotFitIn32Bits) {
    Table table;
    for (unsigned int key = 0; key < 5; ++key) {
        table.insert(key, 0);
    }
    GVTestPeer::usedCount(table) = 1073741823U;
    expectTableException([&table] { table.insert(5, 50); }, gvhashtablefailure, afterStoringMessage);
    //  slot                    0 1 2 3 4 5 6 7
    EXPECT_EQ(slotsOf(table), "0 1 2 3 4 5 . .");
    EXPECT_EQ(table.get(5)->theValue, 50);
    EXPECT_EQ(GVTestPeer::usedCount(table), 1073741824U);
}

TEST(HashTableInsertion, throwsBeforeStoringWhenMemoryForTheFirstArrayIsRefused) {
    HookLedger ledger;
    Table table;
    GVTestPeer::slots(table) = nullptr;
    GVTestPeer::usedCount(table) = 3; // asks for 12
    ledger.refuseOnce(0);
    expectTableException([&table] { table.insert(1, 10); }, gvoutofmemory, "Unable to allocate space for new table.",
                         1);
    EXPECT_EQ(GVTestPeer::slots(table), nullptr);
    EXPECT_EQ(GVTestPeer::mask(table), 7U);
}

TEST(HashTableInsertion, throwsBadAllocWhileMemoryStaysExhausted) {
    HookLedger ledger;
    Table table;
    insertKeys(table, 0, 5);
    ledger.refuseFrom(0);
    EXPECT_THROW(table.insert(5, 50), std::bad_alloc);
    ledger.refuseNothing();
    EXPECT_EQ(slotsOf(table), "0 1 2 3 4 5 . .");
    EXPECT_EQ(table.get(5)->theValue, 50);
}

TEST(HashTableInsertion, spellsItsThreeFailuresInThreeWays) {
    const auto messageOf = [](const std::deque<int>& script) {
        StagedTable table;
        GVTestPeer::fillCount(table) = 6;
        Stage::set(script);
        try {
            table.insert({1}, 10);
        } catch (const GVException& exception) {
            return std::string(exception.getMessage());
        }
        return std::string();
    };
    EXPECT_EQ(messageOf({1, 0}), "Error ocurred while resizing table.");
    EXPECT_EQ(messageOf({0}), "Error occurred while inserting.");
    EXPECT_EQ(messageOf({2, 0}), "Error occured while resizing table.");
}

// Copies that throw: the first is the key's, the second the value's.

TEST(HashTableInsertion, leavesTheTableAsItWasWhenACopyForAnEmptySlotFails) {
    for (const int copiesBefore : {0, 1}) {
        BrittleTable table;
        table.insert(1U, 10U);
        const std::string before = stateOf(table);
        expectCopyToFail(copiesBefore, [&table] { table.insert(2U, 20U); });
        EXPECT_EQ(stateOf(table), before) << copiesBefore;
        EXPECT_EQ(table.get(2U), nullptr);
    }
}

TEST(HashTableInsertion, leavesADeletedSlotDeletedWhenACopyForItFails) {
    for (const int copiesBefore : {0, 1}) {
        BrittleTable table;
        table.insert(1U, 10U);
        table.insert(2U, 20U);
        table.remove(1U);
        const std::string before = stateOf(table);
        expectCopyToFail(copiesBefore, [&table] { table.insert(9U, 90U); });
        //  slot                    0 1 2 3 4 5 6 7
        EXPECT_EQ(slotsOf(table), ". x 2 . . . . .");
        EXPECT_EQ(stateOf(table), before) << copiesBefore;
        EXPECT_EQ(GVTestPeer::fillCount(table), 2U);
        EXPECT_EQ(table.getUsedCount(), 1U);
    }
}

TEST(HashTableInsertion, writesTheKeyThenTheValueThenTheHashOfAReusedSlot) {
    BrittleTable table;
    table.insert(1U, 10U);
    table.remove(1U);
    const BrittleTable::Entry& slot = table.getEntry(1);
    expectCopyToFail(0, [&table] { table.insert(9U, 90U); });
    EXPECT_EQ(slot.theKey.number, 1U);
    EXPECT_EQ(slot.theValue.number, 10U);
    EXPECT_EQ(slot.theHash, 1U);
    expectCopyToFail(1, [&table] { table.insert(9U, 90U); });
    EXPECT_EQ(slot.theKey.number, 9U);
    EXPECT_EQ(slot.theValue.number, 10U);
    EXPECT_EQ(slot.theHash, 1U);
}

TEST(HashTableInsertion, copiesTheKeyAndTheValueOnceEachForAReplacement) {
    BrittleTable table;
    table.insert(1U, 10U);
    Brittle::copiesLeft() = 2;
    EXPECT_NO_THROW(table.insert(1U, 11U));
    EXPECT_EQ(Brittle::copiesLeft(), 0);
    Brittle::copiesLeft() = -1;
}

TEST(HashTableInsertion, keepsTheFormerValueWhenACopyForAReplacementFails) {
    for (const int copiesBefore : {0, 1}) {
        BrittleTable table;
        table.insert(1U, 10U);
        const std::string before = stateOf(table);
        expectCopyToFail(copiesBefore, [&table] { table.insert(1U, 11U); });
        EXPECT_EQ(stateOf(table), before) << copiesBefore;
        ASSERT_NE(table.get(1U), nullptr);
        EXPECT_EQ(table.get(1U)->theValue.number, 10U);
    }
}

TEST(HashTableInsertion, doesNotGrowWhenACopyFails) {
    HookLedger ledger;
    BrittleTable table;
    for (unsigned int key = 0; key < 5; ++key) {
        table.insert(key, key);
    }
    expectCopyToFail(1, [&table] { table.insert(5U, 50U); });
    EXPECT_EQ(GVTestPeer::fillCount(table), 5U);
    EXPECT_EQ(ledger.allocationCount(), 0U);
}

TEST(HashTableInsertion, succeedsAfterACopyFailed) {
    BrittleTable table;
    expectCopyToFail(1, [&table] { table.insert(1U, 10U); });
    EXPECT_EQ(table.insert(1U, 10U), 2);
    //  slot                    0 1 2 3 4 5 6 7
    EXPECT_EQ(slotsOf(table), ". 1 . . . . . .");
    EXPECT_EQ(table.getUsedCount(), 1U);
    EXPECT_EQ(GVTestPeer::fillCount(table), 1U);
    EXPECT_EQ(table.get(1U)->theHash, 1U);
}

TEST(HashTableSubscript, addsNothingWhenACopyFails) {
    for (const int copiesBefore : {0, 1}) {
        BrittleTable table;
        table.insert(1U, 10U);
        const std::string before = stateOf(table);
        expectCopyToFail(copiesBefore, [&table] { table[2U]; });
        EXPECT_EQ(stateOf(table), before) << copiesBefore;
        EXPECT_EQ(table.get(2U), nullptr);
    }
}

TEST(HashTableSubscript, copiesNothingForAPresentKey) {
    BrittleTable table;
    table.insert(1U, 10U);
    Brittle::copiesLeft() = 0;
    EXPECT_EQ(table[1U].number, 10U);
    Brittle::copiesLeft() = -1;
}

TEST(HashTableResize, losesTheKeysNotYetCarriedOverAndTheFormerArrayWhenACopyFails) {
    HookLedger ledger;
    {
        BrittleTable table;
        table.resize(8);
        for (const unsigned int key : {1U, 2U, 3U}) {
            table.insert(key, key * 10);
        }
        expectCopyToFail(3, [&table] { table.resize(16); }); // the value of the second key
        EXPECT_EQ(GVTestPeer::mask(table), 31U);
        EXPECT_EQ(keysOf(table), "1");
        EXPECT_EQ(table.getUsedCount(), 1U);
        EXPECT_EQ(GVTestPeer::fillCount(table), 1U);
        EXPECT_EQ(ledger.releaseCount(), 0U);
    }
    EXPECT_EQ(ledger.releaseCount(), 1U) << "the new array, with its table";
    EXPECT_EQ(ledger.reclaimLiveBlocks(), 1U) << "the former array";
}

} // namespace Gilvane
