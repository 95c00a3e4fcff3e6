// Borrows blocks of memory by number, uses them, gives them back, and lets the pool grow.
#include <gilvane/utilities/gvmemorypool.h>

#include <cstdio>
#include <iostream>

using Gilvane::GVMemoryPool;

int main() {
    // Two blocks of 64 bytes. `false`: no lock, for one thread at a time. Threads share a GVSharedPool.
    auto pool = GVMemoryPool::initWithNumberOfObjectsAndSize(2, 64, false);

    // Borrow a block: what you hold is its token, a number.
    const unsigned int token = pool->getTokenForFreeMemoryObject();

    // Turn the token into the block's address whenever you need its bytes: here to write, there to read.
    std::snprintf(static_cast<char*>(pool->getMemoryForToken(token)), 64, "written into block %u", token);
    std::cout << static_cast<const char*>(pool->getMemoryForToken(token)) << "\n";

    // Give it back. The block returned last is lent first, while the processor's cache still holds it.
    pool->releaseObject(token);
    std::cout << "in use: " << pool->numberOfObjectsInPoolInUse() << "\n";

    // A pool that has nothing left to lend doubles: the third of these loans makes four blocks of the two.
    for (int loan = 0; loan < 3; ++loan) {
        std::cout << "borrowed block " << pool->getTokenForFreeMemoryObject() << "\n";
    }
    std::cout << "in use: " << pool->numberOfObjectsInPoolInUse() << "\n";

    // What a pool looks like inside, as text. The last pointer to the pool deletes it, with every block.
    pool.print(std::cout) << "\n";
}
