// What the debugger is asked to show: objects of every kind, whole and damaged, and what the library writes of them.
//
//   gdb_subject WORK_FOLDER [core]
//
// Writes into WORK_FOLDER the dump of each pool, and names for the addresses that a debugger will show; then calls
// lookAround, where a debugger stops. With `core`, a fault ends the process there.
#include <gilvane/base/gvallocationbudget.h>
#include <gilvane/base/gvexception.h>
#include <gilvane/base/gvstdallocator.h>
#include <gilvane/utilities/gvmemorypool.h>
#include <gilvane/utilities/gvmemorypoolinspector.h>
#include <gilvane/utilities/gvobjectlease.h>
#include <gilvane/utilities/gvpoolresource.h>
#include <gilvane/utilities/gvsharedpool.h>
#include <gilvane/utilities/gvsharedtokenlease.h>
#include <gilvane/utilities/gvtokencache.h>
#include <gilvane/utilities/gvtokenlease.h>

#include "gvtestpeer.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory_resource>
#include <new>
#include <string>

#include <unistd.h>

using namespace Gilvane;

using Peer = GVTestPeer;
using Words = GVHashTable<int, const char*>;
using PoolPointer = GVSmartPointer<GVMemoryPool>;
using NumberLease = GVObjectLease<int>;

// The debugger finds these by name, however much the compiler optimises.
alignas(GVMemoryPool) char zeros[1024];
alignas(GVMemoryPool) char ones[1024];
Words::Entry *occupiedEntry, *emptyEntry, *deletedEntry, *damagedEntry;
TokenTable *tableWithoutSlots, *tableOfOddSize, *tableOfWrongCount, *copiedTable, *unreadableTable;
GVMemoryPoolObject *plainBlock, *emptyBlock, *damagedBlock;
GVMemoryPool *poolPointer, *nullPointer, *damagedPool, *unreadablePool;
PoolPointer *damagedPointer, *unreadablePointer;
GVTokenLease* damagedLease;
GVMemoryPoolInspector* damagedInspector;

namespace {

class LargePool : public GVMemoryPool {
  public:
    LargePool() : GVMemoryPool(3000, 16, false) {}
};

std::string theFolder;
std::ofstream theNames;

void name(const void* address, const std::string& text) { theNames << address << " [" << text << "]\n"; }

void nameParts(const GVMemoryPool& constant, const std::string& text) {
    auto& pool = const_cast<GVMemoryPool&>(constant); // the peer's accessors write too
    name(&pool, text);
    if (Peer::mutexHandle(pool) != nullptr) {
        name(Peer::mutexHandle(pool), "handle of " + text);
    }
    for (GVMemoryPoolObject* const block : Peer::table(pool)) {
        name(block, "block " + std::to_string(block->getToken()));
    }
}

void dump(const GVMemoryPool& pool, const char* file) { std::ofstream(theFolder + "/" + file + ".dump") << pool; }

// A copy of an object's bytes, to be damaged and never destroyed.
template <typename T>
T* bytesOf(const T& object) {
    void* const bytes = std::calloc(1, sizeof(T));
    std::memcpy(bytes, static_cast<const void*>(&object), sizeof(T));
    return static_cast<T*>(bytes);
}

// No page of a process on Linux lies that low.
template <typename T>
T* unreadable() {
    return reinterpret_cast<T*>(std::uintptr_t{64});
}

Words::Entry* firstInState(Words& words, unsigned int state) {
    Words::Entry* entry = Peer::slots(words);
    while (entry->theState != state) {
        ++entry;
    }
    return entry;
}

unsigned int allocationsLeft = 0;

void* allocateAFew(unsigned int numberOfBytes) {
    if (allocationsLeft == 0) {
        return nullptr;
    }
    --allocationsLeft;
    return std::malloc(numberOfBytes);
}

// Builds a block that its pool's table has no room for: nobody can borrow it.
void buildABlockThatIsNeverLent(GVMemoryPool& pool) {
    allocationsLeft = 2; // the block's object and its bytes
    GVObject::SetAllocationHooks(&allocateAFew, &std::free);
    try {
        pool.resizePool(Peer::table(pool).getUsedCount() + 1);
    } catch (const std::bad_alloc&) {
        // As it should be.
    }
    GVObject::SetAllocationHooks(nullptr, nullptr);
}

} // namespace

// Takes all that shall be in memory when the debugger looks.
extern "C" __attribute__((noinline)) void lookAround(const void* const* objects, bool faults) {
    __asm__ volatile("" : : "r"(objects) : "memory");
    if (faults) {
        __builtin_trap();
    }
}

