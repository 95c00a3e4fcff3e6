// Lending tokens, turning them into memory, and taking them back, by one thread that uses them as it should.
#include "gvtestpeer.h"
#include "hookledger.h"
#include "misuse.h"
#include "throwsites.h"

#include <gtest/gtest.h>

#include <cstring>
#include <new>
#include <set>
#include <vector>

namespace Gilvane {

namespace {

using Tokens = std::vector<unsigned int, GVStdAllocator<unsigned int>>;

std::vector<unsigned int> borrow(GVMemoryPool& pool, int count) {
    std::vector<unsigned int> tokens;
    for (int lent = 0; lent < count; ++lent) {
        tokens.push_back(pool.getTokenForFreeMemoryObject());
    }
    return tokens;
}

TEST(TokenLending, theHighestTokenOfANewPoolIsLentFirst) {
    GVTestPeer::nextToken() = 0;
    GVMemoryPool pool(8, 16, false);
    EXPECT_EQ(borrow(pool, 8), (std::vector<unsigned int>{7, 6, 5, 4, 3, 2, 1, 0}));
}

TEST(TokenLending, theTokenReleasedLastIsLentFirst) {
    GVTestPeer::nextToken() = 0;
    GVMemoryPool pool(8, 16, false);
    EXPECT_EQ(borrow(pool, 2), (std::vector<unsigned int>{7, 6}));
    pool.releaseObject(7);
    EXPECT_EQ(pool.getTokenForFreeMemoryObject(), 7U);
    pool.releaseObject(6);
    pool.releaseObject(7);
    EXPECT_EQ(borrow(pool, 3), (std::vector<unsigned int>{7, 6, 5}));
}

TEST(TokenLending, takesTheTokenOutOfTheFreeList) {
    GVTestPeer::nextToken() = 0;
    GVMemoryPool pool(3, 16, false);
    pool.getTokenForFreeMemoryObject();
    EXPECT_EQ(GVTestPeer::freeTokens(pool), (Tokens{0, 1}));
    EXPECT_EQ(GVTestPeer::table(pool).getUsedCount(), 3U);
}

TEST(TokenLending, doublesThePoolEachTimeItRunsDry) {
    GVTestPeer::nextToken() = 0;
    GVMemoryPool pool(false);
    std::set<unsigned int> lent;
    const auto lendNext = [&] {
        const unsigned int token = pool.getTokenForFreeMemoryObject();
        EXPECT_TRUE(lent.insert(token).second) << token << " was lent twice";
        return token;
    };
    // The requests that find nothing free are the first, and then those after 4, 8, 16 and 32 loans.
    unsigned int blocks = 4;
    for (unsigned int request = 0; request < 64; ++request) {
        if (request == 0 || request == blocks) {
            blocks = request == 0 ? 4 : blocks * 2;
            EXPECT_EQ(lendNext(), blocks - 1) << "request " << request;
        } else {
            lendNext();
        }
        EXPECT_EQ(GVTestPeer::table(pool).getUsedCount(), blocks) << "request " << request;
        EXPECT_EQ(pool.numberOfObjectsInPoolInUse(), request + 1);
    }
    EXPECT_EQ(blocks, 64U);
    EXPECT_EQ(GVTestPeer::initialNumberOfObjects(pool), 4U);
}

TEST(TokenLending, doublesThePresentNumberNotTheInitialOne) {
    GVTestPeer::nextToken() = 0;
    GVMemoryPool pool(5, 16, false);
    pool.resizePool(2);
    borrow(pool, 2);
    EXPECT_EQ(pool.getTokenForFreeMemoryObject(), 6U);
    EXPECT_EQ(GVTestPeer::table(pool).getUsedCount(), 4U);
}

TEST(TokenLending, buildsTheInitialNumberInAPoolWithoutBlocks) {
    GVTestPeer::nextToken() = 0;
    GVMemoryPool pool(3, false);
    EXPECT_EQ(pool.getTokenForFreeMemoryObject(), 2U);
    EXPECT_EQ(GVTestPeer::table(pool).getUsedCount(), 3U);
    EXPECT_EQ(GVTestPeer::freeTokens(pool), (Tokens{0, 1}));
}

TEST(TokenLending, lendsNothingWhenGrowthFails) {
    HookLedger ledger;
    GVTestPeer::nextToken() = 0;
    GVMemoryPool pool(2, 16, false);
    borrow(pool, 2);
    ledger.refuseOnce(0);
    expectGVException([&] { pool.getTokenForFreeMemoryObject(); }, gvoutofmemory, "libsrc/utilities/gvmemorypool",
                      "Unable to allocate memory for new pool object");
    EXPECT_EQ(pool.numberOfObjectsInPoolInUse(), 2U);
    EXPECT_EQ(pool.getTokenForFreeMemoryObject(), 3U);
}

TEST(TokenLending, leavesToTheNextRequestWhatAFailedGrowthBuilt) {
    HookLedger ledger;
    GVTestPeer::nextToken() = 0;
    GVMemoryPool pool(2, 16, false);
    borrow(pool, 2);
    ledger.refuseOnce(3); // the bytes of the second new block
    EXPECT_THROW(pool.getTokenForFreeMemoryObject(), std::bad_alloc);
    EXPECT_EQ(GVTestPeer::freeTokens(pool), (Tokens{2}));
    EXPECT_EQ(pool.getTokenForFreeMemoryObject(), 2U);
    EXPECT_EQ(GVTestPeer::table(pool).getUsedCount(), 3U);
}

TEST(TokenLending, andReturningAllocateNothingInAFullPool) {
    const HookLedger ledger;
    GVMemoryPool pool(8, 16, true);
    const std::size_t allocations = ledger.allocationCount();
    for (int round = 0; round < 3; ++round) {
        for (const unsigned int token : borrow(pool, 8)) {
            EXPECT_NE(pool.getMemoryForToken(token), nullptr);
            pool.releaseObject(token);
        }
    }
    EXPECT_EQ(ledger.allocationCount(), allocations);
    EXPECT_EQ(GVTestPeer::freeTokens(pool).size(), 8U);
}

TEST(TokenMemory, isTheBlocksOwnBytes) {
    GVTestPeer::nextToken() = 0;
    GVMemoryPool pool(8, 16, false);
    std::set<void*> addresses;
    for (const unsigned int token : borrow(pool, 8)) {
        void* const bytes = pool.getMemoryForToken(token);
        EXPECT_EQ(bytes, GVTestPeer::table(pool).get(token)->theValue->getBytes());
        std::memset(bytes, static_cast<int>(token), 16);
        addresses.insert(bytes);
    }
    EXPECT_EQ(addresses.size(), 8U);
    for (unsigned int token = 0; token < 8; ++token) {
        const char* const bytes = static_cast<const char*>(pool.getMemoryForToken(token));
        EXPECT_EQ(bytes[0], static_cast<char>(token));
        EXPECT_EQ(bytes[15], static_cast<char>(token));
    }
}

TEST(TokenMemory, ofATokenThatIsFreeIsReturnedJustTheSame) {
    GVTestPeer::nextToken() = 0;
    GVMemoryPool pool(3, 16, false);
    EXPECT_EQ(pool.getMemoryForToken(1), GVTestPeer::table(pool).get(1)->theValue->getBytes());
    EXPECT_NE(pool.getMemoryForToken(1), nullptr);
    EXPECT_EQ(GVTestPeer::freeTokens(pool), (Tokens{0, 1, 2}));
    EXPECT_EQ(GVTestPeer::table(pool).getUsedCount(), 3U);
}

TEST(TokenMemory, isNullInAPoolWhoseBlocksHaveNoBytes) {
    GVMemoryPool pool(4, false);
    EXPECT_EQ(pool.getMemoryForToken(pool.getTokenForFreeMemoryObject()), nullptr);
}

TEST(TokenReturn, appendsTheTokenToTheFreeList) {
    GVTestPeer::nextToken() = 0;
    GVMemoryPool pool(3, 16, false);
    borrow(pool, 3);
    pool.releaseObject(1);
    pool.releaseObject(2);
    pool.releaseObject(0);
    EXPECT_EQ(GVTestPeer::freeTokens(pool), (Tokens{1, 2, 0}));
}

TEST(TokenReturn, leavesTheBlocksBytesAsTheyAre) {
    GVMemoryPool pool(2, 4, false);
    const unsigned int token = pool.getTokenForFreeMemoryObject();
    void* const bytes = pool.getMemoryForToken(token);
    std::memcpy(bytes, "kept", 4);
    pool.releaseObject(token);
    EXPECT_EQ(std::memcmp(bytes, "kept", 4), 0);
    EXPECT_EQ(pool.getTokenForFreeMemoryObject(), token);
    EXPECT_EQ(pool.getMemoryForToken(token), bytes);
    EXPECT_EQ(std::memcmp(bytes, "kept", 4), 0);
}

TEST(TokenReturn, withoutMemoryForTheFreeListTakesNothingBack) {
    HookLedger ledger;
    GVMemoryPool pool(2, 16, false);
    ASSERT_EQ(GVTestPeer::freeTokens(pool).capacity(), 2U);
    const Tokens before = GVTestPeer::freeTokens(pool);
    ledger.refuseOnce(0);
    EXPECT_THROW(pool.releaseObject(77), std::bad_alloc);
    EXPECT_EQ(GVTestPeer::freeTokens(pool), before);
}

TEST(TokenReturn, toAPoolThatGrewByLoansMayFindNoMemoryAndMayBeRepeated) {
    HookLedger ledger;
    GVMemoryPool pool(2, 16, false);
    const std::vector<unsigned int> tokens = borrow(pool, 4); // the free list never held more than two
    pool.releaseObject(tokens[0]);
    pool.releaseObject(tokens[1]);
    ledger.refuseFrom(0);
    EXPECT_THROW(pool.releaseObject(tokens[2]), std::bad_alloc);
    ledger.refuseNothing();
    EXPECT_EQ(GVTestPeer::freeTokens(pool), (Tokens{tokens[0], tokens[1]}));
    EXPECT_EQ(pool.numberOfObjectsInPoolInUse(), 2U);
    EXPECT_NE(pool.getMemoryForToken(tokens[2]), nullptr);
    pool.releaseObject(tokens[2]);
    EXPECT_EQ(GVTestPeer::freeTokens(pool), (Tokens{tokens[0], tokens[1], tokens[2]}));
    EXPECT_EQ(pool.getTokenForFreeMemoryObject(), tokens[2]);
}

TEST(TokenReturn, unlocksThePoolWhenTheFreeListFindsNoMemory) {
    HookLedger ledger;
    GVMemoryPool pool(2, 16, true);
    const std::vector<unsigned int> tokens = borrow(pool, 3);
    pool.releaseObject(tokens[0]);
    ledger.refuseFrom(0);
    EXPECT_THROW(pool.releaseObject(tokens[1]), std::bad_alloc);
    ledger.refuseNothing();
    ASSERT_TRUE(GVTestPeer::mutexHandle(pool)->tryLock());
    GVTestPeer::mutexHandle(pool)->unlock();
}

TEST(PoolInUse, countsTheBlocksThatAreLent) {
    GVMemoryPool pool(5, 16, false);
    EXPECT_EQ(pool.numberOfObjectsInPoolInUse(), 0U);
    const std::vector<unsigned int> tokens = borrow(pool, 3);
    EXPECT_EQ(pool.numberOfObjectsInPoolInUse(), 3U);
    pool.releaseObject(tokens[0]);
    EXPECT_EQ(pool.numberOfObjectsInPoolInUse(), 2U);
    borrow(pool, 3);
    EXPECT_EQ(pool.numberOfObjectsInPoolInUse(), 5U);
}

TEST(PoolInUse, isZeroWithoutBlocksEvenIfTokensWereReleased) {
    GILVANE_TEST_OF_MISUSE();
    GVMemoryPool pool(4, false);
    EXPECT_EQ(pool.numberOfObjectsInPoolInUse(), 0U);
    pool.releaseObject(3);
    pool.releaseObject(4);
    EXPECT_EQ(pool.numberOfObjectsInPoolInUse(), 0U);
}

TEST(PoolInUse, wrapsBelowZero) {
    GILVANE_TEST_OF_MISUSE();
    GVMemoryPool pool(2, 16, false);
    pool.releaseObject(GVTestPeer::freeTokens(pool).back());
    EXPECT_EQ(pool.numberOfObjectsInPoolInUse(), 4294967295U);
}

} // namespace

} // namespace Gilvane
