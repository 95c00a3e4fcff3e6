// How often a lease locks the pool and the pointer to it.
#include <gilvane/utilities/gvtokenlease.h>

#include "gvtestpeer.h"
#include "hookledger.h"
#include "recordingthreads.h"

#include <gtest/gtest.h>

#include <new>
#include <utility>

namespace Gilvane {

namespace {

using TokenLeaseLocking = TestOfLocks;

} // namespace

TEST_F(TokenLeaseLocking, locksTwiceToBorrowAndOnceToReturnAndNeverInBetween) {
    GVMemoryPool pool(2, 16, true);
    ThreadsLog::entries().clear();
    {
        GVTokenLease lease(pool);
        EXPECT_EQ(ThreadsLog::entries(), (Log{"lock 1", "unlock 1", "lock 1", "unlock 1"}));
        ThreadsLog::entries().clear();
        lease.as<int>() = static_cast<int>(lease.getToken() + lease.getLength());
        GVTokenLease moved(std::move(lease));
        GVTokenLease assigned;
        assigned = std::move(moved);
        EXPECT_NE(assigned.getBytes(), nullptr);
        EXPECT_EQ(ThreadsLog::entries(), Log{});
    }
    EXPECT_EQ(ThreadsLog::entries(), (Log{"lock 1", "unlock 1"}));
}

TEST_F(TokenLeaseLocking, neverLocksWhereThePoolDoesNot) {
    GVMemoryPool pool(2, 16, false);
    ThreadsLog::entries().clear();
    { const GVTokenLease lease(pool); }
    EXPECT_EQ(ThreadsLog::entries(), Log{});
}

TEST_F(TokenLeaseLocking, holdsOneLockAtATimeThePointersAndThePools) {
    const GVSmartPointer<GVMemoryPool> pool = GVMemoryPool::initWithNumberOfObjectsAndSize(2, 16, true);
    ThreadsLog::entries().clear();
    { const GVTokenLease lease(pool); }
    // 1 is the pool's and 2 the pointer's: a share is taken, the block borrowed and returned, the share given up.
    EXPECT_EQ(ThreadsLog::entries(), (Log{"lock 2", "unlock 2", "lock 1", "unlock 1", "lock 1", "unlock 1", "lock 1",
                                          "unlock 1", "lock 2", "unlock 2"}));
}

TEST_F(TokenLeaseLocking, leavesThePoolUnlockedWhenTheRoomForReturnsCannotBeHad) {
    HookLedger ledger;
    GVMemoryPool pool(1, 16, true);
    pool.getTokenForFreeMemoryObject();
    pool.getTokenForFreeMemoryObject();
    pool.resizePool(3);
    ThreadsLog::entries().clear();
    ledger.refuseOnce(0);
    EXPECT_THROW(const GVTokenLease lease(pool), std::bad_alloc);
    EXPECT_EQ(ThreadsLog::entries(), (Log{"lock 1", "unlock 1", "lock 1", "unlock 1", "lock 1", "unlock 1"}));
}

} // namespace Gilvane
