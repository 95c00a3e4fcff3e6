// Growing a pool, and what is left when a block, the table or the free list finds no memory.
#include "gvtestpeer.h"
#include "hookledger.h"
#include "throwsites.h"

#include <gilvane/base/gvrawblock.h>

#include <gtest/gtest.h>

#include <cstring>
#include <new>
#include <vector>

namespace Gilvane {

namespace {

using Tokens = std::vector<unsigned int, GVStdAllocator<unsigned int>>;

constexpr const char* poolFile = "libsrc/utilities/gvmemorypool";
constexpr const char* tableFile = "libsrc/datastructures/gvhashtable";
constexpr const char* noMemoryForABlock = "Unable to allocate memory for new pool object";
constexpr const char* noMemoryForTheTable = "Unable to allocate space for new table.";

constexpr unsigned int objectRequest = sizeof(GVMemoryPoolObject) + detail::rawBlockHeaderBytes;
constexpr unsigned int tokenListRequest(unsigned int tokens) {
    return tokens * static_cast<unsigned int>(sizeof(unsigned int)) + detail::rawBlockHeaderBytes;
}

const GVMemoryPoolObject* blockOf(GVMemoryPool& pool, unsigned int token) {
    const auto* const entry = GVTestPeer::table(pool).get(token);
    return entry == nullptr ? nullptr : entry->theValue;
}

TEST(PoolGrowth, toThePresentNumberDoesNothing) {
    const HookLedger ledger;
    GVTestPeer::nextToken() = 0;
    GVMemoryPool pool(3, 16, false);
    pool.getTokenForFreeMemoryObject();
    const std::size_t allocations = ledger.allocationCount();
    const std::size_t releases = ledger.releaseCount();
    pool.resizePool(3);
    EXPECT_EQ(GVTestPeer::table(pool).getUsedCount(), 3U);
    EXPECT_EQ(GVTestPeer::nextToken(), 3U);
    EXPECT_EQ(ledger.allocationCount(), allocations);
    EXPECT_EQ(ledger.releaseCount(), releases);
    EXPECT_EQ(GVTestPeer::freeTokens(pool), (Tokens{0, 1}));
}

TEST(PoolGrowth, appendsNewTokensToTheFreeList) {
    GVTestPeer::nextToken() = 10;
    GVMemoryPool pool(3, 16, false);
    EXPECT_EQ(pool.getTokenForFreeMemoryObject(), 12U);
    pool.resizePool(6);
    EXPECT_EQ(GVTestPeer::table(pool).getUsedCount(), 6U);
    EXPECT_EQ(GVTestPeer::freeTokens(pool), (Tokens{10, 11, 13, 14, 15}));
    EXPECT_EQ(pool.numberOfObjectsInPoolInUse(), 1U);
}

TEST(PoolGrowth, leavesExistingBlocksWhereTheyAre) {
    GVMemoryPool pool(3, 16, false);
    const unsigned int lent = pool.getTokenForFreeMemoryObject();
    void* const bytes = pool.getMemoryForToken(lent);
    std::memset(bytes, 'x', 16);
    pool.resizePool(100);
    EXPECT_EQ(pool.getMemoryForToken(lent), bytes);
    EXPECT_EQ(std::memcmp(bytes, "xxxxxxxxxxxxxxxx", 16), 0);
}

TEST(PoolGrowth, ofAPoolWithoutSizeBuildsBlocksWithoutBytes) {
    const HookLedger ledger;
    GVMemoryPool pool(4, false);
    pool.resizePool(1);
    EXPECT_EQ(ledger.requests(), (std::vector<unsigned int>{objectRequest, tokenListRequest(1)}));
    EXPECT_EQ(pool.getMemoryForToken(pool.getTokenForFreeMemoryObject()), nullptr);
}

TEST(PoolGrowth, buildsTheObjectThenItsBytesThenTheTablesSlotsThenItsPlaceInTheFreeList) {
    const HookLedger ledger;
    GVMemoryPool pool(0, 100, false);
    pool.resizePool(6);
    const std::vector<unsigned int> requests = ledger.requests();
    ASSERT_EQ(requests.size(), 17U);
    // The array of slots adds what the compiler needs to know its length.
    const unsigned int slots = requests.back();
    EXPECT_GE(slots, 33 * sizeof(TokenTable::Entry) + detail::rawBlockHeaderBytes);
    constexpr unsigned int bytes = 100 + detail::rawBlockHeaderBytes;
    EXPECT_EQ(requests, (std::vector<unsigned int>{
                            objectRequest,
                            bytes,
                            tokenListRequest(1), //
                            objectRequest,
                            bytes,
                            tokenListRequest(2), //
                            objectRequest,
                            bytes,
                            tokenListRequest(4), //
                            objectRequest,
                            bytes, //
                            objectRequest,
                            bytes,
                            tokenListRequest(8), //
                            objectRequest,
                            bytes,
                            slots,
                        }));
}

TEST(PoolGrowth, entersABlockIntoTheTableBeforeTheFreeList) {
    HookLedger ledger;
    GVTestPeer::nextToken() = 0;
    GVMemoryPool pool(0, 16, false);
    ledger.refuseOnce(2);
    EXPECT_THROW(pool.resizePool(1), std::bad_alloc);
    EXPECT_NE(blockOf(pool, 0), nullptr);
    EXPECT_EQ(GVTestPeer::freeTokens(pool), Tokens{});
}

TEST(PoolGrowth, withoutMemoryForAnObjectReportsItAndUsesNoTokenUp) {
    HookLedger ledger;
    GVTestPeer::nextToken() = 0;
    GVMemoryPool pool(2, 16, false);
    ledger.refuseOnce(0);
    expectGVException([&] { pool.resizePool(3); }, gvoutofmemory, poolFile, noMemoryForABlock);
    EXPECT_EQ(GVTestPeer::table(pool).getUsedCount(), 2U);
    EXPECT_EQ(GVTestPeer::freeTokens(pool), (Tokens{0, 1}));
    EXPECT_EQ(GVTestPeer::nextToken(), 2U);
}

TEST(PoolGrowth, reportsAnObjectWithoutBytesInTheSameWay) {
    HookLedger ledger;
    GVMemoryPool pool(2, false);
    ledger.refuseOnce(0);
    expectGVException([&] { pool.resizePool(1); }, gvoutofmemory, poolFile, noMemoryForABlock);
    EXPECT_EQ(GVTestPeer::table(pool).getUsedCount(), 0U);
}

TEST(PoolGrowth, withoutMemoryForTheReportEitherThrowsBadAlloc) {
    HookLedger ledger;
    GVMemoryPool pool(2, 16, false);
    ledger.refuseFrom(0);
    EXPECT_THROW(pool.resizePool(3), std::bad_alloc);
    EXPECT_GT(ledger.refusedCount(), 1U);
    EXPECT_EQ(GVTestPeer::table(pool).getUsedCount(), 2U);
}

TEST(PoolGrowth, withoutMemoryForBytesGivesBackTheObjectAndUsesNoTokenUp) {
    HookLedger ledger;
    GVTestPeer::nextToken() = 0;
    GVMemoryPool pool(2, 16, false);
    const std::size_t liveBytes = ledger.liveBytes();
    ledger.refuseOnce(1);
    EXPECT_THROW(pool.resizePool(3), std::bad_alloc);
    EXPECT_EQ(ledger.liveBytes(), liveBytes);
    EXPECT_EQ(GVTestPeer::table(pool).getUsedCount(), 2U);
    EXPECT_EQ(GVTestPeer::freeTokens(pool).size(), 2U);
    EXPECT_EQ(GVTestPeer::nextToken(), 2U);
}

TEST(PoolGrowth, keepsTheBlockWhoseEntryGrowsTheTableInVainButDoesNotLendIt) {
    HookLedger ledger;
    GVTestPeer::nextToken() = 0;
    GVMemoryPool pool(5, 16, false);
    ledger.refuseOnce(2);
    expectGVException([&] { pool.resizePool(6); }, gvoutofmemory, tableFile, noMemoryForTheTable);
    EXPECT_NE(blockOf(pool, 5), nullptr);
    EXPECT_EQ(GVTestPeer::mask(GVTestPeer::table(pool)), 7U);
    EXPECT_EQ(GVTestPeer::freeTokens(pool), (Tokens{0, 1, 2, 3, 4}));
    EXPECT_EQ(pool.numberOfObjectsInPoolInUse(), 1U); // though nothing is lent
    // It lives until the pool goes: the ledger would report it.
}

TEST(PoolGrowth, growsTheTableWithTheNextBlockWhenItCouldNotBefore) {
    HookLedger ledger;
    GVTestPeer::nextToken() = 0;
    GVMemoryPool pool(5, 16, false);
    ledger.refuseOnce(2);
    EXPECT_THROW(pool.resizePool(6), GVException);
    pool.resizePool(7);
    EXPECT_EQ(GVTestPeer::table(pool).getUsedCount(), 7U);
    EXPECT_EQ(GVTestPeer::mask(GVTestPeer::table(pool)), 31U); // the least power of two above 7 * 4
    EXPECT_EQ(GVTestPeer::freeTokens(pool), (Tokens{0, 1, 2, 3, 4, 6}));
    EXPECT_NE(blockOf(pool, 5), nullptr);
}

TEST(PoolGrowth, throwsBadAllocForTheTableWhileMemoryStaysExhausted) {
    HookLedger ledger;
    GVTestPeer::nextToken() = 0;
    GVMemoryPool pool(5, 16, false);
    ledger.refuseFrom(2);
    EXPECT_THROW(pool.resizePool(6), std::bad_alloc);
    ledger.refuseNothing();
    EXPECT_NE(blockOf(pool, 5), nullptr);
    EXPECT_EQ(GVTestPeer::freeTokens(pool), (Tokens{0, 1, 2, 3, 4}));
}

TEST(PoolGrowth, keepsTheBlockWhoseTokenFindsNoPlaceInTheFreeListButDoesNotLendIt) {
    for (const bool once : {true, false}) {
        SCOPED_TRACE(once);
        HookLedger ledger;
        GVTestPeer::nextToken() = 0;
        GVMemoryPool pool(4, 16, false);
        if (once) {
            ledger.refuseOnce(2);
        } else {
            ledger.refuseFrom(2);
        }
        EXPECT_THROW(pool.resizePool(6), std::bad_alloc);
        ledger.refuseNothing();
        EXPECT_NE(blockOf(pool, 4), nullptr);
        EXPECT_EQ(blockOf(pool, 5), nullptr);
        EXPECT_EQ(GVTestPeer::freeTokens(pool), (Tokens{0, 1, 2, 3}));
        EXPECT_EQ(pool.numberOfObjectsInPoolInUse(), 1U);
        EXPECT_EQ(GVTestPeer::nextToken(), 5U);
    }
}

TEST(PoolGrowth, losesTheBlockWhoseInsertionFails) {
    HookLedger ledger;
    {
        GVMemoryPool pool(0, 16, false);
        TokenTable& table = GVTestPeer::table(pool);
        // A table without slots has to get some before it can store; none are to be had.
        GVTestPeer::slots(table) = nullptr;
        ledger.refuseOnce(2);
        expectGVException([&] { pool.resizePool(1); }, gvoutofmemory, tableFile, noMemoryForTheTable, 2);
        GVTestPeer::slots(table) = GVTestPeer::smallSlots(table);
        EXPECT_EQ(table.getUsedCount(), 0U);
        EXPECT_EQ(GVTestPeer::freeTokens(pool), Tokens{});
    }
    const std::vector<HookLedger::Block> lost = ledger.liveBlocks();
    ASSERT_EQ(lost.size(), 2U);
    EXPECT_EQ(lost[0].bytes, objectRequest);
    EXPECT_EQ(lost[1].bytes, 16 + detail::rawBlockHeaderBytes);
    EXPECT_EQ(ledger.reclaimLiveBlocks(), 2U);
}

// Grows a pool of no blocks to 24, whose table grows twice, with one allocation refused or all from there on.
// Returns whether nothing was refused.
bool growsWithAllocationRefused(std::size_t allocation, bool once) {
    HookLedger ledger;
    GVTestPeer::nextToken() = 0;
    GVMemoryPool pool(0, 16, false);
    if (once) {
        ledger.refuseOnce(allocation);
    } else {
        ledger.refuseFrom(allocation);
    }
    bool thrown = false;
    try {
        pool.resizePool(24);
    } catch (const GVException& exception) {
        EXPECT_TRUE(once);
        EXPECT_EQ(exception.getKind(), gvoutofmemory);
        thrown = true;
    } catch (const std::bad_alloc&) {
        thrown = true;
    }
    ledger.refuseNothing();
    EXPECT_EQ(thrown, ledger.refusedCount() > 0);

    // Every token taken has its block, whole; all but the one being built can be lent.
    const unsigned int built = GVTestPeer::nextToken();
    EXPECT_EQ(GVTestPeer::table(pool).getUsedCount(), built);
    for (unsigned int token = 0; token < built; ++token) {
        const GVMemoryPoolObject* const block = blockOf(pool, token);
        if (block == nullptr) {
            ADD_FAILURE() << "no block of token " << token;
            continue;
        }
        EXPECT_EQ(block->getLength(), 16U);
        EXPECT_NE(block->getBytes(), nullptr);
    }
    const Tokens& freeTokens = GVTestPeer::freeTokens(pool);
    for (std::size_t place = 0; place < freeTokens.size(); ++place) {
        EXPECT_EQ(freeTokens[place], place);
    }
    EXPECT_GE(freeTokens.size() + 1, built);
    EXPECT_LE(freeTokens.size(), built);

    // What follows finds a pool in good order.
    pool.resizePool(30);
    EXPECT_EQ(GVTestPeer::table(pool).getUsedCount(), 30U);
    return !thrown;
}

TEST(PoolGrowth, keepsEveryFinishedBlockWhicheverAllocationIsRefused) {
    for (const bool once : {true, false}) {
        std::size_t refused = 0;
        while (!growsWithAllocationRefused(refused, once)) {
            ++refused;
        }
        // 48 for the blocks, 6 for the free list, 2 for the table
        EXPECT_EQ(refused, 56U);
    }
}

} // namespace

} // namespace Gilvane
