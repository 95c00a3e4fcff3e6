#include <gilvane/utilities/gvsharedpool.h>

#include "gvtestpeer.h"
#include "hookledger.h"
#include "sharedpoolsupport.h"
#include "throwsites.h"

#include <gilvane/base/gvexception.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <new>
#include <thread>
#include <vector>

namespace Gilvane {

TEST(SharedPoolLending, lendsTheTokenReturnedLastFirst) {
    GVTestPeer::nextToken() = 10;
    GVSharedPool pool(4, 16);
    EXPECT_EQ(borrowAll(pool), (std::vector<unsigned int>{13, 12, 11, 10}));
    returnAll(pool, {12, 10, 13, 11});
    EXPECT_EQ(borrowAll(pool), (std::vector<unsigned int>{11, 13, 10, 12}));
}

TEST(SharedPoolLending, isEmptyWhenNoneIsFree) {
    GVSharedPool pool(1, 16);
    EXPECT_TRUE(pool.tryBorrow().has_value());
    EXPECT_FALSE(pool.tryBorrow().has_value());
    EXPECT_EQ(pool.getNumberOfObjects(), 1U) << "the pool never grows";
}

TEST(SharedPoolLending, doesNotWaitWhileABlockIsFree) {
    GVSharedPool pool(3, 16);
    EXPECT_TRUE(pool.borrow().has_value());
    EXPECT_TRUE(pool.borrowFor(std::chrono::hours(1)).has_value());
    EXPECT_TRUE(pool.borrowUntil(std::chrono::system_clock::now()).has_value());
    EXPECT_EQ(pool.getStatistics().theWaitCount, 0U);
}

TEST(SharedPoolLending, leavesTheBytesAsTheyWere) {
    GVSharedPool pool(1, 8);
    const unsigned int token = *pool.tryBorrow();
    std::memcpy(pool.getMemoryForToken(token), "as left", 8);
    pool.releaseObject(token);
    EXPECT_EQ(pool.tryBorrow(), token);
    EXPECT_STREQ(static_cast<const char*>(pool.getMemoryForToken(token)), "as left");
}

TEST(SharedPoolAddress, isGivenForAFreeBlockToo) {
    GVSharedPool pool(1, 8);
    const unsigned int token = *pool.tryBorrow();
    void* const bytes = pool.getMemoryForToken(token);
    pool.releaseObject(token);
    EXPECT_EQ(pool.getMemoryForToken(token), bytes);
    const GVSharedPool& reader = pool;
    EXPECT_EQ(reader.getMemoryForToken(token), bytes);
}

TEST(SharedPoolAddress, isRefusedForATokenOfAnotherPool) {
    GVSharedPool before(2, 8);
    GVSharedPool pool(2, 8);
    GVSharedPool behind(2, 8);
    for (GVSharedPool* const other : {&before, &behind}) {
        for (const unsigned int token : borrowAll(*other)) {
            expectGVException([&] { pool.getMemoryForToken(token); }, gvinvalidstate, sharedPoolFile, notOfThisPool);
        }
    }
}

TEST(SharedPoolAddress, needsNoLock) {
    GVSharedPool pool(1, 8);
    const unsigned int token = *pool.tryBorrow();
    const detail::GVSharedPoolAccess access(pool); // holds the lock, which this thread could not take again
    EXPECT_NE(pool.getMemoryForToken(token), nullptr);
    EXPECT_FALSE(pool.isClosed());
    EXPECT_EQ(pool.getNumberOfObjects() + pool.getBytesInEachObject(), 9U);
}

TEST(SharedPoolReturn, ofATokenOfAnotherPoolIsRefused) {
    GVSharedPool pool(1, 8);
    GVSharedPool other(1, 8);
    const unsigned int token = *other.tryBorrow();
    expectGVException([&] { pool.releaseObject(token); }, gvinvalidstate, sharedPoolFile, notOfThisPool);
    EXPECT_EQ(pool.getStatistics().theFreeCount, 1U);
    other.releaseObject(token);
}

TEST(SharedPoolReturn, ofATokenThatIsFreeIsRefusedAndChangesNothing) {
    GVSharedPool pool(2, 8);
    const unsigned int token = *pool.tryBorrow();
    pool.releaseObject(token);
    for (int time = 0; time < 3; ++time) {
        expectGVException([&] { pool.releaseObject(token); }, gvinvalidstate, sharedPoolFile, freeAlready);
    }
    expectThatNothingIsLost(pool);
}

TEST(SharedPoolReturn, ofATokenThatWasNeverLentIsRefused) {
    GVTestPeer::nextToken() = 20;
    GVSharedPool pool(2, 8);
    EXPECT_EQ(pool.tryBorrow(), 21U);
    expectGVException([&] { pool.releaseObject(20); }, gvinvalidstate, sharedPoolFile, freeAlready);
    pool.releaseObject(21);
    expectThatNothingIsLost(pool);
}

TEST(SharedPoolReturn, thatIsRefusedChangesNothingThoughTheExceptionsTextsHaveNoMemory) {
    HookLedger ledger;
    GVSharedPool pool(1, 8);
    ledger.refuseFrom(0);
    EXPECT_THROW(pool.releaseObject(*pool.tryBorrow() + 1), std::bad_alloc);
    EXPECT_THROW(pool.getMemoryForToken(0x7fffffff), std::bad_alloc);
    ledger.refuseNothing();
    EXPECT_EQ(pool.getStatistics().theLentCount, 1U);
}

TEST(SharedPoolReturn, byAnotherThreadIsAsGood) {
    GVSharedPool pool(1, 8);
    const unsigned int token = *pool.tryBorrow();
    std::thread([&] { pool.releaseObject(token); }).join();
    expectThatNothingIsLost(pool);
}

TEST(SharedPoolReturn, ofOneTokenByManyThreadsSucceedsOnceAtATime) {
    GVSharedPool pool(1, 8);
    for (int round = 0; round < 50; ++round) {
        const unsigned int token = *pool.tryBorrow();
        std::atomic<int> accepted{0};
        runTogether(2, [&](unsigned int) {
            try {
                pool.releaseObject(token);
                ++accepted;
            } catch (const GVException& refusal) {
                EXPECT_EQ(refusal.getKind(), gvinvalidstate);
            }
        });
        EXPECT_EQ(accepted, 1) << "the pool's lock decides";
    }
}

} // namespace Gilvane
