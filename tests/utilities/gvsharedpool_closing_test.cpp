#include <gilvane/utilities/gvsharedpool.h>

#include "sharedpoolsupport.h"
#include "testclock.h"
#include "throwsites.h"

#include <gilvane/base/gvexception.h>
#include <gilvane/utilities/gvtokencache.h>

#include <gvtestpeer.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <exception>
#include <fcntl.h>
#include <optional>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

namespace Gilvane {

namespace {

bool isReadable(int descriptor) {
    pollfd entry = {descriptor, POLLIN, 0};
    return poll(&entry, 1, 0) == 1 && (entry.revents & POLLIN) != 0;
}

// While it lives, no further descriptor can be had.
class NoDescriptors {
  public:
    NoDescriptors() {
        getrlimit(RLIMIT_NOFILE, &theLimit);
        const rlimit none = {0, theLimit.rlim_max};
        setrlimit(RLIMIT_NOFILE, &none);
    }
    NoDescriptors(const NoDescriptors&) = delete;
    NoDescriptors& operator=(const NoDescriptors&) = delete;
    ~NoDescriptors() { setrlimit(RLIMIT_NOFILE, &theLimit); }

  private:
    rlimit theLimit = {};
};

// While it lives, standard input is closed, and the next descriptor has its number.
class NoStandardInput {
  public:
    NoStandardInput() { ::close(STDIN_FILENO); }
    NoStandardInput(const NoStandardInput&) = delete;
    NoStandardInput& operator=(const NoStandardInput&) = delete;
    ~NoStandardInput() {
        dup2(theInput, STDIN_FILENO);
        ::close(theInput);
    }

  private:
    int theInput = dup(STDIN_FILENO);
};

// Closes the pool and returns a block, while a wait that is long enough for the block to be handed over goes on.
struct ClosingClock : TestClock<ClosingClock> {
    static time_point now() {
        letTheOvertakingEnd();
        thePool->close();
        thePool->releaseObject(theToken);
        return time_point();
    }
    static GVSharedPool* thePool;
    static unsigned int theToken;
};

GVSharedPool* ClosingClock::thePool = nullptr;
unsigned int ClosingClock::theToken = 0;

const GVSharedPool* theWatchedPool = nullptr; // null: nothing is noted
bool wasHeldAtWrites = false;                 // whether its lock was held when a descriptor was last written

} // namespace

} // namespace Gilvane

// The linker sends the library's calls of eventfd_write here.
extern "C" {
// NOLINTBEGIN(bugprone-reserved-identifier)
int __real_eventfd_write(int descriptor, eventfd_t value);
int __wrap_eventfd_write(int descriptor, eventfd_t value);

int __wrap_eventfd_write(int descriptor, eventfd_t value) {
    using namespace Gilvane;
    if (theWatchedPool != nullptr) {
        wasHeldAtWrites = GVTestPeer::isHeld(detail::GVSharedPoolAccess::lock(*theWatchedPool));
    }
    return __real_eventfd_write(descriptor, value);
}
// NOLINTEND(bugprone-reserved-identifier)
}

