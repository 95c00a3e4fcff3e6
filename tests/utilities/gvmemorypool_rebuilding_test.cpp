// Rebuilding a pool: makePool, and setNumberOfBytesInPoolObject, which rests on it.
#include "gvtestpeer.h"
#include "hookledger.h"
#include "misuse.h"
#include "throwsites.h"

#include <gilvane/base/gvrawblock.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <new>
#include <vector>

namespace Gilvane {

namespace {

using Tokens = std::vector<unsigned int, GVStdAllocator<unsigned int>>;

constexpr const char* poolFile = "libsrc/utilities/gvmemorypool";
constexpr const char* noMemoryForABlock = "Unable to allocate memory for new pool object";
constexpr const char* stillInUse = "Cannot change size of pool object memory while objects are still in use.";

Tokens tokensOfBlocks(GVMemoryPool& pool) {
    Tokens tokens;
    for (const GVMemoryPoolObject* const block : GVTestPeer::table(pool)) {
        tokens.push_back(block->getToken());
    }
    std::sort(tokens.begin(), tokens.end());
    return tokens;
}

TEST(PoolRebuilding, destroysEveryBlockLentOrNotAndBuildsNewOnes) {
    const HookLedger ledger;
    GVTestPeer::nextToken() = 0;
    GVMemoryPool pool(3, 16, false);
    EXPECT_EQ(pool.getTokenForFreeMemoryObject(), 2U);
    const std::size_t releasedBefore = ledger.releaseCount();
    pool.makePool(2);
    // three objects and their bytes; the free list had room for four tokens
    EXPECT_EQ(ledger.releaseCount() - releasedBefore, 6U);
    EXPECT_EQ(tokensOfBlocks(pool), (Tokens{3, 4}));
}

TEST(PoolRebuilding, keepsTheStaleTokensInFront) {
    GVTestPeer::nextToken() = 0;
    GVMemoryPool pool(4, 16, false);
    EXPECT_EQ(pool.getTokenForFreeMemoryObject(), 3U);
    pool.makePool(2);
    EXPECT_EQ(GVTestPeer::freeTokens(pool), (Tokens{0, 1, 2, 4, 5}));
    EXPECT_EQ(pool.getTokenForFreeMemoryObject(), 5U);
    EXPECT_EQ(pool.getTokenForFreeMemoryObject(), 4U);
    EXPECT_EQ(pool.getTokenForFreeMemoryObject(), 2U);
}

TEST(PoolRebuilding, countsStaleTokensAsFree) {
    GVTestPeer::nextToken() = 0;
    GVMemoryPool pool(4, 16, false);
    pool.makePool(4);
    EXPECT_EQ(pool.numberOfObjectsInPoolInUse(), 4294967292U);
    for (int lent = 0; lent < 4; ++lent) {
        pool.getTokenForFreeMemoryObject();
    }
    EXPECT_EQ(pool.numberOfObjectsInPoolInUse(), 0U);
}

TEST(PoolRebuilding, returnsAGrownTableToItsOwnSlots) {
    GVMemoryPool pool(8, 16, false);
    TokenTable& table = GVTestPeer::table(pool);
    EXPECT_EQ(GVTestPeer::mask(table), 31U);
    pool.makePool(3);
    EXPECT_EQ(GVTestPeer::mask(table), 7U);
    EXPECT_EQ(GVTestPeer::slots(table), GVTestPeer::smallSlots(table));
    EXPECT_EQ(GVTestPeer::usedCount(table), 3U);
    EXPECT_EQ(GVTestPeer::fillCount(table), 3U);
}

TEST(PoolRebuilding, withNoBlocksLeavesNone) {
    GVTestPeer::nextToken() = 0;
    GVMemoryPool pool(3, 16, false);
    pool.makePool(0);
    EXPECT_EQ(GVTestPeer::table(pool).getUsedCount(), 0U);
    EXPECT_EQ(GVTestPeer::freeTokens(pool), (Tokens{0, 1, 2}));
    EXPECT_EQ(GVTestPeer::nextToken(), 3U);
}

TEST(PoolRebuilding, leavesTheInitialNumberOfBlocksAsItWas) {
    GVMemoryPool pool(3, 16, false);
    pool.makePool(7);
    pool.resizePool(9);
    pool.resizePool(2);
    EXPECT_EQ(GVTestPeer::initialNumberOfObjects(pool), 3U);
}

TEST(PoolRebuilding, passesOverAnEntryWithoutABlock) {
    const HookLedger ledger;
    GVMemoryPool pool(2, 16, false);
    GVTestPeer::table(pool).insert(1000, nullptr);
    pool.makePool(1);
    EXPECT_EQ(GVTestPeer::table(pool).getUsedCount(), 1U);
    GVTestPeer::table(pool).insert(1000, nullptr);
} // and so does the destructor

TEST(PoolRebuilding, whoseFirstBlockCannotBeBuiltLeavesAPoolWithoutBlocks) {
    HookLedger ledger;
    GVTestPeer::nextToken() = 0;
    GVMemoryPool pool(2, 16, false);
    ledger.refuseOnce(0);
    expectGVException([&] { pool.makePool(2); }, gvoutofmemory, poolFile, noMemoryForABlock);
    EXPECT_EQ(GVTestPeer::table(pool).getUsedCount(), 0U);
    EXPECT_EQ(GVTestPeer::freeTokens(pool), (Tokens{0, 1}));
    EXPECT_EQ(GVTestPeer::nextToken(), 2U);
}

TEST(PoolRebuilding, keepsTheBlocksBuiltBeforeOneThatCannotBe) {
    HookLedger ledger;
    GVTestPeer::nextToken() = 0;
    GVMemoryPool pool(0, 16, false);
    // object, bytes and free list for each of two blocks
    ledger.refuseOnce(6);
    expectGVException([&] { pool.makePool(4); }, gvoutofmemory, poolFile, noMemoryForABlock);
    EXPECT_EQ(tokensOfBlocks(pool), (Tokens{0, 1}));
    EXPECT_EQ(GVTestPeer::freeTokens(pool), (Tokens{0, 1}));
    EXPECT_EQ(pool.numberOfObjectsInPoolInUse(), 0U);
    EXPECT_NE(pool.getMemoryForToken(pool.getTokenForFreeMemoryObject()), nullptr);
}

TEST(PoolBlockSize, rebuildsAsManyBlocksOfTheNewSize) {
    GVTestPeer::nextToken() = 0;
    GVMemoryPool pool(4, 16, false);
    pool.setNumberOfBytesInPoolObject(48);
    EXPECT_EQ(GVTestPeer::bytesInEachObject(pool), 48U);
    EXPECT_EQ(tokensOfBlocks(pool), (Tokens{4, 5, 6, 7}));
    EXPECT_EQ(GVTestPeer::freeTokens(pool), (Tokens{0, 1, 2, 3, 4, 5, 6, 7}));
    for (const GVMemoryPoolObject* const block : GVTestPeer::table(pool)) {
        EXPECT_EQ(block->getLength(), 48U);
    }
}

TEST(PoolBlockSize, cannotBeChangedTwiceSinceStaleTokensSpoilTheCount) {
    GVTestPeer::nextToken() = 0;
    GVMemoryPool pool(4, 16, false);
    pool.setNumberOfBytesInPoolObject(48);
    EXPECT_EQ(pool.numberOfObjectsInPoolInUse(), 4294967292U);
    expectGVException([&] { pool.setNumberOfBytesInPoolObject(32); }, gvinvalidstate, poolFile, stillInUse);
    EXPECT_EQ(GVTestPeer::bytesInEachObject(pool), 48U);
    EXPECT_EQ(tokensOfBlocks(pool), (Tokens{4, 5, 6, 7}));
}

TEST(PoolBlockSize, isRefusedWhileABlockIsLent) {
    GVTestPeer::nextToken() = 0;
    GVMemoryPool pool(4, 16, false);
    void* const bytes = pool.getMemoryForToken(pool.getTokenForFreeMemoryObject());
    expectGVException([&] { pool.setNumberOfBytesInPoolObject(32); }, gvinvalidstate, poolFile, stillInUse);
    EXPECT_EQ(GVTestPeer::bytesInEachObject(pool), 16U);
    EXPECT_EQ(tokensOfBlocks(pool), (Tokens{0, 1, 2, 3}));
    EXPECT_EQ(GVTestPeer::freeTokens(pool), (Tokens{0, 1, 2}));
    EXPECT_EQ(pool.getMemoryForToken(3), bytes);
    EXPECT_EQ(GVTestPeer::nextToken(), 4U);
}

TEST(PoolBlockSize, isRefusedAfterATokenWasReturnedTwice) {
    GILVANE_TEST_OF_MISUSE();
    GVMemoryPool pool(2, 16, false);
    const unsigned int token = pool.getTokenForFreeMemoryObject();
    pool.releaseObject(token);
    pool.releaseObject(token);
    expectGVException([&] { pool.setNumberOfBytesInPoolObject(32); }, gvinvalidstate, poolFile, stillInUse);
}

TEST(PoolBlockSize, isChangedUnderALentBlockThatATokenReturnedTwiceHides) {
    GILVANE_TEST_OF_MISUSE();
    GVTestPeer::nextToken() = 0;
    GVMemoryPool pool(2, 16, false);
    EXPECT_EQ(pool.getTokenForFreeMemoryObject(), 1U);
    EXPECT_EQ(pool.getTokenForFreeMemoryObject(), 0U);
    pool.releaseObject(0);
    pool.releaseObject(0);
    pool.setNumberOfBytesInPoolObject(32);
    EXPECT_EQ(tokensOfBlocks(pool), (Tokens{2, 3}));
}

TEST(PoolBlockSize, isOnlyRecordedByAPoolWithoutBlocks) {
    const HookLedger ledger;
    GVTestPeer::nextToken() = 0;
    GVMemoryPool pool(4, false);
    pool.setNumberOfBytesInPoolObject(24);
    EXPECT_EQ(GVTestPeer::bytesInEachObject(pool), 24U);
    EXPECT_EQ(GVTestPeer::table(pool).getUsedCount(), 0U);
    EXPECT_EQ(GVTestPeer::nextToken(), 0U);
    EXPECT_EQ(ledger.allocationCount(), 0U);
    const unsigned int token = pool.getTokenForFreeMemoryObject();
    EXPECT_EQ(GVTestPeer::table(pool).get(token)->theValue->getLength(), 24U);
}

TEST(PoolBlockSize, clearsTheTableOfAPoolWhoseBlocksHaveAllBeenRemoved) {
    GVMemoryPool pool(8, 16, false);
    pool.resizePool(0);
    ASSERT_EQ(GVTestPeer::fillCount(GVTestPeer::table(pool)), 8U);
    pool.setNumberOfBytesInPoolObject(24);
    EXPECT_EQ(GVTestPeer::fillCount(GVTestPeer::table(pool)), 0U);
    EXPECT_EQ(GVTestPeer::mask(GVTestPeer::table(pool)), 7U);
}

TEST(PoolBlockSize, zeroRebuildsBlocksWithoutBytes) {
    GVMemoryPool pool(2, 16, false);
    pool.setNumberOfBytesInPoolObject(0);
    EXPECT_EQ(GVTestPeer::table(pool).getUsedCount(), 2U);
    for (const GVMemoryPoolObject* const block : GVTestPeer::table(pool)) {
        EXPECT_EQ(block->getBytes(), nullptr);
        EXPECT_EQ(block->getLength(), 0U);
    }
}

TEST(PoolBlockSize, setToItsPresentValueRebuildsAllTheSame) {
    GVTestPeer::nextToken() = 0;
    GVMemoryPool pool(2, 16, false);
    pool.setNumberOfBytesInPoolObject(16);
    EXPECT_EQ(tokensOfBlocks(pool), (Tokens{2, 3}));
}

TEST(PoolBlockSize, staysChangedWhenTheRebuildingFails) {
    HookLedger ledger;
    GVTestPeer::nextToken() = 0;
    GVMemoryPool pool(3, 16, false);
    // Object and bytes of the first block, whose token still fits into the free list, and the second's object pass.
    ledger.refuseOnce(3);
    EXPECT_THROW(pool.setNumberOfBytesInPoolObject(32), std::bad_alloc);
    EXPECT_EQ(GVTestPeer::bytesInEachObject(pool), 32U);
    EXPECT_EQ(tokensOfBlocks(pool), (Tokens{3}));
    EXPECT_EQ(GVTestPeer::freeTokens(pool), (Tokens{0, 1, 2, 3}));
}

} // namespace

} // namespace Gilvane
