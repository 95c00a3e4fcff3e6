#include "haltedtime.h"

#include <atomic>
#include <chrono>

namespace Gilvane {

using std::chrono::steady_clock;

namespace {

std::atomic<steady_clock::rep> theHaltedTime{0}; // 0: time goes on

} // namespace

HaltedTime::HaltedTime() { theHaltedTime = steady_clock::now().time_since_epoch().count(); }

HaltedTime::~HaltedTime() { theHaltedTime = 0; }

// The linker sends the calls of steady_clock::now to presentTime, whatever name a standard library has given it.
#if defined(_LIBCPP_VERSION)
steady_clock::time_point passingTime() noexcept __asm__("__real__ZNSt3__16chrono12steady_clock3nowEv");
steady_clock::time_point presentTime() noexcept __asm__("__wrap__ZNSt3__16chrono12steady_clock3nowEv");
#else
steady_clock::time_point passingTime() noexcept __asm__("__real__ZNSt6chrono3_V212steady_clock3nowEv");
steady_clock::time_point presentTime() noexcept __asm__("__wrap__ZNSt6chrono3_V212steady_clock3nowEv");
#endif

steady_clock::time_point presentTime() noexcept {
    const steady_clock::rep halted = theHaltedTime;
    return halted != 0 ? steady_clock::time_point(steady_clock::duration(halted)) : passingTime();
}

} // namespace Gilvane
