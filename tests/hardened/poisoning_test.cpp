// The bytes of free blocks are not to be touched, as AddressSanitizer sees it.
#include "gvtestpeer.h"
#include "hookledger.h"

#include <gilvane/utilities/gvmemorypool.h>

#include <gtest/gtest.h>

#include <cstring>

#include <sanitizer/asan_interface.h>

namespace Gilvane {

namespace {

constexpr unsigned int blockBytes = 13; // not a multiple of what the sanitizer keeps books of

enum class Bytes { usable, untouchable, mixed };

Bytes stateOf(const void* address) {
    const auto* const bytes = static_cast<const char*>(address);
    unsigned int poisoned = 0;
    for (unsigned int index = 0; index < blockBytes; ++index) {
        poisoned += __asan_address_is_poisoned(bytes + index) != 0 ? 1 : 0;
    }
    return poisoned == 0 ? Bytes::usable : poisoned == blockBytes ? Bytes::untouchable : Bytes::mixed;
}

volatile unsigned char* borrowed(GVMemoryPool& pool, unsigned int token) {
    return static_cast<volatile unsigned char*>(pool.getMemoryForToken(token));
}

TEST(HardenedPoison, isOnBlocksUntilTheyAreLentAndFromTheirReturnOn) {
    for (const bool useMutex : {false, true}) {
        GVMemoryPool pool(2, blockBytes, useMutex);
        const unsigned int token = GVTestPeer::freeTokens(pool).back();
        const void* const address = pool.getMemoryForToken(token);
        EXPECT_EQ(stateOf(address), Bytes::untouchable);
        ASSERT_EQ(pool.getTokenForFreeMemoryObject(), token);
        EXPECT_EQ(stateOf(address), Bytes::usable);
        pool.releaseObject(token);
        EXPECT_EQ(stateOf(address), Bytes::untouchable);
        ASSERT_EQ(pool.getTokenForFreeMemoryObject(), token);
        EXPECT_EQ(stateOf(address), Bytes::usable);
    }
}

TEST(HardenedPoison, isOnBlocksThatGrowthBuilds) {
    GVMemoryPool pool(1, blockBytes, true);
    pool.getTokenForFreeMemoryObject();
    const unsigned int second = pool.getTokenForFreeMemoryObject();
    const unsigned int third = pool.getTokenForFreeMemoryObject();
    EXPECT_EQ(stateOf(pool.getMemoryForToken(second)), Bytes::usable);
    EXPECT_EQ(stateOf(pool.getMemoryForToken(third)), Bytes::usable);
    EXPECT_EQ(stateOf(pool.getMemoryForToken(GVTestPeer::freeTokens(pool).back())), Bytes::untouchable);
}

TEST(HardenedPoison, isTakenOffWithATokenTakenOutOfTheFreeListByHand) {
    GVMemoryPool pool(2, blockBytes, false);
    const unsigned int token = GVTestPeer::freeTokens(pool).front();
    pool.removeTokenFromAvailableList(token);
    EXPECT_EQ(stateOf(pool.getMemoryForToken(token)), Bytes::usable);
}

TEST(HardenedPoison, leavesTheHeaderWordAlone) {
    const GVMemoryPool pool(2, blockBytes, false);
    auto& table = GVTestPeer::table(const_cast<GVMemoryPool&>(pool));
    for (const GVMemoryPoolObject* const block : table) {
        const char* const bytes = static_cast<const char*>(block->getBytes());
        EXPECT_EQ(stateOf(bytes), Bytes::untouchable);
        EXPECT_EQ(__asan_region_is_poisoned(const_cast<char*>(bytes) - sizeof(void*), sizeof(void*)), nullptr);
    }
}

// A deallocation function of a program's own may write to what it is given back.
unsigned int releasedCount = 0;
unsigned int untouchableCount = 0;
void countAndRelease(void* block) {
    ++releasedCount;
    untouchableCount += stateOf(static_cast<char*>(block) + sizeof(void*)) == Bytes::untouchable ? 1 : 0;
    HookLedger::release(block);
}

TEST(HardenedPoison, isTakenOffBeforeTheBytesAreReleased) {
    const HookLedger ledger;
    GVMemoryPool pool(2, blockBytes, false);
    GVObject::SetAllocationHooks(&HookLedger::allocate, &countAndRelease);
    pool.resizePool(3);
    GVObject::SetAllocationHooks(&HookLedger::allocate, &HookLedger::release);
    pool.resizePool(2);
    EXPECT_EQ(releasedCount, 2U); // the block's bytes and its object
    EXPECT_EQ(untouchableCount, 0U);
}

TEST(HardenedPoison, keepsWhatTheBytesHold) {
    GVMemoryPool pool(1, blockBytes, false);
    const unsigned int token = pool.getTokenForFreeMemoryObject();
    std::memset(pool.getMemoryForToken(token), 7, blockBytes);
    pool.releaseObject(token);
    pool.getTokenForFreeMemoryObject();
    EXPECT_EQ(borrowed(pool, token)[blockBytes - 1], 7);
}

TEST(HardenedPoison, reportsAWriteAfterTheReturn) {
    GVMemoryPool pool(2, blockBytes, false);
    const unsigned int token = pool.getTokenForFreeMemoryObject();
    volatile unsigned char* const bytes = borrowed(pool, token);
    bytes[0] = 1;
    pool.releaseObject(token);
    EXPECT_DEATH(bytes[0] = 1, "use-after-poison.*\nWRITE of size 1");
    EXPECT_DEATH(bytes[blockBytes - 1] = 1, "use-after-poison.*\nWRITE of size 1");
}

TEST(HardenedPoison, reportsAReadOfABlockThatWasNeverLent) {
    GVMemoryPool pool(2, blockBytes, false);
    volatile unsigned char* const bytes = borrowed(pool, GVTestPeer::freeTokens(pool).front());
    EXPECT_DEATH(static_cast<void>(bytes[3]), "use-after-poison.*\nREAD of size 1");
}

TEST(HardenedPoison, leavesAnOverrunWhatItIs) {
    GVMemoryPool pool(2, blockBytes, false);
    volatile unsigned char* const bytes = borrowed(pool, pool.getTokenForFreeMemoryObject());
    EXPECT_DEATH(bytes[blockBytes] = 1, "heap-buffer-overflow");
}

} // namespace

} // namespace Gilvane
