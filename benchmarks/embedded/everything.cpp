// A program with everything that pools offer: both kinds, a cache, leases, smart pointers, the inspector and the dump.
#include <gilvane/utilities/gvmemorypoolinspector.h>
#include <gilvane/utilities/gvsharedpool.h>
#include <gilvane/utilities/gvsharedtokenlease.h>
#include <gilvane/utilities/gvtokencache.h>
#include <gilvane/utilities/gvtokenlease.h>

#include <chrono>
#include <iostream>

using namespace Gilvane;

namespace {

void usePool() {
    GVSmartPointer<GVMemoryPool> pool = GVMemoryPool::initWithNumberOfObjectsAndSize(16, 64, true);
    {
        const GVTokenLease lease(pool);
        lease.as<int>() = 1;
    }
    const unsigned int token = pool->getTokenForFreeMemoryObject();
    pool->releaseObject(token);
    pool->resizePool(32);
    pool->resizePool(8);
    pool->setNumberOfBytesInPoolObject(128);
    pool->makePool(8);
    GVSmartPointer<GVMemoryPool> copy = GVMemoryPool::init(true);
    copy = pool;
    std::cout << pool->numberOfObjectsInPoolInUse() << (*copy == *pool) << GVMemoryPoolInspector(*pool);
    pool.print(std::cout);
    pool->removeTokenFromAvailableList(pool->getTokenForFreeMemoryObject());
}

void useSharedPool() {
    GVSharedPool pool(16, 64);
    GVTokenCache cache(pool);
    unsigned int tokens[8];
    cache.releaseMany(tokens, cache.tryBorrowMany(tokens, 8));
    {
        const GVSharedTokenLease lease(cache);
        lease.as<int>() = pool.getDescriptor();
        const auto waiting = GVSharedTokenLease::waitFor(pool, std::chrono::milliseconds(1));
    }
    if (const auto token = cache.borrow()) {
        *static_cast<char*>(cache.getMemoryForToken(*token)) = 1;
        cache.releaseObject(*token);
    }
    cache.flush();
    pool.resetHighestLentCount();
    pool.close();
    std::cout << pool.isClosed() << pool.getStatistics().theFreeCount << GVMemoryPoolInspector(pool);
    pool.print(std::cout);
}

} // namespace

int main() {
    usePool();
    useSharedPool();
}
