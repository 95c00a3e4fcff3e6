#include "hookledger.h"
#include "throwsites.h"

#include <gilvane/base/gvobject.h>
#include <gilvane/base/gvrawblock.h>
#include <gilvane/base/gvstdallocator.h>

#include <gtest/gtest.h>

#include <malloc.h>
#include <sys/resource.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <limits>
#include <new>
#include <string>
#include <thread>
#include <vector>

#ifndef __has_feature
#define __has_feature(feature) 0
#endif
#if defined(__SANITIZE_ADDRESS__) || __has_feature(address_sanitizer)
#define GILVANE_TEST_WITH_ADDRESS_SANITIZER
#endif
#if defined(__SANITIZE_THREAD__) || __has_feature(thread_sanitizer)
#define GILVANE_TEST_WITH_THREAD_SANITIZER
#endif

namespace Gilvane {

namespace {

#ifdef GILVANE_TEST_EMULATED
constexpr bool isEmulated = true;
#else
constexpr bool isEmulated = false;
#endif

bool isAlignedFor(const void* address, std::size_t alignment) {
    return reinterpret_cast<std::uintptr_t>(address) % alignment == 0;
}

struct Strict : GVObject {
    std::max_align_t value;
};

struct Range {
    std::uintptr_t first;
    std::uintptr_t end;
    bool operator==(const Range& other) const { return first == other.first && end == other.end; }
};

std::ostream& operator<<(std::ostream& stream, const Range& range) {
    return stream << std::hex << range.first << "-" << range.end << std::dec;
}

// The part of these bytes that the kernel was advised to take huge pages for.
std::vector<Range> advisedIn(const Range& bytes) {
    std::vector<Range> advised;
    std::ifstream maps("/proc/self/smaps");
    Range range{0, 0};
    for (std::string line; std::getline(maps, line);) {
        unsigned long long first = 0;
        unsigned long long end = 0;
        if (std::sscanf(line.c_str(), "%llx-%llx ", &first, &end) == 2) {
            range = {std::max(static_cast<std::uintptr_t>(first), bytes.first),
                     std::min(static_cast<std::uintptr_t>(end), bytes.end)};
        } else if (range.first < range.end && line.rfind("VmFlags:", 0) == 0 && line.find(" hg") != std::string::npos) {
            advised.push_back(range);
        }
    }
    return advised;
}

constexpr unsigned int mebibyte = 1U << 20;

// An allocation function in whose middle the hooks change.
void* allocateAndRestoreTheDefaults(unsigned int numberOfBytes) {
    GVObject::SetAllocationHooks(nullptr, nullptr);
    return GVObject::GetAllocator()(numberOfBytes);
}

} // namespace

TEST(DefaultHooks, alignEveryBlockForAnyType) {
    for (unsigned int bytes = 0; bytes <= 200; ++bytes) {
        void* const userBytes = detail::allocateRawBlock(bytes);
        EXPECT_TRUE(isAlignedFor(userBytes, alignof(std::max_align_t))) << bytes << " bytes";
        EXPECT_TRUE(isAlignedFor(userBytes, alignof(long double))) << bytes << " bytes";
        detail::releaseRawBlock(userBytes);
    }
}

TEST(DefaultHooks, askForHugePagesThatLieInALargeBlockWholly) {
    if (isEmulated || !std::ifstream("/sys/kernel/mm/transparent_hugepage/enabled")) {
        GTEST_SKIP() << "this kernel has no transparent huge pages, or the emulator does not hand the advice on";
    }
    constexpr unsigned int bytes = 9 * mebibyte;
    void* const block = detail::allocateRawBlock(bytes);
    const std::uintptr_t start = reinterpret_cast<std::uintptr_t>(block);
    constexpr std::uintptr_t hugePage = 2 * mebibyte;
    const Range inside{(start + hugePage - 1) / hugePage * hugePage, (start + bytes) / hugePage * hugePage};
    // Its neighbours may still carry the advice for a block that is gone.
    EXPECT_EQ(advisedIn(inside), std::vector<Range>{inside});
    detail::releaseRawBlock(block);
}

TEST(DefaultHooks, giveWholeUseOfALargeBlock) {
    constexpr unsigned int bytes = 9 * mebibyte;
    char* const block = static_cast<char*>(detail::allocateRawBlock(bytes));
    EXPECT_TRUE(isAlignedFor(block, alignof(std::max_align_t)));
    std::memset(block, 7, bytes);
    EXPECT_EQ(std::count(block, block + bytes, 7), static_cast<std::ptrdiff_t>(bytes));
    detail::releaseRawBlock(block);
}

TEST(DefaultHooks, alignObjectsAndArraysForTheirMembers) {
    Strict* const object = new Strict;
    EXPECT_TRUE(isAlignedFor(object, alignof(Strict)));
    EXPECT_TRUE(isAlignedFor(&object->value, alignof(std::max_align_t)));
    delete object;

    Strict* const array = new Strict[3];
    EXPECT_TRUE(isAlignedFor(array, alignof(Strict)));
    EXPECT_TRUE(isAlignedFor(&array[2].value, alignof(std::max_align_t)));
    delete[] array;
}

TEST(DefaultHooks, alignTheElementsOfStandardContainers) {
    std::vector<std::max_align_t, GVStdAllocator<std::max_align_t>> values(5);
    EXPECT_TRUE(isAlignedFor(values.data(), alignof(std::max_align_t)));
}

TEST(DefaultHooks, giveAsManyWritableBytesAsAsked) {
    std::vector<unsigned char*> blocks;
    for (unsigned int bytes = 1; bytes <= 100; ++bytes) {
        blocks.push_back(static_cast<unsigned char*>(GVObject::GetAllocator()(bytes)));
        ASSERT_NE(blocks.back(), nullptr);
        std::memset(blocks.back(), static_cast<int>(bytes), bytes);
    }
    for (unsigned int bytes = 1; bytes <= 100; ++bytes) {
        const std::vector<unsigned char> expected(bytes, static_cast<unsigned char>(bytes));
        EXPECT_EQ(std::memcmp(blocks[bytes - 1], expected.data(), bytes), 0) << bytes << " bytes";
        GVObject::GetDeallocator()(blocks[bytes - 1]);
    }
}

TEST(DefaultHooks, giveABlockOfNoBytes) {
    void* const block = GVObject::GetAllocator()(0);
    EXPECT_NE(block, nullptr);
    GVObject::GetDeallocator()(block);
}

TEST(DefaultHooks, serveSeveralThreadsAtOnce) {
    constexpr std::size_t threadCount = 4;
    std::vector<int> intact(threadCount, 0);
    std::vector<std::thread> threads;
    for (std::size_t number = 0; number < threadCount; ++number) {
        threads.emplace_back([number, &intact] {
            int good = 0;
            for (unsigned int round = 0; round < 500; ++round) {
                const unsigned int bytes = 1 + round % 64;
                unsigned char* const userBytes = static_cast<unsigned char*>(detail::allocateRawBlock(bytes));
                std::memset(userBytes, static_cast<int>(number), bytes);
                std::this_thread::yield();
                good += userBytes[0] == number && userBytes[bytes - 1] == number ? 1 : 0;
                detail::releaseRawBlock(userBytes);
            }
            intact[number] = good;
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(intact, std::vector<int>(threadCount, 500));
}

#if !defined(GILVANE_TEST_WITH_ADDRESS_SANITIZER) && !defined(GILVANE_TEST_WITH_THREAD_SANITIZER)

namespace {

// What the default allocation function adds in front, so that the byte after the header word is aligned.
constexpr std::size_t padding = alignof(std::max_align_t) - detail::rawBlockHeaderBytes;

constexpr unsigned int largestRequest = std::numeric_limits<unsigned int>::max();

// An emulator does not limit the addresses of a program; those of 32 bits cannot meet the largest request anyhow.
constexpr bool largestRequestIsMet = isEmulated && sizeof(void*) == 8;

// Leaves the process little address space beyond what it has, so that malloc refuses large requests. Where addresses
// have 32 bits, the largest request cannot be met in any case.
class ScarceAddressSpace {
  public:
    ScarceAddressSpace() {
        EXPECT_EQ(getrlimit(RLIMIT_AS, &theUsualLimit), 0);
        rlimit scarce = theUsualLimit;
        scarce.rlim_cur = rlim_t{1} << 30;
        EXPECT_EQ(setrlimit(RLIMIT_AS, &scarce), 0);
    }
    ScarceAddressSpace(const ScarceAddressSpace&) = delete;
    ScarceAddressSpace& operator=(const ScarceAddressSpace&) = delete;
    ~ScarceAddressSpace() { EXPECT_EQ(setrlimit(RLIMIT_AS, &theUsualLimit), 0); }

  private:
    rlimit theUsualLimit{};
};

} // namespace

TEST(DefaultHooks, takeNoMoreFromMallocThanTheyNeed) {
    for (unsigned int bytes = 1; bytes <= 100; ++bytes) {
        void* const block = GVObject::GetAllocator()(bytes);
        void* const asMuch = std::malloc(padding + bytes);
        EXPECT_EQ(malloc_usable_size(static_cast<char*>(block) - padding), malloc_usable_size(asMuch)) << bytes;
        std::free(asMuch);
        GVObject::GetDeallocator()(block);
    }
}

TEST(DefaultHooks, giveMemoryBackToMalloc) {
    const ScarceAddressSpace scarcity;
    for (int round = 0; round < 100; ++round) { // in all, more bytes than there are addresses
        void* const block = GVObject::GetAllocator()(64U << 20);
        ASSERT_NE(block, nullptr) << "round " << round;
        GVObject::GetDeallocator()(block);
    }
}

TEST(DefaultHooks, returnNullWhenMemoryIsExhausted) {
    if (largestRequestIsMet) {
        GTEST_SKIP() << "the emulator does not let memory be exhausted";
    }
    const ScarceAddressSpace scarcity;
    for (unsigned int fewer = 0; fewer <= 2 * padding; ++fewer) { // with padding, some wrap where size_t has 32 bits
        EXPECT_EQ(GVObject::GetAllocator()(largestRequest - fewer), nullptr) << fewer << " bytes fewer";
    }
}

TEST(DefaultHooks, exhaustionReachesEveryKindOfAllocation) {
    if (largestRequestIsMet) {
        GTEST_SKIP() << "the emulator does not let memory be exhausted";
    }
    const ScarceAddressSpace scarcity;
    const volatile std::size_t bytes = largestRequest - detail::rawBlockHeaderBytes;
    EXPECT_EQ(detail::allocateRawBlock(static_cast<unsigned int>(bytes)), nullptr);
    EXPECT_EQ(GVObject::operator new(bytes, std::nothrow), nullptr);
    EXPECT_THROW(GVObject::operator new(bytes), std::bad_alloc);
    EXPECT_THROW(GVStdAllocator<char>().allocate(bytes), std::bad_alloc);
}

#endif

#ifdef GILVANE_TEST_WITH_ADDRESS_SANITIZER

TEST(DefaultHooksDeathTest, aByteWrittenPastABlockIsReported) {
    for (const unsigned int bytes : {1U, 7U, 8U, 13U, 16U, 100U}) {
        volatile char* const userBytes = static_cast<volatile char*>(detail::allocateRawBlock(bytes));
        EXPECT_DEATH(userBytes[bytes] = 1, "heap-buffer-overflow") << bytes << " bytes";
        detail::releaseRawBlock(const_cast<char*>(userBytes));
    }
}

TEST(DefaultHooksDeathTest, useOfAReleasedBlockIsReported) {
    volatile char* const userBytes = static_cast<volatile char*>(detail::allocateRawBlock(24));
    detail::releaseRawBlock(const_cast<char*>(userBytes));
    EXPECT_DEATH(userBytes[0] = 1, "heap-use-after-free");
}

#endif

TEST(AllocationHooks, areTheOnesGiven) {
    GVObject::SetAllocationHooks(&HookLedger::allocate, &HookLedger::release);
    EXPECT_EQ(GVObject::GetAllocator(), &HookLedger::allocate);
    EXPECT_EQ(GVObject::GetDeallocator(), &HookLedger::release);
    GVObject::SetAllocationHooks(nullptr, nullptr);
}

TEST(AllocationHooks, twoNullsRestoreTheDefaults) {
    const GVAllocatorFunction defaultAllocator = GVObject::GetAllocator();
    const GVDeallocatorFunction defaultDeallocator = GVObject::GetDeallocator();
    ASSERT_NE(defaultAllocator, nullptr);
    ASSERT_NE(defaultDeallocator, nullptr);
    GVObject::SetAllocationHooks(&HookLedger::allocate, &HookLedger::release);

    GVObject::SetAllocationHooks(nullptr, nullptr);

    EXPECT_EQ(GVObject::GetAllocator(), defaultAllocator);
    EXPECT_EQ(GVObject::GetDeallocator(), defaultDeallocator);
}

TEST(AllocationHooks, anAllocatorAloneIsRefusedAndChangesNothing) {
    const GVAllocatorFunction allocator = GVObject::GetAllocator();
    const GVDeallocatorFunction deallocator = GVObject::GetDeallocator();
    expectGVException([] { GVObject::SetAllocationHooks(&HookLedger::allocate, nullptr); }, gvinvalidstate,
                      "libsrc/base/gvobject", "Allocation hooks must be set or reset together.");
    EXPECT_EQ(GVObject::GetAllocator(), allocator);
    EXPECT_EQ(GVObject::GetDeallocator(), deallocator);
}

TEST(AllocationHooks, aDeallocatorAloneIsRefusedAndChangesNothing) {
    const GVAllocatorFunction allocator = GVObject::GetAllocator();
    const GVDeallocatorFunction deallocator = GVObject::GetDeallocator();
    expectGVException([] { GVObject::SetAllocationHooks(nullptr, &HookLedger::release); }, gvinvalidstate,
                      "libsrc/base/gvobject", "Allocation hooks must be set or reset together.");
    EXPECT_EQ(GVObject::GetAllocator(), allocator);
    EXPECT_EQ(GVObject::GetDeallocator(), deallocator);
}

TEST(AllocationHooks, aRefusedChangeKeepsHooksThatAreNotTheDefaults) {
    const HookLedger ledger;
    EXPECT_THROW(GVObject::SetAllocationHooks(GVObject::GetAllocator(), nullptr), GVException);
    EXPECT_THROW(GVObject::SetAllocationHooks(nullptr, GVObject::GetDeallocator()), GVException);
    EXPECT_EQ(GVObject::GetAllocator(), &HookLedger::allocate);
    EXPECT_EQ(GVObject::GetDeallocator(), &HookLedger::release);
}

TEST(AllocationHooks, areAskedForAfreshAtEachAllocation) {
    const HookLedger ledger;
    GVStdAllocator<unsigned int> allocator;
    unsigned int* const first = allocator.allocate(1);
    EXPECT_EQ(ledger.allocationCount(), 1U);

    GVObject::SetAllocationHooks(nullptr, nullptr);
    unsigned int* const second = allocator.allocate(1);
    EXPECT_EQ(ledger.allocationCount(), 1U);

    GVObject::SetAllocationHooks(&HookLedger::allocate, &HookLedger::release);
    unsigned int* const third = allocator.allocate(1);
    EXPECT_EQ(ledger.allocationCount(), 2U);

    allocator.deallocate(first, 1);
    allocator.deallocate(second, 1);
    allocator.deallocate(third, 1);
    EXPECT_EQ(ledger.releaseCount(), 2U);
}

TEST(AllocationHooks, theDeallocatorIsAskedForAfterTheAllocation) {
    const GVDeallocatorFunction defaultDeallocator = GVObject::GetDeallocator();
    GVObject::SetAllocationHooks(&allocateAndRestoreTheDefaults, &HookLedger::release);

    void* const userBytes = detail::allocateRawBlock(8);

    EXPECT_EQ(detail::rawBlockDeallocator(userBytes), defaultDeallocator);
    GVObject::GetDeallocator()(static_cast<char*>(userBytes) - detail::rawBlockHeaderBytes);
}

TEST(AllocationHooks, blocksMadeBeforeAChangeGoBackThroughTheirOwnDeallocator) {
    const HookLedger ledger;
    void* const rawBlock = detail::allocateRawBlock(10);
    Strict* const object = new Strict;
    Strict* const array = new Strict[2];
    unsigned int* const storage = GVStdAllocator<unsigned int>().allocate(3);
    GVObject::SetAllocationHooks(nullptr, nullptr);

    detail::releaseRawBlock(rawBlock);
    EXPECT_EQ(ledger.releaseCount(), 1U);
    delete object;
    EXPECT_EQ(ledger.releaseCount(), 2U);
    delete[] array;
    EXPECT_EQ(ledger.releaseCount(), 3U);
    GVStdAllocator<unsigned int>().deallocate(storage, 3);
    EXPECT_EQ(ledger.releaseCount(), 4U);
}

TEST(AllocationHooks, defaultBlocksGoBackToTheDefaultDeallocatorWhileOthersAreSet) {
    void* const rawBlock = detail::allocateRawBlock(10);
    Strict* const object = new Strict;
    Strict* const array = new Strict[2];
    unsigned int* const storage = GVStdAllocator<unsigned int>().allocate(3);
    const HookLedger ledger;

    detail::releaseRawBlock(rawBlock);
    delete object;
    delete[] array;
    GVStdAllocator<unsigned int>().deallocate(storage, 3);

    EXPECT_EQ(ledger.releaseCount(), 0U);
}

TEST(AllocationHooks, aGrowingContainerReleasesEachBlockToItsOwnHook) {
    const HookLedger ledger;
    std::vector<unsigned int, GVStdAllocator<unsigned int>> numbers{1, 2};
    GVObject::SetAllocationHooks(nullptr, nullptr);

    numbers.push_back(3);

    EXPECT_EQ(ledger.releaseCount(), 1U);
    EXPECT_TRUE(ledger.liveBlocks().empty());
    EXPECT_EQ(numbers.back(), 3U);
}

} // namespace Gilvane
