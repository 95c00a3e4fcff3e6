/// @file
/// The pool and its free list.
#ifndef GILVANE_PROOF_REFERENCE_POOL_H
#define GILVANE_PROOF_REFERENCE_POOL_H

#include "block.h"
#include "lock.h"
#include "table.h"

#include <algorithm>
#include <map>
#include <vector>

namespace Gilvane::reference {

/// A standard vector of tokens.
class FreeList {
  public:
    std::vector<unsigned int> tokens;
    std::size_t capacity = 0;
    RawBlock storage;

    FreeList() = default;
    FreeList(const FreeList& other)
        : tokens(other.tokens), capacity(other.tokens.size()),
          storage(capacity == 0 ? RawBlock() : RawBlock(What::tokens, capacity)) {}
    FreeList& operator=(const FreeList&) = delete;
    ~FreeList() = default;

    void append(unsigned int token) {
        if (tokens.size() >= limits.blocks) {
            throw NotDriven{"more free tokens than there are to be"};
        }
        if (tokens.size() == capacity) {
            const std::size_t grown = capacity == 0 ? 1 : 2 * capacity;
            storage = RawBlock(What::tokens, grown);
            capacity = grown;
        }
        tokens.push_back(token);
    }
};

class Pool {
  public:
    static constexpr const char* file = "libsrc/utilities/gvmemorypool";
    inline static unsigned int defaultNumberOfObjects = 4;

    Id self = 0; // the object's own raw block
    Table table = Table(identity, What::arrayOfPool);
    FreeList freeList;
    unsigned int initial;
    unsigned int bytes = 0;
    Id handle;
    bool useMutex;

    Pool(unsigned int numberOfObjects, bool locked)
        : initial(numberOfObjects), handle(makeHandleIf(locked)), useMutex(locked) {}
    explicit Pool(bool locked) : Pool(defaultNumberOfObjects, locked) {}
    /// A failure loses the handle and the blocks built so far.
    Pool(unsigned int numberOfObjects, unsigned int bytesPerObject, bool locked) : Pool(numberOfObjects, locked) {
        bytes = bytesPerObject;
        try {
            makePool(numberOfObjects);
        } catch (...) {
            lose(Loss::handleOfFailedPool, handle);
            for (const Id block : blocksInTable()) {
                lose(Loss::blockOfFailedPool, block);
                lose(Loss::bytesOfFailedPool, liveBlock(block).bytes);
            }
            throw;
        }
    }
    /// Member by member: the same blocks, the same handle.
    Pool(const Pool&) = default;
    Pool& operator=(const Pool&) = delete;
    ~Pool() = default;

    /// With new: the storage is had before.
    template <typename... Arguments>
    static Pool* make(const Arguments&... arguments);
    /// With delete; of null nothing.
    static void destroy(Pool* pool);
    /// The live pool in this raw block.
    static Pool& find(Id id);

    void makePool(unsigned int numberOfObjects) {
        const Scope scope(lockHandle());
        deleteBlocks();
        table.clear();
        build(numberOfObjects);
    }

    void resizePool(unsigned int numberOfObjects) {
        const Scope scope(lockHandle());
        const unsigned int count = table.used;
        if (numberOfObjects >= count) {
            build(numberOfObjects - count);
            return;
        }
        constexpr std::size_t bitsOfWord = 8 * sizeof(unsigned long);
        const RawBlock marks(What::marksOfTokens, (count - numberOfObjects + bitsOfWord - 1) / bitsOfWord);
        const RawBlock list(What::tokens, count);
        std::vector<unsigned int> tokens = table.keys();
        std::sort(tokens.begin(), tokens.end());
        for (unsigned int removed = count - numberOfObjects; removed > 0; --removed) {
            const unsigned int token = tokens.back();
            deleteBlock(table[token]);
            table.remove(token);
            removeTokenFromAvailableList(token);
            tokens.pop_back();
        }
    }

