// A pool whose memory runs out, and what it holds then.
#include <gilvane/base/gvallocationbudget.h>
#include <gilvane/base/gvexception.h>
#include <gilvane/utilities/gvmemorypool.h>
#include <gilvane/utilities/gvmemorypoolinspector.h>

#include <iostream>
#include <new>

using Gilvane::GVAllocationBudget;
using Gilvane::GVException;
using Gilvane::GVMemoryPool;
using Gilvane::GVMemoryPoolInspector;
using Gilvane::GVVisitedBlock;

namespace {

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
    {
        const GVAllocationBudget budget;
        GVMemoryPool pool(2, 64, false);
        unsigned int first = 0;
        unsigned int token = 0;
        borrow(pool, first);
        borrow(pool, token); // the last one

        // [refused]
        // A block is an object and its bytes. With 150 bytes left, a growth from two blocks to four builds one block, and
        // then the next block's object but not its bytes.
        GVAllocationBudget::SetMostBytes(GVAllocationBudget::GetLiveBytes() + 150);
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
    const GVAllocationBudget budget;
    // [table]
    // With its 86th block a pool's table outgrows 128 slots. If there is no memory for more slots, the block is in the
    // pool and counts as in use, but is never lent.
    GVMemoryPool pool(85, 64, false);
    GVAllocationBudget::SetMostBytes(GVAllocationBudget::GetLiveBytes() + 8000);
    try {
        pool.resizePool(100);
    } catch (const GVException& failure) {
        std::cout << failure.getMessage() << " (kind " << failure.getKind() << ")\n";
    }
    std::cout << "nothing lent, in use: " << pool.numberOfObjectsInPoolInUse() << "\n";
    // [table]
    // [visit]
    // Needs no memory, and so goes well in a pool that has none left.
    GVMemoryPoolInspector::visitBlocks(pool, [](const GVVisitedBlock& block) {
        if (block.isNeverLent) {
            std::cout << "never lent: the block in slot " << block.theSlot << "\n";
        }
    });
    // [visit]
}
