#include <gilvane/utilities/gvsharedpool.h>

#include "gvtestpeer.h"
#include "sharedpoolsupport.h"
#include "testclock.h"

#include <gilvane/utilities/gvtokencache.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <functional>
#include <new>
#include <optional>
#include <sstream>
#include <thread>
#include <vector>

namespace Gilvane {

namespace {

void expectCounts(const GVSharedPool& pool, unsigned int lent, unsigned int cached, unsigned int free) {
    const GVSharedPoolStatistics statistics = pool.getStatistics();
    EXPECT_EQ(statistics.theLentCount, lent);
    EXPECT_EQ(statistics.theCachedCount, cached);
    EXPECT_EQ(statistics.theFreeCount, free);
    EXPECT_EQ(statistics.theNumberOfObjects, lent + cached + free);
}

constexpr std::chrono::milliseconds theCall(10);

// Stands until a test calls the time, so that a wait lasts as long as the test says.
struct CalledClock : TestClock<CalledClock> {
    static time_point now() { return time_point(isCalled ? theCall : duration(0)); }
    static std::atomic<bool> isCalled;
};

std::atomic<bool> CalledClock::isCalled{false};

// A cache that holds one token. Nothing of it can be read after its end.
class EndingCache {
  public:
    void begin(GVSharedPool& pool) {
        theCache = ::new (theMemory.data()) GVTokenCache(pool, 2);
        theCache->releaseObject(*theCache->tryBorrow());
    }
    void end() {
        theCache->~GVTokenCache();
        theMemory.fill(0xFF);
    }

