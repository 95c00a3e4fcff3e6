#include <gilvane/threads/gvwaiting.h>

#include "hookledger.h"
#include "noposixmutexes.h"
#include "throwsites.h"

#include <gilvane/utilities/gvsharedpool.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <limits>
#include <ratio>

namespace Gilvane {

namespace {

using namespace std::chrono;

using Years = duration<std::int64_t, std::ratio<31556952>>;

// A clock that stands where a test puts it.
struct StandingClock {
    using duration = std::chrono::duration<std::int64_t, std::pico>;
    using rep = duration::rep;
    using period = duration::period;
    using time_point = std::chrono::time_point<StandingClock>;
    [[maybe_unused]] static constexpr bool is_steady = false;

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

void expectAbout(nanoseconds time, nanoseconds expected) {
    EXPECT_LE(time, expected);
    EXPECT_GT(time, expected - seconds(100));
}

} // namespace

TEST(PlainLock, thatPosixRefusesIsKindOutOfMemoryAndLeavesNothingOfAPoolBehind) {
    const HookLedger ledger;
    const NoPosixMutexes none;
    expectGVException([] { const GVSharedPool pool(1, 16); }, gvoutofmemory, "libsrc/threads/gvwaiting",
                      "Unable to create the lock of a shared pool.");
    EXPECT_EQ(ledger.liveBlocks().size(), 0U);
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
    EXPECT_EQ(left((system_clock::time_point::max)()), detail::noLimit);
    expectOver(left((system_clock::time_point::min)()));
    expectOver(left((steady_clock::time_point::min)()));
}

} // namespace Gilvane
