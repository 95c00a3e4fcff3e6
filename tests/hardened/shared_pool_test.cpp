// What the hardened build finds in the use of shared pools ends the program, with one line that says where it was.
#include "onlyline.h"

#include <gilvane/base/gvexception.h>
#include <gilvane/utilities/gvsharedpool.h>
#include <gilvane/utilities/gvsharedtokenlease.h>
#include <gilvane/utilities/gvtokencache.h>

#include <gtest/gtest.h>

#include <chrono>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

namespace Gilvane {

namespace {

constexpr const char* anAddress = "0x[0-9a-f]+";

// Returns a token while another thread is about to return it: that one has seen that the token is lent, and waits for
// the pool's lock, since its cache is full. If it is too slow it is refused, and they try again with more time.
void returnByTwoThreadsAtOnce() {
    using std::chrono::milliseconds;
    GVSharedPool pool(2, 16);
    GVTokenCache cache(pool, 1);
    GVTokenCache fullCache(pool, 1);
    fullCache.releaseObject(*pool.tryBorrow());
    bool isRefused = true;
    for (milliseconds time(1); isRefused && time < std::chrono::seconds(10); time *= 2) {
        const unsigned int token = *pool.tryBorrow();
        std::thread other;
        {
            const std::lock_guard<detail::GVPlainLock> guard(detail::GVSharedPoolAccess::lock(pool));
            other = std::thread([&] {
                try {
                    fullCache.releaseObject(token);
                    isRefused = false;
                } catch (const GVException&) {
                    // It was too slow.
                }
            });
            std::this_thread::sleep_for(time);
            cache.releaseObject(token);
        }
        other.join();
        cache.flush();
    }
}

TEST(HardenedSharedPool, refusesTokensAsTheDefaultBuildDoes) {
    GVSharedPool pool(2, 16);
    GVTokenCache cache(pool, 2);
    const unsigned int token = *pool.tryBorrow();
    cache.releaseObject(token);
    EXPECT_THROW(cache.releaseObject(token), GVException);
    EXPECT_THROW(pool.releaseObject(token), GVException);
    EXPECT_THROW(pool.releaseObject(token + 1), GVException);
    EXPECT_THROW(pool.getMemoryForToken(token + 1), GVException);
}

TEST(HardenedSharedPool, thatGoesWhileACacheIsAliveEndsTheProgram) {
    EXPECT_DEATH(
        {
            std::optional<GVSharedPool> pool;
            pool.emplace(2U, 16U);
            const GVTokenCache cache(*pool);
            pool.reset();
        },
        onlyLine(std::string("~GVSharedPool: pool ") + anAddress + ": a cache is alive"));
}

TEST(HardenedSharedPool, thatGoesWhileAThreadWaitsEndsTheProgram) {
    EXPECT_DEATH(
        {
            std::optional<GVSharedPool> pool;
            pool.emplace(1U, 16U);
            const GVTokenCache cache(*pool); // the waiter is told of first
            static_cast<void>(pool->tryBorrow());
            std::thread waiter([&] { static_cast<void>(pool->borrow()); });
            while (pool->getStatistics().theWaitCount == 0) {
                std::this_thread::yield();
            }
            pool.reset();
            waiter.join();
        },
        onlyLine(std::string("~GVSharedPool: pool ") + anAddress + ": a thread waits for a block"));
}

TEST(HardenedSharedPool, thatGoesWhileABlockIsLentDoesNotEndTheProgram) {
    GVSharedPool pool(1, 16);
    EXPECT_TRUE(pool.tryBorrow().has_value());
}

TEST(HardenedSharedPool, thatGetsATokenFromTwoThreadsAtOnceEndsTheProgram) {
    EXPECT_DEATH(returnByTwoThreadsAtOnce(),
                 onlyLine("releaseObject: token [0-9]+ of a shared pool: returned by two threads at once"));
}

TEST(HardenedSharedPool, thatGetsATokenThatIsNotLentAnyMoreTellsWhich) {
    detail::GVSharedBlock block = {nullptr, {detail::gvtokenlent}};
    const detail::GVSharedDirectory directory(&block, 7, 1, false, 0);
    directory.takeBack(7);
    EXPECT_FALSE(directory.isLent(7));
    EXPECT_EQ(directory.find(7), &block) << "it is free";
    EXPECT_DEATH(directory.takeBack(7),
                 onlyLine("releaseObject: token 7 of a shared pool: returned by two threads at once"));
}

TEST(HardenedSharedTokenLease, thatEndsAsItShouldDoesNotEndTheProgram) {
    GVSharedPool pool(1, 16);
    { const GVSharedTokenLease lease(pool); }
    EXPECT_EQ(pool.getStatistics().theFreeCount, 1U);
}

TEST(HardenedSharedTokenLease, whoseTokenWasReturnedBehindItsBackEndsTheProgram) {
    GVSharedPool pool(1, 16);
    EXPECT_DEATH(
        {
            const GVSharedTokenLease lease(pool);
            pool.releaseObject(lease.getToken());
        },
        onlyLine(std::string("~GVSharedTokenLease: token [0-9]+ of pool ") + anAddress + ": returned already"));
}

} // namespace

} // namespace Gilvane