    void setNumberOfBytesInPoolObject(unsigned int newBytes) {
        if (numberOfObjectsInPoolInUse() != 0) {
            throwException(1, "Cannot change size of pool object memory while objects are still in use.", file);
        }
        bytes = newBytes;
        makePool(table.used);
    }

    unsigned int numberOfObjectsInPoolInUse() const {
        const Scope scope(lockHandle());
        return table.used == 0 ? 0 : table.used - static_cast<unsigned int>(freeList.tokens.size());
    }

    void removeTokenFromAvailableList(unsigned int token) {
        const auto found = std::find(freeList.tokens.begin(), freeList.tokens.end(), token);
        if (found != freeList.tokens.end()) {
            freeList.tokens.erase(found);
        }
    }

    unsigned int getTokenForFreeMemoryObject() {
        lock(lockHandle());
        if (freeList.tokens.empty()) {
            unlock(lockHandle());
            if (table.used != 0) {
                resizePool(2 * table.used);
            } else {
                makePool(initial);
            }
            lock(lockHandle());
        }
        if (freeList.tokens.empty()) {
            throw NotDriven{"nothing to lend"};
        }
        const unsigned int token = freeList.tokens.back();
        freeList.tokens.pop_back();
        unlock(lockHandle());
        return token;
    }

    /// Where getMemoryForToken finds the bytes.
    Block& blockOf(unsigned int token) {
        const Scope scope(lockHandle());
        return liveBlock(table[token]);
    }

    void releaseObject(unsigned int token) {
        const Scope scope(lockHandle());
        freeList.append(token);
    }

    bool operator==(const Pool& other) const {
        return this == &other || (table == other.table && bytes == other.bytes);
    }

  private:
    static Id makeHandleIf(bool locked) {
        struct Factory {
            Factory() { meter->happened(Event::factoryMade, 0); }
            Factory(const Factory&) = delete;
            Factory& operator=(const Factory&) = delete;
            ~Factory() { meter->happened(Event::factoryDestroyed, 0); }
        } const factory;
        return locked ? makeHandle(Event::createdByFactory) : 0;
    }

    Id lockHandle() const { return useMutex ? handle : 0; }

    std::vector<Id> blocksInTable() const {
        std::vector<Id> result;
        for (const Slot& slot : table.slots()) {
            if (slot.state == occupied) {
                result.push_back(*slot.value);
            }
        }
        return result;
    }

    void deleteBlocks() const {
        for (const Id block : blocksInTable()) {
            deleteBlock(block);
        }
    }

    /// A block that the table or the free list cannot take is not deleted.
    void build(unsigned int numberOfObjects) {
        for (unsigned int built = 0; built < numberOfObjects; ++built) {
            if (table.used >= limits.blocks) {
                throw NotDriven{"more blocks than there are to be"};
            }
            const Id block = makeBlock(bytes, false);
            if (block == 0) {
                throwException(5, "Unable to allocate memory for new pool object", file);
            }
            const unsigned int token = liveBlock(block).token;
            table.insert(token, block);
            freeList.append(token);
        }
    }
};

inline std::map<Id, Pool> pools;

template <typename... Arguments>
Pool* Pool::make(const Arguments&... arguments) {
    RawBlock storage(What::pool);
    Pool& pool = pools.try_emplace(storage.id(), arguments...).first->second;
    pool.self = storage.leave();
    return &pool;
}

inline void Pool::destroy(Pool* pool) {
    if (pool != nullptr) {
        const RawBlock storage(pool->self);
        deleteHandle(pool->handle);
        pool->deleteBlocks();
        pools.erase(pool->self);
    }
}

inline Pool& Pool::find(Id id) {
    const auto found = pools.find(id);
    if (found == pools.end()) {
        throw NotDriven{"a pool is used that is deleted"};
    }
    return found->second;
}

} // namespace Gilvane::reference

#endif
