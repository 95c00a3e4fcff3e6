// Counts what a pool of blocks of 64 bytes asks its allocation hook for.
#include <gilvane/utilities/gvmemorypool.h>

#include <cstddef>
#include <cstdlib>
#include <iomanip>
#include <iostream>

using Gilvane::GVMemoryPool;
using Gilvane::GVObject;

namespace {

// [counting hooks]
// Each block's size is stored in front of it, in as many bytes as the strictest alignment.
constexpr std::size_t front = alignof(std::max_align_t);
unsigned long calls, bytesEver, bytesNow;

void* countedAllocate(unsigned int numberOfBytes) {
    auto* const memory = static_cast<unsigned char*>(std::malloc(front + numberOfBytes));
    if (memory == nullptr) {
        return nullptr;
    }
    *reinterpret_cast<unsigned int*>(memory) = numberOfBytes;
    ++calls;
    bytesEver += numberOfBytes;
    bytesNow += numberOfBytes;
    return memory + front;
}

void countedRelease(void* block) {
    unsigned char* const memory = static_cast<unsigned char*>(block) - front;
    bytesNow -= *reinterpret_cast<unsigned int*>(memory);
    std::free(memory);
}
// [counting hooks]

} // namespace

int main() {
    GVObject::SetAllocationHooks(&countedAllocate, &countedRelease);
    std::cout << " blocks   calls   bytes kept   per block   bytes asked for in all\n";
    for (const unsigned int blocks : {1U, 5U, 6U, 21U, 22U, 85U, 86U, 341U, 342U, 1000U, 10000U}) {
        calls = bytesEver = bytesNow = 0;
        const GVMemoryPool pool(blocks, 64, true);
        std::cout << std::setw(7) << blocks << std::setw(8) << calls << std::setw(13) << bytesNow << std::setw(12)
                  << bytesNow / blocks << std::setw(25) << bytesEver << "\n";
    }
    GVObject::SetAllocationHooks(nullptr, nullptr);
    return bytesNow == 0 ? 0 : 1; // with the last pool, all of it came back
}
