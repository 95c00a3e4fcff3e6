// What a pool's destructor gives back, in which order and through which hooks.
#include "countinghooks.h"
#include "gvtestpeer.h"
#include "hookledger.h"
#include "misuse.h"

#include <gilvane/base/gvrawblock.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <vector>

namespace Gilvane {

namespace {

// The start of the live raw block that holds this address.
void* rawBlockHolding(const HookLedger& ledger, const void* address) {
    const std::less<const void*> before;
    for (const HookLedger::Block& block : ledger.liveBlocks()) {
        const char* const start = static_cast<const char*>(block.start);
        if (!before(address, start) && before(address, start + block.bytes)) {
            return block.start;
        }
    }
    return nullptr;
}

TEST(PoolTeardown, releasesTheHandleThenTheBlocksThenTheFreeListThenTheTable) {
    const HookLedger ledger;
    std::vector<void*> expected;
    {
        GVTestPeer::nextToken() = 0;
        GVMemoryPool pool(6, 16, true);
        expected.push_back(rawBlockHolding(ledger, GVTestPeer::mutexHandle(pool)));
        // Block by block in the table's order, each with its bytes before itself.
        for (const GVMemoryPoolObject* const block : GVTestPeer::table(pool)) {
            expected.push_back(rawBlockHolding(ledger, block->getBytes()));
            expected.push_back(rawBlockHolding(ledger, block));
        }
        expected.push_back(rawBlockHolding(ledger, GVTestPeer::freeTokens(pool).data()));
        expected.push_back(rawBlockHolding(ledger, GVTestPeer::slots(GVTestPeer::table(pool))));
        ASSERT_EQ(std::count(expected.begin(), expected.end(), nullptr), 0);
        ASSERT_EQ(expected.size(), 1U + 12U + 2U);
    }
    const std::vector<void*> releases = ledger.releases();
    ASSERT_GE(releases.size(), expected.size());
    EXPECT_EQ(std::vector<void*>(releases.end() - static_cast<std::ptrdiff_t>(expected.size()), releases.end()),
              expected);
}

TEST(PoolTeardown, walksTheBlocksInTheOrderOfTheirSlots) {
    const HookLedger ledger;
    std::vector<void*> expected;
    {
        //  slot   0   1   2   3   4   5   6   7
        //  token  8   9   .   .   .   .   6   7
        GVTestPeer::nextToken() = 6;
        GVMemoryPool pool(4, 0, false);
        TokenTable& table = GVTestPeer::table(pool);
        for (const unsigned int token : {8U, 9U, 6U, 7U}) {
            expected.push_back(rawBlockHolding(ledger, table.get(token)->theValue));
        }
        expected.push_back(rawBlockHolding(ledger, GVTestPeer::freeTokens(pool).data()));
    }
    const std::vector<void*> releases = ledger.releases();
    ASSERT_GE(releases.size(), expected.size());
    EXPECT_EQ(std::vector<void*>(releases.end() - 5, releases.end()), expected);
}

TEST(PoolTeardown, releasesBlocksThatAreLent) {
    const HookLedger ledger;
    {
        GVMemoryPool pool(4, 16, true);
        pool.getTokenForFreeMemoryObject();
        pool.getTokenForFreeMemoryObject();
    }
    EXPECT_TRUE(ledger.liveBlocks().empty());
    EXPECT_EQ(ledger.releaseCount(), ledger.allocationCount());
}

TEST(PoolTeardown, releasesEachBlockOnceWhateverTheFreeListHolds) {
    GILVANE_TEST_OF_MISUSE();
    const HookLedger ledger;
    {
        GVMemoryPool pool(2, 16, false);
        pool.releaseObject(pool.getTokenForFreeMemoryObject());
        pool.releaseObject(GVTestPeer::freeTokens(pool).back());
        pool.releaseObject(4000);
    }
    EXPECT_TRUE(ledger.liveBlocks().empty()); // a second release would have been reported
}

TEST(PoolTeardown, passesOverDeletedSlots) {
    const HookLedger ledger;
    {
        GVMemoryPool pool(6, 16, false);
        pool.resizePool(2);
    }
    EXPECT_TRUE(ledger.liveBlocks().empty());
}

TEST(PoolTeardown, deletesAHandleThatThePoolDoesNotUse) {
    const HookLedger ledger;
    {
        GVMemoryPool pool(true);
        EXPECT_EQ(ledger.liveBlocks().size(), 1U);
        GVTestPeer::useMutexHandle(pool) = false;
    }
    EXPECT_TRUE(ledger.liveBlocks().empty());
}

TEST(PoolTeardown, ofAPoolThatShouldLockButHasNoHandleDeletesNone) {
    const HookLedger ledger;
    {
        GVMemoryPool pool(2, 16, false);
        GVTestPeer::useMutexHandle(pool) = true;
    }
    EXPECT_TRUE(ledger.liveBlocks().empty());
}

TEST(PoolTeardown, ofAHeapPoolGivesBackThePoolLast) {
    const HookLedger ledger;
    auto* const pool = new GVMemoryPool(2, 16, false);
    void* const start = rawBlockHolding(ledger, pool);
    delete static_cast<GVObject*>(pool);
    EXPECT_TRUE(ledger.liveBlocks().empty());
    EXPECT_EQ(ledger.releases().back(), start);
}

TEST(PoolTeardown, releasesEverythingThroughTheHooksItCameFrom) {
    countedAllocations = 0;
    countedReleases = 0;
    {
        GVObject::SetAllocationHooks(&countingAllocate, &countingRelease);
        GVMemoryPool pool(6, 16, true);
        const int before = countedAllocations;
        const HookLedger ledger;
        pool.resizePool(9);
        EXPECT_EQ(countedAllocations, before);
        EXPECT_EQ(ledger.liveBlocks().size(), 3U * 2U + 1U); // three blocks and the free list
        EXPECT_EQ(countedReleases, 4);                       // the free lists for 1, 2, 4 and 8 tokens
        pool.resizePool(6);
        EXPECT_EQ(ledger.liveBlocks().size(), 1U);
        GVTestPeer::freeTokens(pool).clear();
        GVTestPeer::freeTokens(pool).shrink_to_fit();
    }
    EXPECT_EQ(countedReleases, countedAllocations);
}

} // namespace

} // namespace Gilvane
