#include "hookledger.h"
#include "throwsites.h"

#include <gilvane/base/gvallocationbudget.h>
#include <gilvane/base/gvrawblock.h>
#include <gilvane/base/gvstdallocator.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <new>
#include <vector>

namespace Gilvane {

namespace {

using Budget = GVAllocationBudget;

constexpr unsigned int header = detail::rawBlockHeaderBytes;
constexpr std::size_t front = std::max(2 * sizeof(void*), alignof(std::max_align_t));

// A raw block of which the hooks see this many bytes.
void* blockOf(unsigned int numberOfBytes) { return detail::allocateRawBlock(numberOfBytes - header); }

// What lies around a block, for hooks that stand under a budget.
void* allocateNothing(unsigned int) { return nullptr; }
void releaseNothing(void*) {}

} // namespace

TEST(AllocationBudget, grantsTheLastByteAndRefusesTheNext) {
    const Budget budget(100);
    void* const first = blockOf(60);
    void* const second = blockOf(40);
    EXPECT_NE(first, nullptr);
    EXPECT_NE(second, nullptr);
    EXPECT_EQ(blockOf(header), nullptr);
    detail::releaseRawBlock(second);
    EXPECT_EQ(blockOf(41), nullptr);
    void* const third = blockOf(40);
    EXPECT_NE(third, nullptr);
    detail::releaseRawBlock(third);
    detail::releaseRawBlock(first);
}

TEST(AllocationBudget, countsWhatIsLiveAndTheMostThatWas) {
    const Budget budget(1000);
    EXPECT_EQ(Budget::GetMostBytes(), 1000U);
    EXPECT_EQ(Budget::GetHighestBytes(), 0U);
    void* const first = blockOf(100);
    void* const second = blockOf(30);
    EXPECT_EQ(Budget::GetLiveCount(), 2U);
    EXPECT_EQ(Budget::GetLiveBytes(), 130U);
    detail::releaseRawBlock(first);
    EXPECT_EQ(Budget::GetLiveCount(), 1U);
    EXPECT_EQ(Budget::GetLiveBytes(), 30U);
    EXPECT_EQ(Budget::GetHighestBytes(), 130U);
    detail::releaseRawBlock(second);
    EXPECT_EQ(Budget::GetLiveCount(), 0U);
    EXPECT_EQ(Budget::GetLiveBytes(), 0U);
    EXPECT_EQ(Budget::GetHighestBytes(), 130U);
}

TEST(AllocationBudget, countsWhatItGrantedAndWhatItRefused) {
    const Budget budget(100);
    detail::releaseRawBlock(blockOf(50));
    detail::releaseRawBlock(blockOf(60));
    EXPECT_EQ(blockOf(101), nullptr);
    EXPECT_EQ(blockOf(200), nullptr);
    EXPECT_EQ(Budget::GetGrantedCount(), 2U);
    EXPECT_EQ(Budget::GetGrantedBytes(), 110U);
    EXPECT_EQ(Budget::GetRefusedCount(), 2U);
    EXPECT_EQ(Budget::GetRefusedBytes(), 301U);
}

TEST(AllocationBudget, countsWhatTheHooksBelowRefuse) {
    HookLedger ledger;
    const Budget budget(1000);
    ledger.refuseOnce(0);
    EXPECT_EQ(blockOf(100), nullptr);
    EXPECT_EQ(Budget::GetRefusedCount(), 1U);
    EXPECT_EQ(Budget::GetRefusedBytes(), 100U);
    EXPECT_EQ(Budget::GetGrantedCount(), 0U);
    EXPECT_EQ(Budget::GetLiveBytes(), 0U);
    EXPECT_EQ(Budget::GetHighestBytes(), 0U);
}

TEST(AllocationBudget, isExhaustionForTheLibrary) {
    const Budget budget(0);
    EXPECT_THROW(GVStdAllocator<char>().allocate(1), std::bad_alloc);
    EXPECT_THROW(new GVObject, std::bad_alloc);
}

TEST(AllocationBudget, withoutALimitOnlyCounts) {
    const Budget budget;
    EXPECT_EQ(Budget::GetMostBytes(), (std::numeric_limits<std::size_t>::max)());
    void* const block = blockOf(1000000);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(Budget::GetLiveBytes(), 1000000U);
    detail::releaseRawBlock(block);
}

TEST(AllocationBudget, mayGetALimitBelowWhatIsLive) {
    const Budget budget(100);
    void* const first = blockOf(60);
    void* const second = blockOf(40);
    Budget::SetMostBytes(50);
    EXPECT_EQ(Budget::GetMostBytes(), 50U);
    EXPECT_EQ(blockOf(header), nullptr);
    detail::releaseRawBlock(second);
    EXPECT_EQ(blockOf(header), nullptr) << "60 bytes are live";
    detail::releaseRawBlock(first);
    void* const third = blockOf(50);
    EXPECT_NE(third, nullptr);
    detail::releaseRawBlock(third);
}

TEST(AllocationBudget, asksTheHooksBelowForAFrontInAddition) {
    HookLedger ledger;
    const Budget budget;
    void* const block = blockOf(100);
    EXPECT_EQ(ledger.requests(), (std::vector<unsigned int>{100 + static_cast<unsigned int>(front)}));
    EXPECT_EQ(ledger.liveBlocks()[0].start, static_cast<char*>(block) - header - front);
    detail::releaseRawBlock(block);
}

TEST(AllocationBudget, refusesWhatDoesNotFitIn32BitsWithTheFront) {
    constexpr unsigned int most = (std::numeric_limits<unsigned int>::max)();
    HookLedger ledger;
    ledger.refuseFrom(0);
    const Budget budget;
    EXPECT_EQ(GVObject::GetAllocator()(most - static_cast<unsigned int>(front) + 1), nullptr);
    EXPECT_EQ(ledger.requests(), (std::vector<unsigned int>{}));
    EXPECT_EQ(GVObject::GetAllocator()(most - static_cast<unsigned int>(front)), nullptr);
    EXPECT_EQ(ledger.requests(), (std::vector<unsigned int>{most}));
    EXPECT_EQ(Budget::GetRefusedCount(), 2U);
    EXPECT_EQ(Budget::GetRefusedBytes(), 2 * std::uint64_t{most} - 2 * front + 1) << "more than 32 bits hold";
}

TEST(AllocationBudget, alignsBlocksAsTheHooksBelow) {
    const Budget budget;
    for (unsigned int bytes = 0; bytes <= 64; ++bytes) {
        void* const userBytes = detail::allocateRawBlock(bytes);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(userBytes) % alignof(std::max_align_t), 0U) << bytes << " bytes";
        std::memset(userBytes, 7, bytes);
        detail::releaseRawBlock(userBytes);
    }
}

