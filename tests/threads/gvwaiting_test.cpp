#include <gilvane/threads/gvwaiting.h>

#include "gvtestpeer.h"
#include "haltedtime.h"
#include "hookledger.h"
#include "noposixmutexes.h"
#include "sharedpoolsupport.h"
#include "testclock.h"
#include "throwsites.h"

#include <gilvane/utilities/gvsharedpool.h>

#include <gtest/gtest.h>

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdint>
#include <ctime>
#include <fstream>
#include <limits>
#include <mutex>
#include <ratio>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <unistd.h>

namespace Gilvane {

namespace {

using namespace std::chrono;

constexpr GVMutexProtocol protocols[] = {gvnoprotocol, gvpriorityinheritance};

using Years = duration<std::int64_t, std::ratio<31556952>>;

// A clock that stands where a test puts it.
struct StandingClock : TestClock<StandingClock, std::chrono::duration<std::int64_t, std::pico>> {
    static time_point now() { return theNow; }
    static time_point theNow;
};

StandingClock::time_point StandingClock::theNow;

template <typename TimePoint>
nanoseconds left(const TimePoint& deadline) {
    return detail::timeLeftUntil<TimePoint>(&deadline);
}

template <typename Duration>
nanoseconds leftOf(const Duration& time) {
    return left(detail::deadlineAfter(time));
}

void expectOver(nanoseconds time) { EXPECT_LE(time.count(), 0); }

// Whether the kernel has let a thread of this program sleep.
bool isAsleep(pid_t thread) {
    std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
    std::string text;
    std::getline(file, text);
    return text.rfind(") S ") != std::string::npos;
}

// Threads that sleep by an event count until they are woken once, each with a mark.
class Sleepers {
  public:
    using Marks = detail::GVEventCount::Marks;

    explicit Sleepers(const std::vector<Marks>& marks) {
        for (const Marks mark : marks) {
            theThreads.emplace_back([this, mark] {
                theLock.lock();
                theSleepers.push_back(gettid());
                theEvents.wait(theLock, mark, detail::noLimit);
                theWoken.push_back(mark);
                theLock.unlock();
            });
        }
        // Whoever is in the list and does not hold the lock is on his way to sleep.
        await([&] {
            const std::lock_guard<detail::GVPlainLock> guard(theLock);
            return theSleepers.size() == marks.size() && std::all_of(theSleepers.begin(), theSleepers.end(), isAsleep);
        });
    }
    Sleepers(const Sleepers&) = delete;
    Sleepers& operator=(const Sleepers&) = delete;
    ~Sleepers() {
        wake(~Marks{0});
        for (std::thread& thread : theThreads) {
            thread.join();
        }
    }

    void wake(Marks marks) {
        {
            const std::lock_guard<detail::GVPlainLock> guard(theLock);
            theEvents.advance();
        }
        theEvents.wake(marks);
    }

    // The marks of those who are awake, once they are `count`, and some time for more.
    std::multiset<Marks> awaitWoken(std::size_t count) {
        await([&] { return woken().size() >= count; });
        std::this_thread::sleep_for(milliseconds(20));
        return woken();
    }

  private:
    std::multiset<Marks> woken() {
        const std::lock_guard<detail::GVPlainLock> guard(theLock);
        return {theWoken.begin(), theWoken.end()};
    }

    detail::GVPlainLock theLock;
    detail::GVEventCount theEvents;
    std::vector<pid_t> theSleepers;
    std::vector<Marks> theWoken;
    std::vector<std::thread> theThreads;
};

// In the order in which they are called.
constexpr std::atomic<int>* callsThatMakeAnInheritingMutex[] = {&theAttributesInitError, &theSetProtocolError,
                                                                &theMutexInitError};

// What a pool's construction throws when one of those calls ends with an error, and that nothing is left behind.
void expectRefusal(std::atomic<int>& call, int error, gvexceptiontype kind, const std::string& message) {
    SCOPED_TRACE(error);
    const HookLedger ledger;
    theAttributesInitCount = 0;
    theAttributesDestroyCount = 0;
    theMutexInitCount = 0;
    theMutexDestroyCount = 0;
    const PosixRefusal refusal(call, error);
    expectGVException([] { const GVSharedPool pool(1, 16, gvpriorityinheritance); }, kind, "libsrc/threads/gvwaiting",
                      message);
    EXPECT_EQ(theAttributesInitCount, &call == &theAttributesInitError ? 0 : 1);
    EXPECT_EQ(theAttributesDestroyCount, theAttributesInitCount);
    EXPECT_EQ(theMutexInitCount, &call == &theMutexInitError ? 1 : 0) << "nothing is asked for after an error";
    EXPECT_EQ(theMutexDestroyCount, 0);
    EXPECT_EQ(ledger.liveBlocks().size(), 0U);
}

void expectAbout(nanoseconds time, nanoseconds expected) {
    EXPECT_LE(time, expected);
    EXPECT_GT(time, expected - seconds(100));
}

// When this thread's last sleep that had a limit was to end, in the steady clock's time.
thread_local nanoseconds theEndOfTheLastSleep{0};

} // namespace

} // namespace Gilvane

