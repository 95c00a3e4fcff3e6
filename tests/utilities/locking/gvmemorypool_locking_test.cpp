// Which operations of a pool lock, how, and for how long.
#include "gvtestpeer.h"
#include "hookledger.h"
#include "misuse.h"
#include "recordingthreads.h"
#include "throwsites.h"

#include <gtest/gtest.h>

#include <functional>
#include <new>
#include <string>
#include <vector>

namespace Gilvane {

namespace {

using PoolLocking = TestOfLocks;
using Tokens = std::vector<unsigned int, GVStdAllocator<unsigned int>>;

const Log lockedOnce = {"lock 1", "unlock 1"};
const Log lockedTwice = {"lock 1", "unlock 1", "lock 1", "unlock 1"};

// What an operation enters in the log.
Log logOf(const std::function<void()>& operation) {
    ThreadsLog::entries().clear();
    operation();
    return ThreadsLog::entries();
}

bool isLocked(GVMemoryPool& pool) {
    return static_cast<RecordingMutexHandle*>(GVTestPeer::mutexHandle(pool))->isLocked();
}

// Makes `look` run at the next entries, with each of them.
void watch(const std::function<void(const std::string&)>& look) { ThreadsLog::observer() = look; }

TEST_F(PoolLocking, constructionAsksAFactoryOfItsOwnForTheHandle) {
    const GVMemoryPool pool(true);
    EXPECT_EQ(ThreadsLog::entries(), (Log{"factory made", "factory creates 1 (3, false)", "factory destroyed"}));
}

TEST_F(PoolLocking, everyConstructorMakesAFactoryEvenWithoutLocking) {
    const Log factoryOnly = {"factory made", "factory destroyed"};
    EXPECT_EQ(logOf([] { GVMemoryPool(false); }), factoryOnly);
    EXPECT_EQ(logOf([] { GVMemoryPool(3, false); }), factoryOnly);
    EXPECT_EQ(logOf([] { GVMemoryPool(3, 16, false); }), factoryOnly);
}

TEST_F(PoolLocking, constructionWithANumberDoesNotLock) {
    const GVMemoryPool pool(3, true);
    EXPECT_EQ(ThreadsLog::entries(), (Log{"factory made", "factory creates 1 (3, false)", "factory destroyed"}));
}

TEST_F(PoolLocking, constructionWithASizeLocksOnlyForTheBuilding) {
    const GVMemoryPool pool(3, 16, true);
    EXPECT_EQ(ThreadsLog::entries(),
              (Log{"factory made", "factory creates 1 (3, false)", "factory destroyed", "lock 1", "unlock 1"}));
}

TEST_F(PoolLocking, constructionThatFailsUnlocksAndLeavesTheHandle) {
    HookLedger ledger;
    ledger.refuseOnce(1); // after the handle
    EXPECT_THROW(GVMemoryPool(3, 16, true), GVException);
    EXPECT_EQ(ThreadsLog::entries(),
              (Log{"factory made", "factory creates 1 (3, false)", "factory destroyed", "lock 1", "unlock 1"}));
    EXPECT_EQ(ledger.reclaimLiveBlocks(), 1U);
}

TEST_F(PoolLocking, constructionPassesOnWhatTheFactoryThrows) {
    const HookLedger ledger;
    const std::vector<std::function<void()>> constructions = {[] { GVMemoryPool(true); }, [] { GVMemoryPool(3, true); },
                                                              [] { GVMemoryPool(3, 16, true); }};
    for (const std::function<void()>& construct : constructions) {
        ThreadsLog::refuseNextHandle() = true;
        EXPECT_EQ(logOf([&] { EXPECT_THROW(construct(), GVException); }), (Log{"factory made", "factory destroyed"}));
        EXPECT_TRUE(ledger.liveBlocks().empty());
    }
}

TEST_F(PoolLocking, destructionDeletesTheHandleOnceAndDoesNotLock) {
    auto* const pool = new GVMemoryPool(3, 16, true);
    EXPECT_EQ(logOf([&] { delete pool; }), (Log{"delete 1"}));
}

TEST_F(PoolLocking, destructionDeletesTheHandleBeforeAnyBlock) {
    const HookLedger ledger;
    std::size_t releasesBefore = 0;
    std::size_t releasesAtDelete = 0;
    {
        GVMemoryPool pool(3, 16, true);
        releasesBefore = ledger.releaseCount();
        watch([&](const std::string&) { releasesAtDelete = ledger.releaseCount(); });
    }
    EXPECT_EQ(ThreadsLog::count("delete 1"), 1);
    EXPECT_EQ(releasesAtDelete, releasesBefore);
    EXPECT_GT(ledger.releaseCount(), releasesBefore);
}

TEST_F(PoolLocking, destructionDeletesEvenAHandleThatIsNotUsed) {
    {
        GVMemoryPool pool(true);
        GVTestPeer::useMutexHandle(pool) = false;
    }
    EXPECT_EQ(ThreadsLog::count("delete 1"), 1);
}

TEST_F(PoolLocking, makePoolLocksOnce) {
    GVMemoryPool pool(3, 16, true);
    EXPECT_EQ(logOf([&] { pool.makePool(2); }), lockedOnce);
    EXPECT_EQ(logOf([&] { pool.makePool(0); }), lockedOnce);
}

TEST_F(PoolLocking, makePoolDestroysAndBuildsUnderTheLock) {
    const HookLedger ledger;
    GVMemoryPool pool(3, 16, true);
    const std::size_t releasesBefore = ledger.releaseCount();
    const std::size_t allocationsBefore = ledger.allocationCount();
    std::vector<std::size_t> releases;
    std::vector<std::size_t> allocations;
    watch([&](const std::string&) {
        releases.push_back(ledger.releaseCount());
        allocations.push_back(ledger.allocationCount());
    });
    pool.makePool(2);
    ThreadsLog::observer() = nullptr;
    const std::size_t releasesAfter = ledger.releaseCount();
    const std::size_t allocationsAfter = ledger.allocationCount();
    EXPECT_GE(releasesAfter, releasesBefore + 6); // three blocks with their bytes
    EXPECT_EQ(releases, (std::vector<std::size_t>{releasesBefore, releasesAfter}));
    EXPECT_GE(allocationsAfter, allocationsBefore + 4);
    EXPECT_EQ(allocations, (std::vector<std::size_t>{allocationsBefore, allocationsAfter}));
}

TEST_F(PoolLocking, resizePoolLocksOnceWhicheverWayItGoes) {
    GVMemoryPool pool(3, 16, true);
    EXPECT_EQ(logOf([&] { pool.resizePool(8); }), lockedOnce);
    EXPECT_EQ(logOf([&] { pool.resizePool(8); }), lockedOnce);
    EXPECT_EQ(logOf([&] { pool.resizePool(5); }), lockedOnce);
}

TEST_F(PoolLocking, numberOfObjectsInPoolInUseLocksOnce) {
    GVMemoryPool pool(3, true);
    EXPECT_EQ(logOf([&] { pool.numberOfObjectsInPoolInUse(); }), lockedOnce); // without blocks
    pool.resizePool(1);
    EXPECT_EQ(logOf([&] { pool.numberOfObjectsInPoolInUse(); }), lockedOnce);
}

TEST_F(PoolLocking, getMemoryForTokenLocksOnce) {
    GVMemoryPool pool(3, 16, true);
    const unsigned int token = pool.getTokenForFreeMemoryObject();
    EXPECT_EQ(logOf([&] { pool.getMemoryForToken(token); }), lockedOnce);
}

TEST_F(PoolLocking, releaseObjectLocksOnce) {
    GVMemoryPool pool(3, 16, true);
    const unsigned int token = pool.getTokenForFreeMemoryObject();
    EXPECT_EQ(logOf([&] { pool.releaseObject(token); }), lockedOnce);
}

TEST_F(PoolLocking, lendingWithoutGrowthLocksOnce) {
    GVMemoryPool pool(3, 16, true);
    EXPECT_EQ(logOf([&] { pool.getTokenForFreeMemoryObject(); }), lockedOnce);
}

TEST_F(PoolLocking, lendingWithGrowthLocksTwiceAndOnceMoreToGrow) {
    const Log withGrowth = {"lock 1", "unlock 1", "lock 1", "unlock 1", "lock 1", "unlock 1"};
    GVMemoryPool pool(1, true);
    EXPECT_EQ(logOf([&] { pool.getTokenForFreeMemoryObject(); }), withGrowth); // makePool
    EXPECT_EQ(logOf([&] { pool.getTokenForFreeMemoryObject(); }), withGrowth); // resizePool
}

TEST_F(PoolLocking, lendingWhoseGrowthFailsLeavesTheLockFree) {
    HookLedger ledger;
    GVMemoryPool pool(1, true);
    ledger.refuseOnce(0);
    EXPECT_EQ(logOf([&] { EXPECT_THROW(pool.getTokenForFreeMemoryObject(), GVException); }), lockedTwice);
    pool.getTokenForFreeMemoryObject();
    ledger.refuseOnce(0);
    EXPECT_EQ(logOf([&] { EXPECT_THROW(pool.getTokenForFreeMemoryObject(), GVException); }), lockedTwice);
    EXPECT_FALSE(isLocked(pool));
}

TEST_F(PoolLocking, setNumberOfBytesInPoolObjectLocksOnceForEachOfItsSteps) {
    GVMemoryPool pool(3, 16, true);
    EXPECT_EQ(logOf([&] { pool.setNumberOfBytesInPoolObject(8); }), lockedTwice);
}

TEST_F(PoolLocking, setNumberOfBytesInPoolObjectLocksOnceForEachOfItsStepsEvenWithoutBlocks) {
    GVMemoryPool pool(3, true);
    EXPECT_EQ(logOf([&] { pool.setNumberOfBytesInPoolObject(8); }), lockedTwice);
}

TEST_F(PoolLocking, setNumberOfBytesInPoolObjectThatIsRefusedLocksOnce) {
    GVMemoryPool pool(3, 16, true);
    pool.getTokenForFreeMemoryObject();
    EXPECT_EQ(logOf([&] { EXPECT_THROW(pool.setNumberOfBytesInPoolObject(8), GVException); }), lockedOnce);
}

TEST_F(PoolLocking, removeTokenFromAvailableListDoesNotLock) {
    GVMemoryPool pool(3, 16, true);
    const unsigned int token = GVTestPeer::freeTokens(pool).front();
    EXPECT_EQ(logOf([&] { pool.removeTokenFromAvailableList(token); }), Log{});
    EXPECT_EQ(GVTestPeer::freeTokens(pool).size(), 2U);
}

TEST_F(PoolLocking, comparisonDoesNotLock) {
    GVMemoryPool one(3, 16, true);
    const GVMemoryPool other(3, 16, true);
    EXPECT_EQ(logOf([&] { EXPECT_FALSE(one == other); }), Log{});
    EXPECT_EQ(logOf([&] { EXPECT_TRUE(one != other); }), Log{});
    EXPECT_EQ(logOf([&] { EXPECT_TRUE(one == one); }), Log{});
}

TEST_F(PoolLocking, copyingNeitherLocksNorAsksForAHandle) {
    const GVMemoryPool pool(3, 16, true);
    GVMemoryPool* copy = nullptr;
    EXPECT_EQ(logOf([&] { copy = new GVMemoryPool(pool); }), Log{});
    // The copy shares blocks and handle with the original, so it is not destroyed.
    Tokens().swap(GVTestPeer::freeTokens(*copy));
    GVObject::operator delete(copy);
}

TEST_F(PoolLocking, aPoolWithoutAMutexNeverLocks) {
    GVMemoryPool pool(2, 16, false);
    const Log entries = logOf([&] {
        const unsigned int token = pool.getTokenForFreeMemoryObject();
        pool.getTokenForFreeMemoryObject();
        pool.getTokenForFreeMemoryObject(); // grows
        pool.getMemoryForToken(token);
        pool.releaseObject(token);
        pool.numberOfObjectsInPoolInUse();
        pool.resizePool(3);
        pool.makePool(2);
    });
    EXPECT_EQ(entries, Log{});
}

TEST_F(PoolLocking, aPoolWithoutAMutexTouchesNoHandleFromItsBeginningToItsEnd) {
    const Log entries = logOf([] {
        GVMemoryPool pool(false);
        EXPECT_EQ(GVTestPeer::mutexHandle(pool), nullptr);
        pool.setNumberOfBytesInPoolObject(8);
        pool.releaseObject(pool.getTokenForFreeMemoryObject());
        pool.setNumberOfBytesInPoolObject(16);
        EXPECT_EQ(GVTestPeer::mutexHandle(pool), nullptr);
    });
    EXPECT_EQ(entries, (Log{"factory made", "factory destroyed"}));
}

TEST_F(PoolLocking, theFlagDecidesNotTheHandle) {
    GVMemoryPool pool(2, 16, true);
    GVTestPeer::useMutexHandle(pool) = false;
    const Log entries = logOf([&] {
        const unsigned int token = pool.getTokenForFreeMemoryObject();
        pool.getMemoryForToken(token);
        pool.releaseObject(token);
        pool.setNumberOfBytesInPoolObject(8);
    });
    EXPECT_EQ(entries, Log{});
}

TEST_F(PoolLocking, eachPoolHasALockOfItsOwn) {
    GVMemoryPool one(2, 16, true);
    GVMemoryPool other(2, 16, true);
    EXPECT_EQ(logOf([&] { other.getTokenForFreeMemoryObject(); }), (Log{"lock 2", "unlock 2"}));
    EXPECT_EQ(logOf([&] { one.getTokenForFreeMemoryObject(); }), lockedOnce);
}

TEST_F(PoolLocking, theLockIsReleasedWhenAnOperationThrows) {
    GILVANE_TEST_OF_MISUSE();
    HookLedger ledger;
    GVTestPeer::nextToken() = 0;
    GVMemoryPool pool(4, 16, true);
    const std::vector<std::function<void()>> operations = {
        [&] { pool.resizePool(5); },   // no memory for an object
        [&] { pool.resizePool(3); },   // no memory for the list of tokens
        [&] { pool.releaseObject(9); } // no memory for the free list
    };
    for (const std::function<void()>& operation : operations) {
        ledger.refuseOnce(0);
        EXPECT_EQ(logOf([&] { EXPECT_ANY_THROW(operation()); }), lockedOnce);
        EXPECT_FALSE(isLocked(pool));
    }
    pool.resizePool(5);
    ledger.refuseOnce(0); // no memory for the table that an unknown token grows
    EXPECT_EQ(logOf([&] { EXPECT_THROW(pool.getMemoryForToken(99), GVException); }), lockedOnce);
    EXPECT_FALSE(isLocked(pool));
    ledger.refuseOnce(0);
    EXPECT_EQ(logOf([&] { EXPECT_THROW(pool.makePool(2), GVException); }), lockedOnce);
    EXPECT_FALSE(isLocked(pool));
}

// What the pool looks like at the moments of locking and unlocking.
struct Picture {
    Tokens freeTokens;
    unsigned int blocks;

