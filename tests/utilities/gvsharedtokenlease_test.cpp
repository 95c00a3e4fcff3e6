#include <gilvane/utilities/gvsharedtokenlease.h>

#include "gvtestpeer.h"
#include "misuse.h"
#include "sharedpoolsupport.h"
#include "throwsites.h"

#include <gilvane/base/gvexception.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <optional>
#include <thread>
#include <type_traits>
#include <utility>

namespace Gilvane {

namespace {

const char* const leaseFile = "libsrc/utilities/gvsharedtokenlease";

void expectEmpty(const GVSharedTokenLease& lease) {
    EXPECT_FALSE(lease);
    EXPECT_EQ(lease.getBytes(), nullptr);
    EXPECT_EQ(lease.getLength(), 0U);
}

} // namespace

static_assert(!std::is_copy_constructible_v<GVSharedTokenLease> && !std::is_copy_assignable_v<GVSharedTokenLease>);
static_assert(std::is_nothrow_move_constructible_v<GVSharedTokenLease>);
static_assert(std::is_nothrow_move_assignable_v<GVSharedTokenLease>);
static_assert(std::is_nothrow_default_constructible_v<GVSharedTokenLease>);
static_assert(!std::is_convertible_v<GVSharedPool&, GVSharedTokenLease>, "a loan is asked for aloud");
static_assert(!std::is_convertible_v<GVTokenCache&, GVSharedTokenLease>, "a loan is asked for aloud");
static_assert(!std::is_constructible_v<GVSharedTokenLease, GVSharedPool&, unsigned int>, "taking over is said aloud");

TEST(SharedTokenLease, borrowsWhenMadeAndReturnsWhenItGoes) {
    GVTestPeer::nextToken() = 50;
    GVSharedPool pool(2, 24);
    {
        const GVSharedTokenLease lease(pool);
        EXPECT_TRUE(lease);
        EXPECT_EQ(lease.getToken(), 51U);
        EXPECT_EQ(lease.getBytes(), pool.getMemoryForToken(51));
        EXPECT_EQ(lease.getLength(), 24U);
        EXPECT_EQ(pool.getStatistics().theLentCount, 1U);
    }
    expectThatNothingIsLost(pool);
}

TEST(SharedTokenLease, isEmptyWithoutWaitingWhenNothingCame) {
    GVSharedPool pool(1, 24);
    GVTokenCache cache(pool);
    const GVSharedTokenLease first(pool);
    expectEmpty(GVSharedTokenLease(pool));
    expectEmpty(GVSharedTokenLease(cache));
    expectEmpty(GVSharedTokenLease());
    EXPECT_EQ(pool.getStatistics().theWaitCount, 0U);
}

TEST(SharedTokenLease, ofABlockWithoutBytesHasANullAddressAndLengthZero) {
    GVSharedPool pool(1, 0);
    const GVSharedTokenLease lease(pool);
    EXPECT_TRUE(lease);
    EXPECT_EQ(lease.getBytes(), nullptr);
    EXPECT_EQ(lease.getLength(), 0U);
}

TEST(SharedTokenLease, throughACacheReturnsToThePoolBehindIt) {
    GVSharedPool pool(4, 24);
    GVTokenCache cache(pool, 4);
    {
        const GVSharedTokenLease lease(cache);
        EXPECT_EQ(pool.getStatistics().theCachedCount, 1U) << "the cache took two";
        EXPECT_EQ(lease.getBytes(), pool.getMemoryForToken(lease.getToken()));
    }
    EXPECT_EQ(pool.getStatistics().theCachedCount, 1U);
    EXPECT_EQ(pool.getStatistics().theFreeCount, 3U);
}

TEST(SharedTokenLease, mayOutliveItsCacheAndEndInAnyThread) {
    GVSharedPool pool(4, 24);
    std::optional<GVTokenCache> cache;
    cache.emplace(pool, 4U);
    GVSharedTokenLease lease(*cache);
    cache.reset();
    std::thread([taken = std::move(lease)] { EXPECT_TRUE(taken); }).join();
    expectEmpty(lease);
    expectThatNothingIsLost(pool);
}

TEST(SharedTokenLease, movesItsLoan) {
    GVSharedPool pool(2, 24);
    GVSharedTokenLease first(pool);
    const unsigned int token = first.getToken();
    void* const bytes = first.getBytes();
    GVSharedTokenLease second(std::move(first));
    expectEmpty(first);
    EXPECT_EQ(second.getToken(), token);
    EXPECT_EQ(second.getBytes(), bytes);
    EXPECT_EQ(second.getLength(), 24U);
    GVSharedTokenLease third(pool);
    third = std::move(second);
    EXPECT_EQ(third.getToken(), token);
    EXPECT_EQ(pool.getStatistics().theLentCount, 1U) << "its own loan was returned";
    GVSharedTokenLease& itself = third;
    third = std::move(itself);
    EXPECT_EQ(third.getToken(), token);
    third = GVSharedTokenLease();
    expectThatNothingIsLost(pool);
}

TEST(SharedTokenLease, swapsItsLoan) {
    GVSharedPool pool(2, 24);
    GVSharedTokenLease first(pool);
    GVSharedTokenLease second;
    const unsigned int token = first.getToken();
    first.swap(second);
    expectEmpty(first);
    EXPECT_EQ(second.getToken(), token);
}

TEST(SharedTokenLease, handsItsTokenOut) {
    GVSharedPool pool(1, 24);
    GVSharedTokenLease lease(pool);
    const unsigned int token = lease.release();
    expectEmpty(lease);
    EXPECT_EQ(pool.getStatistics().theLentCount, 1U);
    pool.releaseObject(token);
}

TEST(SharedTokenLease, thatIsEmptyRefusesWhatNeedsALoan) {
    GVSharedTokenLease lease;
    const char* const message = "Lease is empty.";
    expectGVException([&] { lease.getToken(); }, gvinvalidstate, leaseFile, message);
    expectGVException([&] { lease.as<char>(); }, gvinvalidstate, leaseFile, message);
    expectGVException([&] { static_cast<void>(lease.release()); }, gvinvalidstate, leaseFile, message);
}

TEST(SharedTokenLease, showsItsBytesAsAType) {
    GVSharedPool pool(1, 8);
    const GVSharedTokenLease lease(pool);
    lease.as<unsigned int>() = 7;
    unsigned int read = 0;
    std::memcpy(&read, lease.getBytes(), sizeof(read));
    EXPECT_EQ(read, 7U);
    EXPECT_EQ(static_cast<void*>(&lease.as<char[8]>()), lease.getBytes()) << "it may take up the whole block";
    expectGVException([&] { lease.as<char[9]>(); }, gvinvalidstate, "libsrc/utilities/gvtokenlease",
                      "Block is too short for the type.");
}

TEST(SharedTokenLeaseAdoption, takesALoanOver) {
    GVSharedPool pool(2, 24);
    GVTokenCache cache(pool, 1);
    for (const bool throughCache : {false, true}) {
        const unsigned int token = *pool.tryBorrow();
        {
            const GVSharedTokenLease lease = throughCache ? GVSharedTokenLease(cache, token, gvadoptedloan)
                                                          : GVSharedTokenLease(pool, token, gvadoptedloan);
            EXPECT_EQ(lease.getToken(), token);
            EXPECT_EQ(lease.getBytes(), pool.getMemoryForToken(token));
            EXPECT_EQ(lease.getLength(), 24U);
            EXPECT_EQ(pool.getStatistics().theLentCount, 1U);
        }
        EXPECT_EQ(pool.getStatistics().theFreeCount, 2U) << "returned to the pool";
    }
}

TEST(SharedTokenLeaseAdoption, refusesATokenThatIsNotLent) {
    GVSharedPool pool(1, 24);
    const unsigned int token = *pool.tryBorrow();
    expectGVException([&] { const GVSharedTokenLease lease(pool, token + 1, gvadoptedloan); }, gvinvalidstate,
                      sharedPoolFile, notOfThisPool);
    pool.releaseObject(token);
    expectGVException([&] { const GVSharedTokenLease lease(pool, token, gvadoptedloan); }, gvinvalidstate,
                      sharedPoolFile, freeAlready);
    expectThatNothingIsLost(pool);
}

TEST(SharedTokenLeaseWaiting, saysSoInItsName) {
    GVSharedPool pool(1, 24);
    GVTokenCache cache(pool, 1);
    const auto soon = [] { return std::chrono::steady_clock::now() + std::chrono::milliseconds(1); };
    {
        const GVSharedTokenLease lease = GVSharedTokenLease::wait(pool);
        EXPECT_TRUE(lease);
        expectEmpty(GVSharedTokenLease::waitFor(pool, std::chrono::milliseconds(1)));
        expectEmpty(GVSharedTokenLease::waitUntil(pool, soon()));
        expectEmpty(GVSharedTokenLease::waitFor(cache, std::chrono::milliseconds(1)));
        expectEmpty(GVSharedTokenLease::waitUntil(cache, soon()));
        EXPECT_EQ(pool.getStatistics().theTimeoutCount, 4U);
    }
    EXPECT_TRUE(GVSharedTokenLease::waitFor(pool, std::chrono::hours(1)));
    EXPECT_TRUE(GVSharedTokenLease::waitUntil(cache, soon() + std::chrono::hours(1)));
    GVSharedTokenLease held = GVSharedTokenLease::wait(cache);
    std::thread waiter([&] { EXPECT_TRUE(GVSharedTokenLease::wait(cache)); });
    awaitWaits(pool, 5);
    held = GVSharedTokenLease();
    waiter.join();
    pool.close();
    expectEmpty(GVSharedTokenLease::wait(pool));
}

TEST(SharedTokenLeaseEnd, ofATokenReturnedBehindItsBackThrowsNothing) {
    GILVANE_TEST_OF_MISUSE();
    GVSharedPool pool(1, 24);
    {
        const GVSharedTokenLease lease(pool);
        pool.releaseObject(lease.getToken());
    }
    expectThatNothingIsLost(pool);
}

} // namespace Gilvane
