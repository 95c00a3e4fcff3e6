#include <gilvane/threads/gvwaiting.h>

#include <ctime>

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace Gilvane::detail {

namespace {

// The system call whose time has the size of this program's timespec: there are two where a long has 32 bits.
#if defined(SYS_futex_time64)
constexpr long theFutexCall = sizeof(timespec::tv_sec) > sizeof(long) ? SYS_futex_time64 : SYS_futex;
#else
constexpr long theFutexCall = SYS_futex;
#endif

} // namespace

// Results are ignored. Where nobody sleeps there is nothing to do.
void GVSignal::wake() noexcept {
    static_cast<void>(syscall(theFutexCall, &theWord, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0));
}

// Results are ignored: the caller looks for itself what has changed.
void GVSignal::wait(GVPlainLock& lock, std::chrono::nanoseconds time) noexcept {
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(time);
    timespec limit = {};
    limit.tv_sec = static_cast<decltype(limit.tv_sec)>(seconds.count());
    limit.tv_nsec = static_cast<decltype(limit.tv_nsec)>((time - seconds).count());
    theWord.store(0, std::memory_order_relaxed); // relaxed: the lock orders it, see raise
    lock.unlock();
    // The kernel measures the time by the steady clock.
    static_cast<void>(
        syscall(theFutexCall, &theWord, FUTEX_WAIT_PRIVATE, 0, time == noLimit ? nullptr : &limit, nullptr, 0));
    lock.lock();
}

} // namespace Gilvane::detail
