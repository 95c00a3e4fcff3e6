#include <gilvane/utilities/gvmemorypool.h>
#include <gilvane/utilities/gvsmartpointer.h>

#include <gilvane/base/gvrawblock.h>

#include "../endingobject.h"
#include "../sharedobject.h"
#include "gvtestpeer.h"
#include "hookledger.h"
#include "recordingthreads.h"
#include "throwsites.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <utility>
#include <vector>

namespace Gilvane {

namespace {

using Pointer = GVSmartPointer<SharedObject>;
using PoolPointer = GVSmartPointer<GVMemoryPool>;
using Peer = GVTestPeer;
using SmartPointer = TestOfLocks;

// Empties the log, but for handles that live on, which keep their numbers.
void forgetEntries() { ThreadsLog::entries().clear(); }

// Names of blocks, by their user addresses' starts, for the log of releases.
std::map<void*, std::string>& blockNames() {
    static std::map<void*, std::string> theNames;
    return theNames;
}

void nameBlock(const void* userBytes, const std::string& name) {
    blockNames()[reinterpret_cast<void*>(detail::rawBlockStart(userBytes))] = name;
}

// The entries without the releases of blocks that have no name.
Log locksIn(const Log& entries) {
    Log locks;
    for (const std::string& entry : entries) {
        if (entry != "release ") {
            locks.push_back(entry);
        }
    }
    return locks;
}

// A deallocation function that writes each release into the log of the locks.
void releaseIntoLog(void* block) {
    ThreadsLog::entries().push_back("release " + blockNames()[block]);
    HookLedger::release(block);
}

// As HookLedger, with a log of locks, handles and releases in their common order.
class SmartPointerLocking : public TestOfLocks {
  protected:
    SmartPointerLocking() {
        blockNames().clear();
        GVObject::SetAllocationHooks(&HookLedger::allocate, &releaseIntoLog);
    }

    // A pointer to an object of its own, its blocks named after `name`.
    Pointer makePointer(const std::string& name, bool owning = true, bool locking = true) {
        Pointer pointer(new SharedObject(theDeletions), owning, locking);
        nameBlock(pointer.get(), "object " + name);
        nameBlock(Peer::refCount(pointer), "count " + name);
        nameBlock(Peer::ownObject(pointer), "flag " + name);
        if (locking) {
            nameBlock(Peer::lock(pointer), "handle " + name);
        }
        return pointer;
    }

    // Runs `operation` while the count says `outside`, but for the time between lock and unlock of handle 1, where it
    // says `inside`. Returns what it says at the unlocking.
    template <typename Operation>
    static unsigned int countAfter(Pointer& pointer, unsigned int inside, Operation operation) {
        unsigned int* const count = Peer::refCount(pointer);
        const unsigned int outside = *count;
        unsigned int seen = 0;
        ThreadsLog::observer() = [&, count](const std::string& entry) {
            if (entry == "lock 1") {
                *count = inside;
            } else if (entry == "unlock 1") {
                seen = *count;
                *count = outside;
            }
        };
        operation();
        ThreadsLog::observer() = nullptr;
        return seen;
    }

