// What a pool does with tokens that it should not have been given.
#include <gilvane/base/gvexception.h>
#include <gilvane/utilities/gvmemorypool.h>

#include <iostream>

using Gilvane::GVException;
using Gilvane::GVMemoryPool;

int main() {
    // [returned twice]
    GVMemoryPool pool(4, 64, false);
    const unsigned int token = pool.getTokenForFreeMemoryObject();
    pool.releaseObject(token);
    pool.releaseObject(token); // a mistake, and nothing says so

    const unsigned int mine = pool.getTokenForFreeMemoryObject();
    const unsigned int yours = pool.getTokenForFreeMemoryObject(); // the same block
    // [returned twice]
    std::cout << "mine: " << mine << ", yours: " << yours << "\n";
    // Two loans of one block; the number in use says 1.
    std::cout << "in use: " << pool.numberOfObjectsInPoolInUse() << "\n";

    // [rebuilt]
    GVMemoryPool rebuilt(4, 64, false);
    rebuilt.setNumberOfBytesInPoolObject(128);
    std::cout << "in use: " << rebuilt.numberOfObjectsInPoolInUse() << "\n"; // 4 blocks less 8 tokens, in 32 bits
    try {
        rebuilt.setNumberOfBytesInPoolObject(256);
    } catch (const GVException& refused) {
        std::cout << refused.getMessage() << "\n";
    }
    // [rebuilt]
}
