#include <gilvane/utilities/gvmemorypool.h>

#include <gilvane/base/gvrawblock.h>

#include "gvtestpeer.h"
#include "hookledger.h"
#include "sharedobject.h"
#include "throwsites.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <memory>
#include <new>
#include <stdexcept>
#include <type_traits>
#include <vector>

namespace Gilvane {

namespace {

using PoolPointer = GVSmartPointer<GVMemoryPool>;
using Peer = GVTestPeer;

constexpr unsigned int poolBytes = detail::rawBlockHeaderBytes + sizeof(GVMemoryPool);
constexpr unsigned int countCellBytes = detail::rawBlockHeaderBytes + sizeof(unsigned int);
constexpr unsigned int flagCellBytes = detail::rawBlockHeaderBytes + sizeof(bool);

constexpr unsigned int tokenBytes(unsigned int tokens) {
    return detail::rawBlockHeaderBytes + tokens * static_cast<unsigned int>(sizeof(unsigned int));
}

std::vector<unsigned int> freeTokensOf(GVMemoryPool& pool) {
    return {Peer::freeTokens(pool).begin(), Peer::freeTokens(pool).end()};
}

// What was asked of the allocation function after the first `before` requests.
std::vector<unsigned int> requestsAfter(const HookLedger& ledger, std::size_t before) {
    const std::vector<unsigned int> requests = ledger.requests();
    return {requests.begin() + static_cast<std::ptrdiff_t>(before), requests.end()};
}

// Counts the living and can refuse to be copied.
struct CopiedObject : GVObject {
    explicit CopiedObject(int& living) : theLiving(living) { ++theLiving; }
    CopiedObject(const CopiedObject& other) : GVObject(other), theValue(other.theValue), theLiving(other.theLiving) {
        if (other.theRefusal) {
            throw std::runtime_error("not now");
        }
        ++theLiving;
    }
    ~CopiedObject() override { --theLiving; }

