// Holds loans as objects that return themselves, hands one to a thread, and looks at the pool in numbers.
#include <gilvane/utilities/gvmemorypoolinspector.h>
#include <gilvane/utilities/gvtokenlease.h>

#include <iostream>
#include <thread>
#include <utility>

using Gilvane::GVMemoryPool;
using Gilvane::GVMemoryPoolInspector;
using Gilvane::GVTokenLease;

struct Sample {
    unsigned int number;
    double value;
};

int main() {
    const auto pool = GVMemoryPool::initWithNumberOfObjectsAndSize(4, sizeof(Sample), true);
    {
        // Borrow a block and see its bytes as a Sample. Had the block no room for one, this would throw.
        GVTokenLease lease(pool);
        lease.as<Sample>() = {1, 0.5};

        // Move the loan into a thread: the block is returned where the lease ends, and the pool lives until then.
        std::thread reader([mine = std::move(lease)] {
            const Sample& sample = mine.as<Sample>();
            std::cout << "sample " << sample.number << " is " << sample.value << "\n";
        });
        reader.join();
    }
    std::cout << "in use: " << pool->numberOfObjectsInPoolInUse() << "\n";

    // A snapshot of the pool, with one block lent, and whatever is wrong: here, nothing.
    const GVTokenLease lent(pool);
    const GVMemoryPoolInspector inspector(*pool);
    std::cout << inspector.getNumberOfLentBlocks() << " of " << inspector.getNumberOfBlocks() << " blocks lent, "
              << (inspector.hasFindings() ? "something is wrong" : "nothing is wrong") << "\n";
    std::cout << inspector << "\n";
}
