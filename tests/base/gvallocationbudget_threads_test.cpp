#include <gilvane/base/gvallocationbudget.h>
#include <gilvane/base/gvrawblock.h>

#include "threadsupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace Gilvane {

namespace {

constexpr unsigned int numberOfThreads = 4;
constexpr unsigned int rounds = 5000;
constexpr unsigned int bytes = 100;

// Makes a block, uses it, and gives it back, in several threads at once.
// Returns how many requests were refused.
unsigned int useBlocksInSeveralThreads() {
    std::atomic<unsigned int> refused{0};
    runTogether(numberOfThreads, [&refused](unsigned int self) {
        for (unsigned int round = 0; round < rounds; ++round) {
            auto* const block = static_cast<unsigned char*>(detail::allocateRawBlock(bytes));
            if (block == nullptr) {
                ++refused;
                continue;
            }
            std::memset(block, static_cast<int>(self), bytes);
            for (unsigned int byte = 0; byte < bytes; ++byte) {
                ASSERT_EQ(block[byte], self);
            }
            detail::releaseRawBlock(block);
        }
    });
    return refused;
}

} // namespace

TEST(AllocationBudgetThreads, countWhatEachOfThemTakes) {
    constexpr std::size_t request = bytes + detail::rawBlockHeaderBytes;
    const GVAllocationBudget budget(2 * request);
    const unsigned int refused = useBlocksInSeveralThreads();
    EXPECT_EQ(GVAllocationBudget::GetRefusedCount(), refused);
    EXPECT_EQ(GVAllocationBudget::GetRefusedBytes(), std::uint64_t{refused} * request);
    EXPECT_EQ(GVAllocationBudget::GetGrantedCount() + refused, std::uint64_t{numberOfThreads} * rounds);
    EXPECT_EQ(GVAllocationBudget::GetLiveCount(), 0U);
    EXPECT_EQ(GVAllocationBudget::GetLiveBytes(), 0U);
    EXPECT_GE(GVAllocationBudget::GetHighestBytes(), request);
    EXPECT_LE(GVAllocationBudget::GetHighestBytes(), 2 * request);
}

TEST(AllocationBudgetThreads, shareAnArenaWithoutSharingABlock) {
    alignas(std::max_align_t) static unsigned char range[1U << 16];
    const GVAllocationArena arena(range);
    EXPECT_LT(useBlocksInSeveralThreads(), numberOfThreads * rounds) << "blocks were shared out";
    EXPECT_EQ(GVAllocationArena::GetLiveCount(), 0U);
    EXPECT_EQ(GVAllocationArena::GetUsedBytes(), 0U);
}

} // namespace Gilvane
