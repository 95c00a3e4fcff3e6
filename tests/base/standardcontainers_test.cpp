#include "hookledger.h"

#include <gilvane/base/gvrawblock.h>
#include <gilvane/base/gvstdallocator.h>

#include <gtest/gtest.h>

#include <sys/mman.h>

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <list>
#include <new>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace Gilvane {

namespace {

using NumberVector = std::vector<unsigned int, GVStdAllocator<unsigned int>>;
using NumberList = std::list<unsigned int, GVStdAllocator<unsigned int>>;
using Text = std::basic_string<char, std::char_traits<char>, GVStdAllocator<char>>;

// Far longer than what a string keeps within itself.
constexpr const char* longWords = "a text that is certainly longer than any string's own small buffer is";

unsigned int requestFor(std::size_t numberOfNumbers) {
    return static_cast<unsigned int>(numberOfNumbers * sizeof(unsigned int)) + detail::rawBlockHeaderBytes;
}

} // namespace

TEST(StandardVector, firstReservesOneElementAndThenDoubles) {
    const HookLedger ledger;
    NumberVector numbers;
    for (unsigned int number = 0; number < 17; ++number) {
        numbers.push_back(number);
    }
    EXPECT_EQ(ledger.requests(), (std::vector<unsigned int>{requestFor(1), requestFor(2), requestFor(4), requestFor(8),
                                                            requestFor(16), requestFor(32)}));
    EXPECT_EQ(ledger.releaseCount(), 5U);
    EXPECT_EQ(ledger.liveBytes(), requestFor(32));
}

TEST(StandardVector, takesNoMemoryWhileEmpty) {
    const HookLedger ledger;
    const NumberVector numbers;
    EXPECT_TRUE(numbers.empty());
    EXPECT_EQ(ledger.allocationCount(), 0U);
}

TEST(StandardVector, keepsItsContentsWhenItCannotGrow) {
    HookLedger ledger;
    NumberVector numbers{7, 8};
    const std::size_t releases = ledger.releaseCount();
    ledger.refuseFrom(0);

    EXPECT_THROW(numbers.push_back(9), std::bad_alloc);
    EXPECT_THROW(numbers.reserve(100), std::bad_alloc);

    EXPECT_EQ(ledger.refusedCount(), 2U);
    const std::vector<unsigned int> kept(numbers.begin(), numbers.end());
    EXPECT_EQ(kept, (std::vector<unsigned int>{7, 8}));
    EXPECT_EQ(ledger.releaseCount(), releases);
}

TEST(StandardVector, growsAgainOnceMemoryIsBack) {
    HookLedger ledger;
    NumberVector numbers{7, 8};
    ledger.refuseOnce(0);
    EXPECT_THROW(numbers.push_back(9), std::bad_alloc);
    numbers.push_back(9);
    EXPECT_EQ(numbers, (NumberVector{7, 8, 9}));
}

TEST(StandardVector, releasesItsMemoryAtItsEnd) {
    const HookLedger ledger;
    {
        const NumberVector numbers{7, 8, 9};
        EXPECT_EQ(ledger.liveBlocks().size(), 1U);
    }
    EXPECT_TRUE(ledger.liveBlocks().empty());
}

TEST(StandardVector, handsItsBlockOverWhenMovedOrSwapped) {
    const HookLedger ledger;
    NumberVector source{7, 8, 9};
    const unsigned int* const elements = source.data();
    const std::size_t allocations = ledger.allocationCount();

    NumberVector target;
    target = std::move(source);
    EXPECT_EQ(target.data(), elements);
    NumberVector other;
    other.swap(target);
    EXPECT_EQ(other.data(), elements);

    EXPECT_EQ(ledger.allocationCount(), allocations);
}

TEST(StandardVector, isNeverLongerThanTheAllocatorAllows) {
    const HookLedger ledger;
    NumberVector numbers{7};
    const std::size_t allocations = ledger.allocationCount();
    const std::size_t bytesInAnyArray = std::numeric_limits<std::ptrdiff_t>::max();
    EXPECT_EQ(numbers.max_size(), std::min<std::size_t>(1073741823, bytesInAnyArray / sizeof(unsigned int)));
    EXPECT_THROW(numbers.reserve(numbers.max_size() + 1), std::length_error);
    EXPECT_EQ(ledger.allocationCount(), allocations);
}

#if SIZE_MAX > UINT_MAX

namespace {

// A quarter of what 32 bits can count; its bytes are never touched, so that they need addresses but no memory.
struct Vast {
    // NOLINTNEXTLINE(modernize-use-equals-default): a defaulted constructor would write all the bytes
    Vast() {}
    // NOLINTNEXTLINE(modernize-use-equals-default): likewise
    Vast(const Vast&) {}
    Vast& operator=(const Vast&) = delete;
    ~Vast() = default;

