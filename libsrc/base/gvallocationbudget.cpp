#include <gilvane/base/gvallocationbudget.h>

#include <gilvane/base/gvexception.h>
#include <gilvane/base/gvrawblock.h>

#include <algorithm>
#include <mutex>
#include <new>
#include <type_traits>

namespace Gilvane {

namespace {

constexpr const char* theSourceFile = "libsrc/base/gvallocationbudget";

constexpr std::size_t theStrictestAlignment = alignof(std::max_align_t);

// Static objects may allocate before main and release after it. So both are constant-initialised and never destroyed.

struct Budget {
    std::mutex theLock; // guards all that follows but isInPlace, which changes while nobody allocates
    GVAllocatorFunction theAllocatorBelow;
    GVDeallocatorFunction theDeallocatorBelow;
    bool isInPlace;
    std::size_t theMostBytes;
    std::size_t theLiveCount;
    std::size_t theLiveBytes;
    std::size_t theHighestBytes;
    std::uint64_t theGrantedCount;
    std::uint64_t theGrantedBytes;
    std::uint64_t theRefusedCount;
    std::uint64_t theRefusedBytes;
};

struct Arena {
    std::mutex theLock; // as in the budget
    GVAllocatorFunction theAllocatorBefore;
    GVDeallocatorFunction theDeallocatorBefore;
    bool isInPlace;
    unsigned char* theBytes; // the range
    std::size_t theSize;
    std::size_t theUsedBytes;       // from the front; 0 while no block is live
    std::size_t theUsedBytesBefore; // before the last block was given out
    void* theLastBlock;             // given out last, live or not
    std::size_t theLiveCount;
};

Budget theBudget{};
Arena theArena{};
static_assert(std::is_trivially_destructible_v<Budget> && std::is_trivially_destructible_v<Arena>,
              "nothing is destroyed at the end of the program");

// Reads one field of either.
template <typename State, typename Field>
Field read(State& state, Field State::*field) {
    const std::lock_guard<std::mutex> guard(state.theLock);
    return state.*field;
}

// What the budget keeps in front of a block.
//
//   the hooks below returned      the budget's hook returns
//   | size, deallocation function | deallocation function | bytes ... |
//
struct Front {
    GVDeallocatorFunction theDeallocatorBelow; // the next budget may stand on other hooks
    unsigned int theBytes;
};
// So many that the block behind them is aligned as the one that the hooks below gave.
constexpr unsigned int theFrontBytes = std::max(sizeof(Front), theStrictestAlignment);
static_assert((sizeof(Front) & (sizeof(Front) - 1)) == 0, "of two powers of two, one is a multiple of the other");

// The caller holds the lock.
bool isWithinBudget(unsigned int numberOfBytes) {
    return numberOfBytes <= (std::numeric_limits<unsigned int>::max)() - theFrontBytes &&
           std::uint64_t{theBudget.theLiveBytes} + numberOfBytes <= theBudget.theMostBytes;
}

void* allocateWithinBudget(unsigned int numberOfBytes) {
    const std::lock_guard<std::mutex> guard(theBudget.theLock);
    void* const start =
        isWithinBudget(numberOfBytes) ? theBudget.theAllocatorBelow(numberOfBytes + theFrontBytes) : nullptr;
    if (start == nullptr) {
        ++theBudget.theRefusedCount;
        theBudget.theRefusedBytes += numberOfBytes;
        return nullptr;
    }
    ::new (start) Front{theBudget.theDeallocatorBelow, numberOfBytes};
    ++theBudget.theGrantedCount;
    theBudget.theGrantedBytes += numberOfBytes;
    ++theBudget.theLiveCount;
    theBudget.theLiveBytes += numberOfBytes;
    theBudget.theHighestBytes = std::max(theBudget.theHighestBytes, theBudget.theLiveBytes);
    return static_cast<char*>(start) + theFrontBytes;
}

void returnToBudget(void* block) {
    void* const start = static_cast<char*>(block) - theFrontBytes;
    const Front front = *static_cast<const Front*>(start);
    const std::lock_guard<std::mutex> guard(theBudget.theLock);
    front.theDeallocatorBelow(start);
    --theBudget.theLiveCount;
    theBudget.theLiveBytes -= front.theBytes;
}

void* allocateFromArena(unsigned int numberOfBytes) {
    const std::lock_guard<std::mutex> guard(theArena.theLock);
    unsigned char* const next = theArena.theBytes + theArena.theUsedBytes;
    const std::size_t left = theArena.theSize - theArena.theUsedBytes;
    // The user's bytes, which follow the header word, are aligned.
    const std::uintptr_t unaligned = reinterpret_cast<std::uintptr_t>(next) + detail::rawBlockHeaderBytes;
    const std::uintptr_t firstUserByte =
        (unaligned + theStrictestAlignment - 1) / theStrictestAlignment * theStrictestAlignment;
    const std::size_t padding = firstUserByte - unaligned;
    if (std::uint64_t{padding} + numberOfBytes > left) {
        return nullptr;
    }
    theArena.theUsedBytesBefore = theArena.theUsedBytes;
    theArena.theUsedBytes += padding + numberOfBytes;
    theArena.theLastBlock = next + padding;
    ++theArena.theLiveCount;
    return theArena.theLastBlock;
}

void returnToArena(void* block) {
    const std::lock_guard<std::mutex> guard(theArena.theLock);
    --theArena.theLiveCount;
    if (theArena.theLiveCount == 0) {
        theArena.theUsedBytes = 0;
    } else if (block == theArena.theLastBlock) {
        theArena.theUsedBytes = theArena.theUsedBytesBefore;
    }
}

} // namespace

GVAllocationBudget::GVAllocationBudget(std::size_t mostBytes) {
    if (theBudget.isInPlace) {
        throw GVException("There is a budget in place.", theSourceFile, __LINE__, gvinvalidstate, 0);
    }
    const std::lock_guard<std::mutex> guard(theBudget.theLock);
    theBudget.theAllocatorBelow = GetAllocator();
    theBudget.theDeallocatorBelow = GetDeallocator();
    theBudget.theMostBytes = mostBytes;
    theBudget.theHighestBytes = theBudget.theLiveBytes;
    theBudget.theGrantedCount = 0;
    theBudget.theGrantedBytes = 0;
    theBudget.theRefusedCount = 0;
    theBudget.theRefusedBytes = 0;
    theBudget.isInPlace = true;
    SetAllocationHooks(&allocateWithinBudget, &returnToBudget);
}

GVAllocationBudget::~GVAllocationBudget() {
    SetAllocationHooks(theBudget.theAllocatorBelow, theBudget.theDeallocatorBelow);
    theBudget.isInPlace = false;
}

void GVAllocationBudget::SetMostBytes(std::size_t mostBytes) {
    const std::lock_guard<std::mutex> guard(theBudget.theLock);
    theBudget.theMostBytes = mostBytes;
}

std::size_t GVAllocationBudget::GetMostBytes() { return read(theBudget, &Budget::theMostBytes); }

std::size_t GVAllocationBudget::GetLiveCount() { return read(theBudget, &Budget::theLiveCount); }

std::size_t GVAllocationBudget::GetLiveBytes() { return read(theBudget, &Budget::theLiveBytes); }

std::size_t GVAllocationBudget::GetHighestBytes() { return read(theBudget, &Budget::theHighestBytes); }

std::uint64_t GVAllocationBudget::GetGrantedCount() { return read(theBudget, &Budget::theGrantedCount); }

std::uint64_t GVAllocationBudget::GetGrantedBytes() { return read(theBudget, &Budget::theGrantedBytes); }

std::uint64_t GVAllocationBudget::GetRefusedCount() { return read(theBudget, &Budget::theRefusedCount); }

std::uint64_t GVAllocationBudget::GetRefusedBytes() { return read(theBudget, &Budget::theRefusedBytes); }

GVAllocationArena::GVAllocationArena(void* bytes, std::size_t numberOfBytes) {
    if (theArena.isInPlace || GetLiveCount() != 0) {
        throw GVException("There is an arena in use.", theSourceFile, __LINE__, gvinvalidstate, 0);
    }
    const std::lock_guard<std::mutex> guard(theArena.theLock);
    theArena.theAllocatorBefore = GetAllocator();
    theArena.theDeallocatorBefore = GetDeallocator();
    theArena.theBytes = static_cast<unsigned char*>(bytes);
    theArena.theSize = numberOfBytes;
    theArena.isInPlace = true;
    SetAllocationHooks(&allocateFromArena, &returnToArena);
}

GVAllocationArena::~GVAllocationArena() {
    SetAllocationHooks(theArena.theAllocatorBefore, theArena.theDeallocatorBefore);
    theArena.isInPlace = false;
}

std::size_t GVAllocationArena::GetLiveCount() { return read(theArena, &Arena::theLiveCount); }

std::size_t GVAllocationArena::GetUsedBytes() { return read(theArena, &Arena::theUsedBytes); }

std::size_t GVAllocationArena::GetLeftBytes() {
    const std::lock_guard<std::mutex> guard(theArena.theLock);
    return theArena.theSize - theArena.theUsedBytes;
}

} // namespace Gilvane
