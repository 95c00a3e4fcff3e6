/// @file
/// What tests of threads have in common.
#ifndef GILVANE_TESTS_SUPPORT_THREADSUPPORT_H
#define GILVANE_TESTS_SUPPORT_THREADSUPPORT_H

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <unistd.h>

namespace Gilvane {

/// Returns when `condition` holds, and fails the test after half a minute; by the clock that no test halts.
template <typename Condition>
void await(Condition condition) {
    const auto end = std::chrono::system_clock::now() + std::chrono::seconds(30);
    while (!condition()) {
        if (std::chrono::system_clock::now() > end) {
            ADD_FAILURE() << "what was awaited does not come";
            return;
        }
        std::this_thread::yield();
    }
}

/// Runs `work(number)` in so many threads, numbered from 0, that begin when all of them are there.
template <typename Work>
void runTogether(unsigned int numberOfThreads, Work work) {
    std::atomic<unsigned int> missing{numberOfThreads};
    std::vector<std::thread> threads;
    for (unsigned int number = 0; number < numberOfThreads; ++number) {
        threads.emplace_back([&missing, &work, number] {
            --missing;
            while (missing != 0) {
                std::this_thread::yield();
            }
            work(number);
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

/// Whether the kernel has let a thread of this program sleep.
inline bool isAsleep(pid_t thread) {
    std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
    std::string text;
    std::getline(file, text);
    return text.rfind(") S ") != std::string::npos;
}

} // namespace Gilvane

#endif
