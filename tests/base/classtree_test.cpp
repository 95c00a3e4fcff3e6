#include <gilvane/base/gvallocationbudget.h>
#include <gilvane/base/gvexception.h>
#include <gilvane/base/gvobject.h>
#include <gilvane/base/gvstdallocator.h>
#include <gilvane/datastructures/gvhashtable.h>
#include <gilvane/threads/gvmutexhandle.h>
#include <gilvane/threads/gvthreadsfactory.h>
#include <gilvane/utilities/gvmemorypool.h>
#include <gilvane/utilities/gvmemorypoolinspector.h>
#include <gilvane/utilities/gvobjectlease.h>
#include <gilvane/utilities/gvpoolresource.h>
#include <gilvane/utilities/gvsharedpool.h>
#include <gilvane/utilities/gvsharedtokenlease.h>
#include <gilvane/utilities/gvsmartpointer.h>
#include <gilvane/utilities/gvtokencache.h>
#include <gilvane/utilities/gvtokenlease.h>

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <exception>
#include <type_traits>

namespace Gilvane {

namespace {

using Table = GVHashTable<unsigned int, GVMemoryPoolObject*, GVGenericHashFunction<unsigned int>>;
using Entry = GVHashTableEntry<unsigned int, GVMemoryPoolObject*>;
using Iterator = GVHashTableEntry_Iterator<unsigned int, GVMemoryPoolObject*>;

// A static_cast down the tree compiles for a base that is public, unambiguous and not virtual.
template <typename Class, typename = void>
struct CanBeCastDownTo : std::false_type {};
template <typename Class>
struct CanBeCastDownTo<Class, std::void_t<decltype(static_cast<Class*>(static_cast<GVObject*>(nullptr)))>>
    : std::true_type {};

template <typename Class>
constexpr bool isPublicHeirOfTheRoot =
    std::is_base_of_v<GVObject, Class>&& std::is_convertible_v<Class*, GVObject*>&& CanBeCastDownTo<Class>::value;

// Adds one virtual operation to a class: it gets the first slot that the class leaves free.
template <typename Class>
struct Extended : Class {
    virtual void firstNewOperation() = 0;
};

// The slot of the virtual operation that a member pointer stands for. The number of bytes into the virtual table is the
// pointer's first word, on some processors with the lowest bit set to tell it from a plain function's address.
template <typename MemberPointer>
std::size_t slotOf(MemberPointer operation) {
    std::uintptr_t firstWord = 0;
    std::memcpy(&firstWord, &operation, sizeof firstWord);
    return (firstWord & ~std::uintptr_t{1}) / sizeof(void*);
}

template <typename Class>
std::size_t numberOfSlots() {
    return slotOf(&Extended<Class>::firstNewOperation);
}

} // namespace

TEST(ClassTree, everyClassDerivesPubliclyFromTheRoot) {
    EXPECT_TRUE(isPublicHeirOfTheRoot<GVStdAllocator<unsigned int>>);
    EXPECT_TRUE(isPublicHeirOfTheRoot<GVException>);
    EXPECT_TRUE(isPublicHeirOfTheRoot<GVExceptionMessage>);
    EXPECT_TRUE(isPublicHeirOfTheRoot<GVThreadsFactory>);
    EXPECT_TRUE(isPublicHeirOfTheRoot<GVMutexHandle>);
    EXPECT_TRUE(isPublicHeirOfTheRoot<GVMemoryPoolObject>);
    EXPECT_TRUE(isPublicHeirOfTheRoot<GVMemoryPool>);
    EXPECT_TRUE(isPublicHeirOfTheRoot<Table>);
    EXPECT_TRUE(isPublicHeirOfTheRoot<Entry>);
    EXPECT_TRUE(isPublicHeirOfTheRoot<Iterator>);
    EXPECT_TRUE(isPublicHeirOfTheRoot<GVGenericHashFunction<unsigned int>>);
    EXPECT_TRUE(isPublicHeirOfTheRoot<GVSmartPointer<GVMemoryPool>>);
    EXPECT_TRUE(isPublicHeirOfTheRoot<GVTokenLease>);
    EXPECT_TRUE(isPublicHeirOfTheRoot<GVInspectedBlock>);
    EXPECT_TRUE(isPublicHeirOfTheRoot<GVVisitedBlock>);
    EXPECT_TRUE(isPublicHeirOfTheRoot<GVMemoryPoolInspector>);
    EXPECT_TRUE(isPublicHeirOfTheRoot<GVSharedPool>);
    EXPECT_TRUE(isPublicHeirOfTheRoot<GVSharedPoolStatistics>);
    EXPECT_TRUE(isPublicHeirOfTheRoot<GVTokenCache>);
    EXPECT_TRUE(isPublicHeirOfTheRoot<GVSharedTokenLease>);
    EXPECT_TRUE(isPublicHeirOfTheRoot<GVObjectLease<unsigned int>>);
#if __has_include(<memory_resource>)
    EXPECT_TRUE(isPublicHeirOfTheRoot<GVPoolResource>);
#endif
    EXPECT_TRUE(isPublicHeirOfTheRoot<GVAllocationBudget>);
    EXPECT_TRUE(isPublicHeirOfTheRoot<GVAllocationArena>);
}

TEST(ClassTree, everyClassHasAVirtualDestructorThatDoesNotThrow) {
    EXPECT_TRUE(std::has_virtual_destructor_v<GVObject>);
    EXPECT_TRUE(std::is_nothrow_destructible_v<GVObject>);
    EXPECT_TRUE(std::is_nothrow_destructible_v<GVStdAllocator<unsigned int>>);
    EXPECT_TRUE(std::is_nothrow_destructible_v<GVException>);
    EXPECT_TRUE(std::is_nothrow_destructible_v<GVExceptionMessage>);
    EXPECT_TRUE(std::is_nothrow_destructible_v<GVThreadsFactory>);
    EXPECT_TRUE(std::is_nothrow_destructible_v<GVMutexHandle>);
    EXPECT_TRUE(std::is_nothrow_destructible_v<GVMemoryPoolObject>);
    EXPECT_TRUE(std::is_nothrow_destructible_v<GVMemoryPool>);
    EXPECT_TRUE(std::is_nothrow_destructible_v<Table>);
    EXPECT_TRUE(std::is_nothrow_destructible_v<Entry>);
    EXPECT_TRUE(std::is_nothrow_destructible_v<Iterator>);
    EXPECT_TRUE(std::is_nothrow_destructible_v<GVGenericHashFunction<unsigned int>>);
    EXPECT_TRUE(std::is_nothrow_destructible_v<GVSmartPointer<GVMemoryPool>>);
    EXPECT_TRUE(std::is_nothrow_destructible_v<GVTokenLease>);
    EXPECT_TRUE(std::is_nothrow_destructible_v<GVInspectedBlock>);
    EXPECT_TRUE(std::is_nothrow_destructible_v<GVVisitedBlock>);
    EXPECT_TRUE(std::is_nothrow_destructible_v<GVMemoryPoolInspector>);
    EXPECT_TRUE(std::is_nothrow_destructible_v<GVSharedPool>);
    EXPECT_TRUE(std::is_nothrow_destructible_v<GVSharedPoolStatistics>);
    EXPECT_TRUE(std::is_nothrow_destructible_v<GVTokenCache>);
    EXPECT_TRUE(std::is_nothrow_destructible_v<GVSharedTokenLease>);
    EXPECT_TRUE(std::is_nothrow_destructible_v<GVObjectLease<unsigned int>>);
#if __has_include(<memory_resource>)
    EXPECT_TRUE(std::is_nothrow_destructible_v<GVPoolResource>);
#endif
    EXPECT_TRUE(std::is_nothrow_destructible_v<GVAllocationBudget>);
    EXPECT_TRUE(std::is_nothrow_destructible_v<GVAllocationArena>);
}

TEST(ClassTree, noClassAddsAVirtualOperationToTheDestructors) {
    EXPECT_EQ(numberOfSlots<GVObject>(), 2U);
    EXPECT_EQ(numberOfSlots<GVStdAllocator<unsigned int>>(), 2U);
    EXPECT_EQ(numberOfSlots<GVException>(), 2U);
    EXPECT_EQ(numberOfSlots<GVExceptionMessage>(), 2U);
    EXPECT_EQ(numberOfSlots<GVThreadsFactory>(), 2U);
    EXPECT_EQ(numberOfSlots<GVMemoryPoolObject>(), 2U);
    EXPECT_EQ(numberOfSlots<GVMemoryPool>(), 2U);
    EXPECT_EQ(numberOfSlots<Table>(), 2U);
    EXPECT_EQ(numberOfSlots<Entry>(), 2U);
    EXPECT_EQ(numberOfSlots<Iterator>(), 2U);
    EXPECT_EQ(numberOfSlots<GVGenericHashFunction<unsigned int>>(), 2U);
    EXPECT_EQ(numberOfSlots<GVTokenLease>(), 2U);
    EXPECT_EQ(numberOfSlots<GVInspectedBlock>(), 2U);
    EXPECT_EQ(numberOfSlots<GVVisitedBlock>(), 2U);
    EXPECT_EQ(numberOfSlots<GVMemoryPoolInspector>(), 2U);
    EXPECT_EQ(numberOfSlots<GVSharedPool>(), 2U);
    EXPECT_EQ(numberOfSlots<GVSharedPoolStatistics>(), 2U);
    EXPECT_EQ(numberOfSlots<GVTokenCache>(), 2U);
    EXPECT_EQ(numberOfSlots<GVSharedTokenLease>(), 2U);
    EXPECT_EQ(numberOfSlots<GVObjectLease<unsigned int>>(), 2U);
    EXPECT_EQ(numberOfSlots<GVAllocationBudget>(), 2U);
    EXPECT_EQ(numberOfSlots<GVAllocationArena>(), 2U);
}

TEST(ClassTree, aHandlesOperationsStandInTheirSlots) {
    EXPECT_EQ(slotOf(&GVMutexHandle::tryLock), 2U);
    EXPECT_EQ(slotOf(&GVMutexHandle::lock), 3U);
    EXPECT_EQ(slotOf(&GVMutexHandle::unlock), 4U);
    EXPECT_EQ(numberOfSlots<GVMutexHandle>(), 5U);
}

TEST(ClassTree, classesWithoutDataAreAsLargeAsTheRoot) {
    EXPECT_EQ(sizeof(GVStdAllocator<unsigned int>), sizeof(GVObject));
    EXPECT_EQ(sizeof(GVThreadsFactory), sizeof(GVObject));
    EXPECT_EQ(sizeof(GVMutexHandle), sizeof(GVObject));
    EXPECT_EQ(sizeof(GVAllocationBudget), sizeof(GVObject));
    EXPECT_EQ(sizeof(GVAllocationArena), sizeof(GVObject));
}

TEST(ClassTree, exceptionsAreNoStandardExceptions) {
    EXPECT_FALSE((std::is_base_of_v<std::exception, GVException>));
    EXPECT_FALSE((std::is_base_of_v<std::exception, GVExceptionMessage>));
}

} // namespace Gilvane
