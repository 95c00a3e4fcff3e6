/// @file
/// The lock, the condition and the atomic word on which pools that threads share stand.
#ifndef GILVANE_THREADS_GVWAITING_H
#define GILVANE_THREADS_GVWAITING_H

#include <gilvane/base/gvexception.h>

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <ctime>

namespace Gilvane {

namespace detail {

/// A number that threads read and write without a lock. It has 32 bits on every target, so that access needs no lock of
/// the standard library's.
using GVAtomicWord = std::atomic<std::uint32_t>;

/// What no padding ends below: bytes that a processor moves between its caches in one piece.
inline constexpr unsigned int cacheLineBytes = 64;

/// Keeps what stands before it and behind it in different cache lines, wherever the object lies.
struct GVCacheLinePadding {
    unsigned char theBytes[cacheLineBytes]; ///< never used
};

/// One POSIX mutex of the default type. Correct use cannot fail, so results are ignored but for that of its making.
class GVPlainLock {
  public:
    /// @throws GVException     kind gvoutofmemory: the POSIX mutex cannot be made
    /// @throws std::bad_alloc  no memory for the exception's own texts
    GVPlainLock() {
        if (pthread_mutex_init(&theMutex, nullptr) != 0) {
            throw GVException("Unable to create the lock of a shared pool.", "libsrc/threads/gvwaiting", __LINE__,
                              gvoutofmemory, 0);
        }
    }
    GVPlainLock(const GVPlainLock&) = delete;
    GVPlainLock& operator=(const GVPlainLock&) = delete;
    ~GVPlainLock() { pthread_mutex_destroy(&theMutex); }

    /// Waits until the calling thread holds the lock.
    void lock() noexcept { pthread_mutex_lock(&theMutex); }
    /// Releases it.
    void unlock() noexcept { pthread_mutex_unlock(&theMutex); }

  private:
    friend class GVPlainCondition;

    pthread_mutex_t theMutex;
};

/// Where one thread waits until another signals. Times are those of the steady clock.
class GVPlainCondition {
  public:
    /// Making a condition cannot fail on Linux.
    GVPlainCondition() noexcept {
        pthread_condattr_t attributes;
        pthread_condattr_init(&attributes);
        pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC); // what the steady clock reads
        pthread_cond_init(&theCondition, &attributes);
        pthread_condattr_destroy(&attributes);
    }
    GVPlainCondition(const GVPlainCondition&) = delete;
    GVPlainCondition& operator=(const GVPlainCondition&) = delete;
    ~GVPlainCondition() { pthread_cond_destroy(&theCondition); }

    /// Wakes the thread that waits, if one does.
    void signal() noexcept { pthread_cond_signal(&theCondition); }

    /// Releases `lock` until there was a signal, or without reason, and holds it again then.
    void wait(GVPlainLock& lock) noexcept { pthread_cond_wait(&theCondition, &lock.theMutex); }

    /// The same, for no longer than `time`.
    /// @param time  more than 0, and no more than can be added to the steady clock's present time
    void waitFor(GVPlainLock& lock, std::chrono::nanoseconds time) noexcept {
        const std::chrono::nanoseconds end = std::chrono::steady_clock::now().time_since_epoch() + time;
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(end);
        timespec deadline = {};
        deadline.tv_sec = static_cast<decltype(deadline.tv_sec)>(seconds.count());
        deadline.tv_nsec = static_cast<decltype(deadline.tv_nsec)>((end - seconds).count());
        pthread_cond_timedwait(&theCondition, &lock.theMutex, &deadline);
    }

  private:
    pthread_cond_t theCondition;
};

/// How long a borrower waits.
struct GVPatience {
    /// What is left of the time; 0 or less when it is over, `noLimit` when it is too long to be counted.
    std::chrono::nanoseconds (*theTimeLeft)(const void* deadline); // null: as long as it takes
    const void* theDeadline;
};

/// What theTimeLeft returns for a time that never ends.
inline constexpr std::chrono::nanoseconds noLimit = (std::chrono::nanoseconds::max)();

/// Seconds from which on a time never ends: more than thirty years. Sums of less fit every clock.
inline constexpr long double secondsWithoutLimit = 1e9L;

/// The seconds of a duration. As floating numbers, durations of different clocks and units are compared without an
/// overflow.
template <typename Representation, typename Period>
long double inSeconds(const std::chrono::duration<Representation, Period>& time) {
    return std::chrono::duration<long double>(time).count();
}

/// For GVPatience: what is left until a point in time, by that point's own clock.
/// @param deadline  the address of a TimePoint
template <typename TimePoint>
std::chrono::nanoseconds timeLeftUntil(const void* deadline) {
    using std::chrono::nanoseconds;
    const TimePoint& end = *static_cast<const TimePoint*>(deadline);
    const auto now = TimePoint::clock::now();
    const long double seconds = inSeconds(end.time_since_epoch()) - inSeconds(now.time_since_epoch());
    if (seconds > secondsWithoutLimit) {
        return noLimit;
    }
    if (seconds < -secondsWithoutLimit || end <= now) {
        return nanoseconds::zero();
    }
    // What the clock counts in may be finer than a nanosecond.
    return (std::max)(nanoseconds(1), std::chrono::duration_cast<nanoseconds>(end - now));
}

/// The time of the steady clock after a duration. One without limit ends at the clock's last time; a duration that is
/// no number is over at once.
template <typename Representation, typename Period>
std::chrono::steady_clock::time_point deadlineAfter(const std::chrono::duration<Representation, Period>& time) {
    using std::chrono::steady_clock;
    const long double seconds = inSeconds(time);
    if (seconds > secondsWithoutLimit) {
        return (steady_clock::time_point::max)();
    }
    const steady_clock::time_point now = steady_clock::now();
    return seconds > 0 ? now + std::chrono::duration_cast<steady_clock::duration>(time) : now;
}

} // namespace detail

} // namespace Gilvane

#endif
