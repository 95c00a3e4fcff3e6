/// @file
/// What the clocks of tests have in common.
#ifndef GILVANE_TESTS_SUPPORT_TESTCLOCK_H
#define GILVANE_TESTS_SUPPORT_TESTCLOCK_H

#include <chrono>

namespace Gilvane {

/// A class that derives from this, with itself as `Clock`, and has `static time_point now()` is a clock.
template <typename Clock, typename Duration = std::chrono::milliseconds>
struct TestClock {
    using duration = Duration;
    using rep = typename Duration::rep;
    using period = typename Duration::period;
    using time_point = std::chrono::time_point<Clock, Duration>;
    static constexpr bool is_steady = false;
};

} // namespace Gilvane

#endif
