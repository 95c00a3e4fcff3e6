#include <gilvane/threads/gvwaiting.h>

#include <cerrno>
#include <ctime>
#include <limits>

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace Gilvane::detail {

namespace {

constexpr const char* theSourceFile = "libsrc/threads/gvwaiting";

// The number of the error, or 0, as POSIX has it.
int makeInheritingMutex(pthread_mutex_t& mutex) noexcept {
    pthread_mutexattr_t attributes;
    int error = pthread_mutexattr_init(&attributes);
    if (error != 0) {
        return error;
    }
    error = pthread_mutexattr_setprotocol(&attributes, PTHREAD_PRIO_INHERIT);
    if (error == 0) {
        error = pthread_mutex_init(&mutex, &attributes);
    }
    pthread_mutexattr_destroy(&attributes);
    return error;
}

// The system call whose time has the size of this program's timespec: there are two where a long has 32 bits.
#if defined(SYS_futex_time64)
constexpr long theFutexCall = sizeof(timespec::tv_sec) > sizeof(long) ? SYS_futex_time64 : SYS_futex;
#else
constexpr long theFutexCall = SYS_futex;
#endif

} // namespace

GVPlainLock::GVPlainLock(GVMutexProtocol protocol) {
    if (protocol > gvpriorityinheritance) {
        throw GVException("Unknown protocol of a mutex.", theSourceFile, __LINE__, gvinvalidstate, 0);
    }
    const int error = protocol == gvnoprotocol ? pthread_mutex_init(&theMutex, nullptr) : makeInheritingMutex(theMutex);
    if (error == ENOTSUP) {
        throw GVException("The system has no mutex with priority inheritance.", theSourceFile, __LINE__, gvinvalidstate,
                          0);
    }
    if (error != 0) {
        throw GVException("Unable to create the lock of a shared pool.", theSourceFile, __LINE__, gvoutofmemory, 0);
    }
}

// Results are ignored. Where nobody sleeps there is nothing to do.
void GVEventCount::wake(Marks marks) noexcept {
    constexpr int all = (std::numeric_limits<int>::max)();
    static_cast<void>(syscall(theFutexCall, &theCount, FUTEX_WAKE_BITSET_PRIVATE, all, nullptr, nullptr, marks));
}

// Results are ignored: the caller looks for itself what has changed.
void GVEventCount::wait(GVPlainLock& lock, Marks mark, std::chrono::nanoseconds time) noexcept {
    timespec end = {};
    const timespec* limit = nullptr;
    if (time != noLimit) {
        // The kernel counts in this clock's time, from its beginning.
        const std::chrono::nanoseconds until = std::chrono::steady_clock::now().time_since_epoch() + time;
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(until);
        end.tv_sec = static_cast<decltype(end.tv_sec)>(seconds.count());
        end.tv_nsec = static_cast<decltype(end.tv_nsec)>((until - seconds).count());
        limit = &end;
    }
    const std::uint32_t count = theCount.load(std::memory_order_relaxed); // relaxed: the lock orders it, see advance
    lock.unlock();
    static_cast<void>(syscall(theFutexCall, &theCount, FUTEX_WAIT_BITSET_PRIVATE, count, limit, nullptr, mark));
    lock.lock();
}

} // namespace Gilvane::detail
