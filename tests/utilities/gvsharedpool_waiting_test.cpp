#include <gilvane/utilities/gvsharedpool.h>

#include "gvtestpeer.h"
#include "haltedtime.h"
#include "sharedpoolsupport.h"
#include "testclock.h"

#include <gilvane/utilities/gvtokencache.h>

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <thread>
#include <vector>

namespace Gilvane {

namespace {

using namespace std::chrono;

// A thread that waits for one block, and keeps it.
class Borrower {
  public:
    explicit Borrower(GVSharedPool& pool) : theThread([this, &pool] { theToken = pool.borrow(); }) {}
    Borrower(const Borrower&) = delete;
    Borrower& operator=(const Borrower&) = delete;
    ~Borrower() {
        if (theThread.joinable()) {
            theThread.join();
        }
    }

    std::optional<unsigned int> result() {
        theThread.join();
        return theToken;
    }

  private:
    std::optional<unsigned int> theToken;
    std::thread theThread;
};

milliseconds processorTime() {
    timespec time = {};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return duration_cast<milliseconds>(seconds(time.tv_sec) + nanoseconds(time.tv_nsec));
}

// A clock that a test moves.
struct MovedClock : TestClock<MovedClock> {
    static time_point now() {
        ++theCallCount;
        if (theCallsBeforeAThrow >= 0 && theCallsBeforeAThrow-- == 0) {
            throw std::runtime_error("the clock is broken");
        }
        return time_point(milliseconds(theNow));
    }
    static std::atomic<int> theNow;               // milliseconds
    static std::atomic<int> theCallsBeforeAThrow; // less than 0: never
    static std::atomic<unsigned int> theCallCount;
};

std::atomic<int> MovedClock::theNow{0};
std::atomic<int> MovedClock::theCallsBeforeAThrow{-1};
std::atomic<unsigned int> MovedClock::theCallCount{0};

// Returns a block when the wait is long enough for it to be handed over, and throws.
struct GivingClock : TestClock<GivingClock> {
    static time_point now() {
        letTheOvertakingEnd();
        thePool->releaseObject(theGift);
        theFreeCount = thePool->getStatistics().theFreeCount;
        throw std::runtime_error("the clock is broken");
    }
    static GVSharedPool* thePool;
    static unsigned int theGift;
    static unsigned int theFreeCount; // when it throws
};

GVSharedPool* GivingClock::thePool = nullptr;
unsigned int GivingClock::theGift = 0;
unsigned int GivingClock::theFreeCount = 1;

// The pool's lock is free while the clock is asked.
struct LookingClock : TestClock<LookingClock> {
    static time_point now() {
        if (theGift.has_value()) {
            thePool->releaseObject(*theGift);
            theGift.reset();
        }
        return time_point(milliseconds(100));
    }
    static GVSharedPool* thePool;
    static std::optional<unsigned int> theGift;
};

GVSharedPool* LookingClock::thePool = nullptr;
std::optional<unsigned int> LookingClock::theGift;

// Keeps waiters in the queue and awake, until they are let go. Then it says that their time is over.
struct HoldingClock : TestClock<HoldingClock> {
    static time_point now() {
        ++theCallCount;
        await([] { return !isHolding; });
        return time_point(milliseconds(100));
    }
    static std::atomic<bool> isHolding;
    static std::atomic<unsigned int> theCallCount;
};

std::atomic<bool> HoldingClock::isHolding{false};
std::atomic<unsigned int> HoldingClock::theCallCount{0};

// Holds a waiter at each question until the test answers it. The time is always 0.
struct AnsweringClock : TestClock<AnsweringClock> {
    static void begin() {
        theQuestionCount = 0;
        theAnswerCount = 0;
    }
    static void awaitQuestion(unsigned int question) {
        await([question] { return theQuestionCount == question; });
    }
    static time_point now() {
        const unsigned int question = ++theQuestionCount;
        await([question] { return theAnswerCount >= question; });
        return time_point();
    }
    static std::atomic<unsigned int> theQuestionCount;
    static std::atomic<unsigned int> theAnswerCount;
};

std::atomic<unsigned int> AnsweringClock::theQuestionCount{0};
std::atomic<unsigned int> AnsweringClock::theAnswerCount{0};

} // namespace

TEST(SharedPoolWaiting, endsWithTheBlockThatComesBack) {
    GVSharedPool pool(1, 16);
    const unsigned int token = *pool.borrow();
    Borrower borrower(pool);
    awaitWaits(pool, 1);
    pool.releaseObject(token);
    EXPECT_EQ(borrower.result(), token);
}

TEST(SharedPoolWaiting, endsWithABlockForAsManyAsComeBackInOneStep) {
    GVSharedPool pool(4, 16);
    GVTokenCache cache(pool, 8);
    const std::vector<unsigned int> tokens = borrowAll(pool);
    returnAll(cache, tokens);
    std::array<std::optional<Borrower>, 3> borrowers;
    for (auto& borrower : borrowers) {
        borrower.emplace(pool);
    }
    awaitWaits(pool, 3);
    cache.flush();
    for (auto& borrower : borrowers) {
        EXPECT_TRUE(borrower->result().has_value());
    }
    EXPECT_EQ(pool.getStatistics().theFreeCount, 1U);
}

TEST(SharedPoolWaiting, isToldOfToAsManyAsThereAreBlocksFor) {
    GVSharedPool pool(3, 16);
    GVTokenCache cache(pool, 4);
    const std::vector<unsigned int> tokens = borrowAll(pool);
    returnAll(cache, {tokens[0], tokens[1]});
    const HaltedTime halted;
    HoldingClock::isHolding = true;
    HoldingClock::theCallCount = 0;
    std::array<std::thread, 4> waiters;
    for (std::thread& waiter : waiters) {
        waiter = std::thread([&] { static_cast<void>(pool.borrowUntil(HoldingClock::time_point(milliseconds(50)))); });
    }
    await([&] { return HoldingClock::theCallCount == waiters.size(); });
    cache.flush();
    EXPECT_EQ(GVTestPeer::notifiedCount(pool), 2U);
    const std::optional<unsigned int> token = pool.tryBorrow();
    EXPECT_EQ(GVTestPeer::notifiedCount(pool), 2U) << "of one block that is left two were told";
    pool.releaseObject(token.value());
    EXPECT_EQ(GVTestPeer::notifiedCount(pool), 2U) << "they know";
    pool.releaseObject(tokens[2]);
    EXPECT_EQ(GVTestPeer::notifiedCount(pool), 3U);
    HoldingClock::isHolding = false;
    for (std::thread& waiter : waiters) {
        waiter.join();
    }
    EXPECT_EQ(GVTestPeer::notifiedCount(pool), 0U) << "all have looked";
    EXPECT_EQ(pool.getStatistics().theLentCount, 3U);
}

TEST(SharedPoolWaiting, goesOnUntilItIsToldAgainWhenItWasOvertaken) {
    GVSharedPool pool(1, 16);
    const unsigned int token = *pool.borrow();
    const HaltedTime halted;
    HoldingClock::isHolding = true;
    HoldingClock::theCallCount = 0;
    std::thread waiter([&] { EXPECT_EQ(pool.borrowUntil(HoldingClock::time_point(hours(1))), token); });
    await([] { return HoldingClock::theCallCount == 1; });
    pool.releaseObject(token);
    EXPECT_EQ(pool.tryBorrow(), token);
    HoldingClock::isHolding = false;
    await([&] { return GVTestPeer::notifiedCount(pool) == 0; }); // it has looked, and sleeps
    pool.releaseObject(token);
    waiter.join();
    EXPECT_EQ(GVTestPeer::notifiedCount(pool), 0U);
}

TEST(SharedPoolWaiting, thatWasServedLeavesThoseAloneWhoHaveComeSince) {
    GVSharedPool pool(2, 16);
    const std::vector<unsigned int> tokens = borrowAll(pool);
    HoldingClock::isHolding = true;
    HoldingClock::theCallCount = 0;
    std::thread first([&] { EXPECT_EQ(pool.borrowUntil(HoldingClock::time_point(hours(1))), tokens[0]); });
    await([] { return HoldingClock::theCallCount == 1; });
    letTheOvertakingEnd();
    pool.releaseObject(tokens[0]);
    Borrower second(pool);
    awaitWaits(pool, 2);
    HoldingClock::isHolding = false;
    first.join();
    EXPECT_TRUE(GVTestPeer::stateOf(pool).hasWaiters);
    pool.releaseObject(tokens[1]);
    EXPECT_EQ(second.result(), tokens[1]);
}

TEST(SharedPoolWaiting, isNotBegunByWhoHasNotSeenTheBlockThatCameBack) {
    GVSharedPool pool(1, 16);
    const unsigned int token = *pool.borrow();
    Borrower borrower(pool);
    awaitWaits(pool, 1);
    const std::uint32_t before = GVTestPeer::eventCount(pool);
    pool.releaseObject(token);
    EXPECT_EQ(borrower.result(), token);
    EXPECT_EQ(GVTestPeer::eventCount(pool), before + 1) << "a sleeper looks at the count before he sleeps";
}

TEST(SharedPoolWaiting, endsForFortyThreadsInOneStepWithBlocksOrWithoutThem) {
    constexpr unsigned int many = 40;
    for (const bool closes : {false, true}) {
        GVSharedPool pool(many, 16);
        GVTokenCache cache(pool, many);
        const std::vector<unsigned int> tokens = borrowAll(pool);
        returnAll(cache, tokens);
        std::array<std::optional<Borrower>, many> borrowers;
        for (auto& borrower : borrowers) {
            borrower.emplace(pool);
        }
        awaitWaits(pool, many);
        letTheOvertakingEnd();
        const std::uint32_t before = GVTestPeer::eventCount(pool);
        if (closes) {
            pool.close();
        }
        cache.flush();
        EXPECT_NE(GVTestPeer::eventCount(pool), before) << "it is an event whoever has which mark";
        for (auto& borrower : borrowers) {
            EXPECT_EQ(borrower->result().has_value(), !closes);
        }
    }
}

TEST(SharedPoolWaiting, endsForAllOfThemAfterAsManyReturns) {
    GVSharedPool pool(3, 16);
    const std::vector<unsigned int> tokens = borrowAll(pool);
    std::array<std::optional<Borrower>, 3> borrowers;
    for (auto& borrower : borrowers) {
        borrower.emplace(pool);
    }
    awaitWaits(pool, 3);
    returnAll(pool, tokens);
    for (auto& borrower : borrowers) {
        EXPECT_TRUE(borrower->result().has_value());
    }
}

TEST(SharedPoolWaiting, usesNoProcessorTime) {
    GVSharedPool pool(1, 16);
    EXPECT_TRUE(pool.borrow().has_value());
    const milliseconds before = processorTime();
    EXPECT_FALSE(pool.borrowFor(milliseconds(200)).has_value());
    EXPECT_LT(processorTime() - before, milliseconds(20));
}

TEST(SharedPoolWaiting, ofAMillisecondEndsWithTheNextBlockWhoeverAsks) {
    GVSharedPool pool(1, 16);
    const unsigned int token = *pool.borrow();
    Borrower borrower(pool);
    awaitWaits(pool, 1);
    letTheOvertakingEnd();
    pool.releaseObject(token);
    EXPECT_FALSE(pool.tryBorrow().has_value()) << "it is lent to the waiter, running or not";
    EXPECT_EQ(pool.getStatistics().theLentCount, 1U);
    EXPECT_EQ(borrower.result(), token);
}

TEST(SharedPoolWaiting, longestIsServedFirst) {
    GVSharedPool pool(1, 16);
    unsigned int token = *pool.borrow();
    std::mutex mutex;
    std::vector<int> order;
    std::vector<std::thread> threads;
    for (int number = 0; number < 4; ++number) {
        threads.emplace_back([&, number] {
            const std::optional<unsigned int> mine = pool.borrow();
            ASSERT_TRUE(mine.has_value());
            {
                const std::lock_guard<std::mutex> guard(mutex);
                order.push_back(number);
            }
            pool.releaseObject(*mine);
        });
        awaitWaits(pool, static_cast<unsigned int>(number) + 1);
    }
    letTheOvertakingEnd();
    pool.releaseObject(token);
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3}));
}

