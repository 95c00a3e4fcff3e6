// Virtual operations stand at fixed places: programs call them through the table, by place.
#include "gvtestpeer.h"
#include "hookledger.h"

#include <gilvane/base/gvexception.h>
#include <gilvane/threads/gvthreadsfactory.h>

#include <gtest/gtest.h>

#include <sstream>
#include <string>

// The tests call member functions as the free functions that they are in the machine's calling convention, which the
// function sanitizer of clang would take for a mistake.
#if defined(__clang__)
#define GILVANE_CALLS_BY_SLOT __attribute__((no_sanitize("undefined")))
#else
#define GILVANE_CALLS_BY_SLOT
#endif

namespace Gilvane {
namespace {

//  slot      0                       1                      2 ...
//  holds     complete destructor     deleting destructor    the class's own operations, in order of declaration
template <typename Function>
Function slot(const void* object, unsigned int number) {
    void* const* const table = *static_cast<void* const* const*>(object);
    return reinterpret_cast<Function>(table[number]);
}

constexpr unsigned int completeDestructor = 0;
constexpr unsigned int deletingDestructor = 1;
constexpr unsigned int firstOwnOperation = 2;

// What a class derived from Base adds comes after everything that Base has.
template <typename Base>
class Probe : public Base {
  public:
    using Base::Base;
    virtual int firstAddedOperation() { return 4711; }
};

template <typename Base>
GILVANE_CALLS_BY_SLOT int resultOfSlot(Probe<Base>& probe, unsigned int number) {
    return slot<int (*)(Probe<Base>*)>(&probe, number)(&probe);
}

template <typename Base>
void expectDestructorPairAlone(Probe<Base>& probe) {
    EXPECT_EQ(resultOfSlot(probe, firstOwnOperation), 4711);
}

TEST(VirtualSlots, everyPlainClassHasTheDestructorPairAlone) {
    Probe<GVObject> object;
    expectDestructorPairAlone(object);
    Probe<GVStdAllocator<unsigned int>> allocator;
    expectDestructorPairAlone(allocator);
    Probe<GVExceptionMessage> message("message", "file");
    expectDestructorPairAlone(message);
    Probe<GVException> exception("message", "file", 1U, gvinvalidstate, 0);
    expectDestructorPairAlone(exception);
    Probe<GVThreadsFactory> factory;
    expectDestructorPairAlone(factory);
    Probe<GVMemoryPoolObject> block;
    expectDestructorPairAlone(block);
    Probe<GVMemoryPool> pool(false);
    expectDestructorPairAlone(pool);
    Probe<TokenTable> table;
    expectDestructorPairAlone(table);
    Probe<TokenTable::Entry> entry;
    expectDestructorPairAlone(entry);
    Probe<TokenTable::Iterator> iterator;
    expectDestructorPairAlone(iterator);
    Probe<GVGenericHashFunction<unsigned int>> function;
    expectDestructorPairAlone(function);
}

TEST(VirtualSlots, whatTheSmartPointerAndTheHandleAddIsAllTheyHave) {
    Probe<GVSmartPointer<GVMemoryPool>> pointer;
    EXPECT_EQ(resultOfSlot(pointer, firstOwnOperation + 3), 4711);

    class Handle : public GVMutexHandle {
      public:
        bool tryLock() override { return true; }
        void lock() override {}
        void unlock() override {}
    };
    Probe<Handle> handle;
    EXPECT_EQ(resultOfSlot(handle, firstOwnOperation + 3), 4711);
}

// Makes an object on the hooks, destroys it by slot, and looks at what became of its storage.
template <typename Class, typename... Arguments>
GILVANE_CALLS_BY_SLOT void expectDestructorPairFirst(Arguments... arguments) {
    HookLedger ledger;
    auto* const destroyed = new Class(arguments...);
    slot<void (*)(Class*)>(destroyed, completeDestructor)(destroyed);
    EXPECT_EQ(ledger.liveBlocks().size(), 1U) << "the complete destructor leaves the storage, and nothing else";
    Class::operator delete(destroyed);
    EXPECT_EQ(ledger.liveBlocks().size(), 0U);

    auto* const deleted = new Class(arguments...);
    slot<void (*)(Class*)>(deleted, deletingDestructor)(deleted);
    EXPECT_EQ(ledger.liveBlocks().size(), 0U) << "the deleting destructor gives the storage back";
}

TEST(VirtualSlots, theDestructorPairComesFirstEverywhere) {
    const char* const longText = "a text longer than any string keeps inside itself";
    expectDestructorPairFirst<GVObject>();
    expectDestructorPairFirst<GVStdAllocator<unsigned int>>();
    expectDestructorPairFirst<GVExceptionMessage>(longText, longText);
    expectDestructorPairFirst<GVException>(longText, longText, 1U, gvinvalidstate, 0);
    expectDestructorPairFirst<GVThreadsFactory>();
    expectDestructorPairFirst<GVMemoryPoolObject>(64U);
    expectDestructorPairFirst<GVMemoryPool>(8U, 16U, true);
    expectDestructorPairFirst<TokenTable>();
    expectDestructorPairFirst<TokenTable::Entry>();
    expectDestructorPairFirst<TokenTable::Iterator>();
    expectDestructorPairFirst<GVGenericHashFunction<unsigned int>>();
    expectDestructorPairFirst<GVSmartPointer<GVMemoryPool>>(static_cast<GVMemoryPool*>(nullptr), true, true);
}

GILVANE_CALLS_BY_SLOT void deleteBySlot(GVMutexHandle* handle) {
    slot<void (*)(GVMutexHandle*)>(handle, deletingDestructor)(handle);
}
GILVANE_CALLS_BY_SLOT bool tryLockBySlot(GVMutexHandle* handle) {
    return slot<bool (*)(GVMutexHandle*)>(handle, firstOwnOperation)(handle);
}
GILVANE_CALLS_BY_SLOT void lockBySlot(GVMutexHandle* handle) {
    slot<void (*)(GVMutexHandle*)>(handle, firstOwnOperation + 1)(handle);
}
GILVANE_CALLS_BY_SLOT void unlockBySlot(GVMutexHandle* handle) {
    slot<void (*)(GVMutexHandle*)>(handle, firstOwnOperation + 2)(handle);
}

TEST(VirtualSlots, aHandleTriesThenLocksThenUnlocks) {
    HookLedger ledger;
    GVMutexHandle* const handle = CreateUnnamedMutexHandle(gvexclusivemutex, false);
    EXPECT_TRUE(tryLockBySlot(handle));
    EXPECT_FALSE(handle->tryLock()) << "the third slot took the lock";
    unlockBySlot(handle);
    lockBySlot(handle);
    EXPECT_FALSE(handle->tryLock()) << "the fourth slot took the lock";
    unlockBySlot(handle);
    EXPECT_TRUE(handle->tryLock()) << "the fifth slot released it";
    handle->unlock();
    deleteBySlot(handle);
    EXPECT_EQ(ledger.liveBlocks().size(), 0U);
}

using PoolPointer = GVSmartPointer<GVMemoryPool>;

// A class is returned through the address of its storage, which comes before the object in the argument list.
GILVANE_CALLS_BY_SLOT PoolPointer deepCopyBySlot(PoolPointer* pointer) {
    return slot<PoolPointer (*)(PoolPointer*)>(pointer, firstOwnOperation)(pointer);
}
GILVANE_CALLS_BY_SLOT std::ostream& printBySlot(const PoolPointer* pointer, std::ostream& stream) {
    return slot<std::ostream& (*)(const PoolPointer*, std::ostream&)>(pointer, firstOwnOperation + 1)(pointer, stream);
}
GILVANE_CALLS_BY_SLOT void deleteDataBySlot(PoolPointer* pointer) {
    slot<void (*)(PoolPointer*)>(pointer, firstOwnOperation + 2)(pointer);
}

TEST(VirtualSlots, aSmartPointerCopiesPrintsAndDeletesInThisOrder) {
    HookLedger ledger;
    PoolPointer pointer = GVMemoryPool::init(false);

    PoolPointer copy = deepCopyBySlot(&pointer);
    EXPECT_NE(copy.get(), pointer.get());
    EXPECT_TRUE(*copy == *pointer);

    std::ostringstream printed;
    std::ostringstream expected;
    EXPECT_EQ(&printBySlot(&pointer, printed), &printed);
    pointer.print(expected);
    EXPECT_EQ(printed.str(), expected.str());

    const std::size_t before = ledger.liveBlocks().size();
    deleteDataBySlot(&copy);
    EXPECT_EQ(ledger.liveBlocks().size(), before - 1) << "the pool, which had no block, is gone";
    GVTestPeer::object(copy) = nullptr;
}

} // namespace
} // namespace Gilvane
