// A pool whose memory runs out, and what it holds then.
#include <gilvane/base/gvexception.h>
#include <gilvane/base/gvobject.h>
#include <gilvane/utilities/gvmemorypool.h>

#include <cstdlib>
#include <iostream>
#include <new>

using Gilvane::GVException;
using Gilvane::GVMemoryPool;
using Gilvane::GVObject;

namespace {

// [budget]
// Gives out a limited number of blocks, as an arena does, and none above a size, as a fragmented heap does.
unsigned int allocationsLeft = 0;
unsigned int largestAllocation = 0;

void* allocateWithinBudget(unsigned int numberOfBytes) {
    if (allocationsLeft == 0 || numberOfBytes > largestAllocation) {
        return nullptr;
    }
    --allocationsLeft;
    return std::malloc(numberOfBytes);
}

void release(void* block) { std::free(block); }
// [budget]

// [borrow]
// Both exceptions mean the same. A GVException takes the memory for its texts from the hooks. If they have none left,
// std::bad_alloc comes in its place.
bool borrow(GVMemoryPool& pool, unsigned int& token) {
    try {
        token = pool.getTokenForFreeMemoryObject();
        return true;
    } catch (const GVException& failure) {
        std::cout << failure.getMessage() << " (kind " << failure.getKind() << ")\n";
    } catch (const std::bad_alloc&) {
        std::cout << "std::bad_alloc\n";
    }
    return false;
}
// [borrow]

} // namespace

int main() {
    GVObject::SetAllocationHooks(&allocateWithinBudget, &release);
    {
        allocationsLeft = 100;
        largestAllocation = 8000;
        GVMemoryPool pool(2, 64, false);
        unsigned int first = 0;
        unsigned int token = 0;
        borrow(pool, first);
        borrow(pool, token); // the last one

        // [refused]
        // A block is an object and its bytes. With three allocations left, a growth from two blocks to four builds one
        // block, and then the next block's object but not its bytes.
        allocationsLeft = 3;
        bool lent = borrow(pool, token);
        std::cout << (lent ? "lent" : "nothing lent") << ", in use: " << pool.numberOfObjectsInPoolInUse() << "\n";
        // The block that was built is in the pool. Lending it needs no allocation.
        lent = borrow(pool, token);
        std::cout << (lent ? "lent" : "nothing lent") << ", in use: " << pool.numberOfObjectsInPoolInUse() << "\n";
        // Lending a returned block needs none, either.
        pool.releaseObject(first);
        lent = borrow(pool, token);
        std::cout << (lent ? "lent" : "nothing lent") << ", in use: " << pool.numberOfObjectsInPoolInUse() << "\n";
        // [refused]
    }
    {
        // [table]
        // With its 86th block a pool's table outgrows 128 slots. If there is no memory for more slots, the block is in
        // the pool and counts as in use, but is never lent.
        allocationsLeft = 10000;
        GVMemoryPool pool(85, 64, false);
        try {
            pool.resizePool(100);
        } catch (const GVException& failure) {
            std::cout << failure.getMessage() << " (kind " << failure.getKind() << ")\n";
        }
        std::cout << "nothing lent, in use: " << pool.numberOfObjectsInPoolInUse() << "\n";
        // [table]
    }
    GVObject::SetAllocationHooks(nullptr, nullptr);
}
