// A pool without a heap: all memory comes from one static array, and none is asked for after the pool is built.
#include <gilvane/base/gvallocationbudget.h>
#include <gilvane/utilities/gvmemorypool.h>

#include <cstddef>
#include <cstdint>
#include <iostream>
#include <new>

using Gilvane::GVAllocationArena;
using Gilvane::GVMemoryPool;

namespace {

// [arena]
alignas(std::max_align_t) unsigned char bytes[64 * 1024];
// [arena]

struct Sample {
    double value;
    std::uint64_t time;
};

} // namespace

int main() {
    // [steady]
    // As long as it lives, the library takes all memory from the array. The pool is built at its full size.
    const GVAllocationArena arena(bytes);
    GVMemoryPool pool(200, sizeof(Sample), true);
    const std::size_t afterBuilding = GVAllocationArena::GetUsedBytes();

    bool aligned = true;
    for (int round = 0; round < 1000; ++round) {
        unsigned int tokens[200];
        for (unsigned int& token : tokens) {
            token = pool.getTokenForFreeMemoryObject();
            void* const block = pool.getMemoryForToken(token);
            aligned = aligned && reinterpret_cast<std::uintptr_t>(block) % alignof(Sample) == 0;
            new (block) Sample{1.0, 2};
        }
        for (const unsigned int token : tokens) {
            pool.releaseObject(token);
        }
    }
    const bool asked = GVAllocationArena::GetUsedBytes() != afterBuilding;
    // [steady]
    std::cout << "200 blocks took " << afterBuilding << " bytes of the arena\n";
    std::cout << "200,000 loans asked for " << (asked ? "more" : "nothing more") << "\n";
    std::cout << "every sample is " << (aligned ? "aligned" : "misaligned") << "\n";
}
