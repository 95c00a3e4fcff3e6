/// @file
/// The lock, the signal and the atomic word on which pools that threads share stand.
#ifndef GILVANE_THREADS_GVWAITING_H
#define GILVANE_THREADS_GVWAITING_H

#include <gilvane/base/gvexception.h>

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>

namespace Gilvane {

struct GVTestPeer;

/// What a lock does about priorities while a thread holds it.
enum GVMutexProtocol : unsigned int {
    gvnoprotocol = 0, ///< nothing: a thread that is ready to run keeps the holder, and all who wait, from running
    gvpriorityinheritance = 1, ///< the holder runs with the highest priority of those who wait for the lock
};

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

/// One POSIX mutex of the default type. Correct use cannot fail, so results are ignored but for that of its making. The
/// mutex itself knows its protocol: locking asks for none.
class GVPlainLock {
  public:
    /// @throws GVException     kind gvinvalidstate: no such protocol, or the system refuses it; kind gvoutofmemory: the
    ///                         POSIX mutex cannot be made. Nothing is left behind
    /// @throws std::bad_alloc  no memory for the exception's own texts
    explicit GVPlainLock(GVMutexProtocol protocol = gvnoprotocol);
    GVPlainLock(const GVPlainLock&) = delete;
    GVPlainLock& operator=(const GVPlainLock&) = delete;
    ~GVPlainLock() { pthread_mutex_destroy(&theMutex); }

    /// Waits until the calling thread holds the lock.
    void lock() noexcept { pthread_mutex_lock(&theMutex); }
    /// Releases it.
    void unlock() noexcept { pthread_mutex_unlock(&theMutex); }

  private:
    friend struct Gilvane::GVTestPeer;

    pthread_mutex_t theMutex;
};

/// What threads sleep by until others, under the same lock, say that something has happened: an event count.
///
/// It is a word that the kernel looks at before it lets a thread sleep. Each sleeper has a mark, so that only those are
/// woken for whom something has happened; where several have the same one, all of them are. They are woken after the
/// lock was released, since they want it at once.
class GVEventCount {
  public:
    /// A bit for each of the marks.
    using Marks = std::uint32_t;

    /// One of the marks, in turn.
    static Marks markOf(unsigned int number) noexcept { return Marks{1} << number % 32; }

    /// To be called under the lock, before wake: nobody falls asleep any more who has not seen what happened.
    void advance() noexcept {
        // Relaxed: the lock orders it among threads. The kernel's look comes before the store, and wake finds the thread
        // asleep; or the look comes after it, and the thread does not sleep.
        theCount.store(theCount.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    }

    /// Wakes the sleepers with those marks.
    void wake(Marks marks) noexcept;

    /// Releases `lock` until the sleeper is woken, or without reason, and holds it again then.
    /// @param mark  the sleeper's
    /// @param time  sleeps no longer than that; noLimit, or more than 0 and less than secondsWithoutLimit
    void wait(GVPlainLock& lock, Marks mark, std::chrono::nanoseconds time) noexcept;

  private:
    friend struct Gilvane::GVTestPeer;

    GVAtomicWord theCount{0}; // modulo 2^32: nobody stays on his way to sleep for that long
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
