#include <gilvane/threads/gvmutexhandle.h>
#include <gilvane/threads/gvthreadsfactory.h>

#include "threadsupport.h"
#include "writtentext.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <ios>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

namespace Gilvane {

namespace {

using OwnedHandle = std::unique_ptr<GVMutexHandle>;

OwnedHandle makeHandle() { return OwnedHandle(CreateUnnamedMutexHandle(gvexclusivemutex, false)); }

// Runs `operation` in a thread of its own and waits for its end.
void elsewhere(const std::function<void()>& operation) { std::thread(operation).join(); }

bool canBeTakenElsewhere(GVMutexHandle& handle) {
    bool taken = false;
    elsewhere([&] {
        taken = handle.tryLock();
        if (taken) {
            handle.unlock();
        }
    });
    return taken;
}

// Counts what is done with it.
class CountingHandle : public GVMutexHandle {
  public:
    bool tryLock() override {
        ++theOperationCount;
        return true;
    }
    void lock() override { ++theOperationCount; }
    void unlock() override { ++theOperationCount; }

    int operationCount() const { return theOperationCount; }

  private:
    int theOperationCount = 0;
};

} // namespace

TEST(MutexHandle, startsUnlocked) {
    const OwnedHandle handle = makeHandle();
    EXPECT_TRUE(canBeTakenElsewhere(*handle));
}

TEST(MutexHandle, isHeldBetweenLockAndUnlock) {
    const OwnedHandle handle = makeHandle();
    handle->lock();
    EXPECT_FALSE(canBeTakenElsewhere(*handle));
    handle->unlock();
    EXPECT_TRUE(canBeTakenElsewhere(*handle));
}

TEST(MutexHandle, canBeLockedAndUnlockedManyTimes) {
    const OwnedHandle handle = makeHandle();
    for (int round = 0; round < 100; ++round) {
        handle->lock();
        handle->unlock();
    }
    EXPECT_TRUE(canBeTakenElsewhere(*handle));
}

TEST(MutexHandle, isHeldAfterASuccessfulAttempt) {
    const OwnedHandle handle = makeHandle();
    ASSERT_TRUE(handle->tryLock());
    EXPECT_FALSE(canBeTakenElsewhere(*handle));
    handle->unlock();
    EXPECT_TRUE(canBeTakenElsewhere(*handle));
}

TEST(MutexHandle, isNotTakenTwiceByOneThread) {
    const OwnedHandle handle = makeHandle();
    handle->lock();
    EXPECT_FALSE(handle->tryLock());
    handle->unlock();
}

TEST(MutexHandle, aFailedAttemptChangesNothing) {
    const OwnedHandle handle = makeHandle();
    handle->lock();
    elsewhere([&] { EXPECT_FALSE(handle->tryLock()); });
    EXPECT_FALSE(canBeTakenElsewhere(*handle));
    handle->unlock();
    EXPECT_TRUE(canBeTakenElsewhere(*handle));
}

TEST(MutexHandle, lockWaitsUntilTheHolderUnlocks) {
    const OwnedHandle handle = makeHandle();
    std::atomic<pid_t> waiting{0};
    std::atomic<bool> holding{false};
    handle->lock();
    std::thread waiter([&] {
        waiting = gettid();
        handle->lock();
        holding = true;
        handle->unlock();
    });
    await([&] { return waiting != 0 && isAsleep(waiting); });
    EXPECT_FALSE(holding);
    handle->unlock();
    waiter.join();
    EXPECT_TRUE(holding);
}

TEST(MutexHandle, letsOneThreadInAtATime) {
    constexpr int threadCount = 4;
    constexpr int rounds = 2000;
    const OwnedHandle handle = makeHandle();
    std::atomic<int> inside{0};
    std::atomic<int> meetings{0}; // rounds in which a thread found another one inside
    int guarded = 0;              // only the handle orders the accesses to it
    std::vector<std::thread> threads;
    for (int number = 0; number < threadCount; ++number) {
        threads.emplace_back([&] {
            for (int round = 0; round < rounds; ++round) {
                handle->lock();
                if (++inside != 1) {
                    ++meetings;
                }
                const int before = guarded;
                if (round % 16 == 0) {
                    std::this_thread::yield();
                }
                guarded = before + 1;
                --inside;
                handle->unlock();
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(meetings, 0);
    EXPECT_EQ(guarded, threadCount * rounds);
}

TEST(MutexHandle, successfulAttemptsExcludeEachOther) {
    constexpr int threadCount = 4;
    constexpr int successes = 500;
    const OwnedHandle handle = makeHandle();
    std::atomic<int> inside{0};
    std::atomic<int> meetings{0};
    int guarded = 0;
    std::vector<std::thread> threads;
    for (int number = 0; number < threadCount; ++number) {
        threads.emplace_back([&] {
            for (int taken = 0; taken < successes;) {
                if (!handle->tryLock()) {
                    std::this_thread::yield();
                    continue;
                }
                ++taken;
                if (++inside != 1) {
                    ++meetings;
                }
                ++guarded;
                if (taken % 16 == 0) {
                    std::this_thread::yield();
                }
                --inside;
                handle->unlock();
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(meetings, 0);
    EXPECT_EQ(guarded, threadCount * successes);
}

TEST(MutexHandle, doesNotKeepThreadsFromAnotherHandle) {
    const OwnedHandle first = makeHandle();
    const OwnedHandle second = makeHandle();
    first->lock();
    EXPECT_TRUE(canBeTakenElsewhere(*second));
    first->unlock();
}

TEST(MutexHandle, cannotBeCopied) {
    EXPECT_FALSE(std::is_copy_constructible_v<CountingHandle>);
    EXPECT_FALSE(std::is_move_constructible_v<CountingHandle>);
    EXPECT_FALSE(std::is_copy_assignable_v<CountingHandle>);
    EXPECT_FALSE(std::is_move_assignable_v<CountingHandle>);
}

TEST(MutexHandleText, isItsAddress) {
    const OwnedHandle handle = makeHandle();
    EXPECT_EQ(textOf(*handle), addressText(handle.get()));
    EXPECT_NE(textOf(*handle), textOf(*makeHandle()));
}

TEST(MutexHandleText, hasNoDoubleQuote) {
    const OwnedHandle handle = makeHandle();
    EXPECT_EQ(textOf(*handle).find('"'), std::string::npos);
    EXPECT_FALSE(textOf(*handle).empty());
}

TEST(MutexHandleText, isWrittenWithoutLocking) {
    const CountingHandle handle;
    EXPECT_EQ(textOf(handle), addressText(&handle));
    EXPECT_EQ(handle.operationCount(), 0);
}

TEST(MutexHandleText, canBeWrittenWhileTheHandleIsHeld) {
    const OwnedHandle handle = makeHandle();
    handle->lock();
    EXPECT_EQ(textOf(*handle), addressText(handle.get()));
    EXPECT_FALSE(canBeTakenElsewhere(*handle));
    handle->unlock();
}

TEST(MutexHandleText, returnsTheStreamAndLeavesItsFormattingStateAlone) {
    const CountingHandle handle;
    std::ostringstream stream;
    stream.flags(std::ios_base::dec | std::ios_base::showpos);
    const std::ios_base::fmtflags flags = stream.flags();
    EXPECT_EQ(&(stream << handle), &stream);
    EXPECT_EQ(stream.flags(), flags);
}

} // namespace Gilvane
