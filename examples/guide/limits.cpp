// How much a pool can hold, found out from the library itself.
#include <gilvane/base/gvexception.h>
#include <gilvane/base/gvstdallocator.h>
#include <gilvane/utilities/gvmemorypool.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <iomanip>
#include <iostream>
#include <limits>
#include <new>
#include <string>

using Gilvane::GVException;
using Gilvane::GVMemoryPool;
using Gilvane::GVMemoryPoolObject;
using Gilvane::GVObject;
using Gilvane::GVStdAllocator;

namespace {

using Table = Gilvane::GVHashTable<unsigned int, GVMemoryPoolObject*>;

constexpr unsigned int theFirstSlots = 8;

constexpr unsigned int headerWordBytes = sizeof(Gilvane::GVDeallocatorFunction); // in front of every raw block

constexpr unsigned int everything = std::numeric_limits<unsigned int>::max();

unsigned int lastRequest = 0;    // bytes, granted or not
unsigned int refusedRequest = 0; // bytes
unsigned int mostToGrant = everything;

std::uint64_t heldBytes = 0;
std::uint64_t mostHeldBytes = 0;

// Each block's size is stored in front of it, in as many bytes as the strictest alignment.
constexpr std::size_t front = alignof(std::max_align_t);

void* allocate(unsigned int numberOfBytes) {
    lastRequest = numberOfBytes;
    if (numberOfBytes > mostToGrant) {
        refusedRequest = numberOfBytes;
        return nullptr;
    }
    auto* const memory = static_cast<unsigned char*>(std::malloc(front + numberOfBytes));
    if (memory == nullptr) {
        return nullptr;
    }
    *reinterpret_cast<unsigned int*>(memory) = numberOfBytes;
    heldBytes += numberOfBytes;
    mostHeldBytes = std::max(mostHeldBytes, heldBytes);
    return memory + front;
}

void release(void* block) {
    unsigned char* const memory = static_cast<unsigned char*>(block) - front;
    heldBytes -= *reinterpret_cast<unsigned int*>(memory);
    std::free(memory);
}

// Bytes that the hook is asked for when a block is made; 0 when it is not asked at all.
unsigned int bytesAskedOfHookFor(std::size_t userBytes) {
    mostToGrant = 0;
    refusedRequest = 0;
    try {
        static_cast<void>(GVStdAllocator<char>().allocate(userBytes));
    } catch (const std::bad_alloc&) {
        // Refused by the hook, or before it was asked.
    }
    mostToGrant = everything;
    return refusedRequest;
}

// Bytes that a table asks the hook for when it makes this many slots; 0 when it does not ask at all.
unsigned int bytesOfTable(unsigned int slots) {
    mostToGrant = 200; // enough for the texts of an exception, and not for 16 slots
    refusedRequest = 0;
    try {
        Table table;
        table.resize(slots - 1); // makes the smallest power of two above that
    } catch (const GVException&) {
        // Refused by the hook, or by the table before it asked.
    }
    mostToGrant = everything;
    return refusedRequest;
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
    Table table;
    unsigned int slots = theFirstSlots;
    for (unsigned int key = 0; key < 200000; ++key) {
        lastRequest = 0;
        table.insert(key, nullptr);
        const bool grew = lastRequest != 0;
        if (grew != (table.getUsedCount() > mostKeys(slots))) {
            return false;
        }
        if (grew) {
            // The array has an end slot, and a few bytes stand in front of it.
            slots = lastRequest / static_cast<unsigned int>(sizeof(Table::Entry)) - 1;
            if (slots != slotsAfterGrowth(table.getUsedCount())) {
                return false;
            }
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
            heldBytes = mostHeldBytes = 0;
            GVMemoryPool pool(0, bytesPerBlock, false);
            pool.resizePool(blocks);
            const std::uint64_t measured = mostHeldBytes;
            if (measured != mostBytesHeld(blocks, bytesPerBlock)) {
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
    GVObject::SetAllocationHooks(&allocate, &release);
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
    if (bytesAskedOfHookFor(largest) != everything || bytesAskedOfHookFor(std::size_t{largest} + 1) != 0) {
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
    GVObject::SetAllocationHooks(nullptr, nullptr);
}