// The linker sends the library's calls of syscall here, which are all an event count's.
extern "C" {
// NOLINTBEGIN(bugprone-reserved-identifier)
long __real_syscall(long number, ...);
long __wrap_syscall(long number, ...);

long __wrap_syscall(long number, ...) {
    std::va_list arguments;
    va_start(arguments, number);
    void* const count = va_arg(arguments, void*);
    const int operation = va_arg(arguments, int);
    const int value = va_arg(arguments, int);
    const timespec* const limit = va_arg(arguments, const timespec*);
    void* const none = va_arg(arguments, void*);
    const unsigned int marks = va_arg(arguments, unsigned int);
    va_end(arguments);
    if (limit != nullptr) {
        Gilvane::theEndOfTheLastSleep = std::chrono::seconds(limit->tv_sec) + std::chrono::nanoseconds(limit->tv_nsec);
    }
    return __real_syscall(number, count, operation, value, limit, none, marks);
}
// NOLINTEND(bugprone-reserved-identifier)
}

namespace Gilvane {

TEST(PlainLock, thatPosixRefusesIsKindOutOfMemoryAndLeavesNothingOfAPoolBehind) {
    const HookLedger ledger;
    const NoPosixMutexes none;
    expectGVException([] { const GVSharedPool pool(1, 16); }, gvoutofmemory, "libsrc/threads/gvwaiting",
                      "Unable to create the lock of a shared pool.");
    EXPECT_EQ(ledger.liveBlocks().size(), 0U);
}

TEST(PlainLock, isHeldFromLockToUnlock) {
    for (const GVMutexProtocol protocol : protocols) {
        detail::GVPlainLock lock(protocol);
        EXPECT_FALSE(GVTestPeer::isHeld(lock));
        lock.lock();
        EXPECT_TRUE(GVTestPeer::isHeld(lock));
        lock.unlock();
        EXPECT_FALSE(GVTestPeer::isHeld(lock));
    }
}

void expectThatItIsGivenToWhoWaitsForIt(GVMutexProtocol protocol) {
    detail::GVPlainLock lock(protocol);
    bool isHere = false;
    std::atomic<bool> asks(false);
    lock.lock();
    std::thread other([&] {
        asks = true;
        lock.lock();
        isHere = true;
        lock.unlock();
    });
    await([&] { return asks.load(); });
    std::this_thread::sleep_for(milliseconds(5));
    EXPECT_FALSE(isHere);
    lock.unlock();
    other.join();
    EXPECT_TRUE(isHere);
}

TEST(PlainLock, isGivenToWhoWaitsForIt) { expectThatItIsGivenToWhoWaitsForIt(gvnoprotocol); }

TEST(PlainLock, thatInheritsPrioritiesIsGivenToWhoWaitsForIt) {
#if defined(GILVANE_TEST_EMULATED) && __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
    GTEST_SKIP() << "the kernel notes in the mutex who waits, in another order of bytes than the emulated program's";
#endif
    expectThatItIsGivenToWhoWaitsForIt(gvpriorityinheritance);
}

TEST(PlainLock, destroysItsPosixMutex) {
    for (const GVMutexProtocol protocol : protocols) {
        theMutexDestroyCount = 0;
        { const detail::GVPlainLock lock(protocol); }
        EXPECT_EQ(theMutexDestroyCount, 1);
    }
}

TEST(MutexProtocols, haveTheirFixedValues) {
    EXPECT_EQ(static_cast<int>(gvnoprotocol), 0);
    EXPECT_EQ(static_cast<int>(gvpriorityinheritance), 1);
}

TEST(MutexProtocols, areThoseThatThePosixMutexOfAPoolIsMadeWith) {
    const auto protocolOf = [](auto makePool) {
        theLastProtocol = -1;
        makePool();
        return theLastProtocol.load();
    };
    EXPECT_EQ(protocolOf([] { const GVSharedPool pool(1, 16); }), PTHREAD_PRIO_NONE);
    EXPECT_EQ(protocolOf([] { const GVSharedPool pool(1, 16, gvnoprotocol); }), PTHREAD_PRIO_NONE);
    EXPECT_EQ(protocolOf([] { const GVSharedPool pool(1, 16, gvpriorityinheritance); }), PTHREAD_PRIO_INHERIT);
}

TEST(MutexProtocols, takeNoAttributesUnlessAsked) {
    theAttributesInitCount = 0;
    theAttributesDestroyCount = 0;
    { const detail::GVPlainLock lock; }
    EXPECT_EQ(theAttributesInitCount, 0);
    { const detail::GVPlainLock lock(gvpriorityinheritance); }
    EXPECT_EQ(theAttributesInitCount, 1);
    EXPECT_EQ(theAttributesDestroyCount, 1);
}

TEST(MutexProtocols, thatThereAreNotAreRefusedAndLeaveNothingOfAPoolBehind) {
    const HookLedger ledger;
    theMutexInitCount = 0;
    for (const unsigned int number : {2U, 4294967295U}) {
        expectGVException([&] { const GVSharedPool pool(1, 16, static_cast<GVMutexProtocol>(number)); }, gvinvalidstate,
                          "libsrc/threads/gvwaiting", "Unknown protocol of a mutex.");
    }
    EXPECT_EQ(theMutexInitCount, 0);
    EXPECT_EQ(ledger.liveBlocks().size(), 0U);
}

TEST(MutexProtocols, thatTheSystemRefusesAreRefusedWhereverItDoes) {
    for (std::atomic<int>* const call : callsThatMakeAnInheritingMutex) {
        expectRefusal(*call, ENOTSUP, gvinvalidstate, "The system has no mutex with priority inheritance.");
    }
}

TEST(MutexProtocols, areOutOfMemoryWhereTheSystemHasNoneForThem) {
    static_assert(ENOMEM < ENOTSUP && ENOTSUP < ENOBUFS);
    for (std::atomic<int>* const call : callsThatMakeAnInheritingMutex) {
        for (const int error : {ENOMEM, ENOBUFS}) {
            expectRefusal(*call, error, gvoutofmemory, "Unable to create the lock of a shared pool.");
        }
    }
}

TEST(EventCount, hasThirtyTwoMarksAndGivesThemInTurn) {
    Sleepers::Marks expected = 1;
    for (unsigned int number = 0; number < 32; ++number) {
        EXPECT_EQ(detail::GVEventCount::markOf(number), expected);
        EXPECT_EQ(detail::GVEventCount::markOf(number + 32), expected);
        expected *= 2;
    }
}

TEST(EventCount, countsAnEventSoThatNobodyFallsAsleepWhoHasNotSeenIt) {
    detail::GVEventCount events;
    for (int event = 0; event < 3; ++event) {
        const std::uint32_t before = GVTestPeer::eventCount(events);
        events.advance();
        EXPECT_EQ(GVTestPeer::eventCount(events), before + 1);
    }
}

TEST(EventCount, givesTheLockBackAfterASleep) {
    detail::GVPlainLock lock;
    detail::GVEventCount events;
    lock.lock();
    events.wait(lock, 1, nanoseconds(1));
    EXPECT_TRUE(GVTestPeer::isHeld(lock));
    lock.unlock();
}

TEST(EventCount, wakesAllWhoHaveOneOfTheMarksAndNobodyElse) {
    Sleepers sleepers({1, 2, 2, 4, 8});
    sleepers.wake(2 | 8);
    EXPECT_EQ(sleepers.awaitWoken(3), (std::multiset<Sleepers::Marks>{2, 2, 8}));
    sleepers.wake(1);
    EXPECT_EQ(sleepers.awaitWoken(4), (std::multiset<Sleepers::Marks>{1, 2, 2, 8}));
}

TEST(EventCount, letsNobodySleepWhoHasNotSeenTheEvent) {
    constexpr unsigned int rounds = 2000;
    detail::GVPlainLock lock;
    detail::GVEventCount events;
    unsigned int happened = 0;
    std::atomic<unsigned int> asked(0);
    std::thread raiser([&] {
        for (unsigned int round = 1; round <= rounds; ++round) {
            while (asked.load() != round) {
                std::this_thread::yield();
            }
            lock.lock();
            happened = round;
            events.advance();
            lock.unlock();
            events.wake(1);
        }
    });
    lock.lock();
    for (unsigned int round = 1; round <= rounds; ++round) {
        asked = round;
        while (happened != round) {
            events.wait(lock, 1, detail::noLimit);
        }
    }
    lock.unlock();
    raiser.join();
    EXPECT_EQ(happened, rounds);
}

TEST(EventCount, letsTheTimeOfASleepPass) {
    detail::GVPlainLock lock;
    detail::GVEventCount events;
    for (const auto time : {milliseconds(20), milliseconds(1010)}) {
        auto shortest = (steady_clock::duration::max)();
        for (int attempt = 0; attempt < 5 && shortest >= time + milliseconds(900);
             ++attempt) { // the machine may be busy
            const auto begin = steady_clock::now();
            lock.lock();
            events.wait(lock, 1, time);
            lock.unlock();
            shortest = (std::min)(shortest, steady_clock::now() - begin);
        }
        EXPECT_GE(shortest, time);
        EXPECT_LT(shortest, time + milliseconds(900));
    }
}

TEST(EventCount, asksForASleepToTheNanosecond) {
    const HaltedTime halted;
    const nanoseconds now = steady_clock::now().time_since_epoch();
    detail::GVPlainLock lock;
    detail::GVEventCount events;
    lock.lock();
    for (const nanoseconds time : {nanoseconds(1), nanoseconds(1000001)}) {
        events.wait(lock, 1, time);
        EXPECT_EQ(theEndOfTheLastSleep, now + time);
    }
    lock.unlock();
}

TEST(TimeOfAWait, isWhatIsLeftOfTheDuration) {
    expectAbout(leftOf(hours(1)), hours(1));
    expectAbout(leftOf(duration<double, std::ratio<60>>(60.0)), hours(1));
    expectAbout(leftOf(duration<std::uint64_t, std::micro>(3600000000U)), hours(1));
    expectAbout(leftOf(Years(30)), Years(30));
    EXPECT_NE(leftOf(Years(30)), detail::noLimit);
}

TEST(TimeOfAWait, isOverForADurationOfZeroOrLess) {
    expectOver(leftOf(nanoseconds(0)));
    expectOver(leftOf(seconds(-1)));
    expectOver(leftOf((hours::min)()));
    expectOver(leftOf(hours(-3000000))); // less than 64 bits of nanoseconds hold
    expectOver(leftOf((nanoseconds::min)()));
    expectOver(leftOf(duration<double>(-std::numeric_limits<double>::infinity())));
    expectOver(leftOf(duration<double>(std::numeric_limits<double>::quiet_NaN())));
}

TEST(TimeOfAWait, hasNoLimitForADurationThatIsOverLong) {
    EXPECT_EQ(leftOf(Years(40)), detail::noLimit);
    EXPECT_EQ(leftOf((hours::max)()), detail::noLimit);
    EXPECT_EQ(leftOf((nanoseconds::max)()), detail::noLimit);
    EXPECT_EQ(leftOf(duration<std::uint64_t, std::ratio<86400>>((std::numeric_limits<std::uint64_t>::max)())),
              detail::noLimit);
    EXPECT_EQ(leftOf(duration<float>(std::numeric_limits<float>::infinity())), detail::noLimit);
}

TEST(TimeOfAWait, isReadFromTheDeadlinesOwnClock) {
    StandingClock::theNow = StandingClock::time_point(seconds(5000));
    EXPECT_EQ(left(StandingClock::time_point(seconds(5002))), seconds(2));
    EXPECT_EQ(left(time_point<StandingClock, minutes>(minutes(84))), seconds(40));
    expectOver(left(StandingClock::time_point(seconds(5000))));
    expectOver(left(StandingClock::time_point(seconds(4999))));
}

TEST(TimeOfAWait, isNotOverBeforeTheClockSaysSoByAPicosecond) {
    StandingClock::theNow = StandingClock::time_point(seconds(5000));
    EXPECT_EQ(left(StandingClock::theNow + StandingClock::duration(1)), nanoseconds(1));
}

TEST(TimeOfAWait, isOverOrWithoutLimitAtTheEndsOfAClock) {
    using FarPoint = time_point<StandingClock, hours>;
    StandingClock::theNow = StandingClock::time_point(seconds(5000));
    EXPECT_EQ(left((FarPoint::max)()), detail::noLimit);
    expectOver(left((FarPoint::min)()));
    expectOver(left(FarPoint(hours(-300000)))); // less than 64 bits of picoseconds hold
    EXPECT_EQ(left((system_clock::time_point::max)()), detail::noLimit);
    expectOver(left((system_clock::time_point::min)()));
    expectOver(left((steady_clock::time_point::min)()));
}

} // namespace Gilvane
