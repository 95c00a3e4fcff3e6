// Three ways to make a pool, and what each builds when.
#include <gilvane/utilities/gvmemorypool.h>

#include <iostream>

using Gilvane::GVMemoryPool;

int main() {
    // [one thread]
    // 32 blocks of 256 bytes, all built here. No lock: for one thread at a time.
    GVMemoryPool local(32, 256, false);
    // [one thread]
    std::cout << "local lends block " << local.getTokenForFreeMemoryObject() << "\n";

    // [several threads]
    // The same for several threads, owned by the pointers that share it. The last `true` gives the pool a lock; the
    // pointers have one of their own in any case.
    auto shared = GVMemoryPool::initWithNumberOfObjectsAndSize(32, 256, true);
    auto secondOwner = shared;
    // [several threads]
    std::cout << "shared has " << secondOwner.getRefCount() << " owners, ";
    secondOwner = {}; // an empty pointer: the share is given up
    std::cout << "then " << shared.getRefCount() << "\n";

    // [later]
    // Nothing is built before the first loan, which then builds all 32.
    auto late = GVMemoryPool::initWithNumberOfObjects(32, false);
    late->setNumberOfBytesInPoolObject(256); // with no block there, this notes the size and no more
    const unsigned int first = late->getTokenForFreeMemoryObject();
    // [later]
    std::cout << "late lends block " << first << "\n";

    // [numbers]
    // Without a size, blocks have no bytes: a pool of numbers, each lent to one borrower at a time.
    GVMemoryPool numbers(8, false);
    const unsigned int number = numbers.getTokenForFreeMemoryObject();
    const bool hasBytes = numbers.getMemoryForToken(number) != nullptr;
    // [numbers]
    std::cout << "numbers lends " << number << (hasBytes ? ", with bytes" : ", without bytes") << "\n";

    // [forgotten]
    // The last argument is missing. Compilers say nothing: 32 blocks without bytes, and 256 stands for `true`.
    GVMemoryPool forgotten(32, 256); // NOLINT(modernize-use-bool-literals): the check of clang-tidy that finds it
    const bool noBytes = forgotten.getMemoryForToken(forgotten.getTokenForFreeMemoryObject()) == nullptr;
    // [forgotten]
    std::cout << "forgotten lends blocks " << (noBytes ? "without bytes" : "with bytes") << "\n";
}
