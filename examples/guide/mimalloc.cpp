// The library takes all memory from mimalloc, and blocks start on cache lines.
#include <gilvane/base/gvobject.h>
#include <gilvane/utilities/gvmemorypool.h>

#include <mimalloc.h>

#include <cstddef>
#include <cstdint>
#include <iostream>

using Gilvane::GVMemoryPool;
using Gilvane::GVObject;

namespace {

// [hooks]
// What the hook returns starts with a pointer-sized word, and the user's bytes follow it. So the address after that
// word must be aligned, not the block's start. mimalloc can align at this offset.
constexpr std::size_t cacheLine = 64;

void* allocateWithMimalloc(unsigned int numberOfBytes) {
    return mi_malloc_aligned_at(numberOfBytes, cacheLine, sizeof(void*));
}

void releaseWithMimalloc(void* block) { mi_free(block); }
// [hooks]

} // namespace

int main() {
    // [use]
    // Call it before the first pool is made, and while no other thread allocates.
    GVObject::SetAllocationHooks(&allocateWithMimalloc, &releaseWithMimalloc);
    auto pool = GVMemoryPool::initWithNumberOfObjectsAndSize(1000, 64, true);
    // [use]

    unsigned int onCacheLines = 0;
    unsigned int fromMimalloc = 0;
    for (int loan = 0; loan < 1000; ++loan) {
        auto* const bytes = static_cast<char*>(pool->getMemoryForToken(pool->getTokenForFreeMemoryObject()));
        onCacheLines += reinterpret_cast<std::uintptr_t>(bytes) % cacheLine == 0 ? 1U : 0U;
        fromMimalloc += mi_is_in_heap_region(bytes) ? 1U : 0U;
    }
    std::cout << onCacheLines << " of 1000 blocks start on a cache line\n";
    std::cout << fromMimalloc << " of 1000 lie in mimalloc's memory\n";
}
