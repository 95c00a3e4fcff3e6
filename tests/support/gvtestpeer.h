/// @file
/// The one way by which tests reach what is private in the library.
#ifndef GILVANE_TESTS_SUPPORT_GVTESTPEER_H
#define GILVANE_TESTS_SUPPORT_GVTESTPEER_H

#include <gilvane/utilities/gvmemorypool.h>
#include <gilvane/utilities/gvmemorypoolinspector.h>
#include <gilvane/utilities/gvsharedpool.h>
#include <gilvane/utilities/gvtokencache.h>

#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <vector>

namespace Gilvane {

/// The table of a pool, by its full name.
using TokenTable = GVHashTable<unsigned int, GVMemoryPoolObject*, GVGenericHashFunction<unsigned int>>;

/// Befriended by the library's classes. Each accessor gives the field of that name, to read and to write.
struct GVTestPeer {
    // Offsets of private fields; defined where they are asserted and listed
    struct Layout;

    // Tables
    template <typename Table>
    static auto& usedCount(Table& table) {
        return table.theUsedCount;
    }
    template <typename Table>
    static auto& fillCount(Table& table) {
        return table.theFillCount;
    }
    template <typename Table>
    static auto& mask(Table& table) {
        return table.theMask;
    }
    template <typename Table>
    static auto& slots(Table& table) {
        return table.theTable;
    }
    template <typename Table>
    static auto* smallSlots(Table& table) {
        return &table.theSmallTable[0];
    }
    template <typename Table>
    static auto& hashFunction(Table& table) {
        return table.theHashFunction;
    }

    // Iterators
    template <typename K, typename V>
    static GVHashTableEntry_Iterator<K, V> iteratorOn(GVHashTableEntry<K, V>* slots, unsigned int capacity,
                                                      unsigned int index) {
        return GVHashTableEntry_Iterator<K, V>(slots, capacity, index);
    }
    template <typename K, typename V>
    static auto& slots(GVHashTableEntry_Iterator<K, V>& iterator) {
        return iterator.theTable;
    }
    template <typename K, typename V>
    static unsigned int& capacity(GVHashTableEntry_Iterator<K, V>& iterator) {
        return iterator.theCapacity;
    }
    template <typename K, typename V>
    static unsigned int& index(GVHashTableEntry_Iterator<K, V>& iterator) {
        return iterator.theIndex;
    }

    // Blocks
    static unsigned int& nextToken() { return GVMemoryPoolObject::theNextToken; }
    static void*& bytes(GVMemoryPoolObject& block) { return block.theBytes; }
    static unsigned int& length(GVMemoryPoolObject& block) { return block.theLength; }
    static unsigned int& token(GVMemoryPoolObject& block) { return block.theToken; }

    // Pools
    static TokenTable& table(GVMemoryPool& pool) { return pool.memoryPool; }
    static auto& freeTokens(GVMemoryPool& pool) { return pool.availableTokens; }
    static unsigned int& initialNumberOfObjects(GVMemoryPool& pool) { return pool.initialNumberOfObjects; }
    static unsigned int& bytesInEachObject(GVMemoryPool& pool) { return pool.bytesInEachObject; }
    static GVMutexHandle*& mutexHandle(GVMemoryPool& pool) { return pool.theMutexHandle; }
    static bool& useMutexHandle(GVMemoryPool& pool) { return pool.useMutexHandle; }

    // Leases
    template <typename Lease>
    static unsigned int& lengthOf(Lease& lease) {
        return lease.theLength;
    }

    // Inspectors
    template <typename Inspector>
    static std::size_t& freeBlockCount(Inspector& inspector) {
        return inspector.theFreeBlockCount;
    }

    // Shared pools
    static GVMemoryPool& innerPool(GVSharedPool& pool) { return pool.thePool; }
    static detail::GVAtomicWord& attention(GVSharedPool& pool) { return pool.theAttention; }
    static std::uint32_t eventCount(const detail::GVEventCount& events) {
        return events.theCount.load(std::memory_order_relaxed);
    }
    static std::uint32_t eventCount(const GVSharedPool& pool) { return eventCount(pool.theEvents); }
    static unsigned int notifiedCount(const GVSharedPool& pool) {
        const std::lock_guard<detail::GVPlainLock> guard(pool.theLock);
        return pool.theNotifiedCount;
    }
    /// Whether any thread holds the lock.
    static bool isHeld(detail::GVPlainLock& lock) {
        const bool isFree = pthread_mutex_trylock(&lock.theMutex) == 0;
        if (isFree) {
            lock.unlock();
        }
        return !isFree;
    }

    /// What a shared pool's lock guards, beside its free list, and what decides what the pool does next.
    struct SharedPoolState {
        bool hasWaiters;
        unsigned int flags;
        unsigned int idleCachedCount;
    };
    static SharedPoolState stateOf(const GVSharedPool& pool) {
        return {pool.theFirstWaiter != nullptr, (pool.isWatched ? 2U : 0U) + (pool.theClosedFlag ? 1U : 0U),
                pool.theIdleCachedCount};
    }
    /// Where the hardened build notes loans.
    static const detail::GVLoanRecords* loanRecords(const GVSharedPool& pool) { return pool.theLoans; }
    /// What it notes about a token, and nothing else changes.
    static GVSharedLoan& loanOf(GVSharedPool& pool, unsigned int token) {
        return pool.theLoans->theRecords[token - pool.theLoans->theFirstToken];
    }
    static std::vector<unsigned int> tokensIn(const GVTokenCache& cache) {
        return {cache.theTokens, cache.theTokens + cache.theCount.load(std::memory_order_relaxed)};
    }

    // Caches: where what every operation uses begins and ends, and where other threads write
    static const unsigned int* tokensOf(const GVTokenCache& cache) { return cache.theTokens; }
    struct HotFields {
        const void* theFirst;
        const void* theLast;
        const void* theRegistration;
    };
    static HotFields hotFields(const GVTokenCache& cache) {
        return {&cache.theCount, reinterpret_cast<const unsigned char*>(&cache.thePaddingBetween) - 1,
                &cache.theRegistration};
    }

    // Smart pointers
    template <typename T>
    static T*& object(GVSmartPointer<T>& pointer) {
        return pointer.object;
    }
    template <typename T>
    static unsigned int*& refCount(GVSmartPointer<T>& pointer) {
        return pointer.refCount;
    }
    template <typename T>
    static bool*& ownObject(GVSmartPointer<T>& pointer) {
        return pointer.ownObject;
    }
    template <typename T>
    static GVMutexHandle*& lock(GVSmartPointer<T>& pointer) {
        return pointer.lock;
    }
};

} // namespace Gilvane

#endif
