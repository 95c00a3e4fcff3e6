// One case for each wrong use that has a fixed outcome, named after its rule.
//
// Wrong uses whose outcome is left open are not run: a loan that finds nothing to take, the bytes of a token that names
// no block, a deep copy of an empty pointer, tearing down both a pool and its copy, iterators and references that
// outlived their array.
#include "gvtestpeer.h"
#include "hookledger.h"
#include "throwsites.h"

#include <gilvane/threads/gvmutex.h>
#include <gilvane/threads/gvthreadsfactory.h>
#include <gilvane/utilities/gvmemorypool.h>

#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace Gilvane {

namespace {

using Tokens = std::vector<unsigned int>;
using Table = GVHashTable<unsigned int, int>;

constexpr const char* objectFile = "libsrc/base/gvobject";
constexpr const char* threadsFile = "libsrc/threads/gvthreadsfactory";
constexpr const char* tableFile = "libsrc/datastructures/gvhashtable";
constexpr const char* poolFile = "libsrc/utilities/gvmemorypool";
constexpr const char* pointerFile = "libsrc/utilities/gvsmartpointer";
constexpr const char* inUseMessage = "Cannot change size of pool object memory while objects are still in use.";

Tokens freeTokens(GVMemoryPool& pool) {
    const auto& tokens = GVTestPeer::freeTokens(pool);
    return {tokens.begin(), tokens.end()};
}

/// A pool without a lock whose tokens count from 0.
std::unique_ptr<GVMemoryPool> poolOf(unsigned int blocks, unsigned int bytes = 16) {
    GVTestPeer::nextToken() = 0;
    return std::make_unique<GVMemoryPool>(blocks, bytes, false);
}

Tokens lend(GVMemoryPool& pool, int count) {
    Tokens tokens;
    while (count-- > 0) {
        tokens.push_back(pool.getTokenForFreeMemoryObject());
    }
    return tokens;
}

void fill(Table& table, unsigned int keys) {
    for (unsigned int key = 1; key <= keys; ++key) {
        table.insert(key, static_cast<int>(key) * 10);
    }
}

struct Counted : GVObject {
    explicit Counted(int& deletions) : theDeletions(deletions) {}
    Counted(const Counted&) = delete;
    Counted& operator=(const Counted&) = delete;
    ~Counted() override { ++theDeletions; }

