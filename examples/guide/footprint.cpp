// Counts what a pool of blocks of 64 bytes asks its allocation hook for.
#include <gilvane/base/gvallocationbudget.h>
#include <gilvane/utilities/gvmemorypool.h>

#include <iomanip>
#include <iostream>

using Gilvane::GVAllocationBudget;
using Gilvane::GVMemoryPool;

int main() {
    std::cout << " blocks   calls   bytes kept   per block   bytes asked for in all\n";
    for (const unsigned int blocks : {1U, 5U, 6U, 21U, 22U, 85U, 86U, 341U, 342U, 1000U, 10000U}) {
        // [counting]
        const GVAllocationBudget budget; // without a limit it only counts
        const GVMemoryPool pool(blocks, 64, true);
        const std::size_t kept = GVAllocationBudget::GetLiveBytes();
        // [counting]
        std::cout << std::setw(7) << blocks << std::setw(8) << GVAllocationBudget::GetGrantedCount() << std::setw(13)
                  << kept << std::setw(12) << kept / blocks << std::setw(25) << GVAllocationBudget::GetGrantedBytes()
                  << "\n";
    }
    return GVAllocationBudget::GetLiveBytes() == 0 ? 0 : 1; // with the last pool, all of it came back
}
