#include "hookledger.h"
#include "noposixmutexes.h"
#include "throwsites.h"

#include <gilvane/base/gvexception.h>
#include <gilvane/base/gvrawblock.h>
#include <gilvane/threads/gvthreadsfactory.h>

#include <gtest/gtest.h>

#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <thread>
#include <type_traits>

namespace Gilvane {

std::atomic<int> theMutexInitError{0};
std::atomic<int> theAttributesInitError{0};
std::atomic<int> theSetProtocolError{0};
std::atomic<int> theMutexInitCount{0};
std::atomic<int> theMutexDestroyCount{0};
std::atomic<int> theAttributesInitCount{0};
std::atomic<int> theAttributesDestroyCount{0};
std::atomic<int> theLastProtocol{-1};

namespace {

GVMutexHandle* createByFactory(_gvmutex kind, bool flag) { return GVThreadsFactory().CreateUnnamedHandle(kind, flag); }

struct Maker {
    const char* name;
    GVMutexHandle* (*create)(_gvmutex, bool);
};

// Both ways to a handle keep the same contract.
constexpr Maker makers[] = {{"factory", &createByFactory}, {"free function", &CreateUnnamedMutexHandle}};

constexpr const char* sourceFile = "libsrc/threads/gvthreadsfactory";

} // namespace

} // namespace Gilvane

// The linker sends the library's calls here.
extern "C" {
// NOLINTBEGIN(bugprone-reserved-identifier)
int __real_pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes);
int __wrap_pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes);
int __real_pthread_mutex_destroy(pthread_mutex_t* mutex);
int __wrap_pthread_mutex_destroy(pthread_mutex_t* mutex);
int __real_pthread_mutexattr_init(pthread_mutexattr_t* attributes);
int __wrap_pthread_mutexattr_init(pthread_mutexattr_t* attributes);
int __real_pthread_mutexattr_setprotocol(pthread_mutexattr_t* attributes, int protocol);
int __wrap_pthread_mutexattr_setprotocol(pthread_mutexattr_t* attributes, int protocol);
int __real_pthread_mutexattr_destroy(pthread_mutexattr_t* attributes);
int __wrap_pthread_mutexattr_destroy(pthread_mutexattr_t* attributes);

int __wrap_pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes) {
    ++Gilvane::theMutexInitCount;
    int protocol = PTHREAD_PRIO_NONE;
    if (attributes != nullptr) {
        pthread_mutexattr_getprotocol(attributes, &protocol);
    }
    Gilvane::theLastProtocol = protocol;
    const int error = Gilvane::theMutexInitError;
    return error != 0 ? error : __real_pthread_mutex_init(mutex, attributes);
}

int __wrap_pthread_mutex_destroy(pthread_mutex_t* mutex) {
    ++Gilvane::theMutexDestroyCount;
    return __real_pthread_mutex_destroy(mutex);
}

int __wrap_pthread_mutexattr_init(pthread_mutexattr_t* attributes) {
    const int error = Gilvane::theAttributesInitError;
    if (error != 0) {
        return error;
    }
    ++Gilvane::theAttributesInitCount;
    return __real_pthread_mutexattr_init(attributes);
}

int __wrap_pthread_mutexattr_setprotocol(pthread_mutexattr_t* attributes, int protocol) {
    const int error = Gilvane::theSetProtocolError;
    return error != 0 ? error : __real_pthread_mutexattr_setprotocol(attributes, protocol);
}

int __wrap_pthread_mutexattr_destroy(pthread_mutexattr_t* attributes) {
    ++Gilvane::theAttributesDestroyCount;
    const int error = __real_pthread_mutexattr_destroy(attributes);
    std::memset(attributes, 0xff, sizeof *attributes); // who uses them now finds another protocol
    return error;
}
// NOLINTEND(bugprone-reserved-identifier)
}

