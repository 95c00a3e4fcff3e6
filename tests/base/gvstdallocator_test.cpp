#include "hookledger.h"

#include <gilvane/base/gvrawblock.h>
#include <gilvane/base/gvstdallocator.h>

#include <gtest/gtest.h>

#include <cstddef>
#include <future>
#include <limits>
#include <memory>
#include <new>
#include <type_traits>
#include <vector>

namespace Gilvane {

namespace {

using Numbers = GVStdAllocator<unsigned int>;

constexpr std::size_t most = std::numeric_limits<unsigned int>::max();

struct TwelveBytes {
    unsigned int parts[3];
};

// Its own address operator tells nothing.
struct Evasive {
    int value = 0;
    Evasive* operator&() { return nullptr; }
    const Evasive* operator&() const { return nullptr; }
};

struct CountsItsEnd {
    explicit CountsItsEnd(int& counter) : theCounter(counter) {}
    ~CountsItsEnd() { ++theCounter; }
    int& theCounter;
};

using Anything = GVStdAllocator<void>;

// std::allocate_shared puts the object and its count into one block, and calls the hooks for nothing else.
template <typename Allocator>
void expectSharedObjectInOneRawBlock(const Allocator& allocator) {
    HookLedger ledger;
    {
        const std::shared_ptr<TwelveBytes> object = std::allocate_shared<TwelveBytes>(allocator);
        const std::shared_ptr<TwelveBytes> second(object);
        const std::vector<HookLedger::Block> blocks = ledger.liveBlocks();
        ASSERT_EQ(blocks.size(), 1U);
        const auto* const start = static_cast<const char*>(blocks[0].start);
        const auto* const inside = reinterpret_cast<const char*>(object.get());
        EXPECT_GE(inside, start + detail::rawBlockHeaderBytes);
        EXPECT_LE(inside + sizeof(TwelveBytes), start + blocks[0].bytes);
    }
    EXPECT_EQ(ledger.releaseCount(), 1U);
    ledger.refuseOnce(0);
    EXPECT_THROW(std::allocate_shared<TwelveBytes>(allocator), std::bad_alloc);
}

} // namespace

TEST(StdAllocator, asksForTheObjectsAndAHeaderWord) {
    const HookLedger ledger;
    unsigned int* const storage = Numbers().allocate(10);
    EXPECT_EQ(ledger.requests(), std::vector<unsigned int>{10 * sizeof(unsigned int) + detail::rawBlockHeaderBytes});
    Numbers().deallocate(storage, 10);
}

TEST(StdAllocator, returnsTheAddressPastTheHeaderWordWithTheDeallocatorInIt) {
    const HookLedger ledger;
    unsigned int* const storage = Numbers().allocate(10);
    void* const start = ledger.liveBlocks().at(0).start;
    EXPECT_EQ(static_cast<void*>(storage), static_cast<char*>(start) + detail::rawBlockHeaderBytes);
    EXPECT_EQ(*static_cast<GVDeallocatorFunction*>(start), &HookLedger::release);
    Numbers().deallocate(storage, 10);
}

TEST(StdAllocator, allocatingNoObjectsGivesAHeaderWordAlone) {
    const HookLedger ledger;
    unsigned int* const storage = Numbers().allocate(0);
    ASSERT_NE(storage, nullptr);
    EXPECT_EQ(ledger.requests(), std::vector<unsigned int>{detail::rawBlockHeaderBytes});
    void* const start = ledger.liveBlocks().at(0).start;
    EXPECT_EQ(static_cast<void*>(storage), static_cast<char*>(start) + detail::rawBlockHeaderBytes);

    Numbers().deallocate(storage, 0);

    EXPECT_EQ(ledger.releases(), std::vector<void*>{start});
}

TEST(StdAllocator, releasesABlockWithItsStart) {
    const HookLedger ledger;
    unsigned int* const storage = Numbers().allocate(3);
    void* const start = ledger.liveBlocks().at(0).start;
    Numbers().deallocate(storage, 3);
    EXPECT_EQ(ledger.releases(), std::vector<void*>{start});
}

TEST(StdAllocator, releasesNothingForNull) {
    const HookLedger ledger;
    Numbers().deallocate(nullptr, 0);
    Numbers().deallocate(nullptr, 1);
    Numbers().deallocate(nullptr, most);
    EXPECT_EQ(ledger.releaseCount(), 0U);
}

TEST(StdAllocator, leavesABlockWithANullHeaderWordAlone) {
    HookLedger ledger;
    unsigned int* const storage = Numbers().allocate(3);
    *static_cast<GVDeallocatorFunction*>(ledger.liveBlocks().at(0).start) = nullptr;

    Numbers().deallocate(storage, 3);

    EXPECT_EQ(ledger.releaseCount(), 0U);
    EXPECT_EQ(ledger.liveBlocks().size(), 1U);
    ledger.reclaimLiveBlocks();
}

TEST(StdAllocator, ignoresTheCountOnRelease) {
    const HookLedger ledger;
    unsigned int* const first = Numbers().allocate(3);
    unsigned int* const second = Numbers().allocate(3);
    Numbers().deallocate(first, 0);
    Numbers().deallocate(second, most);
    EXPECT_EQ(ledger.releaseCount(), 2U);
}

TEST(StdAllocator, anyInstanceReleasesWhatAnotherAllocated) {
    const HookLedger ledger;
    unsigned int* storage = nullptr;
    {
        Numbers shortLived;
        storage = shortLived.allocate(3);
    }
    GVStdAllocator<char> another;
    another.deallocate(reinterpret_cast<char*>(storage), 1);
    EXPECT_EQ(ledger.releaseCount(), 1U);
}

TEST(StdAllocator, throwsBadAllocWhenTheAllocationFunctionReturnsNull) {
    HookLedger ledger;
    ledger.refuseOnce(0);
    EXPECT_THROW(Numbers().allocate(3), std::bad_alloc);
    EXPECT_EQ(ledger.refusedCount(), 1U);
    EXPECT_EQ(ledger.releaseCount(), 0U);
}

TEST(StdAllocator, aCountBeyond32BitsIsExhaustion) {
    const HookLedger ledger;
    const std::size_t firstUnfitNumber = (most - detail::rawBlockHeaderBytes) / sizeof(unsigned int) + 1;
    const std::vector<std::size_t> counts{firstUnfitNumber, Numbers().max_size(), Numbers().max_size() + 1,
                                          std::numeric_limits<std::size_t>::max() / sizeof(unsigned int) + 2,
                                          std::numeric_limits<std::size_t>::max()};
    for (const std::size_t count : counts) {
        EXPECT_THROW(Numbers().allocate(count), std::bad_alloc) << count;
    }
    const volatile std::size_t firstUnfitLength = most - detail::rawBlockHeaderBytes + 1;
    EXPECT_THROW(GVStdAllocator<char>().allocate(firstUnfitLength), std::bad_alloc);
    EXPECT_THROW(GVStdAllocator<char>().allocate(most), std::bad_alloc);
    EXPECT_EQ(ledger.allocationCount(), 0U);
}

TEST(StdAllocator, theLargestCountThatFitsIsAskedOfTheHook) {
    HookLedger ledger;
    ledger.refuseFrom(0);
    const volatile std::size_t length = most - detail::rawBlockHeaderBytes;
    EXPECT_THROW(GVStdAllocator<char>().allocate(length), std::bad_alloc);
    EXPECT_EQ(ledger.requests(), std::vector<unsigned int>{static_cast<unsigned int>(most)});
}

TEST(StdAllocator, maxSizeIsTheLargestCountWhoseBytesFitIn32Bits) {
    EXPECT_EQ(Numbers().max_size(), 1073741823U);
    EXPECT_EQ(GVStdAllocator<char>().max_size(), 4294967295U);
    EXPECT_EQ(GVStdAllocator<TwelveBytes>().max_size(), 357913941U);
    EXPECT_EQ(std::allocator_traits<Numbers>::max_size(Numbers()), 1073741823U);
}

TEST(StdAllocator, rebindsToAnotherElementType) {
    EXPECT_TRUE((std::is_same_v<Numbers::rebind<char>::other, GVStdAllocator<char>>));
    EXPECT_TRUE((std::is_same_v<std::allocator_traits<Numbers>::rebind_alloc<double>, GVStdAllocator<double>>));

    const HookLedger ledger;
    GVStdAllocator<TwelveBytes> rebound{Numbers()};
    TwelveBytes* const storage = rebound.allocate(2);
    EXPECT_EQ(ledger.requests(), std::vector<unsigned int>{2 * sizeof(TwelveBytes) + detail::rawBlockHeaderBytes});
    rebound.deallocate(storage, 2);
}

TEST(StdAllocator, copiesAndAssignsWithoutState) {
    const HookLedger ledger;
    const Numbers original;
    Numbers copy(original);
    copy = original;
    const GVStdAllocator<char> rebound(original);
    EXPECT_TRUE(std::is_nothrow_copy_constructible_v<Numbers>);
    EXPECT_TRUE((std::is_nothrow_constructible_v<GVStdAllocator<char>, const Numbers&>));
    EXPECT_EQ(ledger.allocationCount(), 0U);
}

TEST(StdAllocator, allInstancesAreEqual) {
    const Numbers first;
    const Numbers second;
    const GVStdAllocator<char> rebound(first);
    EXPECT_TRUE(first == second);
    EXPECT_FALSE(first != second);
    EXPECT_TRUE(first == rebound);
    EXPECT_FALSE(first != rebound);
    EXPECT_TRUE(std::allocator_traits<Numbers>::is_always_equal::value);
}

TEST(StdAllocator, namesTheTypesOfAStandardAllocator) {
    EXPECT_TRUE((std::is_same_v<Numbers::value_type, unsigned int>));
    EXPECT_TRUE((std::is_same_v<Numbers::pointer, unsigned int*>));
    EXPECT_TRUE((std::is_same_v<Numbers::const_pointer, const unsigned int*>));
    EXPECT_TRUE((std::is_same_v<Numbers::reference, unsigned int&>));
    EXPECT_TRUE((std::is_same_v<Numbers::const_reference, const unsigned int&>));
    EXPECT_TRUE((std::is_same_v<Numbers::size_type, std::size_t>));
    EXPECT_TRUE((std::is_same_v<Numbers::difference_type, std::ptrdiff_t>));
}

TEST(StdAllocator, constructsAndDestroysInGivenStorage) {
    const HookLedger ledger;
    int ended = 0;
    GVStdAllocator<CountsItsEnd> allocator;
    CountsItsEnd* const place = allocator.allocate(1);
    const std::size_t allocations = ledger.allocationCount();

    allocator.construct(place, ended);
    EXPECT_EQ(&place->theCounter, &ended);
    allocator.destroy(place);

    EXPECT_EQ(ended, 1);
    EXPECT_EQ(ledger.allocationCount(), allocations);
    EXPECT_EQ(ledger.releaseCount(), 0U);
    allocator.deallocate(place, 1);
}

TEST(StdAllocator, givesTheAddressOfAnObjectThatHidesIt) {
    Evasive object;
    const Evasive constant;
    EXPECT_EQ(GVStdAllocator<Evasive>().address(object), std::addressof(object));
    EXPECT_EQ(GVStdAllocator<Evasive>().address(constant), std::addressof(constant));
}

TEST(StdAllocator, isItselfMadeAndDeletedThroughTheHooks) {
    const HookLedger ledger;
    GVObject* const allocator = new Numbers;
    EXPECT_EQ(ledger.requests(), std::vector<unsigned int>{sizeof(Numbers) + detail::rawBlockHeaderBytes});
    delete allocator;
    EXPECT_EQ(ledger.releaseCount(), 1U);
}

TEST(StdAllocator, alignsTheStrictestTypeThatItTakes) {
    const HookLedger ledger;
    GVStdAllocator<std::max_align_t> allocator;
    std::max_align_t* const storage = allocator.allocate(1);
    EXPECT_NE(storage, nullptr);
    EXPECT_EQ(ledger.requests(), std::vector<unsigned int>{sizeof(std::max_align_t) + detail::rawBlockHeaderBytes});
    allocator.deallocate(storage, 1);
}

// The allocator of no type in particular

TEST(StdAllocatorOfVoid, convertsToAndFromTheAllocatorOfAnyType) {
    const HookLedger ledger;
    const Anything anything;
    const Numbers numbers(anything);
    Anything back(numbers);
    back = anything;
    EXPECT_TRUE((std::is_nothrow_constructible_v<Numbers, const Anything&>));
    EXPECT_TRUE((std::is_nothrow_constructible_v<Anything, const Numbers&>));
    EXPECT_TRUE((std::is_convertible_v<Anything, Numbers>));
    EXPECT_TRUE((std::is_convertible_v<Numbers, Anything>));
    EXPECT_EQ(ledger.allocationCount(), 0U);
}

TEST(StdAllocatorOfVoid, isEqualToAnyOther) {
    EXPECT_TRUE(Anything() == Anything());
    EXPECT_FALSE(Anything() != Anything());
    EXPECT_TRUE(Anything() == Numbers());
    EXPECT_FALSE(Numbers() != Anything());
    EXPECT_TRUE(Anything::is_always_equal::value);
}

TEST(StdAllocatorOfVoid, rebindsToTheAllocatorOfAType) {
    EXPECT_TRUE((std::is_same_v<Anything::rebind<unsigned int>::other, Numbers>));
    EXPECT_TRUE((std::is_same_v<Numbers::rebind<void>::other, Anything>));
    EXPECT_TRUE((std::is_same_v<std::allocator_traits<Anything>::rebind_alloc<unsigned int>, Numbers>));
    EXPECT_TRUE((std::is_same_v<Anything::value_type, void>));
    EXPECT_TRUE((std::is_same_v<std::allocator_traits<Anything>::pointer, void*>));
    EXPECT_TRUE((std::is_same_v<std::allocator_traits<Anything>::const_pointer, const void*>));
}

TEST(StdAllocatorOfVoid, makesASharedObjectInOneRawBlock) { expectSharedObjectInOneRawBlock(Anything()); }

TEST(StdAllocatorOfVoid, isMadeAndDeletedThroughTheHooks) {
    const HookLedger ledger;
    GVObject* const allocator = new Anything;
    EXPECT_EQ(ledger.requests(), std::vector<unsigned int>{sizeof(Anything) + detail::rawBlockHeaderBytes});
    delete allocator;
    EXPECT_EQ(ledger.releaseCount(), 1U);
}

TEST(StdAllocator, makesASharedObjectInOneRawBlock) { expectSharedObjectInOneRawBlock(GVStdAllocator<int>()); }

TEST(StdAllocator, makesAPromiseInRawBlocks) {
    HookLedger ledger;
    {
        std::promise<int> promise(std::allocator_arg, Anything());
        std::future<int> future = promise.get_future();
        promise.set_value(42);
        EXPECT_EQ(future.get(), 42);
        EXPECT_FALSE(ledger.liveBlocks().empty());
    }
    EXPECT_TRUE(ledger.liveBlocks().empty());
    // Each of its blocks is one of these: without it there is no promise.
    const std::size_t blocks = ledger.allocationCount();
    for (std::size_t granted = 0; granted < blocks; ++granted) {
        ledger.refuseFrom(granted);
        EXPECT_THROW(std::promise<int>(std::allocator_arg, Anything()), std::bad_alloc);
    }
    ledger.refuseNothing();
    EXPECT_EQ(ledger.refusedCount(), blocks);
}

} // namespace Gilvane