TEST(SharedPoolWaiting, forLessThanAMillisecondMayBeOvertaken) {
    const HaltedTime halted;
    GVSharedPool pool(1, 16);
    bool wasOvertaken = false;
    for (unsigned int attempt = 0; attempt < 2000 && !wasOvertaken; ++attempt) {
        const unsigned int token = *pool.borrow();
        Borrower waiter(pool); // keeps what it gets
        awaitWaits(pool, attempt + 1);
        pool.releaseObject(token);
        wasOvertaken = pool.tryBorrow().has_value();
        if (wasOvertaken) {
            pool.releaseObject(token);
        }
        EXPECT_EQ(waiter.result(), token);
        pool.releaseObject(token);
    }
    EXPECT_TRUE(wasOvertaken);
}

TEST(SharedPoolWaiting, isOvertakenThreeTimesAtMost) {
    const HaltedTime halted;
    GVSharedPool pool(1, 16);
    const unsigned int token = *pool.borrow();
    AnsweringClock::begin();
    std::optional<unsigned int> got;
    std::thread waiter([&] { got = pool.borrowUntil(AnsweringClock::time_point(milliseconds(1))); });
    AnsweringClock::awaitQuestion(1);
    unsigned int overtaken = 0;
    for (pool.releaseObject(token); pool.tryBorrow().has_value(); pool.releaseObject(token)) {
        AnsweringClock::theAnswerCount = ++overtaken;
        AnsweringClock::awaitQuestion(overtaken + 1); // it has looked, and found nothing
    }
    EXPECT_EQ(overtaken, 3U);
    AnsweringClock::theAnswerCount = overtaken + 1;
    waiter.join();
    EXPECT_EQ(got, token);
}

