#include <gilvane/utilities/gvtokencache.h>

#include "gvtestpeer.h"
#include "hookledger.h"
#include "sharedpoolsupport.h"
#include "throwsites.h"

#include <gilvane/base/gvexception.h>

#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <new>
#include <optional>
#include <thread>
#include <type_traits>
#include <vector>

namespace Gilvane {

namespace {

const char* const cacheFile = "libsrc/utilities/gvtokencache";

// A pool of these tokens, the last of which is lent first.
struct PoolOf {
    explicit PoolOf(unsigned int count, unsigned int firstToken = 100) {
        GVTestPeer::nextToken() = firstToken;
        pool.emplace(count, 16);
    }
    std::optional<GVSharedPool> pool;
};

unsigned int cachedIn(const GVSharedPool& pool) { return pool.getStatistics().theCachedCount; }
unsigned int freeIn(const GVSharedPool& pool) { return pool.getStatistics().theFreeCount; }

} // namespace

static_assert(!std::is_copy_constructible_v<GVTokenCache> && !std::is_copy_assignable_v<GVTokenCache>);
static_assert(!std::is_move_constructible_v<GVTokenCache> && !std::is_move_assignable_v<GVTokenCache>);
static_assert(!std::is_convertible_v<GVSharedPool&, GVTokenCache>);
static_assert(alignof(GVTokenCache) <= alignof(std::max_align_t), "operator new gives no more");

TEST(TokenCache, withoutACapacityIsRefused) {
    const HookLedger ledger;
    GVSharedPool pool(1, 16);
    expectGVException([&] { const GVTokenCache cache(pool, 0); }, gvinvalidstate, cacheFile,
                      "A cache needs a capacity.");
    EXPECT_EQ(cachedIn(pool), 0U);
}

TEST(TokenCache, thatHasNoMemoryForItsTokensLeavesNothingBehind) {
    HookLedger ledger;
    GVSharedPool pool(1, 16);
    const std::size_t live = ledger.liveBlocks().size();
    ledger.refuseOnce(0);
    EXPECT_THROW(GVTokenCache(pool, 4), std::bad_alloc);
    for (const unsigned int capacity : {4294967295U, 4294967290U, 1073741823U, 1073741800U}) {
        EXPECT_THROW(GVTokenCache(pool, capacity), std::bad_alloc) << capacity;
    }
    EXPECT_EQ(ledger.liveBlocks().size(), live);
    expectThatNothingIsLost(pool);
}

TEST(TokenCache, takesAllItsMemoryAtConstruction) {
    const HookLedger ledger;
    GVSharedPool pool(100, 16);
    GVTokenCache cache(pool, 10);
    const std::size_t before = ledger.allocationCount();
    const std::vector<unsigned int> tokens = borrowAll(cache);
    EXPECT_FALSE(cache.borrowFor(std::chrono::milliseconds(1)).has_value());
    returnAll(cache, tokens);
    cache.flush();
    EXPECT_EQ(ledger.allocationCount(), before);
}

TEST(TokenCache, holds64TokensUnlessToldOtherwise) {
    GVSharedPool pool(200, 16);
    GVTokenCache cache(pool);
    const std::vector<unsigned int> tokens = borrowAll(pool);
    for (unsigned int count = 0; count < 64; ++count) {
        cache.releaseObject(tokens[count]);
        EXPECT_EQ(cachedIn(pool), count + 1);
    }
    cache.releaseObject(tokens[64]);
    EXPECT_EQ(cachedIn(pool), 33U);
}

TEST(TokenCache, thatIsEmptyTakesHalfItsCapacityOrWhatThereIs) {
    GVSharedPool pool(10, 16);
    GVTokenCache cache(pool, 8);
    const unsigned int token = *cache.tryBorrow();
    EXPECT_EQ(cachedIn(pool), 3U);
    EXPECT_EQ(freeIn(pool), 6U);
    GVTokenCache large(pool, 100);
    EXPECT_TRUE(large.tryBorrow().has_value());
    EXPECT_EQ(freeIn(pool), 0U);
    EXPECT_EQ(cachedIn(pool), 8U);
    cache.releaseObject(token);
}

TEST(TokenCache, lendsInThePoolsOrder) {
    PoolOf ten(10);
    GVTokenCache cache(*ten.pool, 6);
    EXPECT_EQ(borrowAll(cache), (std::vector<unsigned int>{109, 108, 107, 106, 105, 104, 103, 102, 101, 100}));
}

TEST(TokenCache, lendsTheTokenReturnedLastFirst) {
    PoolOf ten(10);
    GVTokenCache cache(*ten.pool, 6);
    EXPECT_EQ(cache.tryBorrow(), 109U);
    EXPECT_EQ(cache.tryBorrow(), 108U);
    returnAll(cache, {109, 108});
    EXPECT_EQ(cache.tryBorrow(), 108U);
    EXPECT_EQ(cache.tryBorrow(), 109U);
}

TEST(TokenCache, thatIsFullGivesTheOldestHalfBackAtTheNextReturn) {
    PoolOf ten(10);
    GVTokenCache cache(*ten.pool, 4);
    borrowAll(*ten.pool);
    returnAll(cache, {100, 101, 102, 103});
    EXPECT_EQ(cachedIn(*ten.pool), 4U) << "only a return to a cache that is full already gives back";
    cache.releaseObject(104);
    EXPECT_EQ(cachedIn(*ten.pool), 3U);
    EXPECT_EQ(borrowAll(*ten.pool), (std::vector<unsigned int>{101, 100}));
    EXPECT_EQ(borrowAll(cache), (std::vector<unsigned int>{104, 103, 102}));
}

TEST(TokenCache, ofOneTokenGivesTheOldOneBack) {
    PoolOf ten(10);
    GVTokenCache cache(*ten.pool, 1);
    EXPECT_EQ(cache.tryBorrow(), 109U);
    EXPECT_EQ(freeIn(*ten.pool), 9U) << "it takes no more than it lends";
    EXPECT_EQ(cache.tryBorrow(), 108U);
    cache.releaseObject(109);
    cache.releaseObject(108);
    EXPECT_EQ(cachedIn(*ten.pool), 1U);
    EXPECT_EQ(cache.tryBorrow(), 108U);
    EXPECT_EQ(ten.pool->tryBorrow(), 109U);
}

TEST(TokenCache, neverHoldsMoreThanItsCapacityWhateverIsDone) {
    GVSharedPool pool(30, 16);
    GVTokenCache first(pool, 3);
    GVTokenCache second(pool, 6);
    std::vector<unsigned int> lent;
    unsigned int random = 7;
    for (int step = 0; step < 5000; ++step) {
        random = random * 1664525 + 1013904223;
        GVTokenCache& cache = (random >> 30) % 2 == 0 ? first : second;
        if ((random >> 20) % 2 == 0) {
            if (const std::optional<unsigned int> token = cache.tryBorrow()) {
                lent.push_back(*token);
            }
        } else if (!lent.empty()) {
            const std::size_t position = (random >> 8) % lent.size();
            cache.releaseObject(lent[position]);
            lent.erase(lent.begin() + static_cast<std::ptrdiff_t>(position));
        }
        const GVSharedPoolStatistics statistics = pool.getStatistics();
        ASSERT_EQ(statistics.theLentCount, lent.size());
        ASSERT_LE(statistics.theCachedCount, 9U);
        ASSERT_GE(statistics.theFreeCount + statistics.theLentCount, 30U - 9U) << "free to whoever asks";
    }
}

TEST(TokenCache, leavesAllButTheCapacitiesFreeToWhoeverAsks) {
    GVSharedPool pool(20, 16);
    GVTokenCache first(pool, 4);
    GVTokenCache second(pool, 8);
    std::array<unsigned int, 20> tokens = {};
    ASSERT_EQ(first.tryBorrowMany(tokens.data(), 20), 20U);
    first.releaseMany(tokens.data(), 10);
    second.releaseMany(tokens.data() + 10, 10);
    EXPECT_GE(borrowAll(pool).size(), 20U - 4U - 8U);
}

TEST(TokenCache, givesItsTokensBackWhenItGoes) {
    const HookLedger ledger;
    GVSharedPool pool(10, 16);
    {
        GVTokenCache cache(pool, 8);
        cache.releaseObject(*cache.tryBorrow());
        EXPECT_EQ(cachedIn(pool), 4U);
    }
    expectThatNothingIsLost(pool);
}

TEST(TokenCache, givesItsTokensBackWhenItIsFlushed) {
    PoolOf ten(10);
    GVTokenCache cache(*ten.pool, 8);
    cache.releaseObject(*cache.tryBorrow());
    cache.flush();
    EXPECT_EQ(cachedIn(*ten.pool), 0U);
    EXPECT_EQ(borrowAll(*ten.pool), (std::vector<unsigned int>{109, 108, 107, 106, 105, 104, 103, 102, 101, 100}))
        << "the newest is lent first, as before";
    cache.flush();
}

TEST(TokenCache, takesTokensOfOtherCachesAndOfThePool) {
    GVSharedPool pool(10, 16);
    GVTokenCache first(pool, 2);
    GVTokenCache second(pool, 2);
    second.releaseObject(*first.tryBorrow());
    second.releaseObject(*pool.tryBorrow());
    pool.releaseObject(*first.tryBorrow());
    EXPECT_EQ(cachedIn(pool), 2U);
    second.flush();
    expectThatNothingIsLost(pool);
}

TEST(TokenCache, givesAddressesAsThePoolDoes) {
    GVSharedPool pool(4, 16);
    GVSharedPool other(1, 16);
    GVTokenCache cache(pool, 4);
    const unsigned int token = *cache.tryBorrow();
    EXPECT_EQ(cache.getMemoryForToken(token), pool.getMemoryForToken(token));
    EXPECT_NE(cache.getMemoryForToken(token), nullptr);
    cache.releaseObject(token);
    EXPECT_EQ(cache.getMemoryForToken(token), pool.getMemoryForToken(token)) << "of a block that is free, too";
    expectGVException([&] { cache.getMemoryForToken(*other.tryBorrow()); }, gvinvalidstate, sharedPoolFile,
                      notOfThisPool);
}

TEST(TokenCache, refusesATokenOfAnotherPool) {
    GVSharedPool pool(4, 16);
    GVSharedPool other(1, 16);
    GVTokenCache cache(pool, 4);
    expectGVException([&] { cache.releaseObject(*other.tryBorrow()); }, gvinvalidstate, sharedPoolFile, notOfThisPool);
    EXPECT_EQ(cachedIn(pool), 0U);
}

TEST(TokenCache, refusesATokenThatIsReturnedTwiceWhereverItLies) {
    GVSharedPool pool(10, 16);
    GVTokenCache cache(pool, 4);
    GVTokenCache other(pool, 4);
    const unsigned int token = *pool.tryBorrow();
    const auto expectRefusals = [&] {
        expectGVException([&] { cache.releaseObject(token); }, gvinvalidstate, sharedPoolFile, freeAlready);
        expectGVException([&] { other.releaseObject(token); }, gvinvalidstate, sharedPoolFile, freeAlready);
        expectGVException([&] { pool.releaseObject(token); }, gvinvalidstate, sharedPoolFile, freeAlready);
    };
    cache.releaseObject(token);
    expectRefusals();
    cache.flush();
    expectRefusals();
    EXPECT_EQ(cache.tryBorrow(), token);
    pool.releaseObject(token);
    expectRefusals();
    cache.flush();
    expectThatNothingIsLost(pool);
}

TEST(TokenCache, lendsManyWhateverItsCapacity) {
    PoolOf ten(10);
    GVTokenCache cache(*ten.pool, 4);
    EXPECT_EQ(cache.tryBorrow(), 109U);
    std::array<unsigned int, 12> tokens = {};
    EXPECT_EQ(cache.tryBorrowMany(tokens.data(), 0), 0U);
    EXPECT_EQ(cache.tryBorrowMany(tokens.data(), 1), 1U);
    EXPECT_EQ(tokens[0], 108U);
    cache.releaseObject(108);
    EXPECT_EQ(cache.tryBorrowMany(tokens.data(), 5), 5U);
    EXPECT_EQ(std::vector<unsigned int>(tokens.begin(), tokens.begin() + 5),
              (std::vector<unsigned int>{108, 107, 106, 105, 104}));
    EXPECT_EQ(cache.tryBorrowMany(tokens.data(), 12), 4U) << "all there are";
    EXPECT_EQ(tokens[3], 100U);
    EXPECT_EQ(ten.pool->getStatistics().theLentCount, 10U);
    EXPECT_EQ(cache.tryBorrowMany(tokens.data(), 12), 0U);
}

TEST(TokenCache, takesManyBackInOrder) {
    PoolOf ten(10);
    GVTokenCache cache(*ten.pool, 4);
    borrowAll(*ten.pool);
    const std::array<unsigned int, 6> tokens = {100, 101, 102, 103, 104, 105};
    cache.releaseMany(tokens.data(), 6);
    EXPECT_EQ(borrowAll(*ten.pool), (std::vector<unsigned int>{101, 100}));
    EXPECT_EQ(borrowAll(cache), (std::vector<unsigned int>{105, 104, 103, 102}));
    cache.releaseMany(tokens.data(), 0);
    EXPECT_EQ(cachedIn(*ten.pool), 0U);
}

TEST(TokenCache, takesManyBackUpToTheFirstThatIsRefused) {
    PoolOf ten(10);
    GVTokenCache cache(*ten.pool, 8);
    borrowAll(*ten.pool);
    const std::array<unsigned int, 4> tokens = {100, 101, 100, 102};
    expectGVException([&] { cache.releaseMany(tokens.data(), 4); }, gvinvalidstate, sharedPoolFile, freeAlready);
    EXPECT_EQ(cachedIn(*ten.pool), 2U);
    cache.releaseObject(102);
    EXPECT_EQ(borrowAll(cache), (std::vector<unsigned int>{102, 101, 100}));
}

TEST(TokenCacheWaiting, getsTheBlockThatComesBack) {
    GVSharedPool pool(1, 16);
    GVTokenCache cache(pool, 4);
    const unsigned int token = *cache.borrow();
    std::optional<unsigned int> got;
    for (int way = 0; way < 3; ++way) {
        std::thread waiter([&] {
            got = way == 0   ? cache.borrow()
                  : way == 1 ? cache.borrowFor(std::chrono::hours(1))
                             : cache.borrowUntil(std::chrono::system_clock::now() + std::chrono::hours(1));
        });
        awaitWaits(pool, static_cast<unsigned int>(way) + 1);
        pool.releaseObject(token);
        waiter.join();
        EXPECT_EQ(got, token);
    }
}

TEST(TokenCacheWaiting, takesHalfTheCapacityWhereNobodyNeedsToWait) {
    GVSharedPool pool(10, 16);
    GVTokenCache cache(pool, 8);
    EXPECT_TRUE(cache.borrow().has_value());
    EXPECT_EQ(cachedIn(pool), 3U);
    EXPECT_EQ(freeIn(pool), 6U);
}

TEST(TokenCacheWaiting, endsEmptyWhenTheTimeIsOver) {
    GVSharedPool pool(1, 16);
    GVTokenCache cache(pool, 4);
    const unsigned int token = *cache.borrowFor(std::chrono::seconds(-1));
    EXPECT_FALSE(cache.borrowFor(std::chrono::milliseconds(2)).has_value());
    EXPECT_FALSE(cache.borrowFor(std::chrono::seconds(0)).has_value());
    EXPECT_FALSE(cache.borrowUntil((std::chrono::steady_clock::time_point::min)()).has_value());
    EXPECT_EQ(pool.getStatistics().theWaitCount, 3U);
    EXPECT_EQ(pool.getStatistics().theTimeoutCount, 3U);
    cache.releaseObject(token);
    EXPECT_EQ(cache.borrow(), token);
}

TEST(TokenCacheWaiting, byAnybodySendsWhatACacheHoldsAtItsNextLoan) {
    for (const bool mayWait : {false, true}) {
        GVSharedPool pool(5, 16);
        GVTokenCache cache(pool, 10);
        const unsigned int mine = *cache.tryBorrow();
        EXPECT_EQ(cachedIn(pool), 4U);
        std::vector<std::thread> waiters;
        for (int number = 0; number < 2; ++number) {
            waiters.emplace_back([&] { EXPECT_TRUE(pool.borrow().has_value()); });
        }
        awaitWaits(pool, 2);
        letTheOvertakingEnd();
        EXPECT_TRUE((mayWait ? cache.borrow() : cache.tryBorrow()).has_value());
        EXPECT_EQ(cachedIn(pool), 0U) << "it takes no more than it asked for";
        for (std::thread& waiter : waiters) {
            waiter.join();
        }
        EXPECT_EQ(pool.getStatistics().theLentCount, 4U);
        cache.releaseObject(mine);
    }
}

TEST(TokenCacheWaiting, byAnybodySendsWhatACacheHoldsAtItsNextReturn) {
    GVSharedPool pool(3, 16);
    GVTokenCache cache(pool, 8);
    const unsigned int mine = *cache.tryBorrow();
    EXPECT_EQ(cachedIn(pool), 2U);
    std::vector<std::thread> waiters;
    for (int number = 0; number < 3; ++number) {
        waiters.emplace_back([&] { EXPECT_TRUE(pool.borrow().has_value()); });
    }
    awaitWaits(pool, 3);
    cache.releaseObject(mine);
    for (std::thread& waiter : waiters) {
        waiter.join();
    }
    EXPECT_EQ(pool.getStatistics().theLentCount, 3U) << "what it held, and what was returned";
}

TEST(TokenCacheWaiting, ofAMillisecondComesBeforeTheLoanThatSendsTheBlocks) {
    GVSharedPool pool(2, 16);
    GVTokenCache cache(pool, 4);
    for (const int way : {0, 1, 2}) {
        const unsigned int mine = *cache.tryBorrow();
        EXPECT_EQ(cachedIn(pool), 1U);
        std::optional<unsigned int> got;
        std::thread waiter([&] { got = pool.borrow(); });
        awaitWaits(pool, pool.getStatistics().theTimeoutCount + static_cast<unsigned int>(way) + 1);
        letTheOvertakingEnd();
        unsigned int token = 0;
        if (way == 0) {
            EXPECT_FALSE(cache.tryBorrow().has_value());
        } else if (way == 1) {
            EXPECT_FALSE(cache.borrowFor(std::chrono::seconds(0)).has_value());
        } else {
            EXPECT_EQ(cache.tryBorrowMany(&token, 1), 0U);
        }
        waiter.join();
        ASSERT_TRUE(got.has_value());
        pool.releaseObject(*got);
        pool.releaseObject(mine);
    }
}

TEST(TokenCacheWaiting, byAnybodySendsWhatACacheHoldsWhenManyAreBorrowed) {
    GVSharedPool pool(3, 16);
    GVTokenCache cache(pool, 8);
    const unsigned int mine = *cache.tryBorrow();
    EXPECT_EQ(cachedIn(pool), 2U);
    std::thread waiter([&] { EXPECT_TRUE(pool.borrow().has_value()); });
    awaitWaits(pool, 1);
    letTheOvertakingEnd();
    unsigned int token = 0;
    EXPECT_EQ(cache.tryBorrowMany(&token, 1), 1U);
    waiter.join();
    EXPECT_EQ(cachedIn(pool), 0U);
    cache.releaseObject(mine);
    cache.releaseObject(token);
    EXPECT_EQ(cachedIn(pool), 2U) << "nobody waits any longer";
}

TEST(TokenCacheWaiting, isNotEndedByACacheWhoseThreadDoesNothingUntilItIsFlushed) {
    GVSharedPool pool(4, 16);
    GVTokenCache cache(pool, 8);
    cache.releaseObject(*cache.tryBorrow());
    EXPECT_EQ(cachedIn(pool), 4U);
    EXPECT_FALSE(pool.borrowFor(std::chrono::milliseconds(5)).has_value());
    std::thread waiter([&] { EXPECT_TRUE(pool.borrow().has_value()); });
    awaitWaits(pool, 2);
    cache.flush();
    waiter.join();
}

TEST(TokenCacheWaiting, isEndedByACacheThatGoes) {
    GVSharedPool pool(4, 16);
    std::thread waiter;
    {
        GVTokenCache cache(pool, 8);
        cache.releaseObject(*cache.tryBorrow());
        waiter = std::thread([&] { EXPECT_TRUE(pool.borrow().has_value()); });
        awaitWaits(pool, 1);
    }
    waiter.join();
}

TEST(TokenCacheWork, takesNoLockUntilItIsEmptyOrFull) {
    GVSharedPool pool(20, 16);
    GVTokenCache cache(pool, 8);
    cache.releaseObject(*cache.tryBorrow());
    EXPECT_EQ(cachedIn(pool), 4U);
    const detail::GVSharedPoolAccess access(pool); // holds the lock, which this thread could not take again
    std::array<unsigned int, 4> tokens = {};
    EXPECT_EQ(cache.tryBorrowMany(tokens.data(), 4), 4U);
    cache.releaseMany(tokens.data(), 4);
    for (unsigned int& token : tokens) {
        cache.releaseObject(*cache.tryBorrow());
        token = *cache.borrow();
        EXPECT_NE(cache.getMemoryForToken(token), nullptr);
    }
    for (const unsigned int token : tokens) {
        cache.releaseObject(token);
    }
    cache.releaseObject(*cache.borrowFor(std::chrono::seconds(1)));
}

TEST(TokenCacheLayout, keepsWhatItUsesInCacheLinesOfItsOwn) {
    GVSharedPool pool(20, 16);
    const GVTokenCache cache(pool, 8);
    const GVTestPeer::HotFields hot = GVTestPeer::hotFields(cache);
    const auto distance = [](const void* from, const void* to) {
        return reinterpret_cast<std::uintptr_t>(to) - reinterpret_cast<std::uintptr_t>(from);
    };
    EXPECT_GE(distance(&cache, hot.theFirst), 64U) << "another object may end right before this one";
    EXPECT_GE(distance(hot.theLast, hot.theRegistration), 64U) << "other threads write the links";
}

TEST(TokenCacheLayout, keepsALineFreeBeforeAndBehindItsTokens) {
    const HookLedger ledger;
    GVSharedPool pool(20, 16);
    const GVTokenCache cache(pool, 8);
    constexpr unsigned int header = sizeof(void*);
    const HookLedger::Block block = ledger.liveBlocks().back();
    EXPECT_EQ(block.bytes, header + 64 + 8 * sizeof(unsigned int) + 64);
    EXPECT_EQ(static_cast<const void*>(GVTestPeer::tokensOf(cache)), static_cast<char*>(block.start) + header + 64);
}

} // namespace Gilvane
