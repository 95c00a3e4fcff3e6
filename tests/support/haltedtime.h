/// @file
/// A steady clock that stands while a test wants it to.
///
/// In a test program that contains haltedtime.cpp the test and the library ask it for the time. The program wraps calls
/// (gilvane_wrap_calls in building.cmake).
#ifndef GILVANE_TESTS_SUPPORT_HALTEDTIME_H
#define GILVANE_TESTS_SUPPORT_HALTEDTIME_H

namespace Gilvane {

/// While one lives, the steady clock stands. There is one at a time.
class HaltedTime {
  public:
    HaltedTime();
    HaltedTime(const HaltedTime&) = delete;
    HaltedTime& operator=(const HaltedTime&) = delete;
    ~HaltedTime();
};

} // namespace Gilvane

#endif
