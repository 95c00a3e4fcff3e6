#include "hookledger.h"
#include "throwsites.h"

#include <gilvane/base/gvallocationbudget.h>
#include <gilvane/base/gvrawblock.h>
#include <gilvane/base/gvstdallocator.h>

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>
#include <vector>

namespace Gilvane {

namespace {

using Arena = GVAllocationArena;

constexpr unsigned int header = detail::rawBlockHeaderBytes;
constexpr unsigned int strictest = alignof(std::max_align_t);

alignas(strictest) unsigned char theBytes[16 * strictest];

// A raw block of which the hooks see this many bytes.
void* blockOf(unsigned int numberOfBytes) { return detail::allocateRawBlock(numberOfBytes - header); }

bool isAligned(const void* address) { return reinterpret_cast<std::uintptr_t>(address) % strictest == 0; }

} // namespace

TEST(AllocationArena, givesTheRangeOutFromFrontToBack) {
    const Arena arena(theBytes);
    //  | padding and header word | 10 bytes | padding and header word | 1 byte
    auto* const first = static_cast<unsigned char*>(detail::allocateRawBlock(10));
    EXPECT_EQ(first, theBytes + strictest);
    EXPECT_EQ(Arena::GetUsedBytes(), strictest + 10);
    auto* const second = static_cast<unsigned char*>(detail::allocateRawBlock(1));
    const std::size_t behind = strictest + 10 + header; // aligned on each target in its way
    EXPECT_EQ(second, theBytes + (behind + strictest - 1) / strictest * strictest);
    EXPECT_EQ(Arena::GetUsedBytes(), static_cast<std::size_t>(second + 1 - theBytes));
    EXPECT_EQ(Arena::GetLeftBytes(), sizeof theBytes - Arena::GetUsedBytes());
    EXPECT_EQ(Arena::GetLiveCount(), 2U);
    detail::releaseRawBlock(first);
    detail::releaseRawBlock(second);
}

TEST(AllocationArena, alignsBlocksWhereverTheRangeBegins) {
    for (unsigned int offset = 0; offset <= strictest; ++offset) {
        const Arena arena(theBytes + offset, sizeof theBytes - offset);
        std::vector<unsigned char*> blocks;
        for (unsigned int bytes = 0; bytes < 4; ++bytes) {
            blocks.push_back(static_cast<unsigned char*>(detail::allocateRawBlock(bytes)));
            EXPECT_TRUE(isAligned(blocks.back())) << bytes << " bytes at offset " << offset;
            EXPECT_GE(blocks.back(), theBytes + offset + header);
        }
        EXPECT_LT(blocks[0] - theBytes, static_cast<std::ptrdiff_t>(offset + header + strictest)) << "no more padding";
        for (unsigned char* const block : blocks) {
            detail::releaseRawBlock(block);
        }
    }
}

TEST(AllocationArena, givesOutTheLastByteAndRefusesTheNext) {
    const Arena arena(theBytes);
    EXPECT_EQ(Arena::GetLeftBytes(), sizeof theBytes);
    EXPECT_EQ(detail::allocateRawBlock(sizeof theBytes - strictest + 1), nullptr);
    EXPECT_EQ(Arena::GetUsedBytes(), 0U);
    void* const block = detail::allocateRawBlock(sizeof theBytes - strictest);
    ASSERT_EQ(block, theBytes + strictest);
    std::memset(block, 7, sizeof theBytes - strictest);
    EXPECT_EQ(Arena::GetLeftBytes(), 0U);
    EXPECT_EQ(blockOf(header), nullptr);
    EXPECT_EQ(Arena::GetLiveCount(), 1U);
    detail::releaseRawBlock(block);
}

TEST(AllocationArena, refusesWhereNotEvenThePaddingFits) {
    const unsigned int padding = strictest - header;
    for (unsigned int size = 0; size < padding + header; ++size) {
        const Arena arena(theBytes, size);
        EXPECT_EQ(blockOf(header), nullptr) << size << " bytes";
    }
    const Arena arena(theBytes, padding + header);
    void* const block = blockOf(header);
    EXPECT_EQ(block, theBytes + strictest);
    detail::releaseRawBlock(block);
}

TEST(AllocationArena, ofNothingRefusesEverything) {
    const Arena arena(nullptr, 0);
    EXPECT_EQ(blockOf(header), nullptr);
    EXPECT_THROW(GVStdAllocator<char>().allocate(1), std::bad_alloc);
}

TEST(AllocationArena, takesTheBlockBackThatWasGivenOutLast) {
    const Arena arena(theBytes);
    void* const first = blockOf(strictest);
    const std::size_t used = Arena::GetUsedBytes();
    void* const second = blockOf(strictest + 1);
    detail::releaseRawBlock(second);
    EXPECT_EQ(Arena::GetUsedBytes(), used);
    EXPECT_EQ(blockOf(strictest), second) << "the same place";
    detail::releaseRawBlock(second);
    detail::releaseRawBlock(first);
}

TEST(AllocationArena, takesTheLastBlockBackAlsoAfterARefusal) {
    const Arena arena(theBytes);
    void* const first = blockOf(strictest);
    const std::size_t used = Arena::GetUsedBytes();
    void* const second = blockOf(strictest);
    EXPECT_EQ(blockOf(sizeof theBytes), nullptr);
    detail::releaseRawBlock(second);
    EXPECT_EQ(Arena::GetUsedBytes(), used);
    detail::releaseRawBlock(first);
}

TEST(AllocationArena, keepsTheBytesOfAnyOtherUntilAllAreBack) {
    const Arena arena(theBytes);
    void* const first = blockOf(strictest);
    void* const second = blockOf(strictest);
    void* const third = blockOf(strictest);
    const std::size_t used = Arena::GetUsedBytes();
    detail::releaseRawBlock(first);
    EXPECT_EQ(Arena::GetUsedBytes(), used);
    detail::releaseRawBlock(second);
    EXPECT_EQ(Arena::GetUsedBytes(), used);
    EXPECT_EQ(Arena::GetLiveCount(), 1U);
    detail::releaseRawBlock(third);
    EXPECT_EQ(Arena::GetUsedBytes(), 0U);
    EXPECT_EQ(Arena::GetLiveCount(), 0U);
    void* const again = blockOf(strictest);
    EXPECT_EQ(again, first);
    detail::releaseRawBlock(again);
}

TEST(AllocationArena, isEmptyAlsoWhenTheLastOneBackIsNotTheLastOneOut) {
    const Arena arena(theBytes);
    void* const first = blockOf(strictest);
    void* const second = blockOf(strictest);
    detail::releaseRawBlock(second);
    detail::releaseRawBlock(first);
    EXPECT_EQ(Arena::GetUsedBytes(), 0U);
}

TEST(AllocationArena, putsTheHooksBackThatWereThere) {
    const HookLedger ledger;
    {
        const Arena arena(theBytes);
        detail::releaseRawBlock(blockOf(strictest));
        EXPECT_EQ(ledger.allocationCount(), 0U);
    }
    EXPECT_EQ(GVObject::GetAllocator(), &HookLedger::allocate);
    EXPECT_EQ(GVObject::GetDeallocator(), &HookLedger::release);
}

TEST(AllocationArena, takesBlocksBackAfterItsEnd) {
    const HookLedger ledger;
    void* block = nullptr;
    {
        const Arena arena(theBytes);
        block = blockOf(strictest);
    }
    EXPECT_EQ(Arena::GetLiveCount(), 1U);
    detail::releaseRawBlock(block);
    EXPECT_EQ(Arena::GetLiveCount(), 0U);
    EXPECT_EQ(Arena::GetUsedBytes(), 0U);
    EXPECT_EQ(ledger.releaseCount(), 0U);
}

TEST(AllocationArena, isOneAtATimeUntilAllItsBlocksAreBack) {
    const char* const file = "libsrc/base/gvallocationbudget";
    const char* const message = "There is an arena in use.";
    const HookLedger ledger;
    static unsigned char otherBytes[1000];
    const auto makeAnother = [] { const Arena another(otherBytes); };
    void* block = nullptr;
    {
        static unsigned char largerBytes[1000]; // room for the exception's texts, too
        const Arena arena(largerBytes);
        expectGVException(makeAnother, gvinvalidstate, file, message);
        block = blockOf(strictest);
    }
    expectGVException(makeAnother, gvinvalidstate, file, message);
    EXPECT_EQ(GVObject::GetAllocator(), &HookLedger::allocate);
    detail::releaseRawBlock(block);
    makeAnother();
    EXPECT_EQ(Arena::GetLeftBytes(), sizeof otherBytes);
}

TEST(AllocationArena, mayHaveABudgetOverIt) {
    unsigned char bytes[1000];
    const Arena arena(bytes);
    const GVAllocationBudget budget(100);
    EXPECT_EQ(blockOf(101), nullptr);
    void* const block = blockOf(100);
    EXPECT_TRUE(isAligned(block));
    EXPECT_EQ(Arena::GetLiveCount(), 1U);
    EXPECT_GE(Arena::GetUsedBytes(), 100 + strictest);
    detail::releaseRawBlock(block);
    EXPECT_EQ(Arena::GetLiveCount(), 0U);
    EXPECT_EQ(GVAllocationBudget::GetLiveBytes(), 0U);
}

} // namespace Gilvane
