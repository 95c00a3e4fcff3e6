// Whether the default hooks of a library built with GILVANE_MIMALLOC stand on mimalloc alone. The program has a malloc
// of its own, which counts, and stands before the one that mimalloc's library brings along.
#include <gilvane/utilities/gvmemorypool.h>

#include <mimalloc.h>

#include <cstddef>
#include <cstdio>

extern "C" void* __libc_malloc(std::size_t);
extern "C" void __libc_free(void*);

namespace {

long callsOfMalloc = 0;

} // namespace

extern "C" void* malloc(std::size_t size) {
    ++callsOfMalloc;
    return __libc_malloc(size);
}

extern "C" void free(void* block) { __libc_free(block); }

int main() {
    constexpr unsigned int numberOfBlocks = 100;
    const long before = callsOfMalloc;
    Gilvane::GVMemoryPool pool(numberOfBlocks, 64, true);
    const long calls = callsOfMalloc - before;
    unsigned int fromMimalloc = 0;
    for (unsigned int loan = 0; loan < numberOfBlocks; ++loan) {
        void* const bytes = pool.getMemoryForToken(pool.getTokenForFreeMemoryObject());
        fromMimalloc += mi_is_in_heap_region(bytes) ? 1 : 0;
    }
    std::printf("%u of %u blocks from mimalloc, %ld calls of malloc\n", fromMimalloc, numberOfBlocks, calls);
    return fromMimalloc == numberOfBlocks && calls == 0 ? 0 : 1;
}
