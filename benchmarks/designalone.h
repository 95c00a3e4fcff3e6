/// @file
/// What is left of the pool and its table when only what their rules and their data's layout ask for is done: the same
/// slots, blocks, requests of memory, search and growth, without exceptions, virtual operations, checks, locks that are
/// not asked for, or other types of key. No arrangement of the library's code can be faster than this by much.
#ifndef GILVANE_BENCHMARKS_DESIGNALONE_H
#define GILVANE_BENCHMARKS_DESIGNALONE_H

#include <gilvane/base/gvobject.h>
#include <gilvane/threads/gvthreadsfactory.h>

#include <cstring>
#include <memory>
#include <vector>

/// A table from tokens to addresses.
///
/// @par Ownership
///   Owns its slots, not what the values point to.
class BareTable {
  public:
    static constexpr const char* name = "the design alone";

    BareTable() : theSlots(makeSlots(8)) {}
    BareTable(const BareTable&) = delete;
    BareTable& operator=(const BareTable&) = delete;
    ~BareTable() { Gilvane::GVObject::GetDeallocator()(theSlots); }

    void store(unsigned int key, void* value) {
        put(key, value);
        if (theCount * 3 >= (theMask + 1) * 2) {
            grow();
        }
    }

    void* find(unsigned int key) const { return slotOf(key)->value; }

  private:
    struct Slot {
        void* virtualTable;
        unsigned int key;
        void* value;
        unsigned int hash;
        unsigned int state;
    };

    static Slot* makeSlots(unsigned int size) {
        const unsigned int bytes = (size + 1) * static_cast<unsigned int>(sizeof(Slot));
        return static_cast<Slot*>(std::memset(Gilvane::GVObject::GetAllocator()(bytes), 0, bytes));
    }

    Slot* slotOf(unsigned int key) const {
        unsigned int index = key & theMask;
        for (unsigned int perturb = key;; perturb >>= 5) {
            Slot* const slot = &theSlots[index & theMask];
            if (slot->state == 0 || slot->key == key) {
                return slot;
            }
            index = 5 * index + 1 + perturb;
        }
    }

    void put(unsigned int key, void* value) {
        *slotOf(key) = {nullptr, key, value, key, 1};
        ++theCount;
    }

    void grow() {
        constexpr unsigned int ahead = 12;
        const unsigned int oldSize = theMask + 1;
        Slot* const old = theSlots;
        const unsigned int least = theCount * (theCount < 30000 ? 4 : 2);
        unsigned int size = 8;
        while (size <= least) {
            size *= 2;
        }
        theSlots = makeSlots(size);
        theMask = size - 1;
        theCount = 0;
        for (unsigned int index = 0; index < oldSize; ++index) {
            if (index + ahead < oldSize && old[index + ahead].state != 0) {
                __builtin_prefetch(&theSlots[old[index + ahead].hash & theMask]);
            }
            if (old[index].state != 0) {
                put(old[index].key, old[index].value);
            }
        }
        Gilvane::GVObject::GetDeallocator()(old);
    }

    Slot* theSlots;
    unsigned int theMask = 7;
    unsigned int theCount = 0;
};

/// A pool of blocks, each an object and its bytes, each of these one request.
///
/// @tparam Locked  whether every operation takes a handle as the pool's do
/// @par Ownership
///   Owns its blocks.
template <bool Locked>
class BarePool {
  public:
    using Loan = unsigned int;
    static constexpr const char* name = BareTable::name;

    explicit BarePool(unsigned int numberOfBlocks)
        : theHandle(Gilvane::CreateUnnamedMutexHandle(Gilvane::gvexclusivemutex, false)) {
        for (unsigned int token = 0; token < numberOfBlocks; ++token) {
            Object* const object = static_cast<Object*>(request(sizeof(Object)));
            *object = {nullptr, request(blockBytes), blockBytes, token};
            theTable.store(token, object);
            theFreeTokens.push_back(token);
        }
        theNumberOfBlocks = numberOfBlocks;
    }
    BarePool(const BarePool&) = delete;
    BarePool& operator=(const BarePool&) = delete;
    ~BarePool() {
        for (unsigned int token = 0; token < theNumberOfBlocks; ++token) {
            Object* const object = static_cast<Object*>(theTable.find(token));
            giveUp(object->bytes);
            giveUp(object);
        }
    }

    Loan borrow() {
        const Lock lock(*theHandle);
        const unsigned int token = theFreeTokens.back();
        theFreeTokens.pop_back();
        return token;
    }
    void* address(Loan token) {
        const Lock lock(*theHandle);
        return static_cast<Object*>(theTable.find(token))->bytes;
    }
    void giveBack(Loan token) {
        const Lock lock(*theHandle);
        theFreeTokens.push_back(token);
    }

  private:
    static constexpr unsigned int blockBytes = 64;

    struct Object {
        void* virtualTable;
        void* bytes;
        unsigned int length;
        unsigned int token;
    };

    struct Lock {
        explicit Lock(Gilvane::GVMutexHandle& handle) : theHandle(handle) {
            if constexpr (Locked) {
                theHandle.lock();
            }
        }
        ~Lock() {
            if constexpr (Locked) {
                theHandle.unlock();
            }
        }
        Gilvane::GVMutexHandle& theHandle;
    };

    static void* request(unsigned int bytes) {
        using Deallocator = Gilvane::GVDeallocatorFunction;
        void* const block = Gilvane::GVObject::GetAllocator()(bytes + static_cast<unsigned int>(sizeof(Deallocator)));
        *static_cast<Deallocator*>(block) = Gilvane::GVObject::GetDeallocator();
        return static_cast<Deallocator*>(block) + 1;
    }
    static void giveUp(void* bytes) {
        Gilvane::GVDeallocatorFunction* const block = static_cast<Gilvane::GVDeallocatorFunction*>(bytes) - 1;
        (*block)(block);
    }

    BareTable theTable;
    std::vector<unsigned int> theFreeTokens;
    unsigned int theNumberOfBlocks;
    std::unique_ptr<Gilvane::GVMutexHandle> theHandle;
};

#endif
