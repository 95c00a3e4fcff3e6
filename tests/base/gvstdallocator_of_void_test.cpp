#include <gilvane/base/gvstdallocator.h>

#include "hookledger.h"

#include <gtest/gtest.h>

#include <memory>
#include <type_traits>

namespace Gilvane {

namespace {

static_assert(std::is_same_v<std::allocator_traits<GVStdAllocator<void>>::rebind_alloc<int>, GVStdAllocator<int>>);
static_assert(std::is_convertible_v<GVStdAllocator<int>, GVStdAllocator<void>> &&
              std::is_convertible_v<GVStdAllocator<void>, GVStdAllocator<int>>);

TEST(StdAllocatorOfVoid, allocatesWhatAllocateSharedMakesThroughTheHooks) {
    const HookLedger ledger;
    {
        const auto shared = std::allocate_shared<int>(GVStdAllocator<void>(), 7);
        EXPECT_EQ(*shared, 7);
        EXPECT_EQ(ledger.allocationCount(), 1U);
    }
    EXPECT_EQ(ledger.releaseCount(), 1U);
}

TEST(StdAllocatorOfVoid, isMadeFromAnyOtherAndEqualsIt) {
    const GVStdAllocator<int> other;
    const GVStdAllocator<void> allocator(other);
    EXPECT_TRUE(allocator == other);
    EXPECT_FALSE(allocator != other);
}

} // namespace

} // namespace Gilvane
