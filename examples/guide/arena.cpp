// A pool without a heap: all memory comes from one static array, and none is asked for after the pool is built.
#include <gilvane/base/gvobject.h>
#include <gilvane/utilities/gvmemorypool.h>

#include <cstddef>
#include <cstdint>
#include <iostream>
#include <new>

using Gilvane::GVMemoryPool;
using Gilvane::GVObject;

namespace {

// [arena]
constexpr std::size_t strictest = alignof(std::max_align_t);
alignas(strictest) unsigned char arena[64 * 1024];
std::size_t used = 0;

// Gives the array out from front to back. The library puts a pointer-sized word first, and the user's bytes follow it.
// So the address after that word is made a multiple of the strictest alignment.
void* allocateFromArena(unsigned int numberOfBytes) {
    const std::size_t firstUserByte = (used + sizeof(void*) + strictest - 1) / strictest * strictest;
    const std::size_t start = firstUserByte - sizeof(void*);
    if (start > sizeof arena || numberOfBytes > sizeof arena - start) {
        return nullptr;
    }
    used = start + numberOfBytes;
    return arena + start;
}

// Takes nothing back. What a growing table leaves behind is lost, so the pool is built at its full size.
void keepInArena(void*) {}
// [arena]

struct Sample {
    double value;
    std::uint64_t time;
};

} // namespace

int main() {
    // [steady]
    GVObject::SetAllocationHooks(&allocateFromArena, &keepInArena);
    GVMemoryPool pool(200, sizeof(Sample), true);
    const std::size_t afterBuilding = used;

    bool aligned = true;
    for (int round = 0; round < 1000; ++round) {
        unsigned int tokens[200];
        for (unsigned int& token : tokens) {
            token = pool.getTokenForFreeMemoryObject();
            void* const bytes = pool.getMemoryForToken(token);
            aligned = aligned && reinterpret_cast<std::uintptr_t>(bytes) % alignof(Sample) == 0;
            new (bytes) Sample{1.0, 2};
        }
        for (const unsigned int token : tokens) {
            pool.releaseObject(token);
        }
    }
    const bool asked = used != afterBuilding;
    // [steady]
    for (const unsigned char* last = arena; last != nullptr;
         last = static_cast<const unsigned char*>(allocateFromArena(1))) {
        if (last >= arena + sizeof arena) {
            std::cerr << "the arena gives out bytes that are not its own\n";
            return 1;
        }
    }
    std::cout << "200 blocks took " << afterBuilding << " bytes of the arena\n";
    std::cout << "200,000 loans asked for " << (asked ? "more" : "nothing more") << "\n";
    std::cout << "every sample is " << (aligned ? "aligned" : "misaligned") << "\n";
}
