// How much a pool can hold, found out from the library itself.
#include <gilvane/base/gvallocationbudget.h>
#include <gilvane/base/gvexception.h>
#include <gilvane/base/gvstdallocator.h>
#include <gilvane/utilities/gvmemorypool.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iomanip>
#include <iostream>
#include <limits>
#include <new>
#include <string>

using Gilvane::GVAllocationBudget;
using Gilvane::GVException;
using Gilvane::GVMemoryPool;
using Gilvane::GVMemoryPoolObject;
using Gilvane::GVStdAllocator;

namespace {

using Table = Gilvane::GVHashTable<unsigned int, GVMemoryPoolObject*>;

constexpr unsigned int theFirstSlots = 8;

constexpr unsigned int headerWordBytes = sizeof(Gilvane::GVDeallocatorFunction); // in front of every raw block

constexpr unsigned int everything = std::numeric_limits<unsigned int>::max();

// Bytes that the allocation function is asked for when a block is made; 0 when it is not asked at all.
std::uint64_t bytesAskedFor(std::size_t userBytes) {
    const GVAllocationBudget budget(0);
    try {
        static_cast<void>(GVStdAllocator<char>().allocate(userBytes));
    } catch (const std::bad_alloc&) {
        // Refused by the budget, or before it was asked.
    }
    return GVAllocationBudget::GetRefusedBytes();
}

// Bytes that a table asks for when it makes this many slots; 0 when it does not ask at all.
std::uint64_t bytesOfTable(unsigned int slots) {
    const GVAllocationBudget budget(200); // enough for the texts of an exception, and not for 16 slots
    try {
        Table table;
        table.resize(slots - 1); // makes the smallest power of two above that
    } catch (const GVException&) {
        // Refused by the budget, or by the table before it asked.
    }
    return GVAllocationBudget::GetRefusedBytes();
}

// [rule]
// Keys that a table of this many slots holds before it grows. The next key reaches two thirds.
constexpr unsigned int mostKeys(unsigned int slots) { return (2 * slots - 1) / 3; }

// Slots that the table has after it has grown.
unsigned int slotsAfterGrowth(unsigned int keys) {
    const unsigned int wanted = keys < 30000 ? 4 * keys : 2 * keys;
    unsigned int slots = theFirstSlots;
    while (slots <= wanted) {
        slots *= 2;
    }
    return slots;
}
// [rule]

// Whether a real table grows at that number of keys, to that number of slots.
bool tablesFollowTheRule() {
    const GVAllocationBudget budget; // only counts
    Table table;
    unsigned int slots = theFirstSlots;
    for (unsigned int key = 0; key < 200000; ++key) {
        const std::uint64_t requests = GVAllocationBudget::GetGrantedCount();
        table.insert(key, nullptr);
        const bool grew = GVAllocationBudget::GetGrantedCount() != requests;
        if (grew != (table.getUsedCount() > mostKeys(slots))) {
            return false;
        }
        slots = table.getSlotCount();
        if (grew && slots != slotsAfterGrowth(table.getUsedCount())) {
            return false;
        }
    }
    return true;
}

// The most bytes that a pool holds at any moment until it has this many blocks.
std::uint64_t mostBytesHeld(unsigned int blocks, unsigned int bytesPerBlock) {
    const std::uint64_t eachBlock =
        sizeof(GVMemoryPoolObject) + headerWordBytes + (bytesPerBlock != 0 ? bytesPerBlock + headerWordBytes : 0);
    std::uint64_t tableBytes = 0; // the first slots are in the pool itself
    std::uint64_t listBytes = 0;
    std::uint64_t most = blocks * eachBlock;
    unsigned int slots = theFirstSlots;
    unsigned int listRoom = 0;
    for (unsigned int built = 1; built <= blocks;) {
        if (built > mostKeys(slots)) {
            slots = slotsAfterGrowth(built);
            const std::uint64_t grown = bytesOfTable(slots);
            most = std::max(most, built * eachBlock + listBytes + tableBytes + grown);
            tableBytes = grown;
        }
        if (built > listRoom) {
            listRoom = std::max(1U, 2 * listRoom);
            const std::uint64_t grown = std::uint64_t{listRoom} * sizeof(unsigned int) + headerWordBytes;
            most = std::max(most, built * eachBlock + tableBytes + listBytes + grown);
            listBytes = grown;
        }
        built = std::max(built + 1, std::min({mostKeys(slots) + 1, listRoom + 1, blocks}));
    }
    return std::max(most, blocks * eachBlock + tableBytes + listBytes);
}

// Whether a real pool holds exactly these bytes.
bool poolsHoldAsComputed() {
    for (const unsigned int blocks : {1U, 5U, 6U, 86U, 1000U, 30000U, 100000U}) {
        for (const unsigned int bytesPerBlock : {0U, 64U}) {
            const std::uint64_t computed = mostBytesHeld(blocks, bytesPerBlock);
            const GVAllocationBudget budget; // only counts
            GVMemoryPool pool(0, bytesPerBlock, false);
            pool.resizePool(blocks);
            if (GVAllocationBudget::GetHighestBytes() != computed) {
                return false;
            }
        }
    }
    return true;
}

unsigned int mostBlocksIn(std::uint64_t bytes, unsigned int bytesPerBlock, unsigned int most) {
    unsigned int fewer = 0;
    while (fewer < most) {
        const unsigned int middle = most - (most - fewer) / 2;
        if (mostBytesHeld(middle, bytesPerBlock) <= bytes) {
            fewer = middle;
        } else {
            most = middle - 1;
        }
    }
    return fewer;
}

void report(const std::string& what, std::uint64_t figure) {
    std::cout << std::left << std::setw(56) << what << std::right << std::setw(14) << figure << "\n";
}

} // namespace

int main() {
    if (!tablesFollowTheRule()) {
        std::cerr << "tables grow in another way\n";
        return 1;
    }
    if (!poolsHoldAsComputed()) {
        std::cerr << "pools hold another number of bytes\n";
        return 1;
    }
    unsigned int slots = 1U << 20;
    while (bytesOfTable(2 * slots) != 0) {
        slots *= 2;
    }
    const unsigned int blocks = mostKeys(slots);
    const unsigned int largest = everything - headerWordBytes;
    if (bytesAskedFor(largest) != everything || bytesAskedFor(std::size_t{largest} + 1) != 0) {
        std::cerr << "blocks have another limit\n";
        return 1;
    }

    report("slots of the largest table", slots);
    report("bytes of its array", bytesOfTable(slots));
    report("blocks that it holds: the most in a pool", blocks);
    report("bytes that such a pool asks for, blocks without bytes", mostBytesHeld(blocks, 0));
    report("bytes that such a pool asks for, blocks of 64 bytes", mostBytesHeld(blocks, 64));
    report("blocks of 64 bytes in 3 GiB", mostBlocksIn(3ULL << 30, 64, blocks));
    report("blocks of 1024 bytes in 3 GiB", mostBlocksIn(3ULL << 30, 1024, blocks));
    report("bytes of the largest block", largest);
    report("blocks that a process builds before numbers repeat", std::uint64_t{1} << 32);
}