// The first one in the queue is told of a block and does not look. The second one is told of the other block, looks, and
// finds nothing: four times.
TEST(SharedPoolWaiting, inVainFourTimesBehindAnotherEndsWithTheNextBlockWhoeverAsks) {
    const HaltedTime halted;
    GVSharedPool pool(2, 16);
    const std::vector<unsigned int> tokens = borrowAll(pool);
    HoldingClock::isHolding = true;
    HoldingClock::theCallCount = 0;
    std::thread first([&] { EXPECT_FALSE(pool.borrowUntil(HoldingClock::time_point(milliseconds(50))).has_value()); });
    await([] { return HoldingClock::theCallCount == 1; });
    AnsweringClock::begin();
    std::optional<unsigned int> got;
    std::thread second([&] { got = pool.borrowUntil(AnsweringClock::time_point(milliseconds(1))); });
    for (unsigned int look = 1; look <= 4; ++look) {
        AnsweringClock::awaitQuestion(look);
        returnAll(pool, tokens);
        EXPECT_EQ(GVTestPeer::notifiedCount(pool), 2U);
        EXPECT_EQ(borrowAll(pool).size(), 2U);
        AnsweringClock::theAnswerCount = look;
    }
    AnsweringClock::awaitQuestion(5);
    HoldingClock::isHolding = false;
    first.join(); // its time is over
    pool.releaseObject(tokens[0]);
    EXPECT_FALSE(pool.tryBorrow().has_value()) << "it is lent to the second one";
    pool.close();
    AnsweringClock::theAnswerCount = 5;
    second.join();
    EXPECT_EQ(got, tokens[0]);
}

