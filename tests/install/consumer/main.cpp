// A program that knows the library from outside: it borrows a block, writes to it, finds the bytes again, returns it,
// and catches what the pool throws while a block is lent.
#include <gilvane/base/gvexception.h>
#include <gilvane/utilities/gvmemorypool.h>

#include <cstdio>
#include <cstring>

static int fail(const char* what) {
    std::fprintf(stderr, "consumer: %s\n", what);
    return 1;
}

int main() {
    const auto pool = Gilvane::GVMemoryPool::initWithNumberOfObjectsAndSize(2, 16, true);
    const unsigned int token = pool->getTokenForFreeMemoryObject();
    std::strcpy(static_cast<char*>(pool->getMemoryForToken(token)), "fifteen letters");
    if (std::strcmp(static_cast<const char*>(pool->getMemoryForToken(token)), "fifteen letters") != 0) {
        return fail("the block does not hold what was written to it");
    }
    try {
        pool->setNumberOfBytesInPoolObject(32);
        return fail("the pool was rebuilt under a lent block");
    } catch (const Gilvane::GVException&) {
    }
    if (pool->numberOfObjectsInPoolInUse() != 1) {
        return fail("not one block in use");
    }
    pool->releaseObject(token);
    if (pool->numberOfObjectsInPoolInUse() != 0) {
        return fail("the block was not returned");
    }
    std::puts("served");
}
