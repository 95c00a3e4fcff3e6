#include "hookledger.h"

#include <gilvane/base/gvrawblock.h>

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <limits>
#include <vector>

namespace Gilvane {

namespace {

constexpr unsigned int most = std::numeric_limits<unsigned int>::max();

std::vector<void*>& givenBack() {
    static std::vector<void*> theBlocks;
    return theBlocks;
}

void noteGivenBack(void* block) { givenBack().push_back(block); }

// A block made by hand, its header word in front.
struct HandmadeBlock {
    GVDeallocatorFunction header;
    unsigned char bytes[8];
};

} // namespace

TEST(RawBlock, theHeaderIsOnePointerWide) { EXPECT_EQ(detail::rawBlockHeaderBytes, sizeof(void*)); }

TEST(RawBlock, asksOnceForTheBytesAndTheHeaderWord) {
    const HookLedger ledger;
    void* const userBytes = detail::allocateRawBlock(21);
    EXPECT_EQ(ledger.requests(), std::vector<unsigned int>{21 + detail::rawBlockHeaderBytes});
    detail::releaseRawBlock(userBytes);
}

TEST(RawBlock, theUserGetsTheAddressPastTheHeaderWord) {
    const HookLedger ledger;
    void* const userBytes = detail::allocateRawBlock(21);
    EXPECT_EQ(userBytes, static_cast<char*>(ledger.liveBlocks().at(0).start) + detail::rawBlockHeaderBytes);
    detail::releaseRawBlock(userBytes);
}

TEST(RawBlock, theHeaderWordHoldsTheCurrentDeallocationFunction) {
    const HookLedger ledger;
    void* const userBytes = detail::allocateRawBlock(21);
    EXPECT_EQ(*static_cast<GVDeallocatorFunction*>(ledger.liveBlocks().at(0).start), &HookLedger::release);
    EXPECT_EQ(detail::rawBlockDeallocator(userBytes), &HookLedger::release);
    detail::releaseRawBlock(userBytes);
}

TEST(RawBlock, ofNoBytesIsAHeaderWordAlone) {
    const HookLedger ledger;
    void* const userBytes = detail::allocateRawBlock(0);
    EXPECT_NE(userBytes, nullptr);
    EXPECT_EQ(ledger.requests(), std::vector<unsigned int>{detail::rawBlockHeaderBytes});
    detail::releaseRawBlock(userBytes);
}

TEST(RawBlock, isNullWhenTheAllocationFunctionReturnsNull) {
    HookLedger ledger;
    ledger.refuseOnce(0);
    EXPECT_EQ(detail::allocateRawBlock(21), nullptr);
    EXPECT_EQ(ledger.refusedCount(), 1U);
    EXPECT_EQ(ledger.releaseCount(), 0U);
}

TEST(RawBlock, addsTheHeaderWordModulo32Bits) {
    HookLedger ledger;
    ledger.refuseFrom(0);
    EXPECT_EQ(detail::allocateRawBlock(most), nullptr);
    EXPECT_EQ(detail::allocateRawBlock(most - detail::rawBlockHeaderBytes), nullptr);
    EXPECT_EQ(ledger.requests(), (std::vector<unsigned int>{detail::rawBlockHeaderBytes - 1, most}));
}

TEST(RawBlock, isReleasedWithItsStart) {
    const HookLedger ledger;
    void* const userBytes = detail::allocateRawBlock(21);
    void* const start = ledger.liveBlocks().at(0).start;
    detail::releaseRawBlock(userBytes);
    EXPECT_EQ(ledger.releases(), std::vector<void*>{start});
}

TEST(RawBlock, isReleasedByTheFunctionInItsHeaderWord) {
    const HookLedger ledger;
    givenBack().clear();
    HandmadeBlock block{&noteGivenBack, {}};

    detail::releaseRawBlock(&block.bytes);

    EXPECT_EQ(givenBack(), std::vector<void*>{&block.header});
    EXPECT_EQ(ledger.releaseCount(), 0U);
}

TEST(RawBlock, startsOneHeaderWordBeforeTheUsersBytes) {
    HandmadeBlock block{&noteGivenBack, {}};
    EXPECT_EQ(detail::rawBlockStart(&block.bytes), reinterpret_cast<std::uintptr_t>(&block.header));
    EXPECT_EQ(detail::rawBlockDeallocator(&block.bytes), &noteGivenBack);
}

TEST(RawBlock, fitsWhileBytesAndHeaderWordCanBeCountedIn32Bits) {
    EXPECT_TRUE(detail::fitsInRawBlock(0));
    EXPECT_TRUE(detail::fitsInRawBlock(most - detail::rawBlockHeaderBytes));
    EXPECT_FALSE(detail::fitsInRawBlock(most - detail::rawBlockHeaderBytes + 1));
    EXPECT_FALSE(detail::fitsInRawBlock(most));
    EXPECT_FALSE(detail::fitsInRawBlock(std::numeric_limits<std::size_t>::max()));
    if (sizeof(std::size_t) > sizeof(unsigned int)) {
        EXPECT_FALSE(detail::fitsInRawBlock(std::size_t{most} + 17));
    }
}

} // namespace Gilvane
