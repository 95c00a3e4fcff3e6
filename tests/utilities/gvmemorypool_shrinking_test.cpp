// Shrinking a pool, its free list's removals, and what shrinking does with a token that the table misses.
#include "gvtestpeer.h"
#include "hookledger.h"
#include "misuse.h"
#include "poolsupport.h"
#include "throwsites.h"

#include <gilvane/base/gvexception.h>
#include <gilvane/base/gvrawblock.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <new>
#include <random>
#include <vector>

namespace Gilvane {

namespace {

using Tokens = std::vector<unsigned int, GVStdAllocator<unsigned int>>;

constexpr const char* tableFile = "libsrc/datastructures/gvhashtable";
constexpr const char* noMemoryForTheTable = "Unable to allocate space for new table.";

Tokens tokensInTable(GVMemoryPool& pool) {
    Tokens tokens;
    for (const unsigned int token : GVTestPeer::table(pool).get_keys()) {
        tokens.push_back(token);
    }
    std::sort(tokens.begin(), tokens.end());
    return tokens;
}

// Adds a sixth block to a table of 8 slots that is not allowed to grow; its token misses the free list.
void buildSixthWithoutGrowth(HookLedger& ledger, GVMemoryPool& pool, unsigned int token) {
    ledger.refuseOnce(2);
    expectGVException([&] { buildBlocks(pool, {token}); }, gvoutofmemory, tableFile, noMemoryForTheTable);
    ledger.refuseNothing();
    ASSERT_EQ(GVTestPeer::mask(GVTestPeer::table(pool)), 7U);
    ASSERT_EQ(GVTestPeer::fillCount(GVTestPeer::table(pool)), 6U);
}

bool isLive(const HookLedger& ledger, const void* start) {
    const std::vector<HookLedger::Block> blocks = ledger.liveBlocks();
    return std::any_of(blocks.begin(), blocks.end(),
                       [start](const HookLedger::Block& block) { return block.start == start; });
}

// An allocation function behind whose blocks nothing but ones stand.
void* allocateAmongOnes(unsigned int numberOfBytes) {
    constexpr std::size_t ones = 64;
    void* const memory = std::malloc(numberOfBytes + ones);
    return memory == nullptr ? nullptr : std::memset(memory, 0xff, numberOfBytes + ones);
}

const void* startOf(const void* userBytes) { return static_cast<const char*>(userBytes) - detail::rawBlockHeaderBytes; }

TEST(PoolShrinking, removesTheHighestTokens) {
    GVTestPeer::nextToken() = 10;
    GVMemoryPool pool(8, 16, false);
    pool.resizePool(5);
    EXPECT_EQ(tokensInTable(pool), (Tokens{10, 11, 12, 13, 14}));
    EXPECT_EQ(GVTestPeer::freeTokens(pool), (Tokens{10, 11, 12, 13, 14}));
    EXPECT_EQ(pool.numberOfObjectsInPoolInUse(), 0U);
}

TEST(PoolShrinking, removesTheHighestTokensEvenIfLent) {
    const HookLedger ledger;
    GVTestPeer::nextToken() = 10;
    GVMemoryPool pool(8, 16, false);
    EXPECT_EQ(pool.getTokenForFreeMemoryObject(), 17U);
    EXPECT_EQ(pool.getTokenForFreeMemoryObject(), 16U);
    const void* const lentBytes = startOf(pool.getMemoryForToken(17));
    const std::size_t liveBlocks = ledger.liveBlocks().size();
    pool.resizePool(5);
    EXPECT_FALSE(isLive(ledger, lentBytes));
    EXPECT_EQ(ledger.liveBlocks().size(), liveBlocks - 6); // object and bytes of three blocks
    EXPECT_EQ(tokensInTable(pool), (Tokens{10, 11, 12, 13, 14}));
    EXPECT_EQ(GVTestPeer::freeTokens(pool), (Tokens{10, 11, 12, 13, 14}));
    EXPECT_EQ(pool.numberOfObjectsInPoolInUse(), 0U);
}

TEST(PoolShrinking, keepsTheOrderOfTheTokensThatStayFree) {
    GVTestPeer::nextToken() = 0;
    GVMemoryPool pool(4, 16, false);
    for (int lent = 0; lent < 4; ++lent) {
        pool.getTokenForFreeMemoryObject();
    }
    for (const unsigned int token : {2U, 3U, 0U, 1U}) {
        pool.releaseObject(token);
    }
    pool.resizePool(3);
    EXPECT_EQ(GVTestPeer::freeTokens(pool), (Tokens{2, 0, 1}));
}

TEST(PoolShrinking, sortsTheTokensByValueNotBySlot) {
    //  slot   0   1   2   3   4   5   6   7
    //  token  32  33  34  .   .   .   30  31
    GVTestPeer::nextToken() = 30;
    GVMemoryPool pool(5, 16, false);
    pool.resizePool(3);
    EXPECT_EQ(tokensInTable(pool), (Tokens{30, 31, 32}));
}

TEST(PoolShrinking, takesTokensFromBeforeTheCounterWrappedForTheHighest) {
    GVTestPeer::nextToken() = 4294967294U;
    GVMemoryPool pool(4, 16, false);
    EXPECT_EQ(GVTestPeer::freeTokens(pool), (Tokens{4294967294U, 4294967295U, 0, 1}));
    pool.resizePool(2);
    EXPECT_EQ(tokensInTable(pool), (Tokens{0, 1}));
    EXPECT_EQ(GVTestPeer::freeTokens(pool), (Tokens{0, 1}));
}

TEST(PoolShrinking, toZeroLeavesAPoolThatBuildsItsInitialNumberAgain) {
    GVTestPeer::nextToken() = 0;
    GVMemoryPool pool(3, 16, false);
    pool.resizePool(6);
    pool.resizePool(0);
    EXPECT_EQ(tokensInTable(pool), Tokens{});
    EXPECT_EQ(GVTestPeer::freeTokens(pool), Tokens{});
    EXPECT_EQ(pool.getTokenForFreeMemoryObject(), 8U);
    EXPECT_EQ(tokensInTable(pool), (Tokens{6, 7, 8}));
}

TEST(PoolShrinking, toZeroMarksSlotsDeletedAndKeepsTheTablesSizeToo) {
    GVTestPeer::nextToken() = 0;
    GVMemoryPool pool(8, 16, false);
    pool.resizePool(0);
    const TokenTable& table = GVTestPeer::table(pool);
    EXPECT_EQ(GVTestPeer::mask(table), 31U);
    EXPECT_EQ(GVTestPeer::usedCount(table), 0U);
    EXPECT_EQ(GVTestPeer::fillCount(table), 8U);
    for (unsigned int slot = 0; slot < 8; ++slot) {
        EXPECT_EQ(GVTestPeer::slots(table)[slot].theState, static_cast<unsigned int>(gvdeletedentry)) << slot;
    }
}

TEST(PoolShrinking, marksSlotsDeletedAndKeepsTheTablesSize) {
    GVTestPeer::nextToken() = 0;
    GVMemoryPool pool(8, 16, false);
    pool.resizePool(5);
    TokenTable& table = GVTestPeer::table(pool);
    EXPECT_EQ(GVTestPeer::mask(table), 31U);
    EXPECT_EQ(GVTestPeer::usedCount(table), 5U);
    EXPECT_EQ(GVTestPeer::fillCount(table), 8U);
    EXPECT_EQ(GVTestPeer::slots(table)[4].theState, static_cast<unsigned int>(gvoccupiedentry));
    for (const unsigned int slot : {5U, 6U, 7U}) {
        EXPECT_EQ(GVTestPeer::slots(table)[slot].theState, static_cast<unsigned int>(gvdeletedentry));
    }
    EXPECT_EQ(GVTestPeer::slots(table)[8].theState, static_cast<unsigned int>(gvemptyentry));
}

TEST(PoolShrinking, removesOnlyTheFirstOfATokenReturnedTwice) {
    GILVANE_TEST_OF_MISUSE();
    GVTestPeer::nextToken() = 0;
    GVMemoryPool pool(3, 16, false);
    pool.releaseObject(2);
    EXPECT_EQ(GVTestPeer::freeTokens(pool), (Tokens{0, 1, 2, 2}));
    pool.resizePool(2);
    EXPECT_EQ(GVTestPeer::freeTokens(pool), (Tokens{0, 1, 2}));
}

TEST(PoolShrinking, keepsTheOrderOfALongFreeList) {
    GVTestPeer::nextToken() = 0;
    GVMemoryPool pool(1000, 16, false);
    Tokens shuffled = GVTestPeer::freeTokens(pool);
    std::shuffle(shuffled.begin(), shuffled.end(), std::mt19937(5));
    GVTestPeer::freeTokens(pool) = shuffled;
    pool.resizePool(300);
    shuffled.erase(std::remove_if(shuffled.begin(), shuffled.end(), [](unsigned int token) { return token >= 300; }),
                   shuffled.end());
    EXPECT_EQ(GVTestPeer::freeTokens(pool), shuffled);
}

TEST(PoolShrinking, takesAllRemovedTokensOutOfTheFreeListHoweverManyTheyAre) {
    GVObject::SetAllocationHooks(&allocateAmongOnes, &std::free);
    for (unsigned int removed = 1; removed <= 200; ++removed) {
        GVTestPeer::nextToken() = 0;
        GVMemoryPool pool(1 + removed, 8, false);
        pool.resizePool(1);
        EXPECT_EQ(GVTestPeer::freeTokens(pool), (Tokens{0})) << removed;
        EXPECT_EQ(pool.numberOfObjectsInPoolInUse(), 0U) << removed;
    }
    GVObject::SetAllocationHooks(nullptr, nullptr);
}

TEST(PoolShrinking, asksForABitForEachRemovedTokenAndForRoomForAllTokens) {
    const HookLedger ledger;
    GVMemoryPool pool(130, 16, false);
    const std::size_t before = ledger.allocationCount();
    pool.resizePool(2);
    std::vector<unsigned int> requests = ledger.requests();
    requests.erase(requests.begin(), requests.begin() + static_cast<std::ptrdiff_t>(before));
    const unsigned int header = detail::rawBlockHeaderBytes;
    EXPECT_EQ(requests, (std::vector<unsigned int>{header + 128 / 8, header + 130 * 4}));
}

TEST(PoolShrinking, releasesItsListOfTokens) {
    const HookLedger ledger;
    GVTestPeer::nextToken() = 0;
    GVMemoryPool pool(4, 16, false);
    const std::size_t allocations = ledger.allocationCount();
    const std::size_t releases = ledger.releaseCount();
    pool.resizePool(3);
    EXPECT_EQ(ledger.allocationCount() - allocations, 2U); // the tokens, and a mark for each that is removed
    EXPECT_EQ(ledger.releaseCount() - releases, 2U + 2U);  // and the removed block, object and bytes
}

TEST(PoolShrinking, withoutMemoryForTheListOfTokensChangesNothing) {
    for (const bool once : {true, false}) {
        for (std::size_t allocation = 0; allocation < 2; ++allocation) {
            HookLedger ledger;
            GVTestPeer::nextToken() = 0;
            GVMemoryPool pool(4, 16, false);
            const std::size_t liveBytes = ledger.liveBytes();
            if (once) {
                ledger.refuseOnce(allocation);
            } else {
                ledger.refuseFrom(allocation);
            }
            EXPECT_THROW(pool.resizePool(2), std::bad_alloc);
            EXPECT_EQ(ledger.refusedCount(), 1U);
            ledger.refuseNothing();
            EXPECT_EQ(ledger.liveBytes(), liveBytes);
            EXPECT_EQ(tokensInTable(pool), (Tokens{0, 1, 2, 3}));
            EXPECT_EQ(GVTestPeer::freeTokens(pool), (Tokens{0, 1, 2, 3}));
        }
    }
}

TEST(PoolShrinking, passesOverAnEntryWithoutABlock) {
    const HookLedger ledger;
    GVTestPeer::nextToken() = 0;
    GVMemoryPool pool(2, 16, false);
    GVTestPeer::table(pool).insert(9, nullptr);
    pool.resizePool(2);
    EXPECT_EQ(GVTestPeer::table(pool).getUsedCount(), 3U - 1U);
    EXPECT_EQ(tokensInTable(pool), (Tokens{0, 1}));
}

//  token 8 steps from its home slot 0 over slot 1 to slot 6
//  slot   0   1   2   3   4   5   6   7
//  token  0   9   .   .   .   .   8   .
//  and misses its slot once token 9 has gone
//  token  0   x   .   .   .   .   8   .
TEST(PoolShrinking, keepsABlockWhoseTokenIsMissedPastADeletedSlot) {
    const HookLedger ledger;
    {
        GVMemoryPool pool(0, 16, false);
        buildBlocks(pool, {0, 9, 8});
        TokenTable& table = GVTestPeer::table(pool);
        ASSERT_EQ(GVTestPeer::slots(table)[6].theKey, 8U);
        GVMemoryPoolObject* const missed = GVTestPeer::slots(table)[6].theValue;
        const void* const missedBytes = startOf(missed->getBytes());

        pool.resizePool(1);

        // Token 8 was stored again, without a block, in the deleted slot 1, and removed from there.
        EXPECT_EQ(GVTestPeer::usedCount(table), 2U);
        EXPECT_EQ(GVTestPeer::fillCount(table), 3U);
        EXPECT_EQ(GVTestPeer::slots(table)[1].theState, static_cast<unsigned int>(gvdeletedentry));
        EXPECT_EQ(GVTestPeer::slots(table)[1].theKey, 8U);
        EXPECT_EQ(GVTestPeer::slots(table)[1].theValue, nullptr);
        EXPECT_EQ(GVTestPeer::slots(table)[6].theState, static_cast<unsigned int>(gvoccupiedentry));
        EXPECT_EQ(GVTestPeer::slots(table)[6].theValue, missed);
        EXPECT_TRUE(isLive(ledger, missedBytes));
        EXPECT_TRUE(isLive(ledger, startOf(missed)));
        EXPECT_EQ(tokensInTable(pool), (Tokens{0, 8}));
        EXPECT_EQ(GVTestPeer::freeTokens(pool), (Tokens{0}));
        EXPECT_EQ(pool.numberOfObjectsInPoolInUse(), 1U);
    }
    // The walk at the end needs no search and finds it.
    EXPECT_TRUE(ledger.liveBlocks().empty());
}

//  slot   0   1   2   3   4   5   6   7
//  token  0   9   2   3   4   .   8   .     six tokens, the growth due with the sixth having failed
//  token  0   8'  2   3   4   .   8   .     9 removed, 8 stored again without a block: now the table grows
//  The new table of 32 slots takes 8' first and 8 over it, so the block is back and is deleted.
TEST(PoolShrinking, growsTheTableForAMissedTokenAndFindsItsBlockAgain) {
    HookLedger ledger;
    GVMemoryPool pool(0, 16, false);
    buildBlocks(pool, {0, 9, 8, 2, 3});
    buildSixthWithoutGrowth(ledger, pool, 4);
    const void* const missedBytes = startOf(GVTestPeer::slots(GVTestPeer::table(pool))[6].theValue->getBytes());

    pool.resizePool(4);

    TokenTable& table = GVTestPeer::table(pool);
    EXPECT_EQ(GVTestPeer::mask(table), 31U);
    EXPECT_EQ(GVTestPeer::usedCount(table), 4U);
    EXPECT_EQ(GVTestPeer::fillCount(table), 5U);
    EXPECT_EQ(tokensInTable(pool), (Tokens{0, 2, 3, 4}));
    EXPECT_EQ(GVTestPeer::freeTokens(pool), (Tokens{0, 2, 3}));
    EXPECT_FALSE(isLive(ledger, missedBytes));
}

//  slot   0   1   2   3   4   5   6   7
//  token  0   x   .   .   .   .   8   .     9 removed from slot 1: 8 is missed
//  token  0   8'  .   .   .   .   8   .     and stored again
TEST(PoolShrinking, takesATokenThatTheTableHoldsTwiceOutOfTheFreeListTwice) {
    const HookLedger ledger;
    GVMemoryPool pool(0, 16, false);
    buildBlocks(pool, {0, 9, 8});
    pool.resizePool(2);
    GVTestPeer::table(pool)[8] = nullptr;
    ASSERT_EQ(tokensInTable(pool), (Tokens{0, 8, 8}));
    GVTestPeer::freeTokens(pool) = {8, 3, 8, 0, 8};
    pool.resizePool(1);
    EXPECT_EQ(GVTestPeer::freeTokens(pool), (Tokens{3, 0, 8}));
}

//  slot   0   1   2   3   4   5   6   7
//  token  .   1   2   3   9   5   .   15    six tokens, the growth due with the sixth having failed
//  token  .   1   2   3   9   5   .   9'    15 removed, 9 stored again without a block: now the table grows
//  The new table of 32 slots takes 9 first and 9' over it, so the block is lost.
TEST(PoolShrinking, losesABlockWhoseMissedTokenIsStoredAgainBehindIt) {
    HookLedger ledger;
    const void* missed = nullptr;
    const void* missedBytes = nullptr;
    {
        GVMemoryPool pool(0, 16, false);
        buildBlocks(pool, {1, 15, 9, 2, 3});
        buildSixthWithoutGrowth(ledger, pool, 5);
        const GVMemoryPoolObject* const block = GVTestPeer::slots(GVTestPeer::table(pool))[4].theValue;
        ASSERT_EQ(block->getToken(), 9U);
        missed = startOf(block);
        missedBytes = startOf(block->getBytes());

        pool.resizePool(4);

        EXPECT_EQ(GVTestPeer::mask(GVTestPeer::table(pool)), 31U);
        EXPECT_EQ(tokensInTable(pool), (Tokens{1, 2, 3, 5}));
        EXPECT_EQ(GVTestPeer::freeTokens(pool), (Tokens{1, 2, 3}));
    }
    EXPECT_TRUE(isLive(ledger, missed));
    EXPECT_TRUE(isLive(ledger, missedBytes));
    EXPECT_EQ(ledger.reclaimLiveBlocks(), 2U);
}

TEST(PoolShrinking, stopsWhereAMissedTokenCannotGrowTheTable) {
    HookLedger ledger;
    GVMemoryPool pool(0, 16, false);
    buildBlocks(pool, {0, 9, 8, 2, 3});
    buildSixthWithoutGrowth(ledger, pool, 4);
    ledger.refuseOnce(2); // after the lists of tokens and of marks
    expectGVException([&] { pool.resizePool(4); }, gvoutofmemory, tableFile, noMemoryForTheTable);
    ledger.refuseNothing();
    // Token 9 has gone; token 8 is there twice, in slot 1 without its block, and still in the free list.
    TokenTable& table = GVTestPeer::table(pool);
    EXPECT_EQ(GVTestPeer::mask(table), 7U);
    EXPECT_EQ(tokensInTable(pool), (Tokens{0, 2, 3, 4, 8, 8}));
    EXPECT_EQ(GVTestPeer::slots(table)[1].theKey, 8U);
    EXPECT_EQ(GVTestPeer::slots(table)[1].theValue, nullptr);
    EXPECT_EQ(GVTestPeer::freeTokens(pool), (Tokens{0, 8, 2, 3}));
}

TEST(PoolShrinking, leavesTheTokensBelowAMissedOneThatCannotGrowTheTableInTheFreeList) {
    HookLedger ledger;
    GVMemoryPool pool(0, 16, false);
    buildBlocks(pool, {0, 9, 8, 2, 3});
    buildSixthWithoutGrowth(ledger, pool, 4);
    ledger.refuseOnce(2); // after the lists of tokens and of marks
    EXPECT_THROW(pool.resizePool(1), GVException);
    ledger.refuseNothing();
    EXPECT_EQ(GVTestPeer::freeTokens(pool), (Tokens{0, 8, 2, 3}));
}

TEST(FreeListRemoval, takesTheTokenOutAndKeepsTheOrderOfTheRest) {
    GVMemoryPool pool(false);
    GVTestPeer::freeTokens(pool) = {5, 3, 9, 1, 7};
    pool.removeTokenFromAvailableList(3);
    EXPECT_EQ(GVTestPeer::freeTokens(pool), (Tokens{5, 9, 1, 7}));
    pool.removeTokenFromAvailableList(5);
    EXPECT_EQ(GVTestPeer::freeTokens(pool), (Tokens{9, 1, 7}));
    pool.removeTokenFromAvailableList(7);
    EXPECT_EQ(GVTestPeer::freeTokens(pool), (Tokens{9, 1}));
}

TEST(FreeListRemoval, takesOnlyTheFirstOfSeveral) {
    GVMemoryPool pool(false);
    GVTestPeer::freeTokens(pool) = {4, 8, 6, 8, 2, 8};
    pool.removeTokenFromAvailableList(8);
    EXPECT_EQ(GVTestPeer::freeTokens(pool), (Tokens{4, 6, 8, 2, 8}));
}

TEST(FreeListRemoval, ofATokenThatIsNotThereDoesNothing) {
    GVMemoryPool pool(false);
    pool.removeTokenFromAvailableList(8);
    EXPECT_EQ(GVTestPeer::freeTokens(pool), Tokens{});
    GVTestPeer::freeTokens(pool) = {4, 6};
    pool.removeTokenFromAvailableList(8);
    EXPECT_EQ(GVTestPeer::freeTokens(pool), (Tokens{4, 6}));
}

TEST(FreeListRemoval, leavesTheBlockInThePool) {
    GVTestPeer::nextToken() = 0;
    GVMemoryPool pool(3, 16, false);
    pool.removeTokenFromAvailableList(1);
    EXPECT_EQ(tokensInTable(pool), (Tokens{0, 1, 2}));
    EXPECT_EQ(pool.numberOfObjectsInPoolInUse(), 1U);
}

} // namespace

} // namespace Gilvane