TEST(SharedPoolWaiting, endsThoughARunningThreadTakesTheBlockAgainAndAgain) {
    GVSharedPool pool(1, 16);
    unsigned int token = *pool.borrow();
    std::atomic<bool> isServed{false};
    std::thread waiter([&] {
        pool.releaseObject(*pool.borrow());
        isServed = true;
    });
    awaitWaits(pool, 1);
    while (!isServed) {
        pool.releaseObject(token);
        token = *pool.borrow();
    }
    waiter.join();
    EXPECT_LT(pool.getStatistics().theLongestWait, seconds(10));
}

TEST(SharedPoolTimedWaiting, endsEmptyWhenTheTimeIsOverAndNotBefore) {
    GVSharedPool pool(1, 16);
    EXPECT_TRUE(pool.borrow().has_value());
    const auto begin = steady_clock::now();
    EXPECT_FALSE(pool.borrowFor(milliseconds(30)).has_value());
    EXPECT_GE(steady_clock::now() - begin, milliseconds(30));
    const auto systemEnd = system_clock::now() + milliseconds(30);
    EXPECT_FALSE(pool.borrowUntil(systemEnd).has_value());
    EXPECT_GE(system_clock::now(), systemEnd);
}

TEST(SharedPoolTimedWaiting, endsWithTheBlockThatComesBackInTime) {
    GVSharedPool pool(1, 16);
    const unsigned int token = *pool.borrow();
    std::optional<unsigned int> got;
    std::thread waiter([&] { got = pool.borrowFor(hours(1)); });
    awaitWaits(pool, 1);
    pool.releaseObject(token);
    waiter.join();
    EXPECT_EQ(got, token);
    EXPECT_EQ(pool.getStatistics().theTimeoutCount, 0U);
}

TEST(SharedPoolTimedWaiting, ofZeroOrLessAsksOnceAndCounts) {
    GVSharedPool pool(1, 16);
    const unsigned int token = *pool.borrowFor(seconds(0));
    EXPECT_FALSE(pool.borrowFor(seconds(0)).has_value());
    EXPECT_FALSE(pool.borrowFor(seconds(-1)).has_value());
    EXPECT_FALSE(pool.borrowUntil((steady_clock::time_point::min)()).has_value());
    GVSharedPoolStatistics statistics = pool.getStatistics();
    EXPECT_EQ(statistics.theWaitCount, 3U);
    EXPECT_EQ(statistics.theTimeoutCount, 3U);
    pool.releaseObject(token);
    EXPECT_EQ(pool.borrowFor(seconds(-1)), token);
    EXPECT_EQ(pool.getStatistics().theWaitCount, 3U);
}