  private:
    alignas(GVTokenCache) std::array<unsigned char, sizeof(GVTokenCache)> theMemory = {};
    GVTokenCache* theCache = nullptr;
};

} // namespace

TEST(SharedPoolStatistics, ofANewPoolCountFreeBlocksAlone) {
    const GVSharedPool pool(5, 16);
    expectCounts(pool, 0, 0, 5);
    const GVSharedPoolStatistics statistics = pool.getStatistics();
    EXPECT_EQ(statistics.theHighestLentCount, 0U);
    EXPECT_EQ(statistics.theWaitCount, 0U);
    EXPECT_EQ(statistics.theTimeoutCount, 0U);
    EXPECT_EQ(statistics.theLongestWait.count(), 0);
    EXPECT_EQ(GVTestPeer::stateOf(pool).flags, 0U) << "there is nothing to see to";
}

TEST(SharedPoolStatistics, areWrittenAsALineOfText) {
    GVSharedPoolStatistics statistics;
    std::ostringstream nothing;
    nothing << statistics;
    EXPECT_EQ(nothing.str(), "0 blocks: 0 lent, 0 in caches, 0 free; at most 0 lent; 0 waits, 0 timeouts, the longest "
                             "wait 0 ms");
    statistics.theNumberOfObjects = 8;
    statistics.theLentCount = 3;
    statistics.theCachedCount = 1;
    statistics.theFreeCount = 4;
    statistics.theHighestLentCount = 5;
    statistics.theWaitCount = 7;
    statistics.theTimeoutCount = 2;
    statistics.theLongestWait = std::chrono::microseconds(1500);
    std::ostringstream stream;
    stream << statistics << "|";
    EXPECT_EQ(stream.str(),
              "8 blocks: 3 lent, 1 in caches, 4 free; at most 5 lent; 7 waits, 2 timeouts, the longest wait "
              "1.5 ms|");
}

TEST(SharedPoolStatistics, countWhereTheBlocksAre) {
    GVSharedPool pool(10, 16);
    GVTokenCache cache(pool, 6);
    GVTokenCache other(pool, 2);
    expectCounts(pool, 0, 0, 10);
    const unsigned int token = *cache.tryBorrow();
    expectCounts(pool, 1, 2, 7);
    const unsigned int second = *other.tryBorrow();
    expectCounts(pool, 2, 2, 6);
    const unsigned int third = *pool.tryBorrow();
    expectCounts(pool, 3, 2, 5);
    other.releaseObject(token);
    expectCounts(pool, 2, 3, 5);
    cache.releaseObject(second);
    expectCounts(pool, 1, 4, 5);
    pool.releaseObject(third);
    expectCounts(pool, 0, 4, 6);
    cache.flush();
    expectCounts(pool, 0, 1, 9);
}

TEST(SharedPoolStatistics, forgetACacheThatIsGone) {
    GVSharedPool pool(10, 16);
    GVTokenCache first(pool, 2);
    {
        GVTokenCache second(pool, 4);
        const GVTokenCache third(pool, 8);
        second.releaseObject(*second.tryBorrow());
        expectCounts(pool, 0, 2, 8);
    }
    expectCounts(pool, 0, 0, 10);
    first.releaseObject(*first.tryBorrow());
    expectCounts(pool, 0, 1, 9);
}

TEST(SharedPoolStatistics, forgetCachesThatGoInAnyOrder) {
    std::array<unsigned int, 3> order = {0, 1, 2};
    do {
        GVSharedPool pool(10, 16);
        std::array<EndingCache, 3> caches;
        for (EndingCache& cache : caches) {
            cache.begin(pool);
        }
        unsigned int cached = 3;
        for (const unsigned int number : order) {
            expectCounts(pool, 0, cached, 10 - cached);
            caches[number].end();
            --cached;
        }
        expectCounts(pool, 0, 0, 10);
    } while (std::next_permutation(order.begin(), order.end()));
}

TEST(SharedPoolStatistics, keepTheHighestNumberOfLentBlocksUntilTheReset) {
    GVSharedPool pool(5, 16);
    const unsigned int first = *pool.tryBorrow();
    const unsigned int second = *pool.tryBorrow();
    const unsigned int third = *pool.tryBorrow();
    returnAll(pool, {second, third});
    EXPECT_EQ(pool.getStatistics().theHighestLentCount, 3U);
    pool.resetHighestLentCount();
    EXPECT_EQ(pool.getStatistics().theHighestLentCount, 1U) << "what is lent at that moment";
    pool.releaseObject(first);
    EXPECT_EQ(pool.getStatistics().theHighestLentCount, 1U);
    const std::vector<unsigned int> tokens = borrowAll(pool);
    EXPECT_EQ(pool.getStatistics().theHighestLentCount, 5U);
    returnAll(pool, tokens);
}

TEST(SharedPoolStatistics, countNoBlockTwiceInTheHighestNumberThatComesBackAndGoesAgain) {
    GVSharedPool pool(6, 16);
    GVTokenCache cache(pool, 4);
    cache.releaseObject(*cache.tryBorrow()); // two lie in the cache
    const unsigned int token = *pool.tryBorrow();
    pool.resetHighestLentCount();
    pool.releaseObject(token);
    pool.releaseObject(*pool.tryBorrow());
    EXPECT_EQ(pool.getStatistics().theHighestLentCount, 1U);
    const std::vector<unsigned int> tokens{*pool.tryBorrow(), *pool.tryBorrow()};
    EXPECT_EQ(pool.getStatistics().theHighestLentCount, 2U);
    returnAll(pool, tokens);
}

TEST(SharedPoolStatistics, boundTheHighestNumberAfterAResetThoughACacheGoes) {
    GVSharedPool pool(6, 16);
    {
        GVTokenCache cache(pool, 6);
        cache.releaseObject(*cache.tryBorrow()); // three lie in the cache
        pool.resetHighestLentCount();
        EXPECT_EQ(pool.getStatistics().theHighestLentCount, 0U);
    }
    const std::vector<unsigned int> tokens = borrowAll(pool);
    EXPECT_EQ(pool.getStatistics().theHighestLentCount, 6U);
    returnAll(pool, tokens);
}

TEST(SharedPoolStatistics, keepTheHighestNumberThoughBlocksLieInCaches) {
    GVSharedPool pool(6, 16);
    GVTokenCache cache(pool, 4);
    cache.releaseObject(*cache.tryBorrow()); // two lie in the cache
    const std::vector<unsigned int> tokens{*pool.tryBorrow(), *pool.tryBorrow()};
    pool.resetHighestLentCount();
    returnAll(pool, tokens);
    pool.releaseObject(*pool.tryBorrow());
    EXPECT_EQ(pool.getStatistics().theHighestLentCount, 2U);
}

TEST(SharedPoolStatistics, takeWhatLiesInCachesForLentAfterAResetWhateverACacheDoesFirst) {
    using Cache = std::optional<GVTokenCache>;
    const std::vector<std::function<void(Cache&, unsigned int)>> ways = {
        [](Cache& cache, unsigned int) { EXPECT_TRUE(cache->tryBorrow().has_value()); },
        [](Cache& cache, unsigned int) { EXPECT_TRUE(cache->borrow().has_value()); },
        [](Cache& cache, unsigned int) {
            unsigned int token = 0;
            EXPECT_EQ(cache->tryBorrowMany(&token, 1), 1U);
        },
        [](Cache& cache, unsigned int lent) { cache->releaseObject(lent); },
        [](Cache& cache, unsigned int) { cache->flush(); },
        [](Cache& cache, unsigned int) { cache.reset(); },
    };
    for (const auto& work : ways) {
        GVSharedPool pool(10, 16);
        Cache cache;
        cache.emplace(pool, 6U);
        cache->releaseObject(*cache->tryBorrow()); // three lie in the cache
        const unsigned int lent = *pool.tryBorrow();
        pool.resetHighestLentCount();
        EXPECT_EQ(pool.getStatistics().theHighestLentCount, 1U);
        work(cache, lent);
        EXPECT_EQ(pool.getStatistics().theHighestLentCount, 4U);
        EXPECT_EQ(GVTestPeer::stateOf(pool).idleCachedCount, 0U);
        const unsigned int stillLent = pool.getStatistics().theLentCount;
        cache.reset();
        EXPECT_EQ(borrowAll(pool).size(), 10U - stillLent) << "nothing is lost";
    }
}

TEST(SharedPoolStatistics, takeWhatACacheSendsToAWaiterForLentAfterAReset) {
    GVSharedPool pool(4, 16);
    GVTokenCache cache(pool, 6);
    const std::vector<unsigned int> tokens = borrowAll(pool);
    returnAll(cache, {tokens[0], tokens[1], tokens[2]});
    pool.resetHighestLentCount();
    EXPECT_EQ(pool.getStatistics().theHighestLentCount, 1U);
    std::thread waiter([&] { EXPECT_TRUE(pool.borrow().has_value()); });
    awaitWaits(pool, 1);
    cache.releaseObject(tokens[3]);
    waiter.join();
    EXPECT_EQ(pool.getStatistics().theHighestLentCount, 4U);
}

TEST(SharedPoolStatistics, takeWhatLiesInCachesForLentInTheHighestNumber) {
    GVSharedPool pool(20, 16);
    GVTokenCache cache(pool, 8);
    const unsigned int token = *cache.tryBorrow();
    EXPECT_EQ(pool.getStatistics().theHighestLentCount, 4U);
    cache.releaseObject(token);
    pool.resetHighestLentCount();
    EXPECT_EQ(pool.getStatistics().theHighestLentCount, 0U) << "what lies in the cache is not lent at that moment";
    const unsigned int direct = *pool.tryBorrow();
    EXPECT_EQ(pool.getStatistics().theHighestLentCount, 1U) << "the cache has not worked since";
    cache.releaseObject(*cache.tryBorrow());
    EXPECT_GE(pool.getStatistics().theHighestLentCount, 2U) << "the cache lent one without taking a token";
    EXPECT_EQ(pool.getStatistics().theCachedCount, 4U) << "nothing was sent back for that";
    pool.releaseObject(direct);
}

TEST(SharedPoolStatistics, boundTheHighestNumberAfterAResetWhateverCachesDo) {
    GVSharedPool pool(40, 16);
    GVTokenCache first(pool, 8);
    GVTokenCache second(pool, 8);
    std::vector<unsigned int> tokens(8);
    for (int step = 0; step < 6; ++step) {
        first.releaseObject(*first.tryBorrow());
        second.releaseObject(*second.tryBorrow());
        pool.resetHighestLentCount();
        const unsigned int many = static_cast<unsigned int>(step);
        GVTokenCache& lender = step % 2 == 0 ? first : second;
        ASSERT_EQ(lender.tryBorrowMany(tokens.data(), many), many);
        second.releaseMany(tokens.data(), many);
        EXPECT_GE(pool.getStatistics().theHighestLentCount, many);
        EXPECT_LE(pool.getStatistics().theHighestLentCount, 40U);
    }
}

TEST(SharedPoolStatistics, letCachesGoOnByThemselvesOnceOneHasWorkedAfterAReset) {
    GVSharedPool pool(4, 16);
    GVTokenCache cache(pool, 2);
    cache.releaseObject(*cache.tryBorrow()); // one lies in the cache
    pool.resetHighestLentCount();
    const unsigned int token = *cache.tryBorrow();
    EXPECT_EQ(pool.getStatistics().theHighestLentCount, 1U) << "the cache has said so";
    EXPECT_EQ(GVTestPeer::attention(pool).load(), 0U);
    EXPECT_EQ(GVTestPeer::stateOf(pool).flags, 0U) << "there is nothing to see to";
    cache.releaseObject(token);
}

TEST(SharedPoolStatistics, takeNothingFromCachesAtAResetThoughNoBlockIsFree) {
    GVSharedPool pool(2, 16);
    GVTokenCache cache(pool, 4);
    const unsigned int token = *cache.tryBorrow();
    expectCounts(pool, 1, 1, 0);
    pool.resetHighestLentCount();
    EXPECT_FALSE(pool.isClosed());
    cache.releaseObject(token);
    expectCounts(pool, 0, 2, 0);
}

TEST(SharedPoolStatistics, countAWaitWhenItBeginsAndTheRestWhenItEnds) {
    GVSharedPool pool(1, 16);
    const unsigned int token = *pool.borrow();
    std::thread waiter([&] { pool.releaseObject(*pool.borrow()); });
    awaitWaits(pool, 1);
    EXPECT_EQ(pool.getStatistics().theLongestWait.count(), 0);
    pool.releaseObject(token);
    waiter.join();
    EXPECT_GT(pool.getStatistics().theLongestWait.count(), 0);
    EXPECT_EQ(pool.getStatistics().theTimeoutCount, 0U);
    EXPECT_EQ(pool.tryBorrow(), token);
    CalledClock::isCalled = false;
    std::thread late([&] { EXPECT_FALSE(pool.borrowUntil(CalledClock::time_point(theCall)).has_value()); });
    awaitWaits(pool, 2);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    CalledClock::isCalled = true;
    late.join();
    const GVSharedPoolStatistics statistics = pool.getStatistics();
    EXPECT_EQ(statistics.theWaitCount, 2U);
    EXPECT_EQ(statistics.theTimeoutCount, 1U);
    EXPECT_GE(statistics.theLongestWait, std::chrono::milliseconds(50));
    EXPECT_LT(statistics.theLongestWait, std::chrono::seconds(20));
    EXPECT_FALSE(pool.borrowFor(std::chrono::seconds(0)).has_value());
    EXPECT_EQ(pool.getStatistics().theLongestWait, statistics.theLongestWait) << "it was shorter";
    pool.releaseObject(token);
}

TEST(SharedPoolStatistics, countTheTimeOfAWaitThatWasServedOrClosed) {
    GVSharedPool pool(1, 16);
    const unsigned int token = *pool.borrow();
    std::thread served([&] { EXPECT_TRUE(pool.borrow().has_value()); });
    awaitWaits(pool, 1);
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    pool.releaseObject(token);
    served.join();
    EXPECT_GE(pool.getStatistics().theLongestWait, std::chrono::milliseconds(10));
    std::thread closed([&] { EXPECT_FALSE(pool.borrow().has_value()); });
    awaitWaits(pool, 2);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    pool.close();
    closed.join();
    EXPECT_GE(pool.getStatistics().theLongestWait, std::chrono::milliseconds(50));
}

// A token may go from one cache to another while the caches are read one after the other.
TEST(SharedPoolStatistics, addUpWhereATokenIsSeenInTwoCaches) {
    GVSharedPool pool(5, 16);
    const std::vector<unsigned int> tokens = borrowAll(pool);
    pool.releaseObject(tokens[0]);
    const detail::GVAtomicWord seen(3);
    const detail::GVAtomicWord seenToo(2);
    detail::GVRegisteredCache first = {&seen, nullptr, nullptr};
    detail::GVRegisteredCache second = {&seenToo, nullptr, nullptr};
    {
        detail::GVSharedPoolAccess access(pool);
        access.join(first);
        access.join(second);
    }
    expectCounts(pool, 0, 4, 1);
    pool.resetHighestLentCount();
    EXPECT_EQ(pool.getStatistics().theHighestLentCount, 0U);
    detail::GVSharedPoolAccess access(pool);
    access.leave(first);
    access.leave(second);
}

TEST(SharedPoolStatistics, addUpWhileThreadsWork) {
    GVSharedPool pool(16, 16);
    std::atomic<bool> isOver{false};
    std::array<std::atomic<unsigned int>, 3> rounds = {};
    std::vector<std::thread> threads;
    for (unsigned int number = 0; number < 3; ++number) {
        threads.emplace_back([&, number] {
            GVTokenCache cache(pool, 4);
            while (!isOver) {
                ++rounds[number];
                std::array<unsigned int, 3> tokens = {};
                const unsigned int count = cache.tryBorrowMany(tokens.data(), 3);
                if (number == 0) {
                    cache.releaseMany(tokens.data(), count);
                } else {
                    returnAll(pool, std::vector<unsigned int>(tokens.begin(), tokens.begin() + count));
                }
            }
        });
    }
    await([&] {
        for (int reading = 0; reading < 5000; ++reading) {
            const GVSharedPoolStatistics statistics = pool.getStatistics();
            EXPECT_EQ(statistics.theNumberOfObjects, 16U);
            EXPECT_LE(statistics.theLentCount, 16U);
            EXPECT_LE(statistics.theCachedCount, 16U);
            EXPECT_LE(statistics.theFreeCount, 16U);
            EXPECT_EQ(statistics.theLentCount + statistics.theCachedCount + statistics.theFreeCount, 16U);
            EXPECT_LE(statistics.theHighestLentCount, 16U);
            if (reading % 100 == 0) {
                pool.resetHighestLentCount();
            }
        }
        return std::all_of(rounds.begin(), rounds.end(), [](unsigned int its) { return its > 100; });
    });
    isOver = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
    expectCounts(pool, 0, 0, 16);
}

} // namespace Gilvane