namespace Gilvane {

TEST(MutexKinds, theExclusiveOneHasItsFixedValue) {
    EXPECT_EQ(static_cast<int>(gvexclusivemutex), 3);
    EXPECT_EQ(sizeof(_gvmutex), 4U);
}

TEST(MutexCreation, givesAnUnlockedHandle) {
    for (const Maker& maker : makers) {
        SCOPED_TRACE(maker.name);
        const std::unique_ptr<GVMutexHandle> handle(maker.create(gvexclusivemutex, false));
        ASSERT_NE(handle, nullptr);
        ASSERT_TRUE(handle->tryLock());
        handle->unlock();
    }
}

TEST(MutexCreation, givesANewHandleEachTime) {
    for (const Maker& maker : makers) {
        SCOPED_TRACE(maker.name);
        const std::unique_ptr<GVMutexHandle> first(maker.create(gvexclusivemutex, false));
        const std::unique_ptr<GVMutexHandle> second(maker.create(gvexclusivemutex, false));
        EXPECT_NE(first, second);
        first->lock();
        EXPECT_TRUE(second->tryLock());
        second->unlock();
        first->unlock();
    }
}

TEST(MutexCreation, theHandleOutlivesItsFactory) {
    GVThreadsFactory* const factory = new GVThreadsFactory;
    const std::unique_ptr<GVMutexHandle> handle(factory->CreateUnnamedHandle(gvexclusivemutex, false));
    delete factory;

    handle->lock();
    bool takenElsewhere = true;
    std::thread([&] { takenElsewhere = handle->tryLock(); }).join();
    EXPECT_FALSE(takenElsewhere);
    handle->unlock();
    EXPECT_TRUE(handle->tryLock());
    handle->unlock();
}

TEST(MutexCreation, oneFactoryMakesManyHandles) {
    GVThreadsFactory factory;
    const std::unique_ptr<GVMutexHandle> first(factory.CreateUnnamedHandle(gvexclusivemutex, false));
    const std::unique_ptr<GVMutexHandle> second(factory.CreateUnnamedHandle(gvexclusivemutex, false));
    EXPECT_NE(first, second);
}

TEST(MutexCreation, takesOneBlockWhichGoesBackWhenTheHandleIsDeleted) {
    for (const Maker& maker : makers) {
        SCOPED_TRACE(maker.name);
        const HookLedger ledger;
        GVMutexHandle* const handle = maker.create(gvexclusivemutex, false);
        ASSERT_EQ(ledger.allocationCount(), 1U);
        EXPECT_EQ(static_cast<void*>(handle),
                  static_cast<char*>(ledger.liveBlocks().at(0).start) + detail::rawBlockHeaderBytes);
        delete handle;
        EXPECT_EQ(ledger.releaseCount(), 1U);
    }
}

TEST(MutexCreation, buildsEachHandleOverOnePosixMutex) {
    for (const Maker& maker : makers) {
        SCOPED_TRACE(maker.name);
        theMutexInitCount = 0;
        const std::unique_ptr<GVMutexHandle> handle(maker.create(gvexclusivemutex, false));
        EXPECT_EQ(theMutexInitCount, 1);
    }
}

TEST(MutexCreation, givesThePosixMutexBackWithTheHandle) {
    for (const Maker& maker : makers) {
        SCOPED_TRACE(maker.name);
        std::unique_ptr<GVMutexHandle> handle(maker.create(gvexclusivemutex, false));
        theMutexDestroyCount = 0;
        handle.reset();
        EXPECT_EQ(theMutexDestroyCount, 1);
    }
}

TEST(MutexCreation, refusesAnUnknownKind) {
    for (const Maker& maker : makers) {
        SCOPED_TRACE(maker.name);
        const HookLedger ledger;
        for (const unsigned int kind : {0U, 1U, 2U, 4U, std::numeric_limits<unsigned int>::max()}) {
            expectGVException([&] { delete maker.create(static_cast<_gvmutex>(kind), false); }, gvinvalidstate,
                              sourceFile, "Unknown kind of mutex.");
        }
        EXPECT_TRUE(ledger.liveBlocks().empty());
    }
}

TEST(MutexCreation, refusesATrueFlag) {
    for (const Maker& maker : makers) {
        SCOPED_TRACE(maker.name);
        const HookLedger ledger;
        expectGVException([&] { delete maker.create(gvexclusivemutex, true); }, gvinvalidstate, sourceFile,
                          "A true flag is not supported for a mutex.");
        EXPECT_TRUE(ledger.liveBlocks().empty());
    }
}

TEST(MutexCreation, looksAtTheKindBeforeTheFlag) {
    for (const Maker& maker : makers) {
        SCOPED_TRACE(maker.name);
        expectGVException([&] { delete maker.create(static_cast<_gvmutex>(0), true); }, gvinvalidstate, sourceFile,
                          "Unknown kind of mutex.");
    }
}

TEST(MutexCreation, reportsAPosixFailureAndLeavesNothingBehind) {
    for (const Maker& maker : makers) {
        SCOPED_TRACE(maker.name);
        const HookLedger ledger;
        const NoPosixMutexes failure;
        expectGVException([&] { delete maker.create(gvexclusivemutex, false); }, gvoutofmemory, sourceFile,
                          "Unable to create POSIX mutex.");
        EXPECT_GE(ledger.allocationCount(), 1U);
        EXPECT_TRUE(ledger.liveBlocks().empty());
    }
}

TEST(MutexCreation, worksAgainAfterAPosixFailure) {
    {
        const NoPosixMutexes failure;
        EXPECT_THROW(delete CreateUnnamedMutexHandle(gvexclusivemutex, false), GVException);
    }
    const std::unique_ptr<GVMutexHandle> handle(CreateUnnamedMutexHandle(gvexclusivemutex, false));
    EXPECT_TRUE(handle->tryLock());
    handle->unlock();
}

TEST(MutexCreation, isBadAllocWithoutMemoryForTheHandle) {
    for (const Maker& maker : makers) {
        SCOPED_TRACE(maker.name);
        HookLedger ledger;
        ledger.refuseOnce(0);
        EXPECT_THROW(delete maker.create(gvexclusivemutex, false), std::bad_alloc);
        EXPECT_EQ(ledger.refusedCount(), 1U);
        EXPECT_TRUE(ledger.liveBlocks().empty());
    }
}

TEST(MutexCreation, isBadAllocWithoutMemoryForTheTextsOfAPosixFailure) {
    for (const Maker& maker : makers) {
        SCOPED_TRACE(maker.name);
        HookLedger ledger;
        const NoPosixMutexes failure;
        ledger.refuseFrom(1);
        EXPECT_THROW(delete maker.create(gvexclusivemutex, false), std::bad_alloc);
        EXPECT_GT(ledger.refusedCount(), 0U);
        EXPECT_TRUE(ledger.liveBlocks().empty());
    }
}

TEST(ThreadsFactory, onTheStackTakesNoMemory) {
    const HookLedger ledger;
    { const GVThreadsFactory factory; }
    EXPECT_EQ(ledger.allocationCount(), 0U);
    EXPECT_EQ(sizeof(GVThreadsFactory), sizeof(GVObject));
}

TEST(ThreadsFactory, isDeletedThroughItsRoot) {
    const HookLedger ledger;
    GVObject* const factory = new GVThreadsFactory;
    EXPECT_EQ(ledger.allocationCount(), 1U);
    delete factory;
    EXPECT_EQ(ledger.releaseCount(), 1U);
}

} // namespace Gilvane
