// The ways insert fails. Most cannot be reached while the invariants hold, so the parts of insert are played by
// stand-ins or the table is put into a state that no operation leaves behind.

#include "tablesupport.h"

#include <gtest/gtest.h>

#include <deque>
#include <new>
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

} // namespace Gilvane
