#include <gilvane/utilities/gvmemorypool.h>

#include <gilvane/base/gvrawblock.h>

#include "../sharedobject.h"
#include "gvtestpeer.h"
#include "hookledger.h"
#include "recordingthreads.h"
#include "throwsites.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

namespace Gilvane {

namespace {

using PoolPointer = GVSmartPointer<GVMemoryPool>;
using Peer = GVTestPeer;
using SharedPoolLocking = TestOfLocks;

} // namespace

// Factories

TEST_F(SharedPoolLocking, factoriesMakeThePoolsHandleAndThenThePointersOwn) {
    const PoolPointer pool = GVMemoryPool::init(true);
    EXPECT_EQ(ThreadsLog::entries(), (Log{"factory made", "factory creates 1 (3, false)", "factory destroyed",
                                          "function creates 2 (3, false)"}));
}

TEST_F(SharedPoolLocking, factoriesMakeThePointersHandleForAPoolWithoutOne) {
    const PoolPointer pool = GVMemoryPool::initWithNumberOfObjects(2, false);
    EXPECT_EQ(ThreadsLog::entries(), (Log{"factory made", "factory destroyed", "function creates 1 (3, false)"}));
}

TEST_F(SharedPoolLocking, factoriesBuildTheBlocksBeforeThePointer) {
    const PoolPointer pool = GVMemoryPool::initWithNumberOfObjectsAndSize(2, 16, true);
    EXPECT_EQ(ThreadsLog::entries(), (Log{"factory made", "factory creates 1 (3, false)", "factory destroyed", "lock 1",
                                          "unlock 1", "function creates 2 (3, false)"}));
}

TEST_F(SharedPoolLocking, aPoolAtItsEndIsDeletedUnderThePointersHandle) {
    { const PoolPointer pool = GVMemoryPool::init(true); }
    EXPECT_EQ(ThreadsLog::entries(),
              (Log{"factory made", "factory creates 1 (3, false)", "factory destroyed", "function creates 2 (3, false)",
                   "lock 2", "delete 1", "unlock 2", "delete 2"}));
}

TEST_F(SharedPoolLocking, factoriesReturnThePoolsMemoryWhenItsConstructorThrows) {
    const std::vector<std::function<PoolPointer()>> factories = {
        [] { return GVMemoryPool::init(true); },
        [] { return GVMemoryPool::initWithNumberOfObjects(2, true); },
        [] { return GVMemoryPool::initWithNumberOfObjectsAndSize(2, 16, true); },
    };
    for (const std::function<PoolPointer()>& factory : factories) {
        HookLedger ledger;
        ThreadsLog::clear();
        ThreadsLog::refuseNextHandle() = true;
        expectGVException(factory, gvoutofmemory, "tests/support/recordingthreads", "No handle.");
        EXPECT_EQ(ledger.requests().front(), detail::rawBlockHeaderBytes + sizeof(GVMemoryPool));
        EXPECT_TRUE(ledger.liveBlocks().empty());
        EXPECT_EQ(ThreadsLog::entries(), (Log{"factory made", "factory destroyed"}));
    }
}

TEST_F(SharedPoolLocking, factoriesDeleteThePoolAndItsHandleWhenThePointersHandleCannotBeHad) {
    HookLedger ledger;
    ThreadsLog::observer() = [](const std::string& entry) {
        if (entry == "unlock 1") { // the blocks are built; the pointer's handle comes next
            ThreadsLog::refuseNextHandle() = true;
        }
    };
    expectGVException([] { GVMemoryPool::initWithNumberOfObjectsAndSize(2, 16, true); }, gvoutofmemory,
                      "tests/support/recordingthreads", "No handle.");
    EXPECT_EQ(ThreadsLog::count("delete 1"), 1);
    const std::vector<HookLedger::Block> lost = ledger.liveBlocks();
    ASSERT_EQ(lost.size(), 2U);
    EXPECT_EQ(lost[0].bytes, detail::rawBlockHeaderBytes + sizeof(unsigned int));
    EXPECT_EQ(lost[1].bytes, detail::rawBlockHeaderBytes + sizeof(bool));
    ledger.reclaimLiveBlocks();
}

// Deep copies

TEST_F(SharedPoolLocking, aDeepCopyTakesNoLockAndMakesOneHandle) {
    PoolPointer source = GVMemoryPool::initWithNumberOfObjectsAndSize(6, 16, true);
    ThreadsLog::entries().clear();
    PoolPointer copy = source.deepCopy();
    EXPECT_EQ(ThreadsLog::entries(), Log{"function creates 3 (3, false)"});
    takeSharedPartsFrom(*copy);
}

TEST_F(SharedPoolLocking, aDeepCopyUsesTheSourcesHandleForItsOperations) {
    PoolPointer source = GVMemoryPool::initWithNumberOfObjectsAndSize(2, 16, true);
    PoolPointer copy = source.deepCopy();
    EXPECT_EQ(Peer::mutexHandle(*copy), Peer::mutexHandle(*source));
    ThreadsLog::entries().clear();
    copy->numberOfObjectsInPoolInUse();
    EXPECT_EQ(ThreadsLog::entries(), (Log{"lock 1", "unlock 1"}));
    takeSharedPartsFrom(*copy);
}

TEST_F(SharedPoolLocking, aFailingDeepCopyDeletesNoHandleAndPassesTheFailureOn) {
    HookLedger ledger;
    {
        PoolPointer source = GVMemoryPool::initWithNumberOfObjectsAndSize(2, 16, true);
        ThreadsLog::entries().clear();
        ThreadsLog::refuseNextHandle() = true;
        expectGVException([&source] { source.deepCopy(); }, gvoutofmemory, "tests/support/recordingthreads",
                          "No handle.");
        EXPECT_TRUE(ThreadsLog::entries().empty());
        EXPECT_EQ(Peer::table(*source).getUsedCount(), 2U);
    }
    // Lost: the copied pool, its free list, and both cells.
    EXPECT_EQ(ledger.liveBlocks().size(), 4U);
    EXPECT_EQ(ledger.liveBytes(), 4 * detail::rawBlockHeaderBytes + sizeof(GVMemoryPool) + 2 * sizeof(unsigned int) +
                                      sizeof(unsigned int) + sizeof(bool));
    ledger.reclaimLiveBlocks();
}

} // namespace Gilvane