    HookLedger theLedger;
    int theDeletions = 0;
};

} // namespace

// Construction

TEST_F(SmartPointerLocking, asksTheFreeFunctionForAnExclusiveHandle) {
    const Pointer pointer = makePointer("a");
    EXPECT_EQ(ThreadsLog::entries(), Log{"function creates 1 (3, false)"});
}

TEST_F(SmartPointerLocking, makesNoHandleWithoutALock) {
    Pointer pointer = makePointer("a", true, false);
    EXPECT_EQ(Peer::lock(pointer), nullptr);
    EXPECT_TRUE(ThreadsLog::entries().empty());
}

TEST_F(SmartPointerLocking, makesAndCallsNothingForANullObject) {
    {
        Pointer pointer(nullptr, true, true);
        EXPECT_EQ(fieldsOf(pointer), noFields<SharedObject>());
    }
    EXPECT_TRUE(ThreadsLog::entries().empty());
    EXPECT_EQ(theLedger.allocationCount(), 0U);
}

TEST_F(SmartPointerLocking, makesTheCellsBeforeTheHandle) {
    SharedObject object(theDeletions);
    std::size_t allocationsBefore = 0;
    ThreadsLog::observer() = [&](const std::string&) { allocationsBefore = theLedger.allocationCount(); };
    const Pointer pointer(&object, false, true);
    EXPECT_EQ(allocationsBefore, 3U); // both cells, and the handle just made
    EXPECT_EQ(theLedger.requests().back(), detail::rawBlockHeaderBytes + sizeof(RecordingMutexHandle));
    ThreadsLog::observer() = nullptr;
}

TEST_F(SmartPointer, losesBothCellsWhenTheHandleCannotBeHad) {
    int deletions = 0;
    SharedObject object(deletions);
    HookLedger ledger;
    ThreadsLog::refuseNextHandle() = true;
    expectGVException([&object] { const Pointer pointer(&object, true, true); }, gvoutofmemory,
                      "tests/support/recordingthreads", "No handle.");
    const std::vector<HookLedger::Block> lost = ledger.liveBlocks();
    ASSERT_EQ(lost.size(), 2U);
    EXPECT_EQ(lost[0].bytes, detail::rawBlockHeaderBytes + sizeof(unsigned int));
    EXPECT_EQ(lost[1].bytes, detail::rawBlockHeaderBytes + sizeof(bool));
    EXPECT_EQ(deletions, 0);
    EXPECT_TRUE(ThreadsLog::entries().empty());
    ledger.reclaimLiveBlocks();
}

// Giving up a share

TEST_F(SmartPointerLocking, releasesEverythingUnderTheHandleAndThenTheHandle) {
    { const Pointer pointer = makePointer("a"); }
    EXPECT_EQ(ThreadsLog::entries(),
              (Log{"function creates 1 (3, false)", "lock 1", "release object a", "release count a", "release flag a",
                   "unlock 1", "delete 1", "release handle a"}));
    EXPECT_EQ(theDeletions, 1);
}

TEST_F(SmartPointerLocking, releasesInTheSameOrderWhenCalledExplicitly) {
    Pointer pointer = makePointer("a");
    forgetEntries();
    pointer.decrementRefCount();
    EXPECT_EQ(ThreadsLog::entries(), (Log{"lock 1", "release object a", "release count a", "release flag a", "unlock 1",
                                          "delete 1", "release handle a"}));
}

TEST_F(SmartPointerLocking, keepsAllFieldsUntilTheHandleIsDeleted) {
    Pointer pointer = makePointer("a");
    const auto fields = fieldsOf(pointer);
    int seen = 0;
    ThreadsLog::observer() = [&](const std::string& entry) {
        EXPECT_EQ(fieldsOf(pointer), fields) << entry;
        ++seen;
    };
    pointer.decrementRefCount();
    EXPECT_EQ(seen, 3); // lock, unlock, delete
    EXPECT_EQ(fieldsOf(pointer), noFields<SharedObject>());
}

TEST_F(SmartPointerLocking, releasesTheCellsOfAnObjectThatItDoesNotOwn) {
    SharedObject* object = nullptr;
    {
        const Pointer pointer = makePointer("a", false, true);
        object = pointer.get();
        forgetEntries();
    }
    EXPECT_EQ(ThreadsLog::entries(),
              (Log{"lock 1", "release count a", "release flag a", "unlock 1", "delete 1", "release handle a"}));
    EXPECT_EQ(theDeletions, 0);
    delete object;
}

TEST_F(SmartPointerLocking, releasesObjectAndCellsWithoutALock) {
    { const Pointer pointer = makePointer("a", true, false); }
    EXPECT_EQ(ThreadsLog::entries(), (Log{"release object a", "release count a", "release flag a"}));
}

TEST_F(SmartPointerLocking, locksAndUnlocksWhenOthersShare) {
    const Pointer first = makePointer("a");
    {
        const Pointer second(first);
        forgetEntries();
    }
    EXPECT_EQ(ThreadsLog::entries(), (Log{"lock 1", "unlock 1"}));
}

TEST_F(SmartPointerLocking, countsDownWhileTheHandleIsHeld) {
    Pointer first = makePointer("a");
    Pointer second(first);
    EXPECT_EQ(countAfter(first, 8, [&second] { second.decrementRefCount(); }), 7U);
}

TEST_F(SmartPointerLocking, locksAHandleWithoutACountAndLeavesIt) {
    Pointer first = makePointer("a");
    forgetEntries();
    {
        Pointer onlyLock;
        Peer::lock(onlyLock) = Peer::lock(first);
    }
    EXPECT_EQ(ThreadsLog::entries(), (Log{"lock 1", "unlock 1"}));
}

TEST_F(SmartPointerLocking, doesNothingForAnEmptyPointer) {
    {
        Pointer pointer;
        pointer.decrementRefCount();
    }
    EXPECT_TRUE(ThreadsLog::entries().empty());
}

TEST_F(SmartPointerLocking, doesNothingAfterTheLastShareIsGone) {
    {
        Pointer pointer = makePointer("a");
        pointer.decrementRefCount();
        forgetEntries();
        pointer.decrementRefCount();
    }
    EXPECT_TRUE(ThreadsLog::entries().empty());
}

TEST_F(SmartPointerLocking, holdsTheHandleWhileAPoolIsTornDown) {
    PoolPointer pool = GVMemoryPool::init(true);
    forgetEntries();
    pool.decrementRefCount();
    EXPECT_EQ(locksIn(ThreadsLog::entries()), (Log{"lock 2", "delete 1", "unlock 2", "delete 2"}));
}

TEST_F(SmartPointerLocking, deletesAnObjectWithoutLockingWhenAskedDirectly) {
    Pointer pointer = makePointer("a");
    forgetEntries();
    pointer.deleteData();
    EXPECT_EQ(ThreadsLog::entries(), Log{"release object a"});
    *Peer::ownObject(pointer) = false; // the object is gone
}

// Copies, assignments, moves

TEST_F(SmartPointerLocking, countsACopyUnderTheSharedHandle) {
    Pointer first = makePointer("a");
    const Pointer second(first);
    EXPECT_EQ(ThreadsLog::entries(), (Log{"function creates 1 (3, false)", "lock 1", "unlock 1"}));
    EXPECT_EQ(countAfter(first, 20,
                         [&first] {
                             Pointer third(first);
                             clearFields(third);
                         }),
              21U);
}

TEST_F(SmartPointerLocking, copiesWithoutALockWhereThereIsNone) {
    const Pointer unlocked = makePointer("a", true, false);
    const Pointer copy(unlocked);
    const Pointer empty;
    const Pointer emptyCopy(empty);
    EXPECT_TRUE(ThreadsLog::entries().empty());
    EXPECT_EQ(unlocked.getRefCount(), 2U);
}

TEST_F(SmartPointerLocking, countsAnAssignmentUnderEachHandleInTurn) {
    Pointer former = makePointer("a");
    const Pointer other = makePointer("b");
    forgetEntries();
    former = other;
    EXPECT_EQ(ThreadsLog::entries(), (Log{"lock 2", "unlock 2", "lock 1", "release object a", "release count a",
                                          "release flag a", "unlock 1", "delete 1", "release handle a"}));
}

TEST_F(SmartPointerLocking, countsAnAssignmentToAnEmptyPointerOnce) {
    const Pointer other = makePointer("a");
    Pointer pointer;
    forgetEntries();
    pointer = other;
    EXPECT_EQ(ThreadsLog::entries(), (Log{"lock 1", "unlock 1"}));
}

TEST_F(SmartPointerLocking, movesWithoutTouchingTheHandle) {
    Pointer first = makePointer("a");
    Pointer target;
    forgetEntries();
    Pointer second(std::move(first));
    target = std::move(second);
    EXPECT_TRUE(ThreadsLog::entries().empty());
    EXPECT_EQ(*Peer::refCount(target), 1U);
}

TEST_F(SmartPointerLocking, releasesTheFormerObjectUnderItsHandleWhenMovedTo) {
    Pointer target = makePointer("a");
    Pointer source = makePointer("b");
    forgetEntries();
    target = std::move(source);
    EXPECT_EQ(ThreadsLog::entries(), (Log{"lock 1", "release object a", "release count a", "release flag a", "unlock 1",
                                          "delete 1", "release handle a"}));
}

TEST_F(SmartPointerLocking, locksNoHandleTwiceWhenTheObjectThatGoesRefillsThePointer) {
    using EndingPointer = GVSmartPointer<EndingObject>;
    const Log ofCopies = {"lock 2", "unlock 2", "lock 1",   "lock 3",  "unlock 3",
                          "lock 2", "unlock 2", "unlock 1", "delete 1"};
    const Log ofMoves = {"lock 1", "lock 2", "unlock 2", "delete 2", "unlock 1", "delete 1"};
    for (const bool byMove : {false, true}) {
        SCOPED_TRACE(byMove ? "by move" : "by copy");
        ThreadsLog::clear();
        Ends ends;
        EndingPointer slot(new EndingObject("former", ends), true, true);
        EndingPointer next(new EndingObject("next", ends), true, true);
        EndingPointer last(new EndingObject("last", ends), true, true);
        const auto assign = [byMove](EndingPointer& target, EndingPointer& source) {
            if (byMove) {
                target = std::move(source);
            } else {
                target = source;
            }
        };
        slot->theLastAct = [&] { assign(slot, last); };
        forgetEntries();
        assign(slot, next);
        EXPECT_EQ(locksIn(ThreadsLog::entries()), byMove ? ofMoves : ofCopies);
        EXPECT_EQ(slot->theName, "last");
    }
}

// Access

TEST_F(SmartPointerLocking, readsTheCountUnderTheHandle) {
    Pointer pointer = makePointer("a");
    forgetEntries();
    unsigned int read = 0;
    countAfter(pointer, 40, [&] { read = pointer.getRefCount(); });
    EXPECT_EQ(read, 40U);
    EXPECT_EQ(ThreadsLog::entries(), (Log{"lock 1", "unlock 1"}));
}

TEST_F(SmartPointerLocking, readsTheCountWithoutALockWhereThereIsNone) {
    const Pointer unlocked = makePointer("a", true, false);
    const Pointer empty;
    EXPECT_EQ(unlocked.getRefCount(), 1U);
    EXPECT_EQ(empty.getRefCount(), 0U);
    EXPECT_TRUE(ThreadsLog::entries().empty());
}

TEST_F(SmartPointerLocking, givesTheObjectWithoutALock) {
    const Pointer pointer = makePointer("a");
    forgetEntries();
    EXPECT_EQ(&*pointer, pointer.get());
    EXPECT_EQ(pointer->theValue, 0);
    EXPECT_TRUE(static_cast<bool>(pointer));
    EXPECT_TRUE(ThreadsLog::entries().empty());
}

} // namespace Gilvane