TEST(SharedPoolTimedWaiting, ofAnOverlongTimeWaitsWithoutLimit) {
    GVSharedPool pool(2, 16);
    const std::vector<unsigned int> tokens = borrowAll(pool);
    std::array<std::optional<unsigned int>, 2> got;
    std::thread byDuration([&] { got[0] = pool.borrowFor((hours::max)()); });
    std::thread byTime([&] { got[1] = pool.borrowUntil((system_clock::time_point::max)()); });
    awaitWaits(pool, 2);
    letTheOvertakingEnd();
    returnAll(pool, tokens);
    byDuration.join();
    byTime.join();
    EXPECT_TRUE(got[0].has_value() && got[1].has_value());
}

TEST(SharedPoolTimedWaiting, leavesNoTraceInTheQueueWhenTheTimeIsOver) {
    GVSharedPool pool(1, 16);
    const unsigned int token = *pool.borrow();
    Borrower first(pool);
    awaitWaits(pool, 1);
    EXPECT_FALSE(pool.borrowFor(milliseconds(3)).has_value());
    Borrower third(pool);
    awaitWaits(pool, 3);
    EXPECT_FALSE(pool.borrowFor(milliseconds(3)).has_value());
    pool.releaseObject(token);
    EXPECT_EQ(first.result(), token);
    pool.releaseObject(token);
    EXPECT_EQ(third.result(), token);
    pool.releaseObject(token);
    expectThatNothingIsLost(pool);
}

TEST(SharedPoolTimedWaiting, goesOnUntilTheDeadlinesOwnClockSaysSo) {
    GVSharedPool pool(1, 16);
    EXPECT_TRUE(pool.borrow().has_value());
    MovedClock::theNow = 0;
    MovedClock::theCallCount = 0;
    std::atomic<bool> isOver{false};
    std::thread waiter([&] {
        EXPECT_FALSE(pool.borrowUntil(MovedClock::time_point(milliseconds(20))).has_value());
        isOver = true;
    });
    await([] { return MovedClock::theCallCount >= 3; }); // it has waited twice as long, by other clocks
    EXPECT_FALSE(isOver);
    EXPECT_EQ(pool.getStatistics().theTimeoutCount, 0U);
    MovedClock::theNow = 20;
    waiter.join();
    EXPECT_EQ(pool.getStatistics().theWaitCount, 1U) << "it is one wait";
    EXPECT_EQ(pool.getStatistics().theTimeoutCount, 1U);
}

TEST(SharedPoolTimedWaiting, passesOnWhatTheClockThrowsAndLendsNothing) {
    GVSharedPool pool(1, 16);
    const unsigned int token = *pool.borrow();
    MovedClock::theNow = 0;
    for (const int calls : {0, 1}) {
        MovedClock::theCallsBeforeAThrow = calls;
        EXPECT_THROW(static_cast<void>(pool.borrowUntil(MovedClock::time_point(milliseconds(5)))), std::runtime_error);
    }
    pool.releaseObject(token);
    expectThatNothingIsLost(pool);
}

TEST(SharedPoolTimedWaiting, givesTheBlockBackThatWasHandedOverWhileTheClockThrew) {
    GVSharedPool pool(1, 16);
    GivingClock::thePool = &pool;
    GivingClock::theGift = *pool.borrow();
    EXPECT_THROW(static_cast<void>(pool.borrowUntil(GivingClock::time_point(milliseconds(5)))), std::runtime_error);
    EXPECT_EQ(GivingClock::theFreeCount, 0U) << "it was handed over";
    const GVSharedPoolStatistics statistics = pool.getStatistics();
    EXPECT_EQ(statistics.theFreeCount, 1U);
    EXPECT_EQ(statistics.theLentCount, 0U);
    EXPECT_EQ(pool.tryBorrow(), GivingClock::theGift);
}

TEST(SharedPoolTimedWaiting, keepsTheLockFreeWhileTheClockIsAskedAndLooksOnceMore) {
    GVSharedPool pool(1, 16);
    const unsigned int token = *pool.borrow();
    LookingClock::thePool = &pool;
    LookingClock::theGift = token;
    EXPECT_EQ(pool.borrowUntil(LookingClock::time_point(milliseconds(50))), token) << "it came back just in time";
}

} // namespace Gilvane
