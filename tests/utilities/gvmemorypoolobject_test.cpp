// One pooled block: its bytes, its token, its comparison and its end.
#include "callofnull.h"
#include "countinghooks.h"
#include "gvtestpeer.h"
#include "hookledger.h"
#include "misuse.h"

#include <gilvane/base/gvrawblock.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <new>
#include <type_traits>
#include <unistd.h>
#include <vector>

namespace Gilvane {

namespace {

static_assert(std::is_base_of_v<GVObject, GVMemoryPoolObject>, "blocks are made by the class-level operators");
static_assert(std::has_virtual_destructor_v<GVMemoryPoolObject>, "a block is deleted through its virtual destructor");
static_assert(!std::is_copy_constructible_v<GVMemoryPoolObject>, "two blocks would own the same bytes");
static_assert(!std::is_copy_assignable_v<GVMemoryPoolObject>, "two blocks would own the same bytes");
static_assert(!std::is_convertible_v<unsigned int, GVMemoryPoolObject>, "a number is not a block");

constexpr unsigned int lastToken = 4294967295U;

// A deallocation function that only takes down what it is called with.
void* addressToRelease = nullptr;

void takeDownAddress(void* block) { addressToRelease = block; }

// Made before main, and so before any other block of the process.
const GVMemoryPoolObject theFirstBlock;
const GVMemoryPoolObject theSecondBlock(16);

TEST(PoolObject, theFirstOfAProcessGetsTokenZero) {
    EXPECT_EQ(theFirstBlock.getToken(), 0U);
    EXPECT_EQ(theSecondBlock.getToken(), 1U);
}

TEST(PoolObject, withoutLengthHasNoBytesAndAllocatesNothing) {
    const HookLedger ledger;
    {
        const GVMemoryPoolObject block;
        EXPECT_EQ(block.getBytes(), nullptr);
        EXPECT_EQ(block.getLength(), 0U);
    }
    EXPECT_EQ(ledger.allocationCount(), 0U);
    EXPECT_EQ(ledger.releaseCount(), 0U);
}

TEST(PoolObject, ofAnyMakeTakesTheNextToken) {
    GVTestPeer::nextToken() = 40;
    const GVMemoryPoolObject first;
    const GVMemoryPoolObject second(8);
    const GVMemoryPoolObject third(0);
    EXPECT_EQ(first.getToken(), 40U);
    EXPECT_EQ(second.getToken(), 41U);
    EXPECT_EQ(third.getToken(), 42U);
    EXPECT_EQ(GVTestPeer::nextToken(), 43U);
}

TEST(PoolObject, tokensGoOnFromZeroAfterTheLastOne) {
    GVTestPeer::nextToken() = lastToken;
    const GVMemoryPoolObject last;
    const GVMemoryPoolObject first(8);
    const GVMemoryPoolObject second;
    EXPECT_EQ(last.getToken(), lastToken);
    EXPECT_EQ(first.getToken(), 0U);
    EXPECT_EQ(second.getToken(), 1U);
}

TEST(PoolObject, takesATokenThatIsStillInUseAfterTheCounterWrapped) {
    GVTestPeer::nextToken() = 0;
    const GVMemoryPoolObject old;
    GVTestPeer::nextToken() = lastToken;
    const GVMemoryPoolObject last;
    const GVMemoryPoolObject young;
    EXPECT_EQ(young.getToken(), old.getToken());
}

TEST(PoolObject, asksForItsLengthAndAHeaderWordModulo32Bits) {
    GILVANE_TEST_OF_MISUSE();
    HookLedger ledger;
    const GVMemoryPoolObject block(100);
    // Refused, since the block would be too small for its header word.
    ledger.refuseOnce(0);
    EXPECT_THROW(GVMemoryPoolObject{lastToken}, std::bad_alloc);
    ledger.refuseOnce(0);
    EXPECT_THROW(GVMemoryPoolObject{0U - detail::rawBlockHeaderBytes}, std::bad_alloc);
    EXPECT_EQ(ledger.requests(),
              (std::vector<unsigned int>{100 + detail::rawBlockHeaderBytes, detail::rawBlockHeaderBytes - 1, 0}));
}

TEST(PoolObject, ofLengthZeroOwnsABlockOfTheHeaderWordAlone) {
    const HookLedger ledger;
    {
        const GVMemoryPoolObject block(0);
        EXPECT_NE(block.getBytes(), nullptr);
        EXPECT_EQ(block.getLength(), 0U);
        EXPECT_EQ(ledger.requests(), (std::vector<unsigned int>{detail::rawBlockHeaderBytes}));
    }
    EXPECT_EQ(ledger.releaseCount(), 1U);
}

TEST(PoolObject, bytesFollowTheHeaderWordThatHoldsTheDeallocationFunction) {
    const HookLedger ledger;
    const GVMemoryPoolObject block(24);
    ASSERT_EQ(ledger.liveBlocks().size(), 1U);
    EXPECT_EQ(block.getBytes(), static_cast<char*>(ledger.liveBlocks()[0].start) + detail::rawBlockHeaderBytes);
    EXPECT_EQ(block.getLength(), 24U);
    EXPECT_EQ(detail::rawBlockDeallocator(block.getBytes()), &HookLedger::release);
}

TEST(PoolObject, thatCannotBeBuiltUsesNoTokenUp) {
    HookLedger ledger;
    GVTestPeer::nextToken() = 7;
    ledger.refuseOnce(0);
    EXPECT_THROW(GVMemoryPoolObject(16), std::bad_alloc);
    EXPECT_EQ(ledger.refusedCount(), 1U);
    EXPECT_EQ(GVTestPeer::nextToken(), 7U);
    EXPECT_EQ(GVMemoryPoolObject(16).getToken(), 7U);
}

TEST(PoolObject, onTheHeapGivesBackItsStorageWhenItsBytesCannotBeHad) {
    HookLedger ledger;
    ledger.refuseOnce(1);
    EXPECT_THROW(new GVMemoryPoolObject(16), std::bad_alloc);
    EXPECT_EQ(ledger.allocationCount(), 2U);
    EXPECT_TRUE(ledger.liveBlocks().empty());
}

TEST(PoolObject, callsTheDeallocationFunctionInItsHeaderWithTheHeadersAddress) {
    const HookLedger ledger;
    addressToRelease = nullptr;
    void* start = nullptr;
    {
        const GVMemoryPoolObject block(16);
        start = ledger.liveBlocks()[0].start;
        *static_cast<GVDeallocatorFunction*>(start) = &takeDownAddress;
    }
    EXPECT_EQ(addressToRelease, start);
    EXPECT_EQ(ledger.releaseCount(), 0U);
    HookLedger::release(start);
}

TEST(PoolObject, isReleasedThroughTheHooksItCameFrom) {
    countedAllocations = 0;
    countedReleases = 0;
    GVObject::SetAllocationHooks(&countingAllocate, &countingRelease);
    auto block = std::make_unique<GVMemoryPoolObject>(16); // both the object and its bytes
    EXPECT_EQ(countedAllocations, 2);
    {
        const HookLedger ledger;
        block.reset();
        EXPECT_EQ(countedReleases, 2);
        EXPECT_EQ(ledger.releaseCount(), 0U);
    }
    GVObject::SetAllocationHooks(nullptr, nullptr);
}

TEST(PoolObject, asksForTheHooksAfreshAtEachAllocation) {
    countedAllocations = 0;
    countedReleases = 0;
    {
        const HookLedger ledger;
        const GVMemoryPoolObject before(16);
        GVObject::SetAllocationHooks(&countingAllocate, &countingRelease);
        const GVMemoryPoolObject after(16);
        EXPECT_EQ(ledger.allocationCount(), 1U);
        EXPECT_EQ(countedAllocations, 1);
        EXPECT_EQ(detail::rawBlockDeallocator(before.getBytes()), &HookLedger::release);
        EXPECT_EQ(detail::rawBlockDeallocator(after.getBytes()), &countingRelease);
    }
    EXPECT_EQ(countedReleases, 1);
}

TEST(PoolObject, withBytesRightAfterAHeaderAtAddressZeroReleasesNothing) {
    const HookLedger ledger;
    {
        GVMemoryPoolObject block;
        GVTestPeer::bytes(block) = reinterpret_cast<void*>(static_cast<std::uintptr_t>(detail::rawBlockHeaderBytes));
    }
    EXPECT_EQ(ledger.releaseCount(), 0U);
}

TEST(PoolObject, callsEvenANullDeallocationFunction) {
#if defined(GILVANE_TEST_SANITIZED)
    GTEST_SKIP() << "a sanitizer reports the call first";
#else
    EXPECT_EXIT(
        {
            auto* const block = new GVMemoryPoolObject(16);
            *reinterpret_cast<GVDeallocatorFunction*>(detail::rawBlockStart(block->getBytes())) = nullptr;
            endAtACallOfNull();
            delete block;
            _exit(1);
        },
        ::testing::ExitedWithCode(0), "");
#endif
}

TEST(PoolObject, equalsItself) {
    const GVMemoryPoolObject block(16);
    EXPECT_TRUE(block == block);
    EXPECT_FALSE(block != block);
}

TEST(PoolObject, doesNotEqualAnotherOfTheSameContents) {
    const GVMemoryPoolObject one(1);
    GVMemoryPoolObject other(1);
    GVTestPeer::token(other) = one.getToken();
    *static_cast<char*>(one.getBytes()) = 'x';
    *static_cast<char*>(other.getBytes()) = 'x';
    EXPECT_FALSE(one == other);
    EXPECT_TRUE(one != other);
}

TEST(PoolObject, equalsAnotherOfTheSameAddressLengthAndToken) {
    GVMemoryPoolObject one(16);
    GVMemoryPoolObject other;
    GVTestPeer::bytes(other) = one.getBytes();
    GVTestPeer::length(other) = 16;
    GVTestPeer::token(other) = one.getToken();
    EXPECT_TRUE(one == other);
    EXPECT_FALSE(one != other);
    GVTestPeer::bytes(other) = nullptr; // the bytes are the other's
}

TEST(PoolObject, doesNotEqualAnotherThatDiffersInOneField) {
    const GVMemoryPoolObject one;
    GVMemoryPoolObject other;
    EXPECT_FALSE(one == other); // token
    EXPECT_FALSE(other == one);

    GVTestPeer::token(other) = one.getToken();
    EXPECT_TRUE(one == other);
    GVTestPeer::length(other) = 1;
    EXPECT_FALSE(one == other);
    EXPECT_FALSE(other == one);
    EXPECT_TRUE(one != other);
    GVTestPeer::length(other) = 0;
    GVTestPeer::bytes(other) = &other;
    EXPECT_FALSE(one == other);
    EXPECT_TRUE(one != other);
    GVTestPeer::bytes(other) = nullptr;
}

TEST(PoolObject, keepsItsFieldsInTheOrderBytesLengthToken) {
    GVMemoryPoolObject block;
    const auto bytes = reinterpret_cast<std::uintptr_t>(&GVTestPeer::bytes(block));
    EXPECT_EQ(bytes, reinterpret_cast<std::uintptr_t>(&block) + sizeof(GVObject));
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(&GVTestPeer::length(block)), bytes + sizeof(void*));
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(&GVTestPeer::token(block)),
              bytes + sizeof(void*) + sizeof(unsigned int));
}

} // namespace

} // namespace Gilvane