    unsigned char bytes[std::size_t{1} << 30];
};

std::vector<unsigned int>& vastRequests() {
    static std::vector<unsigned int> theRequests;
    return theRequests;
}

constexpr std::size_t reservedBytes = std::size_t{1} << 32;

void* reserveAddresses(unsigned int numberOfBytes) {
    vastRequests().push_back(numberOfBytes);
    void* const addresses =
        mmap(nullptr, reservedBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    return addresses == MAP_FAILED ? nullptr : addresses;
}

void giveAddressesBack(void* block) { EXPECT_EQ(munmap(block, reservedBytes), 0); }

} // namespace

TEST(StandardVector, growthStopsAtTheLargestCountInsteadOfDoubling) {
    vastRequests().clear();
    GVObject::SetAllocationHooks(&reserveAddresses, &giveAddressesBack);
    {
        std::vector<Vast, GVStdAllocator<Vast>> vasts;
        vasts.emplace_back();
        vasts.emplace_back();
        vasts.emplace_back();
        EXPECT_EQ(vasts.capacity(), 3U);
        EXPECT_THROW(vasts.emplace_back(), std::length_error);
    }
    GVObject::SetAllocationHooks(nullptr, nullptr);
    constexpr unsigned int vastBytes = 1U << 30;
#if defined(_LIBCPP_VERSION) // goes on to the largest count as soon as twice the count would be more than that
    const std::vector<unsigned int> counts{1, 3};
#else
    const std::vector<unsigned int> counts{1, 2, 3};
#endif
    std::vector<unsigned int> expected;
    for (const unsigned int count : counts) {
        expected.push_back(count * vastBytes + detail::rawBlockHeaderBytes);
    }
    EXPECT_EQ(vastRequests(), expected);
}

#endif

TEST(StandardList, takesOneBlockForEachNode) {
    const HookLedger ledger;
    NumberList numbers;
    numbers.push_back(3);
    numbers.push_back(1);
    numbers.push_back(2);
    EXPECT_EQ(ledger.allocationCount(), 3U);
    EXPECT_EQ(ledger.liveBlocks().size(), 3U);
    for (const HookLedger::Block& block : ledger.liveBlocks()) {
        // A node holds the number and the way to both its neighbours.
        EXPECT_GE(block.bytes, sizeof(unsigned int) + 2 * sizeof(void*) + detail::rawBlockHeaderBytes);
    }
}

TEST(StandardList, releasesItsNodesAtItsEnd) {
    const HookLedger ledger;
    {
        NumberList numbers{3, 1, 2};
        numbers.pop_front();
        EXPECT_EQ(ledger.releaseCount(), 1U);
    }
    EXPECT_EQ(ledger.releaseCount(), 3U);
}

TEST(StandardList, sortsWithoutFurtherMemory) {
    HookLedger ledger;
    NumberList numbers{3, 1, 2};
    ledger.refuseFrom(0);
    numbers.sort();
    const std::vector<unsigned int> sorted(numbers.begin(), numbers.end());
    EXPECT_EQ(sorted, (std::vector<unsigned int>{1, 2, 3}));
    EXPECT_EQ(ledger.refusedCount(), 0U);
}

TEST(StandardList, keepsItsContentsWhenItCannotGrow) {
    HookLedger ledger;
    NumberList numbers{3, 1, 2};
    ledger.refuseOnce(0);
    EXPECT_THROW(numbers.push_back(9), std::bad_alloc);
    const std::vector<unsigned int> kept(numbers.begin(), numbers.end());
    EXPECT_EQ(kept, (std::vector<unsigned int>{3, 1, 2}));
    EXPECT_EQ(ledger.refusedCount(), 1U);
    EXPECT_EQ(ledger.releaseCount(), 0U);
}

TEST(StandardString, takesItsMemoryFromTheHooks) {
    const HookLedger ledger;
    {
        const Text text(longWords);
        EXPECT_EQ(text, longWords);
        ASSERT_EQ(ledger.allocationCount(), 1U);
        EXPECT_GE(ledger.requests().at(0), text.size() + 1 + detail::rawBlockHeaderBytes);
        EXPECT_EQ(static_cast<const void*>(text.data()),
                  static_cast<char*>(ledger.liveBlocks().at(0).start) + detail::rawBlockHeaderBytes);
    }
    EXPECT_EQ(ledger.releaseCount(), 1U);
}

TEST(StandardString, keepsAShortTextWithinItself) {
    const HookLedger ledger;
    const Text text("short");
    EXPECT_EQ(text, "short");
    EXPECT_EQ(ledger.allocationCount(), 0U);
}

TEST(StandardString, keepsItsTextWhenItCannotGrow) {
    HookLedger ledger;
    Text text("short");
    ledger.refuseOnce(0);
    EXPECT_THROW(text.append(longWords), std::bad_alloc);
    EXPECT_EQ(text, "short");
    EXPECT_EQ(ledger.refusedCount(), 1U);
}

TEST(StandardString, copiesIntoABlockOfItsOwn) {
    const HookLedger ledger;
    Text original(longWords);
    const Text copy(original);
    original[0] = 'A';
    EXPECT_EQ(copy, longWords);
    EXPECT_EQ(ledger.liveBlocks().size(), 2U);
}

} // namespace Gilvane