TEST(AllocationBudget, putsTheHooksBackThatWereThere) {
    const GVAllocatorFunction defaultAllocator = GVObject::GetAllocator();
    const GVDeallocatorFunction defaultDeallocator = GVObject::GetDeallocator();
    {
        const HookLedger ledger;
        {
            const Budget budget;
            EXPECT_NE(GVObject::GetAllocator(), &HookLedger::allocate);
            EXPECT_NE(GVObject::GetDeallocator(), &HookLedger::release);
        }
        EXPECT_EQ(GVObject::GetAllocator(), &HookLedger::allocate);
        EXPECT_EQ(GVObject::GetDeallocator(), &HookLedger::release);
    }
    { const Budget budget; }
    EXPECT_EQ(GVObject::GetAllocator(), defaultAllocator);
    EXPECT_EQ(GVObject::GetDeallocator(), defaultDeallocator);
}

TEST(AllocationBudget, countsBlocksThatGoBackAfterItsEnd) {
    HookLedger ledger;
    void* block = nullptr;
    {
        const Budget budget;
        block = blockOf(100);
    }
    EXPECT_EQ(Budget::GetLiveBytes(), 100U);
    EXPECT_EQ(Budget::GetLiveCount(), 1U);
    void* const other = blockOf(50);
    EXPECT_EQ(Budget::GetLiveBytes(), 100U) << "made without a budget";
    detail::releaseRawBlock(block);
    EXPECT_EQ(ledger.releaseCount(), 1U);
    EXPECT_EQ(Budget::GetLiveBytes(), 0U);
    EXPECT_EQ(Budget::GetLiveCount(), 0U);
    EXPECT_EQ(Budget::GetHighestBytes(), 100U);
    detail::releaseRawBlock(other);
    EXPECT_EQ(Budget::GetLiveBytes(), 0U);
}

TEST(AllocationBudget, theNextOneBeginsWithWhatIsLive) {
    void* block = nullptr;
    {
        const Budget budget(100);
        detail::releaseRawBlock(blockOf(90));
        block = blockOf(60);
        EXPECT_EQ(blockOf(50), nullptr);
    }
    const Budget next(100);
    EXPECT_EQ(Budget::GetLiveBytes(), 60U);
    EXPECT_EQ(Budget::GetHighestBytes(), 60U);
    EXPECT_EQ(Budget::GetGrantedCount(), 0U);
    EXPECT_EQ(Budget::GetGrantedBytes(), 0U);
    EXPECT_EQ(Budget::GetRefusedCount(), 0U);
    EXPECT_EQ(Budget::GetRefusedBytes(), 0U);
    EXPECT_EQ(blockOf(41), nullptr);
    detail::releaseRawBlock(block);
}

TEST(AllocationBudget, givesABlockBackToTheHooksThatItStoodOn) {
    void* block = nullptr;
    {
        const Budget budget;
        block = blockOf(100); // from the default hooks
    }
    const HookLedger ledger;
    const Budget next;
    detail::releaseRawBlock(block);
    EXPECT_EQ(ledger.releaseCount(), 0U);
    EXPECT_EQ(Budget::GetLiveBytes(), 0U);
}

TEST(AllocationBudget, isOneAtATime) {
    const Budget budget(1000);
    const auto makeAnother = [] { const Budget another; };
    expectGVException(makeAnother, gvinvalidstate, "libsrc/base/gvallocationbudget", "There is a budget in place.");
    EXPECT_EQ(Budget::GetMostBytes(), 1000U);
    Budget::SetMostBytes(0);
    EXPECT_THROW(makeAnother(), std::bad_alloc);
    Budget::SetMostBytes(1000);
    detail::releaseRawBlock(blockOf(900));
    EXPECT_EQ(blockOf(1001), nullptr);
}

TEST(AllocationBudget, mayStandOnHooksThatRefuseEverything) {
    GVObject::SetAllocationHooks(&allocateNothing, &releaseNothing);
    {
        const Budget budget;
        EXPECT_EQ(blockOf(header), nullptr);
        EXPECT_EQ(Budget::GetRefusedCount(), 1U);
    }
    GVObject::SetAllocationHooks(nullptr, nullptr);
}

TEST(AllocationBudget, liesOnTheHeapInABlockOfTheHooksBelow) {
    const HookLedger ledger;
    auto* const budget = new Budget;
    EXPECT_EQ(ledger.liveBlocks().size(), 1U);
    EXPECT_EQ(Budget::GetLiveCount(), 0U);
    delete budget;
    EXPECT_EQ(ledger.releaseCount(), 1U);
    EXPECT_EQ(Budget::GetLiveCount(), 0U);
}

} // namespace Gilvane
