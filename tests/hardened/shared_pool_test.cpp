// What the hardened build finds in the use of shared pools ends the program, with one line that says where it was.
#include <gilvane/base/gvexception.h>
#include <gilvane/utilities/gvsharedpool.h>
#include <gilvane/utilities/gvsharedtokenlease.h>
#include <gilvane/utilities/gvtokencache.h>

#include <gtest/gtest.h>

#include <atomic>
#include <optional>
#include <string>
#include <thread>

namespace Gilvane {

namespace {

std::string onlyLine(const std::string& text) { return "^gilvane: " + text + "\n(qemu: .*)?$"; }

constexpr const char* anAddress = "0x[0-9a-f]+";

// Has two threads, each with a cache so that no lock comes between, return the same token at the same moment, until they
// meet.
void returnByTwoThreadsAtOnce() {
    constexpr unsigned int mostRounds = 1000000;
    GVSharedPool pool(1, 16);
    std::atomic<unsigned int> token{0};
    std::atomic<unsigned int> begun{0}; // rounds
    std::atomic<unsigned int> ended{0}; // rounds, by the other thread
    const auto giveBack = [&](GVTokenCache& cache) {
        try {
            cache.releaseObject(token);
        } catch (const GVException&) {
            // The other was earlier.
        }
        cache.flush();
    };
    std::thread other([&] {
        GVTokenCache cache(pool, 1);
        for (unsigned int round = 1; round <= mostRounds; ++round) {
            while (begun != round) {
            }
            giveBack(cache);
            ended = round;
        }
    });
    GVTokenCache cache(pool, 1);
    for (unsigned int round = 1; round <= mostRounds; ++round) {
        token = *pool.tryBorrow();
        begun = round;
        giveBack(cache);
        while (ended != round) {
        }
    }
    other.join();
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