    bool operator==(const Picture& other) const { return freeTokens == other.freeTokens && blocks == other.blocks; }
};

std::ostream& operator<<(std::ostream& stream, const Picture& picture) {
    return stream << picture.blocks << " blocks, free: " << ::testing::PrintToString(picture.freeTokens);
}

std::vector<Picture> picturesDuring(GVMemoryPool& pool, const std::function<void()>& operation) {
    std::vector<Picture> pictures;
    watch([&](const std::string&) {
        pictures.push_back({GVTestPeer::freeTokens(pool), GVTestPeer::table(pool).getUsedCount()});
    });
    operation();
    ThreadsLog::observer() = nullptr;
    return pictures;
}

TEST_F(PoolLocking, theLockCoversTheWholeOfEachOperation) {
    GVTestPeer::nextToken() = 0;
    GVMemoryPool pool(2, 16, true);
    EXPECT_EQ(picturesDuring(pool, [&] { pool.resizePool(4); }),
              (std::vector<Picture>{{{0, 1}, 2}, {{0, 1, 2, 3}, 4}}));
    EXPECT_EQ(picturesDuring(pool, [&] { pool.resizePool(3); }),
              (std::vector<Picture>{{{0, 1, 2, 3}, 4}, {{0, 1, 2}, 3}}));
    EXPECT_EQ(picturesDuring(pool, [&] { pool.getTokenForFreeMemoryObject(); }),
              (std::vector<Picture>{{{0, 1, 2}, 3}, {{0, 1}, 3}}));
    EXPECT_EQ(picturesDuring(pool, [&] { pool.releaseObject(2); }),
              (std::vector<Picture>{{{0, 1}, 3}, {{0, 1, 2}, 3}}));
    EXPECT_EQ(picturesDuring(pool, [&] { pool.makePool(1); }),
              (std::vector<Picture>{{{0, 1, 2}, 3}, {{0, 1, 2, 4}, 1}}));
}

TEST_F(PoolLocking, lendingPopsUnderTheSecondLockAfterGrowth) {
    GVTestPeer::nextToken() = 0;
    GVMemoryPool pool(2, true);
    EXPECT_EQ(picturesDuring(pool, [&] { pool.getTokenForFreeMemoryObject(); }),
              (std::vector<Picture>{{{}, 0}, {{}, 0}, {{}, 0}, {{0, 1}, 2}, {{0, 1}, 2}, {{0}, 2}}));
}

} // namespace

} // namespace Gilvane
