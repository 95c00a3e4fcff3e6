// What can be seen of a pool without memory, and which blocks are seen to have been lent to nobody.
#include <gilvane/base/gvexception.h>
#include <gilvane/utilities/gvmemorypoolinspector.h>
#include <gilvane/utilities/gvtokencache.h>

#include "gvtestpeer.h"
#include "hookledger.h"
#include "poolsupport.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

namespace Gilvane {

namespace {

using Peer = GVTestPeer;
using Inspector = GVMemoryPoolInspector;
using Tokens = Inspector::TokenList;

// A letter for each block of a pool, in the order of slots: free, lent, or never lent.
template <typename Pool>
std::string statesOf(const Pool& pool) {
    std::string states;
    Inspector::visitBlocks(pool, [&](const GVVisitedBlock& block) {
        states += block.isNeverLent ? 'n' : block.isFree ? 'f' : 'l';
    });
    return states;
}

// Builds a block while the table cannot grow.
void buildABlockThatIsNeverLent(GVMemoryPool& pool, HookLedger& ledger) {
    ledger.refuseFrom(2); // all but the block's object and its bytes
    EXPECT_THROW(pool.resizePool(Peer::table(pool).getUsedCount() + 1), std::bad_alloc);
    ledger.refuseNothing();
}

void lendAll(GVMemoryPool& pool) {
    while (!Peer::freeTokens(pool).empty()) {
        pool.getTokenForFreeMemoryObject();
    }
}

} // namespace

TEST(PoolInspectorVisit, showsEveryBlockAsASnapshotDoes) {
    GVMemoryPool pool(0, 24, false);
    buildBlocks(pool, {9, 1, 8, 17});
    EXPECT_EQ(pool.getTokenForFreeMemoryObject(), 17U);
    const Inspector snapshot(pool);
    std::size_t visited = 0;
    Inspector::visitBlocks(pool, [&](const GVVisitedBlock& block) {
        const GVInspectedBlock& expected = snapshot.getBlocks()[visited++];
        EXPECT_EQ(block.theToken, expected.theToken);
        EXPECT_EQ(block.theBytes, expected.theBytes);
        EXPECT_EQ(block.theBytes, pool.getMemoryForToken(block.theToken));
        EXPECT_EQ(block.theLength, 24U);
        EXPECT_EQ(block.isFree, block.theToken != 17);
        EXPECT_EQ(block.theSlot, expected.theSlot);
        EXPECT_EQ(block.theProbeCount, expected.theProbeCount);
        EXPECT_FALSE(block.isNeverLent);
    });
    EXPECT_EQ(visited, 4U);
}

TEST(PoolInspectorVisit, passesOverSlotsWithoutABlock) {
    GVMemoryPool pool(0, 16, false);
    buildBlocks(pool, {0, 1, 2});
    pool.resizePool(2);
    Peer::table(pool).insert(5, nullptr);
    //  slot    0   1   2   3   4   5   6   7
    //  token   0   1   x   .   .   5   .   .     5 has no block
    EXPECT_EQ(statesOf(pool), "ff");
    EXPECT_EQ(statesOf(GVMemoryPool(4, false)), "");
}

TEST(PoolInspectorVisit, findsABlockThatNoSearchReaches) {
    GVMemoryPool pool(0, 16, false);
    buildBlocks(pool, {0, 16, 8});
    pool.resizePool(2);
    //  slot    0   1   2   3   4   5   6   7
    //  token   0   x   .   .   .   .   8   .     the search for 8 ends where 16 was
    std::vector<unsigned int> probeCounts;
    Inspector::visitBlocks(pool, [&](const GVVisitedBlock& block) { probeCounts.push_back(block.theProbeCount); });
    EXPECT_EQ(probeCounts, (std::vector<unsigned int>{1, 0}));
}

TEST(PoolInspectorVisit, showsAnExhaustedPoolAndAsksForNoMemory) {
    GVMemoryPool pool(100, 16, true);
    lendAll(pool);
    HookLedger ledger;
    ledger.refuseFrom(0);
    EXPECT_THROW(Inspector{pool}, std::bad_alloc);
    const std::size_t requests = ledger.allocationCount();
    std::size_t lent = 0;
    Inspector::visitBlocks(pool, [&](const GVVisitedBlock& block) { lent += block.isFree ? 0 : 1; });
    EXPECT_EQ(lent, 100U);
    EXPECT_EQ(ledger.allocationCount(), requests);
}

TEST(PoolInspectorVisit, showsASharedPoolWithBlocksInCachesAsLent) {
    Peer::nextToken() = 0;
    GVSharedPool pool(8, 16);
    GVTokenCache cache(pool, 4);
    EXPECT_EQ(cache.tryBorrow(), 7U);
    HookLedger ledger;
    ledger.refuseFrom(0);
    std::string states;
    states.reserve(100);
    Inspector::visitBlocks(pool, [&](const GVVisitedBlock& block) {
        EXPECT_TRUE(Peer::isHeld(detail::GVSharedPoolAccess::lock(pool)));
        states += block.isFree ? 'f' : 'l';
    });
    EXPECT_EQ(states, "ffffffll") << "6 is in the cache";
    EXPECT_EQ(ledger.allocationCount(), 0U);
    EXPECT_FALSE(Peer::isHeld(detail::GVSharedPoolAccess::lock(pool)));
}

TEST(PoolInspectorVisit, releasesTheLockWhenTheVisitorThrows) {
    GVMemoryPool pool(2, 16, true);
    GVSharedPool shared(2, 16);
    const auto refuse = [](const GVVisitedBlock&) { throw std::runtime_error("enough"); };
    EXPECT_THROW(Inspector::visitBlocks(pool, refuse), std::runtime_error);
    EXPECT_THROW(Inspector::visitBlocks(shared, refuse), std::runtime_error);
    EXPECT_TRUE(Peer::mutexHandle(pool)->tryLock());
    Peer::mutexHandle(pool)->unlock();
    EXPECT_FALSE(Peer::isHeld(detail::GVSharedPoolAccess::lock(shared)));
}

TEST(PoolInspectorVisit, aBlocksRecordStartsOutEmpty) {
    const GVVisitedBlock block;
    EXPECT_EQ(block.theToken, 0U);
    EXPECT_FALSE(block.isFree);
    EXPECT_FALSE(block.isNeverLent);
}

TEST(PoolInspectorNeverLent, namesTheBlocksThatWereBuiltWhileTheTableCouldNotGrow) {
    HookLedger ledger;
    Peer::nextToken() = 0;
    GVMemoryPool pool(5, 16, false);
    lendAll(pool);
    EXPECT_EQ(statesOf(pool), "lllll");
    EXPECT_EQ(Inspector(pool).getTokensNeverLent(), Tokens{});
    buildABlockThatIsNeverLent(pool, ledger);
    EXPECT_EQ(pool.numberOfObjectsInPoolInUse(), 6U);
    EXPECT_EQ(statesOf(pool), "llllln");
    EXPECT_EQ(Inspector(pool).getTokensNeverLent(), Tokens{5});
    buildABlockThatIsNeverLent(pool, ledger);
    EXPECT_EQ(statesOf(pool), "lllllnn");
    EXPECT_EQ(Inspector(pool).getTokensNeverLent(), (Tokens{5, 6}));
}

TEST(PoolInspectorNeverLent, isFoundInALargerTable) {
    HookLedger ledger;
    Peer::nextToken() = 0xFFFFFF01;
    GVMemoryPool pool(85, 16, false);
    const unsigned int lent = pool.getTokenForFreeMemoryObject();
    for (int block = 0; block < 3; ++block) {
        buildABlockThatIsNeverLent(pool, ledger);
    }
    const Inspector inspector(pool);
    EXPECT_EQ(inspector.getTableSize(), 128U);
    EXPECT_EQ(inspector.getNumberOfLentBlocks(), 4U);
    EXPECT_EQ(inspector.getTokensNeverLent(), (Tokens{lent + 1, lent + 2, lent + 3}));
}

TEST(PoolInspectorNeverLent, namesThemInAscendingOrder) {
    HookLedger ledger;
    GVMemoryPool pool(0, 16, false);
    buildBlocks(pool, {0, 1, 2, 3, 4});
    Peer::nextToken() = 15;
    buildABlockThatIsNeverLent(pool, ledger);
    Peer::nextToken() = 22;
    buildABlockThatIsNeverLent(pool, ledger);
    //  slot    0   1   2   3   4   5   6   7
    //  token   0   1   2   3   4   .   22  15
    EXPECT_EQ(statesOf(pool), "fffffnn");
    EXPECT_EQ(Inspector(pool).getTokensNeverLent(), (Tokens{15, 22}));
}

TEST(PoolInspectorNeverLent, isNoBlockOfAFullTableNotEvenThatOfTheHighestToken) {
    GVMemoryPool pool(0, 16, false);
    buildBlocks(pool, {0, 1, 2, 3, 0xFFFFFFFF});
    lendAll(pool);
    EXPECT_EQ(statesOf(pool), "lllll");
    EXPECT_EQ(Inspector(pool).getTokensNeverLent(), Tokens{});
}

TEST(PoolInspectorNeverLent, isFreeOnceItsTokenWasReturned) {
    HookLedger ledger;
    Peer::nextToken() = 0;
    GVMemoryPool pool(5, 16, false);
    lendAll(pool);
    buildABlockThatIsNeverLent(pool, ledger);
    pool.releaseObject(5);
    EXPECT_EQ(statesOf(pool), "lllllf");
    EXPECT_EQ(Inspector(pool).getTokensNeverLent(), Tokens{});
    EXPECT_EQ(pool.getTokenForFreeMemoryObject(), 5U) << "it can be lent now";
    EXPECT_EQ(statesOf(pool), "llllln") << "which nothing tells apart from before";
}

TEST(PoolInspectorNeverLent, looksLentOnceTheTableHasGrown) {
    HookLedger ledger;
    Peer::nextToken() = 0;
    GVMemoryPool pool(5, 16, false);
    lendAll(pool);
    buildABlockThatIsNeverLent(pool, ledger);
    EXPECT_EQ(pool.getTokenForFreeMemoryObject(), 11U); // doubles
    EXPECT_EQ(statesOf(pool), "llllllfffffl");
    EXPECT_EQ(Inspector(pool).getTokensNeverLent(), Tokens{});
}

TEST(PoolInspectorNeverLent, looksLentIfTheFreeListCouldNotGrow) {
    HookLedger ledger;
    Peer::nextToken() = 0;
    GVMemoryPool pool(4, 16, false); // the free list has room for 4
    ledger.refuseFrom(2);
    EXPECT_THROW(pool.resizePool(5), std::bad_alloc);
    ledger.refuseNothing();
    EXPECT_EQ(pool.numberOfObjectsInPoolInUse(), 1U);
    EXPECT_EQ(statesOf(pool), "ffffl");
}

TEST(PoolInspectorNeverLent, looksLentWhereRemovedTokensFillSlots) {
    HookLedger ledger;
    Peer::nextToken() = 0;
    GVMemoryPool pool(5, 16, false);
    pool.resizePool(4);
    lendAll(pool);
    buildABlockThatIsNeverLent(pool, ledger);
    //  slot    0   1   2   3   4   5   6   7
    //  token   0   1   2   3   x   5   .   .     four slots of five that the table takes, and a deleted one
    EXPECT_EQ(statesOf(pool), "lllll");
    EXPECT_EQ(Inspector(pool).getTokensNeverLent(), Tokens{});
}

TEST(PoolInspectorNeverLent, doesNotCountEntriesWithoutABlock) {
    GVMemoryPool pool(0, 16, false);
    buildBlocks(pool, {4, 5, 6, 7});
    lendAll(pool);
    Peer::table(pool).insert_helper(0, nullptr);
    Peer::table(pool).insert_helper(1, nullptr);
    EXPECT_EQ(statesOf(pool), "llll");
    EXPECT_EQ(Inspector(pool).getTokensNeverLent(), Tokens{});
}

TEST(PoolInspectorNeverLent, doesNotCountWhatEmptyAndDeletedSlotsStillHold) {
    GVMemoryPool pool(0, 16, false);
    buildBlocks(pool, {3, 4, 5, 6});
    lendAll(pool);
    auto* const slots = Peer::slots(Peer::table(pool));
    for (const unsigned int slot : {0U, 1U, 2U}) {
        slots[slot].theKey = slot;
        slots[slot].theValue = slots[3].theValue;
        slots[slot].theState = slot == 2 ? gvdeletedentry : gvemptyentry;
    }
    EXPECT_EQ(statesOf(pool), "llll");
}

TEST(PoolInspectorNeverLent, isNoneOfASharedPoolsBlocks) {
    GVSharedPool pool(85, 16); // as many as the table takes without growing
    const std::string states = statesOf(pool);
    EXPECT_EQ(states, std::string(85, 'f'));
    EXPECT_EQ(Inspector(pool).getTokensNeverLent(), Tokens{});
}

} // namespace Gilvane
