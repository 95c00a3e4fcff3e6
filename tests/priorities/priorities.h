/// @file
/// A thread of low priority holds a pool's lock, one of high priority wants it, and one of middle priority has work to
/// do. All run on one processor, so that priorities alone decide who is next.
#ifndef GILVANE_TESTS_PRIORITIES_PRIORITIES_H
#define GILVANE_TESTS_PRIORITIES_PRIORITIES_H

#include <gilvane/utilities/gvmemorypool.h>
#include <gilvane/utilities/gvmemorypoolinspector.h>

#include <gtest/gtest.h>

#include <pthread.h>
#include <sched.h>
#include <semaphore.h>

#include <array>
#include <atomic>
#include <chrono>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace Gilvane {

/// How long middle works.
inline constexpr std::chrono::milliseconds timeOfMiddle(50);

/// What happened, the first thing first.
using Order = std::vector<std::string>;

/// The middle one had to wait for the high one, or the other way round.
inline const Order inherited = {"low holds the lock", "high has the lock", "middle has worked"};
inline const Order inverted = {"low holds the lock", "middle has worked", "high has the lock"};

/// Of POSIX: it is the kernel that wakes a waiter.
class Semaphore {
  public:
    Semaphore() { sem_init(&theSemaphore, 0, 0); }
    Semaphore(const Semaphore&) = delete;
    Semaphore& operator=(const Semaphore&) = delete;
    ~Semaphore() { sem_destroy(&theSemaphore); }
    void post() { sem_post(&theSemaphore); }
    void wait() {
        while (sem_wait(&theSemaphore) != 0) {
        }
    }

  private:
    sem_t theSemaphore;
};

/// The first processor that this process may use.
inline int aProcessor() {
    cpu_set_t processors;
    CPU_ZERO(&processors);
    sched_getaffinity(0, sizeof processors, &processors);
    int processor = 0;
    while (!CPU_ISSET(processor, &processors)) {
        ++processor;
    }
    return processor;
}

/// Puts the calling thread on a processor. Whether it has the real-time priority.
inline bool runWithPriorityOn(int processor, int priority) {
    cpu_set_t processors;
    CPU_ZERO(&processors);
    CPU_SET(processor, &processors);
    sched_param parameters = {};
    parameters.sched_priority = priority;
    return pthread_setaffinity_np(pthread_self(), sizeof processors, &processors) == 0 &&
           pthread_setschedparam(pthread_self(), SCHED_FIFO, &parameters) == 0;
}

/// Why threads of this process get no real-time priorities; empty when they do.
inline std::string whatForbidsPriorities() {
    std::ifstream file("/proc/sys/kernel/sched_rt_runtime_us");
    long runtime = -1;
    if (file >> runtime && runtime == 0) {
        return "real-time threads get no time here (sched_rt_runtime_us)";
    }
    bool isPermitted = false;
    std::thread([&] { isPermitted = runWithPriorityOn(aProcessor(), 3); }).join();
    return isPermitted ? "" : "SCHED_FIFO is not permitted here (RLIMIT_RTPRIO, CAP_SYS_NICE, or a control group)";
}

/// Takes the lock, calls a function while it holds it, and releases it.
using Holder = std::function<void(const std::function<void()>&)>;

/// What happens one after the other.
///   - low holds the lock, and wakes high, which runs at once, and waits for the lock
///   - low, which still holds it, wakes middle. With low's own priority middle runs first; with high's it does not
inline Order orderOfEvents(const Holder& hold, const std::function<void()>& useLock) {
    const int processor = aProcessor();
    std::array<std::string, 3> events;
    std::atomic<unsigned int> eventCount(0);
    const auto note = [&](const char* event) { events.at(eventCount++) = event; };
    Semaphore ready;
    Semaphore low;
    Semaphore middle;
    Semaphore high;
    const auto begin = [&](int priority, Semaphore& start) {
        EXPECT_TRUE(runWithPriorityOn(processor, priority));
        ready.post();
        start.wait();
    };
    std::thread lowThread([&] {
        begin(1, low);
        bool isFirst = true;
        hold([&] {
            if (isFirst) {
                isFirst = false;
                note("low holds the lock");
                high.post();
                middle.post();
            }
        });
    });
    std::thread middleThread([&] {
        begin(2, middle);
        const auto end = std::chrono::steady_clock::now() + timeOfMiddle;
        while (std::chrono::steady_clock::now() < end) {
        }
        note("middle has worked");
    });
    std::thread highThread([&] {
        begin(3, high);
        useLock();
        note("high has the lock");
    });
    for (int thread = 0; thread < 3; ++thread) {
        ready.wait();
    }
    low.post(); // it runs when the others, whose priorities are higher, wait for their turn
    lowThread.join();
    middleThread.join();
    highThread.join();
    return {events.begin(), events.end()};
}

/// Holds the lock of a pool, of either kind, while it shows its blocks.
template <typename Pool>
Holder visitorOf(const Pool& pool) {
    return [&pool](const std::function<void()>& whileHeld) {
        GVMemoryPoolInspector::visitBlocks(pool, [&](const GVVisitedBlock&) { whileHeld(); });
    };
}

/// Tests of priorities, skipped where threads get none.
class OfPriorities : public testing::Test {
  protected:
    void SetUp() override {
        const std::string obstacle = whatForbidsPriorities();
        if (!obstacle.empty()) {
            GTEST_SKIP() << obstacle;
        }
    }
};

} // namespace Gilvane

#endif
