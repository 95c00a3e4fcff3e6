#include <gilvane/utilities/gvsmartpointer.h>

#include "gvtestpeer.h"
#include "hookledger.h"
#include "sharedobject.h"

#include <gtest/gtest.h>

#include <utility>

namespace Gilvane {

namespace {

using Pointer = GVSmartPointer<SharedObject>;
using Peer = GVTestPeer;

// One of a chain of objects, each held by the one before it.
struct Link : GVObject {
    explicit Link(int& deletions) : theDeletions(deletions) {}
    ~Link() override { ++theDeletions; }
    GVSmartPointer<Link> theNext;
    int& theDeletions;
};

} // namespace

// Copies

TEST(SmartPointerCopy, sharesAllFourFieldsAndAddsOneSharer) {
    int deletions = 0;
    HookLedger ledger;
    Pointer first(new SharedObject(deletions), true, true);
    const auto fields = fieldsOf(first);
    const std::size_t allocations = ledger.allocationCount();
    Pointer second(first);
    EXPECT_EQ(fieldsOf(first), fields);
    EXPECT_EQ(fieldsOf(second), fields);
    EXPECT_EQ(*Peer::refCount(first), 2U);
    EXPECT_EQ(ledger.allocationCount(), allocations);
}

TEST(SmartPointerCopy, worksWithoutALock) {
    int deletions = 0;
    {
        Pointer first(new SharedObject(deletions), true, false);
        Pointer second(first);
        EXPECT_EQ(fieldsOf(second), fieldsOf(first));
        EXPECT_EQ(second.getRefCount(), 2U);
    }
    EXPECT_EQ(deletions, 1);
}

TEST(SmartPointerCopy, ofAnEmptyPointerIsEmpty) {
    Pointer first;
    Pointer second(first);
    EXPECT_EQ(fieldsOf(second), noFields<SharedObject>());
    EXPECT_EQ(fieldsOf(first), noFields<SharedObject>());
}

TEST(SmartPointerCopy, keepsTheObjectUntilTheLastSharerGoes) {
    int deletions = 0;
    HookLedger ledger;
    Pointer last;
    {
        const Pointer first(new SharedObject(deletions), true, true);
        const Pointer second(first);
        last = second;
    }
    EXPECT_EQ(deletions, 0);
    EXPECT_EQ(last.getRefCount(), 1U);
    last = Pointer();
    EXPECT_EQ(deletions, 1);
    EXPECT_TRUE(ledger.liveBlocks().empty());
}

// Assignment

TEST(SmartPointerAssignment, sharesAllFourFieldsAndAddsOneSharer) {
    int deletions = 0;
    Pointer first(new SharedObject(deletions), true, true);
    const auto fields = fieldsOf(first);
    Pointer second;
    Pointer& result = second = first;
    EXPECT_EQ(&result, &second);
    EXPECT_EQ(fieldsOf(first), fields);
    EXPECT_EQ(fieldsOf(second), fields);
    EXPECT_EQ(first.getRefCount(), 2U);
}

TEST(SmartPointerAssignment, deletesTheFormerObjectWithItsLastShare) {
    int formerDeletions = 0;
    int deletions = 0;
    HookLedger ledger;
    {
        Pointer pointer(new SharedObject(formerDeletions), true, true);
        const Pointer other(new SharedObject(deletions), true, true);
        pointer = other;
        EXPECT_EQ(formerDeletions, 1);
        EXPECT_EQ(deletions, 0);
        EXPECT_EQ(ledger.liveBlocks().size(), 4U); // the other's object, cells and handle
        EXPECT_EQ(pointer.getRefCount(), 2U);
    }
    EXPECT_EQ(formerDeletions, 1);
    EXPECT_EQ(deletions, 1);
}

TEST(SmartPointerAssignment, leavesTheFormerObjectToItsOtherSharers) {
    int formerDeletions = 0;
    int deletions = 0;
    const Pointer keeper(new SharedObject(formerDeletions), true, true);
    Pointer pointer(keeper);
    const Pointer other(new SharedObject(deletions), true, true);
    pointer = other;
    EXPECT_EQ(formerDeletions, 0);
    EXPECT_EQ(keeper.getRefCount(), 1U);
    EXPECT_EQ(pointer.get(), other.get());
}

TEST(SmartPointerAssignment, ofAnEmptyPointerGivesUpTheShare) {
    int deletions = 0;
    const Pointer empty;
    Pointer pointer(new SharedObject(deletions), true, true);
    pointer = empty;
    EXPECT_EQ(fieldsOf(pointer), noFields<SharedObject>());
    EXPECT_EQ(deletions, 1);
}

TEST(SmartPointerAssignment, toItselfChangesNothing) {
    int deletions = 0;
    Pointer pointer(new SharedObject(deletions), true, true);
    const auto fields = fieldsOf(pointer);
    const Pointer& same = pointer;
    pointer = same;
    EXPECT_EQ(deletions, 0);
    EXPECT_EQ(fieldsOf(pointer), fields);
    EXPECT_EQ(pointer.getRefCount(), 1U);
}

TEST(SmartPointerAssignment, toItselfLeavesAnEmptyPointerEmpty) {
    Pointer pointer;
    const Pointer& same = pointer;
    pointer = same;
    EXPECT_EQ(fieldsOf(pointer), noFields<SharedObject>());
}

TEST(SmartPointerAssignment, ofAnEmptyPointerToAnotherTakesNoMemory) {
    const HookLedger ledger;
    const Pointer empty;
    Pointer pointer;
    pointer = empty;
    EXPECT_EQ(fieldsOf(pointer), noFields<SharedObject>());
    EXPECT_EQ(pointer.getRefCount(), 0U);
    EXPECT_EQ(ledger.allocationCount(), 0U);
}

TEST(SmartPointerAssignment, betweenSharersChangesNothing) {
    int deletions = 0;
    Pointer first(new SharedObject(deletions), true, true);
    const Pointer second(first);
    const auto fields = fieldsOf(first);
    first = second;
    EXPECT_EQ(deletions, 0);
    EXPECT_EQ(fieldsOf(first), fields);
    EXPECT_EQ(first.getRefCount(), 2U);
}

TEST(SmartPointerAssignment, takesOverFromAPointerInsideTheFormerObject) {
    int deletions = 0;
    GVSmartPointer<Link> head(new Link(deletions), true, true);
    head->theNext = GVSmartPointer<Link>(new Link(deletions), true, true);
    Link* const next = head->theNext.get();
    head = head->theNext;
    EXPECT_EQ(deletions, 1);
    EXPECT_EQ(head.get(), next);
    EXPECT_EQ(head.getRefCount(), 1U);
}

// Moves

TEST(SmartPointerMove, takesOverTheShareAndLeavesTheSourceEmpty) {
    int deletions = 0;
    HookLedger ledger;
    Pointer source(new SharedObject(deletions), true, true);
    const auto fields = fieldsOf(source);
    const std::size_t allocations = ledger.allocationCount();
    Pointer target(std::move(source));
    EXPECT_EQ(fieldsOf(target), fields);
    EXPECT_EQ(fieldsOf(source), noFields<SharedObject>());
    EXPECT_EQ(target.getRefCount(), 1U);
    EXPECT_EQ(ledger.allocationCount(), allocations);
}

TEST(SmartPointerMove, ofAnEmptyPointerIsEmpty) {
    Pointer source;
    Pointer target(std::move(source));
    EXPECT_EQ(fieldsOf(target), noFields<SharedObject>());
    EXPECT_EQ(fieldsOf(source), noFields<SharedObject>());
}

TEST(SmartPointerMoveAssignment, takesOverTheShareAndLeavesTheSourceEmpty) {
    int deletions = 0;
    Pointer source(new SharedObject(deletions), true, true);
    const auto fields = fieldsOf(source);
    Pointer target;
    Pointer& result = target = std::move(source);
    EXPECT_EQ(&result, &target);
    EXPECT_EQ(fieldsOf(target), fields);
    EXPECT_EQ(fieldsOf(source), noFields<SharedObject>());
    EXPECT_EQ(target.getRefCount(), 1U);
}

TEST(SmartPointerMoveAssignment, deletesTheFormerObjectAtOnce) {
    int formerDeletions = 0;
    int deletions = 0;
    Pointer target(new SharedObject(formerDeletions), true, true);
    Pointer source(new SharedObject(deletions), true, true);
    target = std::move(source);
    EXPECT_EQ(formerDeletions, 1);
    EXPECT_EQ(deletions, 0);
}

TEST(SmartPointerMoveAssignment, leavesTheFormerObjectToItsOtherSharers) {
    int formerDeletions = 0;
    int deletions = 0;
    const Pointer keeper(new SharedObject(formerDeletions), true, true);
    Pointer target(keeper);
    target = Pointer(new SharedObject(deletions), true, true);
    EXPECT_EQ(formerDeletions, 0);
    EXPECT_EQ(keeper.getRefCount(), 1U);
}

TEST(SmartPointerMoveAssignment, ofAnEmptyPointerGivesUpTheShare) {
    int deletions = 0;
    Pointer target(new SharedObject(deletions), true, true);
    target = Pointer();
    EXPECT_EQ(fieldsOf(target), noFields<SharedObject>());
    EXPECT_EQ(deletions, 1);
}

TEST(SmartPointerMoveAssignment, toItselfChangesNothing) {
    int deletions = 0;
    Pointer pointer(new SharedObject(deletions), true, true);
    const auto fields = fieldsOf(pointer);
    Pointer& same = pointer;
    pointer = std::move(same);
    EXPECT_EQ(deletions, 0);
    EXPECT_EQ(fieldsOf(pointer), fields);
    EXPECT_EQ(pointer.getRefCount(), 1U);
}

TEST(SmartPointerMoveAssignment, betweenSharersTakesOneShareAway) {
    int deletions = 0;
    Pointer first(new SharedObject(deletions), true, true);
    Pointer second(first);
    const auto fields = fieldsOf(first);
    first = std::move(second);
    EXPECT_EQ(deletions, 0);
    EXPECT_EQ(fieldsOf(first), fields);
    EXPECT_EQ(fieldsOf(second), noFields<SharedObject>());
    EXPECT_EQ(first.getRefCount(), 1U);
}

TEST(SmartPointerMoveAssignment, takesOverFromAPointerInsideTheFormerObject) {
    int deletions = 0;
    GVSmartPointer<Link> head(new Link(deletions), true, true);
    head->theNext = GVSmartPointer<Link>(new Link(deletions), true, true);
    Link* const next = head->theNext.get();
    head = std::move(head->theNext);
    EXPECT_EQ(deletions, 1);
    EXPECT_EQ(head.get(), next);
    EXPECT_EQ(head.getRefCount(), 1U);
}

} // namespace Gilvane