    int& theDeletions;
};

struct UnequalKey {
    unsigned int number;
    bool operator==(const UnequalKey&) const { return false; }
};
struct UnequalKeyHash {
    unsigned int operator()(const UnequalKey& key) const { return key.number; }
};

// Hooks and raw blocks

TEST(MisuseOfHooks, anAllocatorAloneIsRefusedAndChangesNothing) {
    const GVDeallocatorFunction before = GVObject::GetDeallocator();
    expectGVException([] { GVObject::SetAllocationHooks(&HookLedger::allocate, nullptr); }, gvinvalidstate, objectFile,
                      "Allocation hooks must be set or reset together.");
    EXPECT_NE(GVObject::GetAllocator(), &HookLedger::allocate);
    EXPECT_EQ(GVObject::GetDeallocator(), before);
}

TEST(MisuseOfHooks, aDeallocatorAloneIsRefusedAndChangesNothing) {
    const GVAllocatorFunction before = GVObject::GetAllocator();
    expectGVException([] { GVObject::SetAllocationHooks(nullptr, &HookLedger::release); }, gvinvalidstate, objectFile,
                      "Allocation hooks must be set or reset together.");
    EXPECT_EQ(GVObject::GetAllocator(), before);
    EXPECT_NE(GVObject::GetDeallocator(), &HookLedger::release);
}

TEST(MisuseOfHooks, aBlockGoesBackToItsOwnHookAfterAChange) {
    auto* const block = new GVMemoryPoolObject(16);
    const HookLedger ledger;
    delete block;
    EXPECT_EQ(ledger.releaseCount(), 0U);
}

TEST(MisuseOfRawBlocks, deletingNullDoesNothing) {
    const HookLedger ledger;
    GVObject::operator delete(nullptr);
    GVObject::operator delete[](nullptr);
    EXPECT_EQ(ledger.releaseCount(), 0U);
}

TEST(MisuseOfStandardAllocator, releasingNullDoesNothing) {
    const HookLedger ledger;
    GVStdAllocator<int>().deallocate(nullptr, 7);
    EXPECT_EQ(ledger.releaseCount(), 0U);
}

TEST(MisuseOfStandardAllocator, aBlockWithANullHeaderWordIsLeftAlone) {
    GVDeallocatorFunction words[2] = {nullptr, nullptr};
    const HookLedger ledger;
    GVStdAllocator<GVDeallocatorFunction>().deallocate(&words[1], 1);
    EXPECT_EQ(ledger.releaseCount(), 0U);
}

TEST(MisuseOfStandardAllocator, theCountOfAReleaseIsIgnored) {
    const HookLedger ledger;
    GVStdAllocator<int> allocator;
    allocator.deallocate(allocator.allocate(3), 4711);
    EXPECT_EQ(ledger.releaseCount(), 1U);
}

TEST(MisuseOfStandardAllocator, moreBytesThan32BitsCountIsExhaustion) {
    const HookLedger ledger;
    GVStdAllocator<int> allocator;
    EXPECT_THROW(static_cast<void>(allocator.allocate(allocator.max_size())), std::bad_alloc);
    EXPECT_EQ(ledger.allocationCount(), 0U);
}

TEST(MisuseOfObjects, moreBytesThan32BitsCountIsExhaustion) {
    const HookLedger ledger;
    constexpr std::size_t most = std::numeric_limits<unsigned int>::max();
    EXPECT_THROW(GVObject::operator new(most), std::bad_alloc);
    EXPECT_EQ(GVObject::operator new(most, std::nothrow), nullptr);
    EXPECT_EQ(ledger.allocationCount(), 0U);
}

// Locks

TEST(MisuseOfThreadsFactory, anUnknownKindIsRefused) {
    const auto unknown = static_cast<_gvmutex>(2);
    expectGVException([=] { GVThreadsFactory().CreateUnnamedHandle(unknown, false); }, gvinvalidstate, threadsFile,
                      "Unknown kind of mutex.");
    expectGVException([=] { CreateUnnamedMutexHandle(unknown, false); }, gvinvalidstate, threadsFile,
                      "Unknown kind of mutex.");
}

TEST(MisuseOfThreadsFactory, aTrueFlagIsRefused) {
    expectGVException([] { GVThreadsFactory().CreateUnnamedHandle(gvexclusivemutex, true); }, gvinvalidstate,
                      threadsFile, "A true flag is not supported for a mutex.");
    expectGVException([] { CreateUnnamedMutexHandle(gvexclusivemutex, true); }, gvinvalidstate, threadsFile,
                      "A true flag is not supported for a mutex.");
}

TEST(MisuseOfThreadsFactory, anUnknownKindIsRefusedBeforeATrueFlag) {
    expectGVException([] { CreateUnnamedMutexHandle(static_cast<_gvmutex>(0), true); }, gvinvalidstate, threadsFile,
                      "Unknown kind of mutex.");
}

// Iterators

TEST(MisuseOfIterators, anIteratorOfNoTableIsNotReadyForAnything) {
    Table::Iterator position;
    const auto expect = [](auto operation, const char* message) {
        expectGVException(operation, gviteratormisuse, tableFile, message);
    };
    expect([&] { *position; }, "Iterator not ready to dereference.");
    expect([&] { position++; }, "Iterator not ready to increment.");
    expect([&] { ++position; }, "Iterator not ready to increment.");
    expect([&] { position.GetKey(); }, "Iterator not ready to get key.");
    expect([&] { position.GetValue(); }, "Iterator not ready to get value.");
}

TEST(MisuseOfIterators, atTheEndOperatorStarSaysSo) {
    const Table table;
    expectGVException([&] { *table.begin(); }, gviteratormisuse, tableFile, "Iterator at end.", 2);
}

TEST(MisuseOfIterators, atTheEndAStepSaysSoAndStays) {
    Table table;
    fill(table, 1);
    Table::Iterator position = table.begin();
    ++position;
    expectGVException([&] { ++position; }, gviteratormisuse, tableFile, "Iterator at end.", 1);
    expectGVException([&] { position++; }, gviteratormisuse, tableFile, "Iterator at end.", 1);
    EXPECT_EQ(position, table.end());
}

TEST(MisuseOfIterators, atTheEndKeyAndValueAreOfAnInvalidEntry) {
    const Table table;
    const Table::Iterator position = table.end();
    expectGVException([&] { position.GetKey(); }, gviteratormisuse, tableFile,
                      "Iterator refers to invalid table entry.", 1);
    expectGVException([&] { position.GetValue(); }, gviteratormisuse, tableFile,
                      "Iterator refers to invalid table entry.", 2);
}

TEST(MisuseOfIterators, onARemovedEntryKeyAndValueAreRefused) {
    Table table;
    fill(table, 2);
    const Table::Iterator position = table.begin();
    table.remove(1);
    expectGVException([&] { position.GetKey(); }, gviteratormisuse, tableFile,
                      "Iterator refers to invalid table entry.", 1);
    expectGVException([&] { position.GetValue(); }, gviteratormisuse, tableFile,
                      "Iterator refers to invalid table entry.", 2);
}

TEST(MisuseOfIterators, onARemovedEntryOperatorStarGivesTheStaleValue) {
    Table table;
    fill(table, 2);
    const Table::Iterator position = table.begin();
    table.remove(1);
    EXPECT_EQ(*position, 10);
}

TEST(MisuseOfIterators, onARemovedEntryAStepGoesOn) {
    Table table;
    fill(table, 2);
    Table::Iterator position = table.begin();
    table.remove(1);
    EXPECT_EQ((++position).GetKey(), 2U);
}

TEST(MisuseOfIterators, onTheAddressNullNothingIsRead) {
    using Entry = Table::Entry;
    // The entry before the end of the address space: one more, and its address is null
    const auto last = reinterpret_cast<Entry*>(-static_cast<std::intptr_t>(sizeof(Entry)));
    const Table::Iterator position = GVTestPeer::iteratorOn(last, 3, 1);
    expectGVException([&] { *position; }, gviteratormisuse, tableFile,
                      "Iterator does not point to valid hash table entry.");
    expectGVException([&] { position.GetKey(); }, gviteratormisuse, tableFile,
                      "Iterator refers to invalid table entry.", 1);
    expectGVException([&] { position.GetValue(); }, gviteratormisuse, tableFile,
                      "Iterator refers to invalid table entry.", 2);
}

// Tables

TEST(MisuseOfTables, gettingAnAbsentKeyGivesNull) {
    Table table;
    fill(table, 3);
    EXPECT_EQ(table.get(4), nullptr);
    EXPECT_EQ(table.getUsedCount(), 3U);
}

TEST(MisuseOfTables, askingForAnAbsentKeyAddsIt) {
    Table table;
    EXPECT_EQ(table[4], 0);
    EXPECT_EQ(table.getUsedCount(), 1U);
}

TEST(MisuseOfTables, insertingAKeyTwiceOverwritesItsValue) {
    Table table;
    fill(table, 3);
    EXPECT_EQ(table.insert(2, 7), 2);
    EXPECT_EQ(table.get(2)->theValue, 7);
    EXPECT_EQ(table.getUsedCount(), 3U);
    EXPECT_EQ(GVTestPeer::fillCount(table), 3U);
}

TEST(MisuseOfTables, overwritingAPointerDeletesNothing) {
    int deletions = 0;
    Counted first(deletions);
    Counted second(deletions);
    GVHashTable<unsigned int, Counted*> table;
    table.insert(1, &first);
    table.insert(1, &second);
    table.clear();
    EXPECT_EQ(deletions, 0);
}

TEST(MisuseOfTables, removingAnAbsentKeyDoesNothing) {
    Table table;
    fill(table, 3);
    EXPECT_TRUE(table.remove(2));
    EXPECT_FALSE(table.remove(2));
    EXPECT_FALSE(table.remove(4711));
    EXPECT_EQ(table.getUsedCount(), 2U);
    EXPECT_EQ(GVTestPeer::fillCount(table), 3U);
}

TEST(MisuseOfTables, clearingTwiceIsHarmless) {
    const HookLedger ledger;
    Table table;
    fill(table, 7);
    table.clear();
    table.clear();
    EXPECT_EQ(GVTestPeer::mask(table), 7U);
    EXPECT_EQ(ledger.releaseCount(), 1U);
}

TEST(MisuseOfTables, aSizeThat32BitsDoNotHoldIsRefusedAndChangesNothing) {
    const HookLedger ledger;
    Table table;
    fill(table, 3);
    EXPECT_EQ(table.resize(2147483648U), 0);
    EXPECT_EQ(table.resize(4294967295U), 0);
    EXPECT_EQ(table.getUsedCount(), 3U);
    EXPECT_EQ(ledger.allocationCount(), 0U);
}

TEST(MisuseOfTables, resizingASmallTableToASmallOneDoesNothing) {
    const HookLedger ledger;
    Table table;
    fill(table, 3);
    EXPECT_EQ(table.resize(7), 0);
    EXPECT_EQ(ledger.allocationCount(), 0U);
}

TEST(MisuseOfTables, aKeyUnequalToItselfIsNotFoundAfterItWasStored) {
    GVHashTable<UnequalKey, int, UnequalKeyHash> table;
    table.insert({1}, 10); // in its home slot; the next goes elsewhere and is not found there
    GVTestPeer::slots(table)[1].theHash = 2;
    expectGVException([&] { table[UnequalKey{1}]; }, gvhashtablefailure, tableFile,
                      "Internal lookup error during operator[].");
    EXPECT_EQ(table.getUsedCount(), 2U);
}

TEST(MisuseOfTables, aKeyHiddenBehindADeletedSlotIsStoredASecondTime) {
    Table table;
    //  slot   0   1   2   3   4   5   6   7
    //  key    0  57   .   .   .   .   8   .
    table.insert(0, 1);
    table.insert(57, 2);
    table.insert(8, 3);
    table.remove(57);
    EXPECT_EQ(table.get(8), nullptr);
    EXPECT_EQ(table[8], 0);
    EXPECT_EQ(table.getUsedCount(), 3U);
    EXPECT_EQ(GVTestPeer::slots(table)[6].theValue, 3);
}

// Tokens

TEST(MisuseOfTokens, oneReturnedTwiceIsLentTwice) {
    const auto pool = poolOf(4);
    lend(*pool, 3);
    pool->releaseObject(2);
    pool->releaseObject(2);
    EXPECT_EQ(pool->numberOfObjectsInPoolInUse(), 1U); // two are lent
    EXPECT_EQ(lend(*pool, 3), (Tokens{2, 2, 0}));
}

TEST(MisuseOfTokens, oneReturnedThoughItIsFreeStandsTwiceInTheList) {
    const auto pool = poolOf(2);
    pool->releaseObject(0);
    EXPECT_EQ(freeTokens(*pool), (Tokens{0, 1, 0}));
    EXPECT_EQ(pool->numberOfObjectsInPoolInUse(), 4294967295U);
}

TEST(MisuseOfTokens, oneThatIsUnknownIsLentLikeAnyOther) {
    const auto pool = poolOf(2);
    pool->releaseObject(4711);
    EXPECT_EQ(pool->getTokenForFreeMemoryObject(), 4711U);
    EXPECT_EQ(GVTestPeer::table(*pool).get(4711), nullptr);
}

TEST(MisuseOfTokens, oneOfAnotherPoolIsLentLikeAnyOther) {
    const auto pool = poolOf(2);
    GVMemoryPool other(2, 16, false);
    const unsigned int foreign = other.getTokenForFreeMemoryObject();
    pool->releaseObject(foreign);
    EXPECT_EQ(freeTokens(*pool), (Tokens{0, 1, foreign}));
    EXPECT_EQ(other.numberOfObjectsInPoolInUse(), 1U);
}

TEST(MisuseOfTokens, oneReturnedToAPoolWithoutBlocksCountsForNothing) {
    GVMemoryPool pool(4, false);
    pool.releaseObject(99);
    EXPECT_EQ(pool.numberOfObjectsInPoolInUse(), 0U);
}

TEST(MisuseOfTokens, oneReturnedToAPoolWithoutBlocksIsLentAndNoneAreBuilt) {
    GVMemoryPool pool(4, false);
    pool.releaseObject(99);
    EXPECT_EQ(pool.getTokenForFreeMemoryObject(), 99U);
    EXPECT_EQ(GVTestPeer::table(pool).getUsedCount(), 0U);
}

TEST(MisuseOfTokens, oneOfARemovedBlockIsTakenBackDead) {
    const auto pool = poolOf(3);
    lend(*pool, 1);
    pool->resizePool(2);
    pool->releaseObject(2);
    EXPECT_EQ(freeTokens(*pool), (Tokens{0, 1, 2}));
    EXPECT_EQ(pool->numberOfObjectsInPoolInUse(), 4294967295U);
    EXPECT_EQ(GVTestPeer::table(*pool).get(2), nullptr);
}

TEST(MisuseOfTokens, oneThatIsFreeStillHasItsBytes) {
    const auto pool = poolOf(2);
    void* const bytes = pool->getMemoryForToken(1);
    ASSERT_NE(bytes, nullptr);
    EXPECT_EQ(pool->getTokenForFreeMemoryObject(), 1U);
    EXPECT_EQ(pool->getMemoryForToken(1), bytes);
}

TEST(MisuseOfTokens, oneThatWasReturnedStillHasItsBytesUnchanged) {
    const auto pool = poolOf(2);
    const unsigned int token = pool->getTokenForFreeMemoryObject();
    std::strcpy(static_cast<char*>(pool->getMemoryForToken(token)), "kept");
    pool->releaseObject(token);
    EXPECT_STREQ(static_cast<char*>(pool->getMemoryForToken(token)), "kept");
}

TEST(MisuseOfTokens, oneOfABlockWithoutBytesHasNoAddress) {
    const auto pool = poolOf(2, 0);
    EXPECT_EQ(pool->getMemoryForToken(pool->getTokenForFreeMemoryObject()), nullptr);
}

TEST(MisuseOfTokens, anUnknownOneThatCannotBeAddedWithoutMemoryStaysInTheTable) {
    HookLedger ledger;
    const auto pool = poolOf(5);
    ledger.refuseOnce(0);
    expectGVException([&] { pool->getMemoryForToken(99); }, gvoutofmemory, tableFile,
                      "Unable to allocate space for new table.", 1);
    EXPECT_EQ(GVTestPeer::table(*pool).getUsedCount(), 6U);
    EXPECT_EQ(GVTestPeer::table(*pool).get(99)->theValue, nullptr);
}

TEST(MisuseOfTokens, takingAnUnknownOneFromTheFreeListDoesNothing) {
    const auto pool = poolOf(2);
    pool->removeTokenFromAvailableList(4711);
    EXPECT_EQ(freeTokens(*pool), (Tokens{0, 1}));
}

TEST(MisuseOfTokens, takingOneThatStandsTwiceInTheFreeListTakesTheFirst) {
    const auto pool = poolOf(3);
    pool->releaseObject(0);
    pool->removeTokenFromAvailableList(0);
    EXPECT_EQ(freeTokens(*pool), (Tokens{1, 2, 0}));
}

// Pools

TEST(MisuseOfPools, theBlockSizeIsNotChangedWhileABlockIsLent) {
    const auto pool = poolOf(2);
    lend(*pool, 1);
    expectGVException([&] { pool->setNumberOfBytesInPoolObject(32); }, gvinvalidstate, poolFile, inUseMessage);
    EXPECT_EQ(GVTestPeer::bytesInEachObject(*pool), 16U);
    EXPECT_EQ(freeTokens(*pool), (Tokens{0}));
}

TEST(MisuseOfPools, theBlockSizeIsNotChangedTwiceInARow) {
    const auto pool = poolOf(4);
    pool->setNumberOfBytesInPoolObject(32);
    EXPECT_EQ(pool->numberOfObjectsInPoolInUse(), 4294967292U);
    expectGVException([&] { pool->setNumberOfBytesInPoolObject(48); }, gvinvalidstate, poolFile, inUseMessage);
    EXPECT_EQ(GVTestPeer::bytesInEachObject(*pool), 32U);
}

TEST(MisuseOfPools, theBlockSizeIsNotChangedAfterATokenWasReturnedTwice) {
    const auto pool = poolOf(2);
    const unsigned int token = pool->getTokenForFreeMemoryObject();
    pool->releaseObject(token);
    pool->releaseObject(token);
    expectGVException([&] { pool->setNumberOfBytesInPoolObject(32); }, gvinvalidstate, poolFile, inUseMessage);
}

TEST(MisuseOfPools, aTokenReturnedTwiceHidesALentBlockFromAChangeOfSize) {
    const auto pool = poolOf(2);
    lend(*pool, 2);
    pool->releaseObject(0);
    pool->releaseObject(0);
    EXPECT_NO_THROW(pool->setNumberOfBytesInPoolObject(32));
    EXPECT_EQ(GVTestPeer::table(*pool).get(1), nullptr);
}

TEST(MisuseOfPools, shrinkingRemovesLentBlocks) {
    const auto pool = poolOf(4);
    lend(*pool, 2);
    pool->resizePool(3);
    EXPECT_EQ(GVTestPeer::table(*pool).get(3), nullptr);
    EXPECT_EQ(freeTokens(*pool), (Tokens{0, 1}));
    EXPECT_EQ(pool->numberOfObjectsInPoolInUse(), 1U);
}

TEST(MisuseOfPools, shrinkingLeavesTheSecondCopyOfATokenReturnedTwice) {
    const auto pool = poolOf(2);
    pool->releaseObject(1);
    pool->resizePool(1);
    EXPECT_EQ(freeTokens(*pool), (Tokens{0, 1}));
}

TEST(MisuseOfPools, rebuildingDestroysLentBlocks) {
    HookLedger ledger;
    const auto pool = poolOf(2);
    lend(*pool, 2);
    const std::size_t before = ledger.releaseCount();
    pool->makePool(0);
    EXPECT_EQ(ledger.releaseCount(), before + 4); // two blocks and their bytes
    EXPECT_EQ(pool->numberOfObjectsInPoolInUse(), 0U);
}

TEST(MisuseOfPools, aRebuiltPoolLendsItsDeadTokensLast) {
    const auto pool = poolOf(2);
    pool->makePool(2);
    EXPECT_EQ(lend(*pool, 4), (Tokens{3, 2, 1, 0}));
    EXPECT_EQ(GVTestPeer::table(*pool).getUsedCount(), 2U);
    EXPECT_EQ(GVTestPeer::table(*pool).get(0), nullptr);
}

TEST(MisuseOfPools, destroyingOneDeletesEachBlockOnceThoughTokensAreLentAndReturnedTwice) {
    const HookLedger ledger; // it fails the case when a block is released twice, or never
    const auto pool = poolOf(3);
    lend(*pool, 2);
    pool->releaseObject(1);
    pool->releaseObject(1);
    pool->releaseObject(4711);
    EXPECT_EQ(freeTokens(*pool), (Tokens{0, 1, 1, 4711}));
}

TEST(MisuseOfPools, tokensGoOnFromZeroAfterTheLastOne) {
    GVTestPeer::nextToken() = std::numeric_limits<unsigned int>::max();
    GVMemoryPool pool(2, 16, false);
    EXPECT_EQ(freeTokens(pool), (Tokens{4294967295U, 0}));
}

TEST(MisuseOfPools, resizingToThePresentNumberDoesNothing) {
    const HookLedger ledger;
    const auto pool = poolOf(3);
    lend(*pool, 3);
    const std::size_t before = ledger.allocationCount();
    pool->resizePool(3);
    EXPECT_EQ(ledger.allocationCount(), before);
    EXPECT_EQ(pool->numberOfObjectsInPoolInUse(), 3U);
}

// Smart pointers

TEST(MisuseOfPointers, fromNullOneIsEmptyWhateverTheFlagsSay) {
    const HookLedger ledger;
    GVSmartPointer<GVMemoryPool> pointer(nullptr, true, true);
    EXPECT_FALSE(pointer);
    EXPECT_EQ(GVTestPeer::refCount(pointer), nullptr);
    EXPECT_EQ(GVTestPeer::ownObject(pointer), nullptr);
    EXPECT_EQ(GVTestPeer::lock(pointer), nullptr);
    EXPECT_EQ(ledger.allocationCount(), 0U);
}

TEST(MisuseOfPointers, givingUpAShareThatThereIsNotDoesNothing) {
    const HookLedger ledger;
    GVSmartPointer<GVMemoryPool> empty;
    empty.decrementRefCount();
    EXPECT_EQ(empty.getRefCount(), 0U);
    int deletions = 0;
    GVSmartPointer<Counted> pointer(new Counted(deletions), true, true);
    pointer.decrementRefCount();
    pointer.decrementRefCount();
    EXPECT_EQ(deletions, 1);
    EXPECT_EQ(pointer.get(), nullptr);
}

TEST(MisuseOfPointers, aShareGivenUpEarlyIsGivenUpOnceMoreAtTheEnd) {
    int deletions = 0;
    GVSmartPointer<Counted> first(new Counted(deletions), true, true);
    const GVSmartPointer<Counted> second(first);
    {
        GVSmartPointer<Counted> third(first);
        third.decrementRefCount();
        EXPECT_NE(third.get(), nullptr);
        EXPECT_EQ(first.getRefCount(), 2U);
    }
    EXPECT_EQ(first.getRefCount(), 1U);
    ++*GVTestPeer::refCount(first); // accounts for the share given up twice
    EXPECT_EQ(deletions, 0);
}

TEST(MisuseOfPointers, assignmentToItselfChangesNothing) {
    int deletions = 0;
    GVSmartPointer<Counted> pointer(new Counted(deletions), true, true);
    auto& same = pointer;
    pointer = same;
    EXPECT_EQ(pointer.getRefCount(), 1U);
    pointer = std::move(same);
    EXPECT_EQ(pointer.getRefCount(), 1U);
    EXPECT_EQ(deletions, 0);
}

TEST(MisuseOfPointers, oneMovedFromIsEmpty) {
    int deletions = 0;
    GVSmartPointer<Counted> pointer(new Counted(deletions), true, true);
    const GVSmartPointer<Counted> taken(std::move(pointer));
    EXPECT_EQ(pointer.get(), nullptr); // NOLINT(bugprone-use-after-move)
    pointer.decrementRefCount();
    EXPECT_EQ(deletions, 0);
}

TEST(MisuseOfPointers, whatCannotBeCopiedIsNotDeepCopied) {
    int deletions = 0;
    GVSmartPointer<Counted> pointer(new Counted(deletions), true, true);
    expectGVException([&] { pointer.deepCopy(); }, gvinvalidstate, pointerFile,
                      "Object of smart pointer cannot be copied.");
    EXPECT_EQ(pointer.getRefCount(), 1U);
}

TEST(MisuseOfPointers, anEmptyOneIsPrintedWithoutAttributes) {
    std::ostringstream stream;
    GVSmartPointer<GVMemoryPool>().print(stream);
    EXPECT_EQ(stream.str(), "<GVSmartPointer></GVSmartPointer>");
}

TEST(MisuseOfPointers, anEmptyOneIsCopiedAndAssigned) {
    const HookLedger ledger;
    const GVSmartPointer<GVMemoryPool> empty;
    GVSmartPointer<GVMemoryPool> copy(empty);
    copy = empty;
    EXPECT_EQ(copy.getRefCount(), 0U);
    EXPECT_EQ(ledger.allocationCount(), 0U);
}

TEST(MisuseOfPointers, deletingTheDataTwiceIsLeftToTheLastShareForAnObjectNotOwned) {
    int deletions = 0;
    {
        Counted object(deletions);
        GVSmartPointer<Counted> pointer(&object, false, false);
        pointer.deleteData();
        pointer.deleteData();
        EXPECT_EQ(deletions, 0);
        EXPECT_EQ(pointer.getRefCount(), 1U);
    }
    EXPECT_EQ(deletions, 1);
}

} // namespace

} // namespace Gilvane