int main(int numberOfArguments, char** arguments) {
    theFolder = arguments[1];
    theNames.open(theFolder + "/names");
    std::memset(ones, 0xff, sizeof ones);
    name(reinterpret_cast<void*>(UINTPTR_MAX), "all ones");

    const TokenTable emptyTable;
    Words words;
    words.insert(1, "one");
    words.insert(-3, "minus three");
    words.insert(6, "six");
    words.remove(6);
    for (Words::Entry* entry = Peer::slots(words); entry < Peer::slots(words) + 8; ++entry) {
        if (entry->theState != gvemptyentry) {
            name(entry->theValue, "text");
        }
    }
    occupiedEntry = firstInState(words, gvoccupiedentry);
    emptyEntry = firstInState(words, gvemptyentry);
    deletedEntry = firstInState(words, gvdeletedentry);
    damagedEntry = bytesOf(*occupiedEntry);
    damagedEntry->theState = 77;
    tableWithoutSlots = bytesOf(emptyTable);
    Peer::slots(*tableWithoutSlots) = nullptr;
    tableOfOddSize = bytesOf(emptyTable);
    Peer::mask(*tableOfOddSize) = 12345;
    tableOfWrongCount = bytesOf(emptyTable);
    Peer::usedCount(*tableOfWrongCount) = 3;
    copiedTable = bytesOf(emptyTable);
    unreadableTable = bytesOf(emptyTable);
    Peer::mask(*unreadableTable) = 15;
    Peer::slots(*unreadableTable) = unreadable<TokenTable::Entry>();
    name(&emptyTable, "empty table");
    name(Peer::smallSlots(emptyTable), "slots of empty table");

    const Words::Iterator firstWord = words.begin();
    const Words::Iterator noMoreWords = words.end();
    const Words::Iterator noTable;
    const Words::Iterator lostIterator = Peer::iteratorOn(Peer::slots(words), 9, 9);

    Peer::nextToken() = 10;
    const GVMemoryPoolObject block(24);
    const GVMemoryPoolObject blockWithoutBytes;
    plainBlock = bytesOf(block);
    emptyBlock = bytesOf(blockWithoutBytes);
    damagedBlock = bytesOf(block);
    Peer::bytes(*damagedBlock) = nullptr;
    name(block.getBytes(), "bytes of block");

    Peer::nextToken() = 100;
    const GVMemoryPool emptyPool(false);
    GVMemoryPool pool(3, 64, true);
    pool.getTokenForFreeMemoryObject();
    const GVMemoryPool& poolReference = pool;
    poolPointer = &pool;
    const LargePool largePool;
    nameParts(pool, "pool");
    nameParts(largePool, "large pool");
    damagedPool = bytesOf(pool);
    Peer::mutexHandle(*damagedPool) = nullptr;
    Peer::slots(Peer::table(*damagedPool)) = nullptr;
    unreadablePool = bytesOf(pool);
    Peer::slots(Peer::table(*unreadablePool)) = unreadable<TokenTable::Entry>();

    const PoolPointer shared = GVMemoryPool::initWithNumberOfObjectsAndSize(2, 8, true);
    const PoolPointer sharedAgain = shared;
    const PoolPointer emptyPointer;
    const PoolPointer borrowed(&pool, false, false);
    nameParts(*shared, "shared pool");
    damagedPointer = bytesOf(shared);
    Peer::refCount(*damagedPointer) = nullptr;
    unreadablePointer = bytesOf(shared);
    Peer::refCount(*unreadablePointer) = unreadable<unsigned int>();

    GVSharedPool threadPool(5, 8);
    GVTokenCache tokenCache(threadPool, 4);
    const unsigned int cacheToken = *tokenCache.tryBorrow();
    const unsigned int secondToken = *threadPool.tryBorrow();
    static_cast<void>(secondToken);
    tokenCache.releaseObject(cacheToken);
    name(&threadPool, "thread pool");
    nameParts(Peer::innerPool(threadPool), "inner pool");

    Peer::nextToken() = 4000;
    GVMemoryPool leasePool(2, 24, false);
    GVMemoryPool bytelessPool(1, 0, false);
    GVSharedPool leaseThreads(3, 24);
    const GVTokenLease tokenLease(leasePool);
    const GVTokenLease bytelessLease(bytelessPool);
    const GVTokenLease emptyLease;
    const GVSharedTokenLease sharedLease(leaseThreads);
    const NumberLease numberLease(leaseThreads, 42);
    const NumberLease plainNumberLease(leasePool, 43);
    const NumberLease emptyNumberLease;
    damagedLease = bytesOf(bytelessLease);
    Peer::lengthOf(*damagedLease) = 24;
    name(&leasePool, "lease pool");
    name(&bytelessPool, "byteless pool");
    name(&leaseThreads, "lease threads");
    name(tokenLease.getBytes(), "bytes of lease");
    name(sharedLease.getBytes(), "bytes of shared lease");
    name(numberLease.get(), "number of lease");
    name(plainNumberLease.get(), "number of plain lease");

    Peer::nextToken() = 4100;
    GVMemoryPool crowdedPool(5, 16, false); // 8 slots, which five blocks fill to two thirds
    const unsigned int lentToken = crowdedPool.getTokenForFreeMemoryObject();
    buildABlockThatIsNeverLent(crowdedPool);
    Peer::freeTokens(crowdedPool).push_back(4100);
    Peer::freeTokens(crowdedPool).push_back(17);
    for (const unsigned int token : {4100U, 4101U, lentToken, 4105U}) {
        name(crowdedPool.getMemoryForToken(token), "bytes of block " + std::to_string(token));
    }
    for (const unsigned int token : {cacheToken, secondToken, secondToken - 1}) {
        name(threadPool.getMemoryForToken(token), "bytes of block " + std::to_string(token));
    }
    const GVMemoryPoolInspector inspector(leasePool);
    const GVMemoryPoolInspector crowdedInspector(crowdedPool);
    name(&crowdedPool, "crowded pool");

    damagedInspector = bytesOf(inspector);
    Peer::freeBlockCount(*damagedInspector) = 9;

    constexpr unsigned int bytesForEight = alignof(std::max_align_t) + 8;
    GVMemoryPool resourcePool(1, bytesForEight, false);
    GVSharedPool resourceThreads(2, bytesForEight);
    GVTokenCache resourceCache(resourceThreads, 1);
    GVPoolResource poolResource(resourcePool);
    GVPoolResource threadsResource(resourceThreads);
    GVPoolResource cacheResource(resourceCache);
    name(&resourcePool, "resource pool");
    name(&resourceThreads, "resource threads");
    name(&resourceCache, "resource cache");
    name(std::pmr::get_default_resource(), "default resource");

    if constexpr (detail::isHardened) {
        using std::chrono::steady_clock;
        const unsigned int third = *leaseThreads.tryBorrow();
        name(leaseThreads.getMemoryForToken(third), "bytes of third loan");
        GVSharedLoan& oldest = Peer::loanOf(leaseThreads, sharedLease.getToken());
        GVSharedLoan& newest = Peer::loanOf(leaseThreads, numberLease.getToken());
        oldest.theBegin = steady_clock::time_point(std::chrono::hours(1));
        newest.theBegin = oldest.theBegin + std::chrono::milliseconds(2500);
        Peer::loanOf(leaseThreads, third).theBegin = newest.theBegin;
        newest.theFrames[0] = reinterpret_cast<unsigned char*>(&lookAround) + 1;
        newest.theFrames[1] = reinterpret_cast<void*>(std::uintptr_t{64});
        newest.theFrameCount = 2;
        name(newest.theFrames[0], "in lookAround");
        theNames << "thread:" << oldest.theThread << " [main thread]\n";
    }

    const GVException exception("A \"quoted\"\ttext.", "libsrc/utilities/gvmemorypool", 17, gvoutofmemory, -3);
    const GVException ordinaryExceptions[] = {{"State", "a file", 1, gvinvalidstate, 0},
                                              {"Iterator", "a file", 2, gviteratormisuse, 0},
                                              {"Table", "a file", 3, gvhashtablefailure, 0}};
    const GVException strangeException("", "a file", 1, static_cast<gvexceptiontype>(99), 0);

    dump(emptyPool, "emptyPool");
    dump(pool, "pool");
    dump(largePool, "largePool");
    dump(*shared, "shared");
    dump(Peer::innerPool(threadPool), "threadPool");

    // The library asks for 100 bytes and for 60 with their header words, behind which the arena aligns: on every target
    // these are the sums.
    GVStdAllocator<char> characters;
    const GVAllocationBudget budget(500);
    static_cast<void>(characters.allocate(100 - sizeof(void*)));
    try {
        static_cast<void>(characters.allocate(450 - sizeof(void*)));
    } catch (const std::bad_alloc&) {
        // Beyond the budget.
    }
    alignas(std::max_align_t) static unsigned char range[1000 + alignof(std::max_align_t)];
    unsigned char* const firstByte = range + alignof(std::max_align_t) - sizeof(void*);
    const GVAllocationArena arena(firstByte, 1000);
    static_cast<void>(characters.allocate(60 - sizeof(void*)));
    name(firstByte, "range of arena");
    theNames.close();

    const void* const objects[] = {
        &emptyTable,
        &words,
        &firstWord,
        &noMoreWords,
        &noTable,
        &lostIterator,
        &block,
        &emptyPool,
        &pool,
        &poolReference,
        &largePool,
        &blockWithoutBytes,
        &shared,
        &borrowed,
        &threadPool,
        &tokenCache,
        &tokenLease,
        &bytelessLease,
        &emptyLease,
        &sharedLease,
        &numberLease,
        &plainNumberLease,
        &emptyNumberLease,
        &crowdedPool,
        &inspector,
        &crowdedInspector,
        &poolResource,
        &threadsResource,
        &cacheResource,
        &arena,
        &budget,
        &exception,
        &sharedAgain,
        &emptyPointer,
        &strangeException,
        ordinaryExceptions,
    };
    lookAround(objects, numberOfArguments > 2);
    return 0;
}