    int theValue = 0;
    bool theRefusal = false;
    int& theLiving;
};

struct UniqueObject : GVObject {
    UniqueObject() = default;
    UniqueObject(const UniqueObject&) = delete;
    UniqueObject& operator=(const UniqueObject&) = delete;
};

// Claims to be copyable. Its copy constructor does not compile.
struct FalselyCopyable : GVObject {
    std::vector<std::unique_ptr<int>> theParts;
};

// Its copies say that they share with their source.
struct SharingObject : CopiedObject {
    using CopiedObject::CopiedObject;
};

class DerivedPool : public GVMemoryPool {
  public:
    using GVMemoryPool::GVMemoryPool;
};

} // namespace

template <>
struct GVIsDeepCopyable<FalselyCopyable> : std::false_type {};
template <>
struct GVCopySharesWithSource<SharingObject> : std::true_type {};

// Pools. Source and copy hold the same blocks and handle, so each test takes those from the copy before it goes.

TEST(SmartPointerDeepCopy, mapsTheSameTokensToTheSameBlocks) {
    PoolPointer source = GVMemoryPool::initWithNumberOfObjectsAndSize(2, 16, true);
    PoolPointer copy = source.deepCopy();
    EXPECT_NE(copy.get(), source.get());
    EXPECT_EQ(Peer::table(*copy).getUsedCount(), 2U);
    int seen = 0;
    for (const unsigned int token : Peer::freeTokens(*source)) {
        ASSERT_NE(Peer::table(*copy).get(token), nullptr);
        EXPECT_EQ(Peer::table(*copy).get(token)->theValue, Peer::table(*source).get(token)->theValue);
        ++seen;
    }
    EXPECT_EQ(seen, 2);
    EXPECT_TRUE(*copy == *source);
    takeSharedPartsFrom(*copy);
}

TEST(SmartPointerDeepCopy, ownsItsPoolAloneUnderFreshCellsAndAFreshHandle) {
    PoolPointer source = GVMemoryPool::initWithNumberOfObjectsAndSize(2, 16, true);
    const PoolPointer second(source);
    PoolPointer copy = source.deepCopy();
    EXPECT_EQ(*Peer::refCount(copy), 1U);
    EXPECT_TRUE(*Peer::ownObject(copy));
    EXPECT_NE(Peer::refCount(copy), Peer::refCount(source));
    EXPECT_NE(Peer::ownObject(copy), Peer::ownObject(source));
    ASSERT_NE(Peer::lock(copy), nullptr);
    EXPECT_NE(Peer::lock(copy), Peer::lock(source));
    EXPECT_NE(Peer::lock(copy), Peer::mutexHandle(*source));
    EXPECT_EQ(source.getRefCount(), 2U);
    takeSharedPartsFrom(*copy);
}

TEST(SmartPointerDeepCopy, ownsAndLocksEvenWhereTheSourceDoesNot) {
    GVMemoryPool pool(2, 16, false);
    PoolPointer source(&pool, false, false);
    PoolPointer copy = source.deepCopy();
    EXPECT_TRUE(*Peer::ownObject(copy));
    EXPECT_NE(Peer::lock(copy), nullptr);
    EXPECT_FALSE(*Peer::ownObject(source));
    EXPECT_EQ(Peer::lock(source), nullptr);
    takeSharedPartsFrom(*copy);
}

TEST(SmartPointerDeepCopy, copiesThePoolsOtherFieldsAsTheyStand) {
    PoolPointer source = GVMemoryPool::initWithNumberOfObjectsAndSize(2, 24, true);
    Peer::initialNumberOfObjects(*source) = 9;
    PoolPointer copy = source.deepCopy();
    EXPECT_EQ(Peer::initialNumberOfObjects(*copy), 9U);
    EXPECT_EQ(Peer::bytesInEachObject(*copy), 24U);
    EXPECT_EQ(Peer::mutexHandle(*copy), Peer::mutexHandle(*source));
    EXPECT_NE(Peer::mutexHandle(*copy), nullptr);
    EXPECT_TRUE(Peer::useMutexHandle(*copy));
    takeSharedPartsFrom(*copy);
}

TEST(SmartPointerDeepCopy, copiesAPoolWithoutALock) {
    PoolPointer source = GVMemoryPool::init(false);
    PoolPointer copy = source.deepCopy();
    EXPECT_EQ(Peer::mutexHandle(*copy), nullptr);
    EXPECT_FALSE(Peer::useMutexHandle(*copy));
    EXPECT_EQ(Peer::initialNumberOfObjects(*copy), Peer::initialNumberOfObjects(*source));
}

TEST(SmartPointerDeepCopy, copiesTheFreeTokensInOrderIntoStorageForJustThem) {
    GVTestPeer::nextToken() = 0;
    PoolPointer source = GVMemoryPool::initWithNumberOfObjectsAndSize(5, 16, false);
    source->getTokenForFreeMemoryObject();
    source->getTokenForFreeMemoryObject();
    source->releaseObject(4);
    ASSERT_GT(Peer::freeTokens(*source).capacity(), 4U);
    PoolPointer copy = source.deepCopy();
    EXPECT_EQ(freeTokensOf(*copy), (std::vector<unsigned int>{0, 1, 2, 4}));
    EXPECT_EQ(Peer::freeTokens(*copy).capacity(), 4U);
    EXPECT_NE(Peer::freeTokens(*copy).data(), Peer::freeTokens(*source).data());
    takeSharedPartsFrom(*copy);
}

TEST(SmartPointerDeepCopy, leavesTheSourceAsItIs) {
    PoolPointer source = GVMemoryPool::initWithNumberOfObjectsAndSize(3, 16, true);
    const auto fields = fieldsOf(source);
    const std::vector<unsigned int> tokens = freeTokensOf(*source);
    PoolPointer copy = source.deepCopy();
    EXPECT_EQ(fieldsOf(source), fields);
    EXPECT_EQ(freeTokensOf(*source), tokens);
    EXPECT_EQ(Peer::table(*source).getUsedCount(), 3U);
    EXPECT_EQ(source.getRefCount(), 1U);
    takeSharedPartsFrom(*copy);
}

TEST(SmartPointerDeepCopy, takesNoTokenAndBuildsNoBlock) {
    PoolPointer source = GVMemoryPool::initWithNumberOfObjectsAndSize(3, 16, false);
    const unsigned int nextToken = GVTestPeer::nextToken();
    PoolPointer copy = source.deepCopy();
    EXPECT_EQ(GVTestPeer::nextToken(), nextToken);
    takeSharedPartsFrom(*copy);
}

TEST(SmartPointerDeepCopy, asksForPoolThenTokensThenCellsThenHandle) {
    HookLedger ledger;
    PoolPointer source = GVMemoryPool::initWithNumberOfObjectsAndSize(3, 16, true);
    const std::size_t before = ledger.allocationCount();
    PoolPointer copy = source.deepCopy();
    const std::vector<unsigned int> requests = requestsAfter(ledger, before);
    ASSERT_EQ(requests.size(), 5U);
    EXPECT_EQ(requests[0], poolBytes);
    EXPECT_EQ(requests[1], tokenBytes(3));
    EXPECT_EQ(requests[2], countCellBytes);
    EXPECT_EQ(requests[3], flagCellBytes);
    EXPECT_GE(requests[4], detail::rawBlockHeaderBytes + sizeof(GVMutexHandle));
    takeSharedPartsFrom(*copy);
}

TEST(SmartPointerDeepCopy, asksForNoTokenStorageWhenEveryBlockIsLent) {
    HookLedger ledger;
    PoolPointer source = GVMemoryPool::initWithNumberOfObjectsAndSize(1, 16, false);
    source->getTokenForFreeMemoryObject();
    const std::size_t before = ledger.allocationCount();
    PoolPointer copy = source.deepCopy();
    const std::vector<unsigned int> requests = requestsAfter(ledger, before);
    ASSERT_EQ(requests.size(), 4U);
    EXPECT_EQ(requests[0], poolBytes);
    EXPECT_EQ(requests[1], countCellBytes);
    EXPECT_EQ(Peer::freeTokens(*copy).capacity(), 0U);
    takeSharedPartsFrom(*copy);
}

TEST(SmartPointerDeepCopy, copiesTheTableBeforeTheTokens) {
    HookLedger ledger;
    PoolPointer source = GVMemoryPool::initWithNumberOfObjectsAndSize(6, 16, false);
    const std::size_t before = ledger.allocationCount();
    PoolPointer copy = source.deepCopy();
    const std::vector<unsigned int> requests = requestsAfter(ledger, before);
    ASSERT_EQ(requests.size(), 6U); // pool, grown slot array, tokens, two cells, handle
    EXPECT_EQ(requests[0], poolBytes);
    EXPECT_GT(requests[1], tokenBytes(6));
    EXPECT_EQ(requests[2], tokenBytes(6));
    takeSharedPartsFrom(*copy);
}

TEST(SmartPointerDeepCopy, isTornDownInTheSourcesPlace) {
    HookLedger ledger;
    {
        PoolPointer source = GVMemoryPool::initWithNumberOfObjectsAndSize(6, 16, true);
        const PoolPointer copy = source.deepCopy();
        takeSharedPartsFrom(*source);
    }
    EXPECT_GT(ledger.releaseCount(), 0U);
    EXPECT_TRUE(ledger.liveBlocks().empty());
}

TEST(SmartPointerDeepCopy, throwsBadAllocWhenThePoolCannotBeHad) {
    HookLedger ledger;
    PoolPointer source = GVMemoryPool::initWithNumberOfObjectsAndSize(6, 16, true);
    const std::size_t before = ledger.liveBlocks().size();
    ledger.refuseOnce(0);
    EXPECT_THROW(source.deepCopy(), std::bad_alloc);
    EXPECT_EQ(ledger.liveBlocks().size(), before);
    EXPECT_EQ(source.getRefCount(), 1U);
}

TEST(SmartPointerDeepCopy, returnsThePoolsMemoryWhenTheTableCannotBeCopied) {
    HookLedger ledger;
    PoolPointer source = GVMemoryPool::initWithNumberOfObjectsAndSize(6, 16, true);
    const std::size_t before = ledger.liveBlocks().size();
    ledger.refuseOnce(1);
    expectGVException([&source] { source.deepCopy(); }, gvoutofmemory, "libsrc/datastructures/gvhashtable",
                      "Unable to allocate space for new table.");
    EXPECT_EQ(ledger.liveBlocks().size(), before);
    EXPECT_EQ(Peer::table(*source).getUsedCount(), 6U);
}

TEST(SmartPointerDeepCopy, losesTheArrayThatTheCopiedTableHadGrownWhenItCannotGrowAgain) {
    HookLedger ledger;
    {
        PoolPointer source = GVMemoryPool::initWithNumberOfObjectsAndSize(22, 16, true);
        const std::size_t before = ledger.liveBlocks().size();

        ledger.refuseOnce(2); // the pool and 32 slots are granted, 128 slots are not
        expectGVException([&source] { source.deepCopy(); }, gvoutofmemory, "libsrc/datastructures/gvhashtable",
                          "Unable to allocate space for new table.");

        EXPECT_EQ(ledger.liveBlocks().size(), before + 1);
        EXPECT_EQ(Peer::table(*source).getUsedCount(), 22U);
    }
    const std::vector<HookLedger::Block> lost = ledger.liveBlocks();
    ASSERT_EQ(lost.size(), 1U);
    EXPECT_GE(lost[0].bytes, 33 * sizeof(TokenTable::Entry) + detail::rawBlockHeaderBytes);
    ledger.reclaimLiveBlocks();
}

TEST(SmartPointerDeepCopy, throwsBadAllocAndReleasesTableAndPoolWhenTheTokensCannotBeCopied) {
    HookLedger ledger;
    PoolPointer source = GVMemoryPool::initWithNumberOfObjectsAndSize(6, 16, true);
    const std::size_t liveBefore = ledger.liveBlocks().size();
    const std::size_t before = ledger.allocationCount();
    ledger.refuseOnce(2);
    EXPECT_THROW(source.deepCopy(), std::bad_alloc);
    const std::vector<unsigned int> requests = requestsAfter(ledger, before);
    ASSERT_EQ(requests.size(), 3U);
    EXPECT_EQ(requests.back(), tokenBytes(6));
    EXPECT_EQ(ledger.liveBlocks().size(), liveBefore);
    EXPECT_EQ(Peer::table(*source).getUsedCount(), 6U);
    EXPECT_EQ(freeTokensOf(*source).size(), 6U);
}

TEST(SmartPointerDeepCopy, leavesThePoolUnreleasedWhenThePointerCannotBeMade) {
    // Refused after pool and tokens: the count cell, the flag cell, the handle.
    const std::vector<std::vector<unsigned int>> losses = {
        {poolBytes, tokenBytes(3)},
        {poolBytes, tokenBytes(3), countCellBytes},
        {poolBytes, tokenBytes(3), countCellBytes, flagCellBytes},
    };
    for (std::size_t step = 0; step < losses.size(); ++step) {
        SCOPED_TRACE(step);
        HookLedger ledger;
        {
            PoolPointer source = GVMemoryPool::initWithNumberOfObjectsAndSize(3, 16, true);
            ledger.refuseOnce(2 + step);
            EXPECT_THROW(source.deepCopy(), std::bad_alloc);
            EXPECT_EQ(ledger.refusedCount(), 1U);
            // The source still has its blocks and its handle.
            EXPECT_EQ(source.getRefCount(), 1U);
            EXPECT_EQ(source->numberOfObjectsInPoolInUse(), 0U);
            EXPECT_NE(source->getMemoryForToken(source->getTokenForFreeMemoryObject()), nullptr);
        }
        EXPECT_EQ(bytesOf(ledger.liveBlocks()), losses[step]);
        ledger.reclaimLiveBlocks();
    }
}

TEST(SmartPointerDeepCopy, isCalledThroughTheVirtualTable) {
    class PointerWithItsOwnDeepCopy : public GVSmartPointer<SharedObject> {
      public:
        using GVSmartPointer::GVSmartPointer;
        GVSmartPointer<SharedObject> deepCopy() override {
            ++theCalls;
            return {};
        }
        int theCalls = 0;
    };
    PointerWithItsOwnDeepCopy pointer;
    EXPECT_FALSE(static_cast<GVSmartPointer<SharedObject>&>(pointer).deepCopy());
    EXPECT_EQ(pointer.theCalls, 1);
}

// Other objects

TEST(SmartPointerDeepCopy, copiesAnotherObjectWithItsCopyConstructor) {
    int living = 0;
    HookLedger ledger;
    {
        GVSmartPointer<CopiedObject> source(new CopiedObject(living), true, false);
        source->theValue = 12;
        GVSmartPointer<CopiedObject> copy = source.deepCopy();
        EXPECT_EQ(living, 2);
        EXPECT_NE(copy.get(), source.get());
        EXPECT_EQ(copy->theValue, 12);
        EXPECT_EQ(*Peer::refCount(copy), 1U);
        EXPECT_TRUE(*Peer::ownObject(copy));
        EXPECT_NE(Peer::lock(copy), nullptr);
        EXPECT_EQ(source.getRefCount(), 1U);
    }
    EXPECT_EQ(living, 0);
}

TEST(SmartPointerDeepCopy, copiesAnObjectThatIsNoClass) {
    int number = 7;
    GVSmartPointer<int> source(&number, false, false);
    const GVSmartPointer<int> copy = source.deepCopy();
    EXPECT_NE(copy.get(), &number);
    EXPECT_EQ(*copy, 7);
}

TEST(SmartPointerDeepCopy, returnsTheMemoryOfAnotherObjectWhoseCopyConstructorThrows) {
    int living = 0;
    HookLedger ledger;
    GVSmartPointer<CopiedObject> source(new CopiedObject(living), true, true);
    source->theRefusal = true;
    const std::size_t before = ledger.liveBlocks().size();
    EXPECT_THROW(source.deepCopy(), std::runtime_error);
    EXPECT_EQ(ledger.liveBlocks().size(), before);
    EXPECT_EQ(living, 1);
}

TEST(SmartPointerDeepCopy, deletesTheCopyOfAnotherObjectWhenThePointerCannotBeMade) {
    const std::vector<std::vector<unsigned int>> losses = {{}, {countCellBytes}, {countCellBytes, flagCellBytes}};
    for (std::size_t step = 0; step < losses.size(); ++step) {
        SCOPED_TRACE(step);
        int living = 0;
        HookLedger ledger;
        {
            GVSmartPointer<CopiedObject> source(new CopiedObject(living), true, true);
            ledger.refuseOnce(1 + step);
            EXPECT_THROW(source.deepCopy(), std::bad_alloc);
            EXPECT_EQ(ledger.refusedCount(), 1U);
            EXPECT_EQ(living, 1);
        }
        EXPECT_EQ(bytesOf(ledger.liveBlocks()), losses[step]);
        ledger.reclaimLiveBlocks();
    }
}

TEST(SmartPointerDeepCopy, refusesAnObjectThatCannotBeCopied) {
    HookLedger ledger;
    GVSmartPointer<UniqueObject> source(new UniqueObject, true, true);
    const auto fields = fieldsOf(source);
    const std::size_t before = ledger.liveBlocks().size();
    expectGVException([&source] { source.deepCopy(); }, gvinvalidstate, "libsrc/utilities/gvsmartpointer",
                      "Object of smart pointer cannot be copied.");
    EXPECT_EQ(fieldsOf(source), fields);
    EXPECT_EQ(ledger.liveBlocks().size(), before);
}

TEST(SmartPointerDeepCopy, refusesAnObjectThatOnlyClaimsToBeCopyable) {
    EXPECT_TRUE(std::is_copy_constructible_v<FalselyCopyable>);
    HookLedger ledger;
    GVSmartPointer<FalselyCopyable> source(new FalselyCopyable, true, true);
    source->theParts.push_back(std::make_unique<int>(7));
    const GVSmartPointer<FalselyCopyable> sharer(source);
    expectGVException([&source] { source.deepCopy(); }, gvinvalidstate, "libsrc/utilities/gvsmartpointer",
                      "Object of smart pointer cannot be copied.");
    EXPECT_EQ(*sharer->theParts.at(0), 7);
    EXPECT_EQ(source.getRefCount(), 2U);
}

TEST(SmartPointerDeepCopy, copiesWhatClaimsToBeCopyableUnlessToldOtherwise) {
    EXPECT_TRUE(GVIsDeepCopyable<CopiedObject>::value);
    EXPECT_TRUE(GVIsDeepCopyable<GVMemoryPool>::value);
    EXPECT_TRUE(GVIsDeepCopyable<int>::value);
    EXPECT_FALSE(GVIsDeepCopyable<UniqueObject>::value);
    EXPECT_FALSE(GVIsDeepCopyable<FalselyCopyable>::value);
}

// Copies that share with their source

TEST(SmartPointerDeepCopy, sharesWithItsSourceIfItIsAPoolOrToldSo) {
    EXPECT_TRUE(GVCopySharesWithSource<GVMemoryPool>::value);
    EXPECT_TRUE(GVCopySharesWithSource<DerivedPool>::value);
    EXPECT_TRUE(GVCopySharesWithSource<SharingObject>::value);
    EXPECT_FALSE(GVCopySharesWithSource<CopiedObject>::value);
    EXPECT_FALSE(GVCopySharesWithSource<GVMemoryPoolObject>::value);
    EXPECT_FALSE(GVCopySharesWithSource<GVObject>::value);
    EXPECT_FALSE(GVCopySharesWithSource<int>::value);
}

TEST(SmartPointerDeepCopy, leavesAnotherCopyThatSharesWithItsSourceUnreleasedWhenThePointerCannotBeMade) {
    int living = 0;
    HookLedger ledger;
    {
        GVSmartPointer<SharingObject> source(new SharingObject(living), true, true);
        ledger.refuseOnce(1);
        EXPECT_THROW(source.deepCopy(), std::bad_alloc);
        EXPECT_EQ(ledger.refusedCount(), 1U);
        EXPECT_EQ(source.getRefCount(), 1U);
    }
    EXPECT_EQ(living, 1);
    EXPECT_EQ(bytesOf(ledger.liveBlocks()),
              std::vector<unsigned int>{detail::rawBlockHeaderBytes + sizeof(SharingObject)});
    ledger.reclaimLiveBlocks();
}

TEST(SmartPointerDeepCopy, leavesAPoolOfADerivedClassUnreleasedWhenThePointerCannotBeMade) {
    HookLedger ledger;
    {
        GVSmartPointer<DerivedPool> source(new DerivedPool(3, 16, true), true, true);
        ledger.refuseOnce(2); // the pool and its tokens are granted
        EXPECT_THROW(source.deepCopy(), std::bad_alloc);
        EXPECT_EQ(ledger.refusedCount(), 1U);
        EXPECT_NE(source->getMemoryForToken(source->getTokenForFreeMemoryObject()), nullptr);
    }
    EXPECT_EQ(bytesOf(ledger.liveBlocks()), (std::vector<unsigned int>{poolBytes, tokenBytes(3)}));
    ledger.reclaimLiveBlocks();
}

} // namespace Gilvane
