// What a new pool holds, and what becomes of one whose construction fails.
#include "gvtestpeer.h"
#include "hookledger.h"
#include "throwsites.h"

#include <gilvane/base/gvrawblock.h>

#include <gtest/gtest.h>

#include <new>
#include <type_traits>
#include <vector>

namespace Gilvane {

namespace {

using Tokens = std::vector<unsigned int, GVStdAllocator<unsigned int>>;

constexpr const char* poolFile = "libsrc/utilities/gvmemorypool";
constexpr const char* noMemoryForABlock = "Unable to allocate memory for new pool object";

constexpr unsigned int objectRequest = sizeof(GVMemoryPoolObject) + detail::rawBlockHeaderBytes;

static_assert(std::is_base_of_v<GVObject, GVMemoryPool>, "pools are made by the class-level operators");
static_assert(std::has_virtual_destructor_v<GVMemoryPool>, "a pool is deleted through its virtual destructor");

// Sets the number of blocks of pools made without a number, until the test ends.
class DefaultNumber {
  public:
    explicit DefaultNumber(unsigned int number) : theFormer(GVMemoryPool::defaultNumberOfObjects) {
        GVMemoryPool::defaultNumberOfObjects = number;
    }
    DefaultNumber(const DefaultNumber&) = delete;
    DefaultNumber& operator=(const DefaultNumber&) = delete;
    ~DefaultNumber() { GVMemoryPool::defaultNumberOfObjects = theFormer; }

