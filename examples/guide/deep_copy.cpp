// A deep copy of a pool as a record of an earlier state, and how to tear down one of the two.
#include <gilvane/base/gvexception.h>
#include <gilvane/utilities/gvmemorypool.h>
#include <gilvane/utilities/gvsmartpointer.h>

#include <iostream>
#include <memory>
#include <type_traits>
#include <vector>

using Gilvane::GVException;
using Gilvane::GVMemoryPool;
using Gilvane::GVSmartPointer;

// [uncopied]
// Claims to be copyable, since a vector does; but its copy constructor would not compile.
struct Job {
    std::vector<std::unique_ptr<int>> parts;
};

// So a pointer to a Job compiles only after this. Its deepCopy throws a GVException.
template <>
struct Gilvane::GVIsDeepCopyable<Job> : std::false_type {};
// [uncopied]

int main() {
    auto pool = GVMemoryPool::initWithNumberOfObjectsAndSize(4, 64, true);
    // [copy]
    // The copy holds the same blocks under the same tokens and the same lock, and a free list of its own. It is made on
    // the heap and never deleted, since deleting it would delete the blocks of `pool`.
    static auto* const earlier = new GVSmartPointer<GVMemoryPool>(pool.deepCopy());
    std::cout << "same blocks: " << (*pool == **earlier) << "\n";
    // [copy]

    // [apart]
    // Neither pool knows of the other's loans.
    const unsigned int token = pool->getTokenForFreeMemoryObject();
    std::cout << "in use: " << pool->numberOfObjectsInPoolInUse() << " and " << (*earlier)->numberOfObjectsInPoolInUse()
              << "\n";
    std::cout << "same bytes: " << (pool->getMemoryForToken(token) == (*earlier)->getMemoryForToken(token)) << "\n";

    // Blocks built later belong to one of the two only.
    pool->resizePool(8);
    std::cout << "same blocks: " << (*pool == **earlier) << "\n";
    // [apart]

    GVSmartPointer<Job> job(new Job, true, true);
    try {
        job.deepCopy();
    } catch (const GVException& refusal) {
        std::cout << refusal.getMessage() << "\n";
    }

    // Here `pool` ends, with all blocks and the lock. From now on `*earlier` must not be touched.
}