namespace Gilvane {

TEST(SharedPoolClosing, lendsNothingFromThenOn) {
    GVSharedPool pool(2, 16);
    EXPECT_FALSE(pool.isClosed());
    pool.close();
    EXPECT_TRUE(pool.isClosed());
    EXPECT_FALSE(pool.tryBorrow().has_value());
    EXPECT_FALSE(pool.borrow().has_value());
    EXPECT_FALSE(pool.borrowFor(std::chrono::hours(1)).has_value());
    EXPECT_FALSE(pool.borrowUntil(std::chrono::system_clock::now() + std::chrono::hours(1)).has_value());
    EXPECT_EQ(pool.getStatistics().theFreeCount, 2U);
    EXPECT_EQ(pool.getStatistics().theWaitCount, 0U);
    EXPECT_EQ(pool.getStatistics().theTimeoutCount, 0U);
}

TEST(SharedPoolClosing, makesNobodyWaitThoughNoBlockIsFree) {
    GVSharedPool pool(1, 16);
    GVTokenCache cache(pool);
    EXPECT_TRUE(pool.tryBorrow().has_value());
    pool.close();
    EXPECT_FALSE(pool.borrow().has_value());
    EXPECT_FALSE(pool.borrowFor(std::chrono::hours(1)).has_value());
    EXPECT_FALSE(cache.borrow().has_value());
    EXPECT_EQ(pool.getStatistics().theWaitCount, 0U);
}

TEST(SharedPoolClosing, twiceIsAsOnce) {
    GVSharedPool pool(2, 16);
    pool.close();
    pool.close();
    EXPECT_TRUE(pool.isClosed());
    EXPECT_FALSE(pool.tryBorrow().has_value());
}

TEST(SharedPoolClosing, endsEveryWaitWithoutATimeout) {
    GVSharedPool pool(1, 16);
    const unsigned int token = *pool.borrow();
    GVTokenCache cache(pool);
    std::vector<std::thread> threads;
    threads.emplace_back([&] { EXPECT_FALSE(pool.borrow().has_value()); });
    threads.emplace_back([&] { EXPECT_FALSE(pool.borrowFor(std::chrono::hours(1)).has_value()); });
    threads.emplace_back([&] { EXPECT_FALSE(cache.borrow().has_value()); });
    awaitWaits(pool, 3);
    pool.close();
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(pool.getStatistics().theTimeoutCount, 0U);
    pool.releaseObject(token);
}

TEST(SharedPoolClosing, takesBlocksBackAndGivesTheirAddresses) {
    GVSharedPool pool(3, 16);
    GVTokenCache cache(pool);
    const std::vector<unsigned int> tokens = borrowAll(pool);
    pool.close();
    pool.releaseObject(tokens[0]);
    cache.releaseObject(tokens[1]);
    EXPECT_EQ(pool.getStatistics().theFreeCount, 2U) << "a cache keeps nothing of a closed pool";
    EXPECT_NE(pool.getMemoryForToken(tokens[2]), nullptr);
    pool.releaseObject(tokens[2]);
    EXPECT_EQ(pool.getStatistics().theFreeCount, 3U);
    expectGVException([&] { pool.releaseObject(tokens[0]); }, gvinvalidstate, sharedPoolFile, freeAlready);
}

TEST(SharedPoolClosing, stopsCachesThatHoldTokens) {
    GVSharedPool pool(8, 16);
    GVTokenCache cache(pool, 4);
    cache.releaseObject(*cache.tryBorrow());
    EXPECT_EQ(pool.getStatistics().theCachedCount, 2U);
    pool.close();
    unsigned int tokens[2] = {};
    EXPECT_EQ(cache.tryBorrowMany(tokens, 2), 0U);
    EXPECT_FALSE(cache.tryBorrow().has_value());
    EXPECT_FALSE(cache.borrow().has_value());
    EXPECT_FALSE(cache.borrowFor(std::chrono::hours(1)).has_value());
    EXPECT_EQ(pool.getStatistics().theFreeCount, 8U) << "what it held went back";
}

TEST(SharedPoolClosing, fillsNoCacheThatHasLookedAMomentTooEarly) {
    GVSharedPool pool(8, 16);
    GVTokenCache cache(pool, 4);
    pool.close();
    // What the cache would have seen, had it looked before.
    GVTestPeer::attention(pool).store(0);
    EXPECT_FALSE(cache.tryBorrow().has_value());
    GVTestPeer::attention(pool).store(0);
    EXPECT_FALSE(cache.borrow().has_value());
    EXPECT_EQ(pool.getStatistics().theFreeCount, 8U);
}

TEST(SharedPoolClosing, leavesABlockThatWasHandedOverBefore) {
    GVSharedPool pool(1, 16);
    const unsigned int token = *pool.borrow();
    std::optional<unsigned int> got;
    std::thread waiter([&] { got = pool.borrow(); });
    awaitWaits(pool, 1);
    letTheOvertakingEnd();
    pool.releaseObject(token);
    pool.close();
    waiter.join();
    EXPECT_EQ(got, token);
    pool.releaseObject(token);
    EXPECT_EQ(pool.getStatistics().theFreeCount, 1U);
}

TEST(SharedPoolClosing, handsNothingToThoseWhoStillWait) {
    GVSharedPool pool(1, 16);
    ClosingClock::thePool = &pool;
    ClosingClock::theToken = *pool.tryBorrow();
    EXPECT_FALSE(pool.borrowUntil(ClosingClock::time_point(std::chrono::hours(1))).has_value());
    EXPECT_EQ(pool.getStatistics().theFreeCount, 1U);
}

TEST(SharedPoolDescriptor, isReadableWhileABlockIsFree) {
    GVSharedPool pool(2, 16);
    const int descriptor = pool.getDescriptor();
    EXPECT_TRUE(isReadable(descriptor));
    const unsigned int first = *pool.tryBorrow();
    EXPECT_TRUE(isReadable(descriptor));
    const unsigned int second = *pool.tryBorrow();
    EXPECT_FALSE(isReadable(descriptor));
    EXPECT_FALSE(pool.isClosed());
    pool.releaseObject(first);
    EXPECT_TRUE(isReadable(descriptor));
    pool.releaseObject(second);
    EXPECT_TRUE(isReadable(descriptor));
    for (int round = 0; round < 3; ++round) {
        const std::vector<unsigned int> tokens = borrowAll(pool);
        EXPECT_FALSE(isReadable(descriptor));
        returnAll(pool, tokens);
        EXPECT_TRUE(isReadable(descriptor));
    }
}

TEST(SharedPoolDescriptor, thatIsFirstAskedForWhenNoneIsFreeIsNotReadable) {
    GVSharedPool pool(1, 16);
    const unsigned int token = *pool.tryBorrow();
    const int descriptor = pool.getDescriptor();
    EXPECT_FALSE(isReadable(descriptor));
    pool.releaseObject(token);
    EXPECT_TRUE(isReadable(descriptor));
}

TEST(SharedPoolDescriptor, thatIsFirstAskedForAfterAResetIsReadable) {
    GVSharedPool pool(4, 16);
    GVTokenCache cache(pool, 2);
    cache.releaseObject(*cache.tryBorrow()); // one lies in the cache
    pool.resetHighestLentCount();
    pool.releaseObject(*pool.tryBorrow());
    EXPECT_TRUE(isReadable(pool.getDescriptor()));
}

TEST(SharedPoolDescriptor, isWrittenUnderTheLock) {
    GVSharedPool pool(1, 16);
    static_cast<void>(pool.getDescriptor());
    const unsigned int token = *pool.tryBorrow();
    wasHeldAtWrites = false;
    theWatchedPool = &pool;
    pool.releaseObject(token);
    theWatchedPool = nullptr;
    EXPECT_TRUE(wasHeldAtWrites);
}

TEST(SharedPoolDescriptor, mayHaveTheNumberZero) {
    const NoStandardInput closed;
    {
        GVSharedPool pool(1, 16);
        EXPECT_EQ(pool.getDescriptor(), 0);
        EXPECT_EQ(pool.getDescriptor(), 0) << "it is there already";
        const unsigned int token = *pool.tryBorrow();
        EXPECT_FALSE(isReadable(0));
        pool.releaseObject(token);
        EXPECT_TRUE(isReadable(0));
    }
    EXPECT_EQ(fcntl(0, F_GETFD), -1) << "it is closed with the pool";
}

TEST(SharedPoolDescriptor, isReadableWhenThePoolIsClosed) {
    GVSharedPool pool(1, 16);
    EXPECT_TRUE(pool.tryBorrow().has_value());
    const int descriptor = pool.getDescriptor();
    EXPECT_FALSE(isReadable(descriptor));
    pool.close();
    EXPECT_TRUE(isReadable(descriptor));
    EXPECT_FALSE(pool.tryBorrow().has_value());
    EXPECT_TRUE(isReadable(descriptor));
}

TEST(SharedPoolDescriptor, isWrittenOnlyWhenItsReadinessChanges) {
    GVSharedPool pool(3, 16);
    const int descriptor = pool.getDescriptor();
    returnAll(pool, borrowAll(pool));
    returnAll(pool, borrowAll(pool));
    eventfd_t counter = 0;
    EXPECT_EQ(eventfd_read(descriptor, &counter), 0); // what a user never does
    EXPECT_EQ(counter, 1U);
}

TEST(SharedPoolDescriptor, wakesAThreadThatPolls) {
    GVSharedPool pool(1, 16);
    const unsigned int token = *pool.tryBorrow();
    const int descriptor = pool.getDescriptor();
    std::thread returning([&, polling = gettid()] {
        await([&] { return isAsleep(polling); });
        pool.releaseObject(token);
    });
    pollfd entry = {descriptor, POLLIN, 0};
    EXPECT_EQ(poll(&entry, 1, 30000), 1);
    returning.join();
}

TEST(SharedPoolDescriptor, isOneAndTheSameNonBlockingAndClosedByExec) {
    GVSharedPool pool(1, 16);
    const int descriptor = pool.getDescriptor();
    EXPECT_EQ(pool.getDescriptor(), descriptor);
    EXPECT_NE(fcntl(descriptor, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_NE(fcntl(descriptor, F_GETFD) & FD_CLOEXEC, 0);
}

TEST(SharedPoolDescriptor, isMadeWhenItIsAskedForAndClosedWithThePool) {
    const int next = dup(STDERR_FILENO);
    ::close(next);
    int descriptor = -1;
    {
        GVSharedPool pool(1, 16);
        EXPECT_EQ(fcntl(next, F_GETFD), -1) << "nobody has asked for one";
        descriptor = pool.getDescriptor();
        EXPECT_NE(fcntl(descriptor, F_GETFD), -1);
    }
    EXPECT_EQ(fcntl(descriptor, F_GETFD), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST(SharedPoolDescriptor, thatNobodyHasAskedForIsNotClosed) {
    std::optional<GVSharedPool> pool(std::in_place, 1U, 16U);
    errno = 0;
    pool.reset();
    EXPECT_EQ(errno, 0);
}

TEST(SharedPoolDescriptor, thatCannotBeHadIsKindOutOfMemoryAndChangesNothing) {
    GVSharedPool pool(1, 16);
    std::exception_ptr failure;
    {
        const NoDescriptors none; // the source, in which the line is looked up, cannot be read either
        try {
            pool.getDescriptor();
        } catch (const GVException&) {
            failure = std::current_exception();
        }
    }
    ASSERT_NE(failure, nullptr);
    expectGVException([&] { std::rethrow_exception(failure); }, gvoutofmemory, sharedPoolFile,
                      "Unable to create the descriptor of a shared pool.");
    returnAll(pool, borrowAll(pool));
    EXPECT_TRUE(isReadable(pool.getDescriptor()));
}

TEST(SharedPoolDescriptor, doesNotCountBlocksInCachesWhichComeBackAtTheCachesNextWork) {
    GVSharedPool pool(2, 16);
    GVTokenCache cache(pool, 8);
    const int descriptor = pool.getDescriptor();
    const unsigned int token = *cache.tryBorrow();
    EXPECT_EQ(pool.getStatistics().theCachedCount, 1U);
    EXPECT_FALSE(isReadable(descriptor));
    cache.releaseObject(token);
    EXPECT_TRUE(isReadable(descriptor)) << "that no block is free counts as somebody waiting";
    EXPECT_EQ(pool.getStatistics().theCachedCount, 0U);
    EXPECT_EQ(pool.tryBorrow(), token) << "it came back last";
    pool.releaseObject(token);
}

TEST(SharedPoolDescriptor, letsCachesKeepWhatTheyHoldWhileABlockIsFree) {
    GVSharedPool pool(8, 16);
    GVTokenCache cache(pool, 8);
    static_cast<void>(pool.getDescriptor());
    cache.releaseObject(*cache.tryBorrow());
    EXPECT_EQ(pool.getStatistics().theCachedCount, 4U);
    const std::vector<unsigned int> rest = borrowAll(pool);
    EXPECT_EQ(pool.getStatistics().theCachedCount, 4U) << "the cache has not worked yet";
    const unsigned int token = *cache.tryBorrow();
    EXPECT_EQ(pool.getStatistics().theCachedCount, 0U);
    EXPECT_EQ(pool.getStatistics().theFreeCount, 3U);
    cache.releaseObject(token);
    returnAll(pool, rest);
}

} // namespace Gilvane
