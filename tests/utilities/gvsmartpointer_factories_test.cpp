#include <gilvane/utilities/gvmemorypool.h>

#include <gilvane/base/gvrawblock.h>

#include "gvtestpeer.h"
#include "hookledger.h"
#include "sharedobject.h"
#include "throwsites.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <functional>
#include <new>
#include <vector>

namespace Gilvane {

namespace {

using Pointer = GVSmartPointer<GVMemoryPool>;
using Peer = GVTestPeer;

constexpr unsigned int poolBytes = detail::rawBlockHeaderBytes + sizeof(GVMemoryPool);
constexpr unsigned int countCellBytes = detail::rawBlockHeaderBytes + sizeof(unsigned int);
constexpr unsigned int flagCellBytes = detail::rawBlockHeaderBytes + sizeof(bool);

// Each factory, with and without a lock for the pool.
std::vector<std::function<Pointer()>> factories() {
    std::vector<std::function<Pointer()>> all;
    for (const bool useMutex : {false, true}) {
        all.emplace_back([useMutex] { return GVMemoryPool::init(useMutex); });
        all.emplace_back([useMutex] { return GVMemoryPool::initWithNumberOfObjects(3, useMutex); });
        all.emplace_back([useMutex] { return GVMemoryPool::initWithNumberOfObjectsAndSize(7, 16, useMutex); });
    }
    return all;
}

// Allocations that a factory makes when none is refused.
std::size_t allocationsOf(const std::function<Pointer()>& factory) {
    const HookLedger ledger;
    const Pointer pointer = factory();
    return ledger.allocationCount();
}

} // namespace

TEST(PoolFactories, initMakesAPoolOfTheDefaultNumberWithoutBlocks) {
    const unsigned int defaultNumber = GVMemoryPool::defaultNumberOfObjects;
    GVMemoryPool::defaultNumberOfObjects = 11;
    const Pointer pool = GVMemoryPool::init(false);
    GVMemoryPool::defaultNumberOfObjects = defaultNumber;
    EXPECT_EQ(Peer::initialNumberOfObjects(*pool), 11U);
    EXPECT_EQ(Peer::bytesInEachObject(*pool), 0U);
    EXPECT_EQ(Peer::table(*pool).getUsedCount(), 0U);
}

TEST(PoolFactories, initWithNumberOfObjectsRecordsTheNumberAndBuildsNothing) {
    const Pointer pool = GVMemoryPool::initWithNumberOfObjects(6, false);
    EXPECT_EQ(Peer::initialNumberOfObjects(*pool), 6U);
    EXPECT_EQ(Peer::bytesInEachObject(*pool), 0U);
    EXPECT_EQ(Peer::table(*pool).getUsedCount(), 0U);
}

TEST(PoolFactories, initWithNumberOfObjectsAndSizeBuildsThePool) {
    const Pointer pool = GVMemoryPool::initWithNumberOfObjectsAndSize(3, 40, false);
    EXPECT_EQ(Peer::initialNumberOfObjects(*pool), 3U);
    EXPECT_EQ(Peer::bytesInEachObject(*pool), 40U);
    EXPECT_EQ(Peer::table(*pool).getUsedCount(), 3U);
    EXPECT_EQ(Peer::freeTokens(*pool).size(), 3U);
}

TEST(PoolFactories, passTheirLockFlagToThePool) {
    std::size_t locking = 0;
    for (const std::function<Pointer()>& factory : factories()) {
        const Pointer pool = factory();
        EXPECT_EQ(Peer::mutexHandle(*pool) != nullptr, Peer::useMutexHandle(*pool));
        locking += Peer::useMutexHandle(*pool) ? 1U : 0U;
    }
    EXPECT_EQ(locking, 3U);
    EXPECT_FALSE(Peer::useMutexHandle(*GVMemoryPool::init(false)));
    EXPECT_TRUE(Peer::useMutexHandle(*GVMemoryPool::initWithNumberOfObjects(3, true)));
    EXPECT_TRUE(Peer::useMutexHandle(*GVMemoryPool::initWithNumberOfObjectsAndSize(3, 1, true)));
}

TEST(PoolFactories, giveAnOwningPointerWithOneSharerAndALockOfItsOwn) {
    for (const std::function<Pointer()>& factory : factories()) {
        Pointer pool = factory();
        EXPECT_EQ(*Peer::refCount(pool), 1U);
        EXPECT_TRUE(*Peer::ownObject(pool));
        ASSERT_NE(Peer::lock(pool), nullptr);
        EXPECT_NE(Peer::lock(pool), Peer::mutexHandle(*pool));
    }
}

TEST(PoolFactories, askForThePoolFirstAndForCellsAndHandleLast) {
    for (const std::function<Pointer()>& factory : factories()) {
        const HookLedger ledger;
        const Pointer pool = factory();
        const std::vector<unsigned int> requests = ledger.requests();
        ASSERT_GE(requests.size(), 4U);
        EXPECT_EQ(requests.front(), poolBytes);
        EXPECT_EQ(requests[requests.size() - 3], countCellBytes);
        EXPECT_EQ(requests[requests.size() - 2], flagCellBytes);
        EXPECT_GE(requests.back(), detail::rawBlockHeaderBytes + sizeof(GVMutexHandle));
    }
}

TEST(PoolFactories, givePoolsThatTheLastPointerReleasesEntirely) {
    for (const std::function<Pointer()>& factory : factories()) {
        const HookLedger ledger;
        {
            const Pointer pool = factory();
            const Pointer other(pool);
            pool->getTokenForFreeMemoryObject();
        }
        EXPECT_GT(ledger.allocationCount(), 0U);
        EXPECT_TRUE(ledger.liveBlocks().empty());
    }
}

TEST(PoolFactories, throwBadAllocWhenThePoolCannotBeHad) {
    for (const std::function<Pointer()>& factory : factories()) {
        HookLedger ledger;
        ledger.refuseOnce(0);
        EXPECT_THROW(factory(), std::bad_alloc);
        EXPECT_EQ(ledger.requests(), std::vector<unsigned int>{poolBytes});
        EXPECT_TRUE(ledger.liveBlocks().empty());
    }
}

TEST(PoolFactories, returnTheMemoryOfAPoolWhoseHandleCannotBeHad) {
    // The handle is a pool's second allocation.
    for (const std::function<Pointer()>& factory :
         {std::function<Pointer()>([] { return GVMemoryPool::init(true); }),
          std::function<Pointer()>([] { return GVMemoryPool::initWithNumberOfObjects(3, true); }),
          std::function<Pointer()>([] { return GVMemoryPool::initWithNumberOfObjectsAndSize(3, 16, true); })}) {
        HookLedger ledger;
        ledger.refuseOnce(1);
        EXPECT_THROW(factory(), std::bad_alloc);
        EXPECT_EQ(ledger.allocationCount(), 2U);
        EXPECT_TRUE(ledger.liveBlocks().empty());
    }
}

TEST(PoolFactories, returnTheMemoryOfAPoolWhoseFirstBlockCannotBeBuilt) {
    HookLedger ledger;
    ledger.refuseOnce(1);
    expectGVException([] { GVMemoryPool::initWithNumberOfObjectsAndSize(3, 16, false); }, gvoutofmemory,
                      "libsrc/utilities/gvmemorypool", "Unable to allocate memory for new pool object");
    EXPECT_EQ(ledger.requests().front(), poolBytes);
    EXPECT_TRUE(ledger.liveBlocks().empty());
}

TEST(PoolFactories, deleteThePoolWhenTheCountCellCannotBeHad) {
    for (const std::function<Pointer()>& factory : factories()) {
        const std::size_t allocations = allocationsOf(factory);
        HookLedger ledger;
        ledger.refuseOnce(allocations - 3);
        EXPECT_THROW(factory(), std::bad_alloc);
        EXPECT_EQ(ledger.requests().back(), countCellBytes);
        EXPECT_TRUE(ledger.liveBlocks().empty());
    }
}

TEST(PoolFactories, deleteThePoolAndLoseTheCountCellWhenTheFlagCellCannotBeHad) {
    for (const std::function<Pointer()>& factory : factories()) {
        const std::size_t allocations = allocationsOf(factory);
        HookLedger ledger;
        ledger.refuseOnce(allocations - 2);
        EXPECT_THROW(factory(), std::bad_alloc);
        ASSERT_EQ(ledger.liveBlocks().size(), 1U);
        EXPECT_EQ(ledger.liveBytes(), countCellBytes);
        ledger.reclaimLiveBlocks();
    }
}

TEST(PoolFactories, deleteThePoolAndLoseBothCellsWhenThePointersHandleCannotBeHad) {
    for (const std::function<Pointer()>& factory : factories()) {
        const std::size_t allocations = allocationsOf(factory);
        HookLedger ledger;
        ledger.refuseOnce(allocations - 1);
        EXPECT_THROW(factory(), std::bad_alloc);
        ASSERT_EQ(ledger.liveBlocks().size(), 2U);
        EXPECT_EQ(ledger.liveBlocks()[0].bytes, countCellBytes);
        EXPECT_EQ(ledger.liveBlocks()[1].bytes, flagCellBytes);
        ledger.reclaimLiveBlocks();
    }
}

} // namespace Gilvane
