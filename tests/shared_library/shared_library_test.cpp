// A program and a shared library have one set of hooks, one token counter and one type of exception between them.
#include <gilvane/base/gvexception.h>
#include <gilvane/utilities/gvmemorypool.h>
#include <gilvane/utilities/gvsharedpool.h>
#include <gilvane/utilities/gvsharedtokenlease.h>
#include <gilvane/utilities/gvtokencache.h>

#include <gtest/gtest.h>

#include <chrono>
#include <sstream>
#include <thread>
#include <typeinfo>

namespace Gilvane {
namespace {

TEST(SharedLibrary, throwsExceptionsThatAProgramCatches) {
    GVSmartPointer<GVMemoryPool> pool = GVMemoryPool::initWithNumberOfObjectsAndSize(2, 16, true);
    pool->getTokenForFreeMemoryObject();
    try {
        pool->setNumberOfBytesInPoolObject(32);
        FAIL() << "a block is lent";
    } catch (const GVObject& thrown) {
        EXPECT_EQ(typeid(thrown), typeid(GVException));
    }
}

int allocations = 0;
void* countAndAllocate(unsigned int numberOfBytes) {
    ++allocations;
    return ::operator new(numberOfBytes, std::nothrow);
}
void release(void* block) { ::operator delete(block); }

TEST(SharedLibrary, allocatesThroughTheProgramsHooks) {
    allocations = 0;
    GVObject::SetAllocationHooks(&countAndAllocate, &release);
    {
        const GVMemoryPool pool(8, 16, false); // inside the library
        EXPECT_GE(allocations, 16);
        const int before = allocations;
        GVHashTable<int, int> table; // a template, compiled into the program
        for (int key = 0; key < 6; ++key) {
            table.insert(key, key);
        }
        EXPECT_EQ(allocations, before + 1);
    }
    GVObject::SetAllocationHooks(nullptr, nullptr);
}

TEST(SharedLibrary, countsTokensOnTogetherWithTheProgram) {
    const GVMemoryPoolObject first;
    GVMemoryPool pool(1, 0, false); // takes a token inside the library
    const GVMemoryPoolObject second;
    EXPECT_EQ(pool.getTokenForFreeMemoryObject(), first.getToken() + 1);
    EXPECT_EQ(second.getToken(), first.getToken() + 2);
}

TEST(SharedLibrary, readsTheDefaultThatTheProgramSets) {
    GVMemoryPool::defaultNumberOfObjects = 7;
    GVMemoryPool pool(false);
    GVMemoryPool::defaultNumberOfObjects = 4;
    pool.getTokenForFreeMemoryObject();
    EXPECT_EQ(pool.numberOfObjectsInPoolInUse(), 1U);
    for (int loan = 2; loan <= 7; ++loan) {
        pool.getTokenForFreeMemoryObject();
    }
    std::ostringstream dump;
    dump << pool;
    std::size_t entries = 0;
    for (std::size_t at = dump.str().find("<K>"); at != std::string::npos; at = dump.str().find("<K>", at + 1)) {
        ++entries;
    }
    EXPECT_EQ(entries, 7U) << "seven loans were served without doubling";
}

TEST(SharedLibrary, lendsToTheProgramsThreads) {
    GVSharedPool pool(2, 16);
    GVTokenCache cache(pool, 2);
    GVSharedTokenLease lease(cache);
    const unsigned int token = *pool.borrow();
    std::thread waiter([&] { EXPECT_TRUE(GVSharedTokenLease::waitFor(pool, std::chrono::hours(1))); });
    while (pool.getStatistics().theWaitCount == 0) {
        std::this_thread::yield();
    }
    cache.releaseObject(token);
    waiter.join();
    try {
        cache.releaseObject(token);
        FAIL() << "it is free";
    } catch (const GVException& refusal) {
        EXPECT_EQ(refusal.getKind(), gvinvalidstate);
    }
    lease = GVSharedTokenLease();
    pool.close();
    EXPECT_EQ(pool.getStatistics().theFreeCount, 2U);
}

} // namespace
} // namespace Gilvane
