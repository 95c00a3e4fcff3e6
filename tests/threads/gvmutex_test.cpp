#include "misuse.h"

#include <gilvane/threads/gvmutex.h>
#include <gilvane/threads/gvthreadsfactory.h>

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

namespace Gilvane {

namespace {

using Log = std::vector<std::string>;

// Writes down what is done with it, its end included.
class LoggingHandle : public GVMutexHandle {
  public:
    explicit LoggingHandle(Log& log) : theLog(log) {}
    ~LoggingHandle() override { theLog.emplace_back("delete"); }

    bool tryLock() override {
        theLog.emplace_back("tryLock");
        return true;
    }
    void lock() override { theLog.emplace_back("lock"); }
    void unlock() override { theLog.emplace_back("unlock"); }

  private:
    Log& theLog;
};

} // namespace

TEST(ScopedLock, locksItsHandleOnceForTheLengthOfTheBlock) {
    Log log;
    LoggingHandle handle(log);
    {
        GVMutex lock;
        EXPECT_EQ(log, Log{});
        lock.setHandle(&handle);
        EXPECT_EQ(log, Log{"lock"});
    }
    EXPECT_EQ(log, (Log{"lock", "unlock"}));
}

TEST(ScopedLock, withoutAHandleLocksNothing) {
    Log log;
    const LoggingHandle handle(log);
    { const GVMutex lock; }
    EXPECT_EQ(log, Log{});
}

TEST(ScopedLock, leavesAFirstHandleLockedWhenItIsGivenASecond) {
    GILVANE_TEST_OF_MISUSE();
    Log first;
    Log second;
    LoggingHandle firstHandle(first);
    LoggingHandle secondHandle(second);
    {
        GVMutex lock;
        lock.setHandle(&firstHandle);
        lock.setHandle(&secondHandle);
    }
    EXPECT_EQ(first, Log{"lock"});
    EXPECT_EQ(second, (Log{"lock", "unlock"}));
}

TEST(ScopedLock, leavesItsHandleAlive) {
    Log log;
    GVMutexHandle* const handle = new LoggingHandle(log);
    {
        GVMutex lock;
        lock.setHandle(handle);
    }
    EXPECT_EQ(log, (Log{"lock", "unlock"}));
    delete handle;
    EXPECT_EQ(log, (Log{"lock", "unlock", "delete"}));
}

TEST(ScopedLock, unlocksWhenAnExceptionLeavesTheBlock) {
    Log log;
    LoggingHandle handle(log);
    const auto fails = [&handle] {
        GVMutex lock;
        lock.setHandle(&handle);
        throw std::runtime_error("left early");
    };
    EXPECT_THROW(fails(), std::runtime_error);
    EXPECT_EQ(log, (Log{"lock", "unlock"}));
}

TEST(ScopedLock, leavesARealHandleFreeAfterAnException) {
    const std::unique_ptr<GVMutexHandle> handle(CreateUnnamedMutexHandle(gvexclusivemutex, false));
    bool heldInside = false;
    try {
        GVMutex lock;
        lock.setHandle(handle.get());
        heldInside = !handle->tryLock();
        throw std::runtime_error("left early");
    } catch (const std::runtime_error&) {
        EXPECT_TRUE(heldInside);
    }
    EXPECT_TRUE(handle->tryLock());
    handle->unlock();
}

TEST(ScopedLock, keepsOtherThreadsOut) {
    constexpr int threadCount = 4;
    constexpr int rounds = 2000;
    const std::unique_ptr<GVMutexHandle> handle(CreateUnnamedMutexHandle(gvexclusivemutex, false));
    int guarded = 0; // only the scoped locks order the accesses to it
    std::vector<std::thread> threads;
    for (int number = 0; number < threadCount; ++number) {
        threads.emplace_back([&] {
            for (int round = 0; round < rounds; ++round) {
                GVMutex lock;
                lock.setHandle(handle.get());
                const int before = guarded;
                if (round % 16 == 0) {
                    std::this_thread::yield();
                }
                guarded = before + 1;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(guarded, threadCount * rounds);
}

TEST(ScopedLock, cannotBeCopied) {
    EXPECT_FALSE(std::is_copy_constructible_v<GVMutex>);
    EXPECT_FALSE(std::is_move_constructible_v<GVMutex>);
    EXPECT_FALSE(std::is_copy_assignable_v<GVMutex>);
    EXPECT_FALSE(std::is_move_assignable_v<GVMutex>);
}

} // namespace Gilvane