  private:
    unsigned int theFormer;
};

void expectEmpty(GVMemoryPool& pool) {
    TokenTable& table = GVTestPeer::table(pool);
    EXPECT_EQ(GVTestPeer::usedCount(table), 0U);
    EXPECT_EQ(GVTestPeer::fillCount(table), 0U);
    EXPECT_EQ(GVTestPeer::mask(table), 7U);
    EXPECT_EQ(GVTestPeer::slots(table), GVTestPeer::smallSlots(table));
    EXPECT_EQ(GVTestPeer::freeTokens(pool), Tokens{});
}

TEST(PoolConstruction, defaultNumberOfObjectsIsFour) { EXPECT_EQ(GVMemoryPool::defaultNumberOfObjects, 4U); }

TEST(PoolConstruction, withoutANumberTakesTheDefaultAndBuildsNothing) {
    GVMemoryPool pool(false);
    EXPECT_EQ(GVTestPeer::initialNumberOfObjects(pool), 4U);
    EXPECT_EQ(GVTestPeer::bytesInEachObject(pool), 0U);
    EXPECT_EQ(GVTestPeer::mutexHandle(pool), nullptr);
    EXPECT_FALSE(GVTestPeer::useMutexHandle(pool));
    expectEmpty(pool);
}

TEST(PoolConstruction, withoutANumberAndWithAMutexHasAHandle) {
    GVMemoryPool pool(true);
    EXPECT_EQ(GVTestPeer::initialNumberOfObjects(pool), 4U);
    EXPECT_EQ(GVTestPeer::bytesInEachObject(pool), 0U);
    EXPECT_NE(GVTestPeer::mutexHandle(pool), nullptr);
    EXPECT_TRUE(GVTestPeer::useMutexHandle(pool));
    expectEmpty(pool);
}

TEST(PoolConstruction, readsTheDefaultNumberAtThatMoment) {
    GVMemoryPool before(false);
    const DefaultNumber nine(9);
    GVMemoryPool after(false);
    EXPECT_EQ(GVTestPeer::initialNumberOfObjects(before), 4U);
    EXPECT_EQ(GVTestPeer::initialNumberOfObjects(after), 9U);
}

TEST(PoolConstruction, withANumberRecordsItAndBuildsNothing) {
    const HookLedger ledger;
    GVMemoryPool pool(6, false);
    EXPECT_EQ(GVTestPeer::initialNumberOfObjects(pool), 6U);
    EXPECT_EQ(GVTestPeer::bytesInEachObject(pool), 0U);
    EXPECT_EQ(GVTestPeer::mutexHandle(pool), nullptr);
    EXPECT_FALSE(GVTestPeer::useMutexHandle(pool));
    expectEmpty(pool);
    EXPECT_EQ(ledger.allocationCount(), 0U);
}

TEST(PoolConstruction, withANumberAndAMutexAllocatesOnlyTheHandle) {
    const HookLedger ledger;
    GVMemoryPool pool(6, true);
    EXPECT_EQ(GVTestPeer::initialNumberOfObjects(pool), 6U);
    EXPECT_TRUE(GVTestPeer::useMutexHandle(pool));
    expectEmpty(pool);
    ASSERT_EQ(ledger.liveBlocks().size(), 1U);
    EXPECT_EQ(static_cast<void*>(GVTestPeer::mutexHandle(pool)),
              static_cast<char*>(ledger.liveBlocks()[0].start) + detail::rawBlockHeaderBytes);
}

TEST(PoolConstruction, withASizeBuildsEveryBlockAtOnce) {
    GVTestPeer::nextToken() = 100;
    GVMemoryPool pool(8, 16, false);
    EXPECT_EQ(GVTestPeer::initialNumberOfObjects(pool), 8U);
    EXPECT_EQ(GVTestPeer::bytesInEachObject(pool), 16U);
    EXPECT_EQ(GVTestPeer::mutexHandle(pool), nullptr);
    EXPECT_FALSE(GVTestPeer::useMutexHandle(pool));
    EXPECT_EQ(GVTestPeer::freeTokens(pool), (Tokens{100, 101, 102, 103, 104, 105, 106, 107}));
    TokenTable& table = GVTestPeer::table(pool);
    EXPECT_EQ(table.getUsedCount(), 8U);
    for (unsigned int token = 100; token < 108; ++token) {
        const auto* const entry = table.get(token);
        ASSERT_NE(entry, nullptr);
        EXPECT_EQ(entry->theValue->getToken(), token);
        EXPECT_EQ(entry->theValue->getLength(), 16U);
        EXPECT_NE(entry->theValue->getBytes(), nullptr);
    }
}

TEST(PoolConstruction, withASizeAndAMutexHasBlocksAndAHandle) {
    GVMemoryPool pool(3, 16, true);
    EXPECT_NE(GVTestPeer::mutexHandle(pool), nullptr);
    EXPECT_TRUE(GVTestPeer::useMutexHandle(pool));
    EXPECT_EQ(GVTestPeer::table(pool).getUsedCount(), 3U);
}

TEST(PoolConstruction, withSizeZeroBuildsBlocksWithoutBytes) {
    const HookLedger ledger;
    GVMemoryPool pool(2, 0, false);
    EXPECT_EQ(GVTestPeer::bytesInEachObject(pool), 0U);
    EXPECT_EQ(GVTestPeer::table(pool).getUsedCount(), 2U);
    for (GVMemoryPoolObject* const block : GVTestPeer::table(pool)) {
        EXPECT_EQ(block->getBytes(), nullptr);
        EXPECT_EQ(block->getLength(), 0U);
    }
    EXPECT_EQ(ledger.allocationCount(), 4U); // two objects, and twice the free list
}

TEST(PoolConstruction, ofNoBlocksOfASizeRecordsTheSize) {
    const HookLedger ledger;
    GVMemoryPool pool(0, 16, false);
    EXPECT_EQ(GVTestPeer::initialNumberOfObjects(pool), 0U);
    EXPECT_EQ(GVTestPeer::bytesInEachObject(pool), 16U);
    expectEmpty(pool);
    EXPECT_EQ(ledger.allocationCount(), 0U);
}

TEST(PoolConstruction, sharesTheTokenCounterAmongPools) {
    GVTestPeer::nextToken() = 0;
    GVMemoryPool one(2, 16, false);
    GVMemoryPool other(2, 0, true);
    one.resizePool(4);
    EXPECT_EQ(GVTestPeer::freeTokens(one), (Tokens{0, 1, 4, 5}));
    EXPECT_EQ(GVTestPeer::freeTokens(other), (Tokens{2, 3}));
}

TEST(PoolConstruction, keepsItsFieldsInOrder) {
    GVMemoryPool pool(false);
    const char* const table = reinterpret_cast<const char*>(&GVTestPeer::table(pool));
    const char* const freeTokens = reinterpret_cast<const char*>(&GVTestPeer::freeTokens(pool));
    const char* const initialNumber = reinterpret_cast<const char*>(&GVTestPeer::initialNumberOfObjects(pool));
    const char* const bytes = reinterpret_cast<const char*>(&GVTestPeer::bytesInEachObject(pool));
    const char* const handle = reinterpret_cast<const char*>(&GVTestPeer::mutexHandle(pool));
    const char* const useMutex = reinterpret_cast<const char*>(&GVTestPeer::useMutexHandle(pool));
    EXPECT_LT(table, freeTokens);
    EXPECT_LT(freeTokens, initialNumber);
    EXPECT_LT(initialNumber, bytes);
    EXPECT_LT(bytes, handle);
    EXPECT_LT(handle, useMutex);
}

TEST(PoolConstruction, losesHandleAndBlocksWhenABlockCannotBeBuilt) {
    HookLedger ledger;
    // the pool, its handle, then object, bytes and free list for the first block; the second object is refused
    ledger.refuseOnce(5);
    expectGVException([] { new GVMemoryPool(3, 16, true); }, gvoutofmemory, poolFile, noMemoryForABlock);
    const std::vector<HookLedger::Block> lost = ledger.liveBlocks();
    ASSERT_EQ(lost.size(), 3U);
    // The handle is the oldest.
    EXPECT_EQ(lost[1].bytes, objectRequest);
    EXPECT_EQ(lost[2].bytes, 16 + detail::rawBlockHeaderBytes);
    EXPECT_EQ(ledger.reclaimLiveBlocks(), 3U);
}

TEST(PoolConstruction, passesOnTheExhaustionOfABlocksBytes) {
    HookLedger ledger;
    ledger.refuseOnce(1);
    EXPECT_THROW(GVMemoryPool(3, 16, false), std::bad_alloc);
    EXPECT_EQ(ledger.allocationCount(), 2U);
    EXPECT_TRUE(ledger.liveBlocks().empty());
}

TEST(PoolConstruction, releasesFreeListAndTableWhenABlockCannotBeBuilt) {
    HookLedger ledger;
    // Six blocks bring 12 requests, 4 of the free list (for 1, 2, 4 and 8 tokens) and the grown table's.
    ledger.refuseOnce(17);
    expectGVException([] { GVMemoryPool(7, 16, false); }, gvoutofmemory, poolFile, noMemoryForABlock);
    const std::vector<HookLedger::Block> lost = ledger.liveBlocks();
    ASSERT_EQ(lost.size(), 12U);
    for (std::size_t block = 0; block < lost.size(); block += 2) {
        EXPECT_EQ(lost[block].bytes, objectRequest);
        EXPECT_EQ(lost[block + 1].bytes, 16 + detail::rawBlockHeaderBytes);
    }
    EXPECT_EQ(ledger.reclaimLiveBlocks(), 12U);
}

TEST(PoolConstruction, leavesNothingWhenTheHandleCannotBeHad) {
    HookLedger ledger;
    ledger.refuseOnce(0);
    EXPECT_THROW(GVMemoryPool(true), std::bad_alloc);
    ledger.refuseOnce(0);
    EXPECT_THROW(GVMemoryPool(3, true), std::bad_alloc);
    ledger.refuseOnce(0);
    EXPECT_THROW(GVMemoryPool(3, 16, true), std::bad_alloc);
    EXPECT_EQ(ledger.allocationCount(), 3U);
    EXPECT_TRUE(ledger.liveBlocks().empty());
}

TEST(PoolConstruction, losesExactlyWhatWasBuiltWhicheverAllocationIsRefused) {
    for (const bool once : {true, false}) {
        std::size_t refused = 0;
        bool completed = false;
        for (; !completed; ++refused) {
            SCOPED_TRACE(refused);
            HookLedger ledger;
            GVTestPeer::nextToken() = 0;
            if (once) {
                ledger.refuseOnce(refused);
            } else {
                ledger.refuseFrom(refused);
            }
            try {
                GVMemoryPool pool(8, 16, false);
                completed = true;
                EXPECT_EQ(ledger.refusedCount(), 0U);
                continue;
            } catch (const GVException& exception) {
                EXPECT_TRUE(once);
                EXPECT_EQ(exception.getKind(), gvoutofmemory);
            } catch (const std::bad_alloc&) {
            }
            EXPECT_GE(ledger.refusedCount(), 1U);
            // Every block that took a token is lost, object and bytes; nothing else is.
            EXPECT_EQ(ledger.liveBlocks().size(), GVTestPeer::nextToken() * 2U);
            ledger.reclaimLiveBlocks();
        }
        // 16 for the blocks, 4 for the free list, 1 for the table; the last round was refused nothing.
        EXPECT_EQ(refused, 22U);
    }
}

} // namespace

} // namespace Gilvane
