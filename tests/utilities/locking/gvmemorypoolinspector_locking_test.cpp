// When an inspector holds the pool's lock.
#include <gilvane/utilities/gvmemorypoolinspector.h>

#include "gvtestpeer.h"
#include "hookledger.h"
#include "recordingthreads.h"

#include <gtest/gtest.h>

#include <new>
#include <string>

namespace Gilvane {

namespace {

using PoolInspectorLocking = TestOfLocks;

} // namespace

TEST_F(PoolInspectorLocking, locksOnceForTheSnapshotAndNeverAgain) {
    GVMemoryPool pool(2, 16, true);
    ThreadsLog::entries().clear();
    const GVMemoryPoolInspector inspector(pool);
    EXPECT_EQ(ThreadsLog::entries(), (Log{"lock 1", "unlock 1"}));
    unsigned int visited = 0;
    inspector.visitBlocks([&](const GVInspectedBlock& block) {
        EXPECT_NE(pool.getMemoryForToken(block.theToken), nullptr) << "the pool may be used meanwhile";
        ++visited;
    });
    EXPECT_EQ(visited, 2U);
    EXPECT_EQ(ThreadsLog::count("lock 1"), 3);
}

TEST_F(PoolInspectorLocking, readsNothingBeforeItHoldsTheLock) {
    GVMemoryPool pool(2, 16, true);
    pool.getTokenForFreeMemoryObject();
    // What other threads do while the inspector waits is in the snapshot; what they do after it has let go is not.
    ThreadsLog::observer() = [&](const std::string& entry) {
        GVTestPeer::freeTokens(pool).push_back(entry == "lock 1" ? 1000 : 2000);
        GVTestPeer::bytesInEachObject(pool) = entry == "lock 1" ? 32 : 64;
    };
    const GVMemoryPoolInspector inspector(pool);
    ThreadsLog::observer() = nullptr;
    EXPECT_EQ(inspector.getNumberOfFreeTokens(), 2U);
    EXPECT_EQ(inspector.getTokensUnknown(), (GVMemoryPoolInspector::TokenList{1000}));
    EXPECT_EQ(inspector.getBytesInEachObject(), 32U);
}

TEST_F(PoolInspectorLocking, holdsTheLockForAWholeVisit) {
    const GVMemoryPool pool(2, 16, true);
    ThreadsLog::entries().clear();
    Log whileVisiting;
    GVMemoryPoolInspector::visitBlocks(
        pool, [&](const GVVisitedBlock&) { whileVisiting.push_back(ThreadsLog::entries().back()); });
    EXPECT_EQ(whileVisiting, (Log{"lock 1", "lock 1"}));
    EXPECT_EQ(ThreadsLog::entries(), (Log{"lock 1", "unlock 1"}));
}

TEST_F(PoolInspectorLocking, neverLocksWhereThePoolDoesNot) {
    const GVMemoryPool pool(2, 16, false);
    ThreadsLog::entries().clear();
    const GVMemoryPoolInspector inspector(pool);
    GVMemoryPoolInspector::visitBlocks(pool, [](const GVVisitedBlock&) {});
    EXPECT_EQ(ThreadsLog::entries(), Log{});
}

TEST_F(PoolInspectorLocking, unlocksWhenMemoryRunsOut) {
    const GVMemoryPool pool(2, 16, true);
    for (std::size_t allocations = 0; allocations < 4; ++allocations) {
        ThreadsLog::entries().clear();
        HookLedger ledger;
        ledger.refuseOnce(allocations);
        EXPECT_THROW(const GVMemoryPoolInspector inspector(pool), std::bad_alloc);
        EXPECT_EQ(ThreadsLog::entries(), (Log{"lock 1", "unlock 1"}));
    }
}

} // namespace Gilvane
