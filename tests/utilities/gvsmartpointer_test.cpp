#include <gilvane/utilities/gvmemorypool.h>
#include <gilvane/utilities/gvsmartpointer.h>

#include <gilvane/base/gvrawblock.h>

#include "callofnull.h"
#include "gvtestpeer.h"
#include "hookledger.h"
#include "sharedobject.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <tuple>
#include <type_traits>
#include <vector>

#include <unistd.h>

namespace Gilvane {

namespace {

using Pointer = GVSmartPointer<SharedObject>;
using Peer = GVTestPeer;

constexpr unsigned int countCellBytes = detail::rawBlockHeaderBytes + sizeof(unsigned int);
constexpr unsigned int flagCellBytes = detail::rawBlockHeaderBytes + sizeof(bool);

// The address of the header word before what a user got.
void* blockStart(const void* userBytes) { return reinterpret_cast<void*>(detail::rawBlockStart(userBytes)); }

// Where a virtual operation stands in the table of virtual operations, counted from 0. A pointer to a virtual member
// function begins with the entry's offset; some targets add 1 to it.
template <typename MemberFunction>
std::size_t slotOf(MemberFunction function) {
    std::uintptr_t offset = 0;
    std::memcpy(&offset, &function, sizeof offset);
    return (offset & ~std::uintptr_t{1}) / sizeof(void*);
}

// Deletes nothing and notes what it sees.
class PointerWithItsOwnDeleteData : public Pointer {
  public:
    using Pointer::Pointer;
    void deleteData() override {
        ++theCalls;
        theFields = fieldsOf<SharedObject>(*this);
        theCount = *Peer::refCount<SharedObject>(*this);
    }
    int theCalls = 0;
    std::tuple<SharedObject*, unsigned int*, bool*, GVMutexHandle*> theFields;
    unsigned int theCount = 99;
};

} // namespace

// Class

static_assert(std::is_convertible_v<Pointer*, GVObject*>, "single and public base");
static_assert(std::has_virtual_destructor_v<Pointer>, "deleted through its base");
static_assert(!std::is_convertible_v<Pointer, bool>, "the test for an object is explicit");
static_assert(std::is_constructible_v<bool, Pointer>, "the test for an object exists");
static_assert(std::is_nothrow_move_constructible_v<Pointer> && std::is_nothrow_move_assignable_v<Pointer>);

TEST(SmartPointer, consistsOfItsVirtualTableAndFourFieldsInTheirOrder) {
    Pointer pointer;
    const char* const start = reinterpret_cast<const char*>(&pointer);
    EXPECT_EQ(sizeof(Pointer), 5 * sizeof(void*));
    EXPECT_EQ(reinterpret_cast<const char*>(&Peer::object(pointer)) - start, std::ptrdiff_t(1 * sizeof(void*)));
    EXPECT_EQ(reinterpret_cast<const char*>(&Peer::refCount(pointer)) - start, std::ptrdiff_t(2 * sizeof(void*)));
    EXPECT_EQ(reinterpret_cast<const char*>(&Peer::ownObject(pointer)) - start, std::ptrdiff_t(3 * sizeof(void*)));
    EXPECT_EQ(reinterpret_cast<const char*>(&Peer::lock(pointer)) - start, std::ptrdiff_t(4 * sizeof(void*)));
}

TEST(SmartPointer, hasDeepCopyPrintAndDeleteDataInTheSlotsAfterItsDestructors) {
    EXPECT_EQ(slotOf(&Pointer::deepCopy), 2U);
    EXPECT_EQ(slotOf(&Pointer::print), 3U);
    EXPECT_EQ(slotOf(&Pointer::deleteData), 4U);
}

TEST(SmartPointer, isItselfAllocatedThroughTheHooksAndReleasedThroughItsBase) {
    HookLedger ledger;
    GVObject* const pointer = new Pointer;
    EXPECT_EQ(ledger.requests(), std::vector<unsigned int>{detail::rawBlockHeaderBytes + sizeof(Pointer)});
    delete pointer;
    EXPECT_EQ(ledger.releaseCount(), 1U);
}

// Construction

TEST(SmartPointer, isEmptyByDefaultAndTakesNoMemory) {
    HookLedger ledger;
    Pointer pointer;
    EXPECT_EQ(fieldsOf(pointer), noFields<SharedObject>());
    EXPECT_EQ(ledger.allocationCount(), 0U);
}

TEST(SmartPointer, isEmptyWhenMadeFromNullWhateverTheFlags) {
    HookLedger ledger;
    for (const bool owning : {false, true}) {
        for (const bool locking : {false, true}) {
            Pointer pointer(nullptr, owning, locking);
            EXPECT_EQ(fieldsOf(pointer), noFields<SharedObject>());
        }
    }
    EXPECT_EQ(ledger.allocationCount(), 0U);
    EXPECT_EQ(ledger.releaseCount(), 0U);
}

TEST(SmartPointer, countsOneSharerAndKeepsObjectAndFlagInEveryCombination) {
    int deletions = 0;
    for (const bool owning : {false, true}) {
        for (const bool locking : {false, true}) {
            SCOPED_TRACE(testing::Message() << "owning " << owning << ", locking " << locking);
            SharedObject* const object = new SharedObject(deletions);
            deletions = 0;
            {
                Pointer pointer(object, owning, locking);
                EXPECT_EQ(Peer::object(pointer), object);
                EXPECT_EQ(*Peer::refCount(pointer), 1U);
                EXPECT_EQ(*Peer::ownObject(pointer), owning);
                EXPECT_EQ(Peer::lock(pointer) != nullptr, locking);
            }
            EXPECT_EQ(deletions, owning ? 1 : 0);
            if (!owning) {
                delete object;
            }
        }
    }
}

TEST(SmartPointer, asksForTheCountCellThenTheFlagCellThenTheHandle) {
    int deletions = 0;
    SharedObject object(deletions);
    HookLedger ledger;
    const Pointer pointer(&object, false, true);
    const std::vector<unsigned int> requests = ledger.requests();
    ASSERT_EQ(requests.size(), 3U);
    EXPECT_EQ(requests[0], countCellBytes);
    EXPECT_EQ(requests[1], flagCellBytes);
    EXPECT_GE(requests[2], detail::rawBlockHeaderBytes + sizeof(GVMutexHandle));
}

TEST(SmartPointer, asksForItsTwoCellsOnlyWhenMadeWithoutALock) {
    int deletions = 0;
    SharedObject object(deletions);
    HookLedger ledger;
    const Pointer pointer(&object, false, false);
    EXPECT_EQ(ledger.requests(), (std::vector<unsigned int>{countCellBytes, flagCellBytes}));
}

TEST(SmartPointer, keepsItsCellsJustPastHeaderWordsThatHoldTheDeallocationFunction) {
    int deletions = 0;
    SharedObject object(deletions);
    HookLedger ledger;
    Pointer pointer(&object, false, false);
    const std::vector<HookLedger::Block> cells = ledger.liveBlocks();
    ASSERT_EQ(cells.size(), 2U);
    EXPECT_EQ(static_cast<void*>(static_cast<char*>(cells[0].start) + detail::rawBlockHeaderBytes),
              Peer::refCount(pointer));
    EXPECT_EQ(static_cast<void*>(static_cast<char*>(cells[1].start) + detail::rawBlockHeaderBytes),
              Peer::ownObject(pointer));
    EXPECT_EQ(detail::rawBlockDeallocator(Peer::refCount(pointer)), &HookLedger::release);
    EXPECT_EQ(detail::rawBlockDeallocator(Peer::ownObject(pointer)), &HookLedger::release);
}

// Exhaustion

TEST(SmartPointer, throwsBadAllocWhenTheCountCellCannotBeHad) {
    int deletions = 0;
    SharedObject object(deletions);
    HookLedger ledger;
    ledger.refuseOnce(0);
    EXPECT_THROW(Pointer(&object, true, true), std::bad_alloc);
    EXPECT_EQ(ledger.requests(), std::vector<unsigned int>{countCellBytes}); // and nothing after it
    EXPECT_TRUE(ledger.liveBlocks().empty());
    EXPECT_EQ(deletions, 0);
}

TEST(SmartPointer, losesTheCountCellWhenTheFlagCellCannotBeHad) {
    int deletions = 0;
    SharedObject object(deletions);
    HookLedger ledger;
    ledger.refuseOnce(1);
    EXPECT_THROW(Pointer(&object, true, true), std::bad_alloc);
    EXPECT_EQ(ledger.requests(), (std::vector<unsigned int>{countCellBytes, flagCellBytes}));
    EXPECT_EQ(bytesOf(ledger.liveBlocks()), std::vector<unsigned int>{countCellBytes});
    EXPECT_EQ(ledger.releaseCount(), 0U);
    EXPECT_EQ(deletions, 0);
    ledger.reclaimLiveBlocks();
}

TEST(SmartPointer, losesBothCellsWhenThereIsNoMemoryForTheHandle) {
    int deletions = 0;
    SharedObject object(deletions);
    HookLedger ledger;
    ledger.refuseOnce(2);
    EXPECT_THROW(Pointer(&object, true, true), std::bad_alloc);
    EXPECT_EQ(ledger.allocationCount(), 3U);
    EXPECT_EQ(bytesOf(ledger.liveBlocks()), (std::vector<unsigned int>{countCellBytes, flagCellBytes}));
    EXPECT_EQ(ledger.releaseCount(), 0U);
    EXPECT_EQ(deletions, 0);
    ledger.reclaimLiveBlocks();
}

// Destruction

TEST(SmartPointer, leavesAnObjectAliveThatItDoesNotOwnAndReleasesItsCells) {
    int deletions = 0;
    HookLedger ledger;
    const std::unique_ptr<SharedObject> object(new SharedObject(deletions));
    std::vector<void*> cells;
    {
        Pointer pointer(object.get(), false, false);
        cells = {blockStart(Peer::refCount(pointer)), blockStart(Peer::ownObject(pointer))};
    }
    EXPECT_EQ(deletions, 0);
    EXPECT_EQ(ledger.releases(), cells);
}

TEST(SmartPointer, releasesObjectThenCountCellThenFlagCellThenHandle) {
    int deletions = 0;
    HookLedger ledger;
    std::vector<void*> expected;
    {
        Pointer pointer(new SharedObject(deletions), true, true);
        expected = {blockStart(Peer::object(pointer)), blockStart(Peer::refCount(pointer)),
                    blockStart(Peer::ownObject(pointer)), blockStart(Peer::lock(pointer))};
    }
    EXPECT_EQ(deletions, 1);
    EXPECT_EQ(ledger.releases(), expected);
}

TEST(SmartPointer, deletesItsObjectThroughTheVirtualDestructor) {
    struct DerivedObject : SharedObject {
        DerivedObject(int& deletions, int& ownDeletions) : SharedObject(deletions), theOwnDeletions(ownDeletions) {}
        ~DerivedObject() override { ++theOwnDeletions; }
        int& theOwnDeletions;
    };
    int deletions = 0;
    int ownDeletions = 0;
    { const Pointer pointer(new DerivedObject(deletions, ownDeletions), true, false); }
    EXPECT_EQ(ownDeletions, 1);
    EXPECT_EQ(deletions, 1);
}

TEST(SmartPointer, releasesItsCellsThroughTheFunctionInTheirHeaderWordsAfterTheHooksChanged) {
    static int calls;
    calls = 0;
    int deletions = 0;
    SharedObject object(deletions);
    HookLedger ledger;
    {
        const Pointer pointer(&object, false, true);
        GVObject::SetAllocationHooks(&HookLedger::allocate, [](void* block) {
            ++calls;
            HookLedger::release(block);
        });
    }
    EXPECT_EQ(calls, 0);
    EXPECT_EQ(ledger.releaseCount(), 3U);
}

TEST(SmartPointer, recordsTheDeallocationFunctionCurrentWhenItsCellsAreMade) {
    static int calls;
    calls = 0;
    int deletions = 0;
    SharedObject object(deletions);
    HookLedger ledger;
    GVObject::SetAllocationHooks(&HookLedger::allocate, [](void* block) {
        ++calls;
        HookLedger::release(block);
    });
    {
        const Pointer pointer(&object, false, false);
        GVObject::SetAllocationHooks(nullptr, nullptr);
    }
    EXPECT_EQ(calls, 2);
}

TEST(SmartPointer, callsEvenANullDeallocationFunctionOfACell) {
#if defined(GILVANE_TEST_SANITIZED)
    GTEST_SKIP() << "a sanitizer reports the call first";
#else
    for (const bool isOfCount : {true, false}) {
        EXPECT_EXIT(
            {
                int deletions = 0;
                Pointer pointer(new SharedObject(deletions), true, false);
                const void* const cell = isOfCount ? static_cast<const void*>(Peer::refCount(pointer))
                                                   : static_cast<const void*>(Peer::ownObject(pointer));
                *reinterpret_cast<GVDeallocatorFunction*>(detail::rawBlockStart(cell)) = nullptr;
                endAtACallOfNull();
                pointer.decrementRefCount();
                _exit(1);
            },
            ::testing::ExitedWithCode(0), "")
            << (isOfCount ? "count" : "flag");
    }
#endif
}

TEST(SmartPointer, givesUpItsShareWhenOnlyTheCountIsThere) {
    unsigned int count = 2;
    {
        Pointer pointer;
        Peer::refCount(pointer) = &count;
    }
    EXPECT_EQ(count, 1U);
}

TEST(SmartPointer, leavesTheFlagAloneWhenOnlyThatIsThere) {
    bool owned = true;
    const HookLedger ledger;
    {
        Pointer pointer;
        Peer::ownObject(pointer) = &owned;
    }
    EXPECT_TRUE(owned);
    EXPECT_EQ(ledger.releaseCount(), 0U);
}

// Giving up a share

TEST(SmartPointerDecrement, ofTheLastShareEmptiesThePointer) {
    int deletions = 0;
    HookLedger ledger;
    Pointer pointer(new SharedObject(deletions), true, true);
    pointer.decrementRefCount();
    EXPECT_EQ(fieldsOf(pointer), noFields<SharedObject>());
    EXPECT_EQ(deletions, 1);
    EXPECT_TRUE(ledger.liveBlocks().empty());
}

TEST(SmartPointerDecrement, doesNothingAfterTheLastShare) {
    int deletions = 0;
    HookLedger ledger;
    Pointer pointer(new SharedObject(deletions), true, true);
    pointer.decrementRefCount();
    const std::size_t releases = ledger.releaseCount();
    pointer.decrementRefCount();
    EXPECT_EQ(fieldsOf(pointer), noFields<SharedObject>());
    EXPECT_EQ(deletions, 1);
    EXPECT_EQ(ledger.releaseCount(), releases);
}

TEST(SmartPointerDecrement, doesNothingOnAnEmptyPointer) {
    HookLedger ledger;
    Pointer pointer;
    pointer.decrementRefCount();
    EXPECT_EQ(fieldsOf(pointer), noFields<SharedObject>());
    EXPECT_EQ(ledger.releaseCount(), 0U);
}

TEST(SmartPointerDecrement, keepsAllFieldsWhileOthersShare) {
    int deletions = 0;
    SharedObject object(deletions);
    Pointer first(&object, true, true);
    Pointer second(first);
    const auto fields = fieldsOf(second);
    second.decrementRefCount();
    EXPECT_EQ(fieldsOf(second), fields);
    EXPECT_EQ(*Peer::refCount(first), 1U);
    EXPECT_EQ(deletions, 0);
    *Peer::ownObject(first) = false; // the object is the test's
    clearFields(second);             // its share is given up already
}

TEST(SmartPointerDecrement, calledExplicitlyIsFollowedByAnotherWhenThePointerIsDestroyed) {
    int deletions = 0;
    Pointer first(new SharedObject(deletions), true, true);
    const Pointer second(first);
    {
        Pointer third(first);
        third.decrementRefCount();
        EXPECT_EQ(first.getRefCount(), 2U);
    }
    EXPECT_EQ(first.getRefCount(), 1U);
    clearFields(first); // its share went with the third pointer
}

TEST(SmartPointerDecrement, callsDeleteDataThroughTheVirtualTable) {
    int deletions = 0;
    SharedObject object(deletions);
    HookLedger ledger;
    PointerWithItsOwnDeleteData pointer(&object, true, true);
    const auto fields = fieldsOf<SharedObject>(pointer);
    static_cast<Pointer&>(pointer).decrementRefCount();
    EXPECT_EQ(pointer.theCalls, 1);
    EXPECT_EQ(deletions, 0);
    EXPECT_EQ(pointer.theFields, fields); // deleteData sees the fields, and the count at zero
    EXPECT_EQ(pointer.theCount, 0U);
    EXPECT_EQ(fieldsOf<SharedObject>(pointer), noFields<SharedObject>());
    EXPECT_TRUE(ledger.liveBlocks().empty());
}

TEST(SmartPointerDecrement, callsDeleteDataForTheLastShareOnly) {
    int deletions = 0;
    SharedObject object(deletions);
    PointerWithItsOwnDeleteData first(&object, true, false);
    {
        const Pointer second(first);
        first.decrementRefCount();
        EXPECT_EQ(first.theCalls, 0);
        ++*Peer::refCount<SharedObject>(first); // takes the share back
    }
    first.decrementRefCount();
    EXPECT_EQ(first.theCalls, 1);
}

TEST(SmartPointerDecrement, callsDeleteDataOfTheAssignedPointerWhileThatHoldsTheFormerObject) {
    int deletions = 0;
    SharedObject object(deletions);
    for (const bool byMove : {false, true}) {
        SCOPED_TRACE(byMove ? "by move" : "by copy");
        HookLedger ledger;
        PointerWithItsOwnDeleteData pointer(&object, true, true);
        PointerWithItsOwnDeleteData other(new SharedObject(deletions), true, true);
        const auto former = fieldsOf<SharedObject>(pointer);
        const auto next = fieldsOf<SharedObject>(other);
        if (byMove) {
            static_cast<Pointer&>(pointer) = std::move(other);
        } else {
            static_cast<Pointer&>(pointer) = other;
        }
        EXPECT_EQ(pointer.theCalls, 1);
        EXPECT_EQ(pointer.theFields, former);
        EXPECT_EQ(pointer.theCount, 0U);
        EXPECT_EQ(fieldsOf<SharedObject>(pointer), next);
        EXPECT_EQ(other.theCalls, 0);
        EXPECT_EQ(pointer.getRefCount(), byMove ? 1U : 2U);
    }
    EXPECT_EQ(deletions, 2); // both of the other pointer's objects, by the destructor that deletes what is owned
}

// Deleting the object

TEST(SmartPointerDeleteData, deletesAnOwnedObjectAndClearsNoField) {
    int deletions = 0;
    Pointer pointer(new SharedObject(deletions), true, true);
    const auto fields = fieldsOf(pointer);
    pointer.deleteData();
    EXPECT_EQ(deletions, 1);
    EXPECT_EQ(fieldsOf(pointer), fields);
    EXPECT_EQ(*Peer::refCount(pointer), 1U);
    EXPECT_TRUE(*Peer::ownObject(pointer));
    *Peer::ownObject(pointer) = false; // the object is gone
}

TEST(SmartPointerDeleteData, leavesAnObjectThatIsNotOwned) {
    int deletions = 0;
    SharedObject object(deletions);
    Pointer pointer(&object, false, false);
    pointer.deleteData();
    EXPECT_EQ(deletions, 0);
}

TEST(SmartPointerDeleteData, leavesAnObjectWithoutAFlagCell) {
    int deletions = 0;
    SharedObject object(deletions);
    Pointer pointer;
    Peer::object(pointer) = &object;
    pointer.deleteData();
    EXPECT_EQ(deletions, 0);
    EXPECT_EQ(pointer.get(), &object);
    clearFields(pointer);
}

TEST(SmartPointerDeleteData, releasesNothingOnAnEmptyPointerOrWithoutAnObject) {
    HookLedger ledger;
    bool owned = true;
    Pointer pointer;
    pointer.deleteData();
    Peer::ownObject(pointer) = &owned;
    pointer.deleteData();
    EXPECT_EQ(ledger.releaseCount(), 0U);
    EXPECT_TRUE(owned);
    clearFields(pointer);
}

TEST(SmartPointerDeleteData, followsTheFlagAsItIsAtTheEnd) {
    int deletions = 0;
    SharedObject object(deletions);
    {
        Pointer pointer(&object, true, false);
        *Peer::ownObject(pointer) = false;
    }
    EXPECT_EQ(deletions, 0);
}

// Access

TEST(SmartPointerAccess, givesTheObjectByGetArrowStarAndTest) {
    int deletions = 0;
    SharedObject object(deletions);
    object.theValue = 17;
    const Pointer pointer(&object, false, false);
    EXPECT_EQ(pointer.get(), &object);
    EXPECT_EQ(&*pointer, &object);
    EXPECT_EQ(pointer->theValue, 17);
    EXPECT_TRUE(static_cast<bool>(pointer));
}

TEST(SmartPointerAccess, changesTheObjectThroughTheArrow) {
    int deletions = 0;
    SharedObject object(deletions);
    const Pointer pointer(&object, false, false);
    pointer->theValue = 5;
    EXPECT_EQ(object.theValue, 5);
}

TEST(SmartPointerAccess, givesNullAndFalseAndZeroWhenEmpty) {
    const Pointer pointer;
    EXPECT_EQ(pointer.get(), nullptr);
    EXPECT_EQ(pointer.operator->(), nullptr);
    EXPECT_FALSE(static_cast<bool>(pointer));
    EXPECT_EQ(pointer.getRefCount(), 0U);
}

TEST(SmartPointerAccess, countsTheSharers) {
    int deletions = 0;
    const Pointer first(new SharedObject(deletions), true, true);
    EXPECT_EQ(first.getRefCount(), 1U);
    {
        const Pointer second(first);
        EXPECT_EQ(first.getRefCount(), 2U);
        EXPECT_EQ(second.getRefCount(), 2U);
    }
    EXPECT_EQ(first.getRefCount(), 1U);
}

TEST(SmartPointerAccess, leavesTheHandleFreeAfterEveryOperation) {
    int deletions = 0;
    Pointer first(new SharedObject(deletions), true, true);
    GVMutexHandle* const handle = Peer::lock(first);
    {
        Pointer second(first);
        Pointer third;
        third = second;
        EXPECT_EQ(third.getRefCount(), 3U);
    }
    ASSERT_TRUE(handle->tryLock());
    handle->unlock();
}

} // namespace Gilvane
