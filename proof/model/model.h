/// @file
/// What tables, pools and smart pointers do, told a second time and as plainly as possible: an array is a std::vector,
/// an address is a number, and the whole state is one value that can be copied. Nothing here comes from the library.
#ifndef GILVANE_TESTS_PROOF_MODEL_MODEL_H
#define GILVANE_TESTS_PROOF_MODEL_MODEL_H

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Gilvane::model {

/// Thrown by an operation that has no defined outcome in this state, or a larger one than the driver wants. The state
/// is then to be thrown away, and the library's operation is not to be called.
struct NotDriven {
    const char* reason;
};

/// Tables and pools that would get larger than this are not driven.
struct Limits {
    unsigned int slots = 1U << 12;
    unsigned int blocks = 200;
};
inline Limits limits;

constexpr int none = -1;

// ---- Tables ------------------------------------------------------------------------------------------------------

enum State : unsigned int { empty = 0, occupied = 1, deleted = 2 };

/// Fields that were never set hold nothing.
template <typename V>
struct Slot {
    unsigned int state = empty;
    std::optional<unsigned int> key;
    std::optional<unsigned int> hash;
    std::optional<V> value;
};

template <typename V>
struct Table {
    using HashFunction = unsigned int (*)(unsigned int);

    explicit Table(HashFunction function) : hashOf(function), embedded(9) {}

    HashFunction hashOf;
    unsigned int used = 0;
    unsigned int fill = 0;
    unsigned int size = 8;
    std::vector<Slot<V>> embedded; // what a table of 8 slots lives in, one slot for the end included
    std::vector<Slot<V>> heap;     // what a larger table lives in; without elements while the size is 8

    std::vector<Slot<V>>& slots() { return size == 8 ? embedded : heap; }
    const std::vector<Slot<V>>& slots() const { return size == 8 ? embedded : heap; }
    bool isOccupied(unsigned int index) const { return slots()[index].state == occupied; }

    /// The slot where the key is, or where it would be stored.
    unsigned int lookup(unsigned int key, unsigned int hash) const {
        const std::vector<Slot<V>>& all = slots();
        const unsigned int home = hash % size;
        std::optional<unsigned int> free;
        if (all[home].state == empty) {
            return home;
        }
        if (all[home].state == deleted) {
            free = home;
        } else if (*all[home].hash == hash && *all[home].key == key) {
            return home;
        }
        std::uint32_t perturb = hash;
        std::uint32_t i = 5 * home + 1 + perturb;
        // Seven shifts use the hash up; from then on `size` steps visit every slot.
        for (unsigned int step = 0; step < size + 8; ++step) {
            const Slot<V>& slot = all[i % size];
            if (slot.state == empty || slot.state == deleted) {
                return free ? *free : i % size;
            }
            if (*slot.key == key) {
                return i % size;
            }
            perturb = perturb >> 5;
            i = 5 * i + 1 + perturb;
        }
        throw NotDriven{"the search does not end"};
    }

    std::optional<unsigned int> get(unsigned int key) const {
        const unsigned int index = lookup(key, hashOf(key));
        return isOccupied(index) ? std::optional<unsigned int>(index) : std::nullopt;
    }

    /// Stores without growing.
    void store(unsigned int key, V value) {
        Slot<V>& slot = slots()[lookup(key, hashOf(key))];
        if (slot.state == occupied) {
            slot.key = key;
            slot.value = value;
            return;
        }
        if (slot.state == empty) {
            fill += 1;
        }
        used += 1;
        slot = {occupied, key, hashOf(key), value};
    }

    void insert(unsigned int key, V value) {
        store(key, value);
        if (fill * 3 >= size * 2) {
            resize(used < 30000 ? used * 4 : used * 2);
        }
    }

    /// @returns 2 when done, 0 when there was nothing to do
    unsigned int resize(unsigned int minUsed) {
        if (minUsed >= 1U << 31) {
            return 0;
        }
        unsigned int newSize = 8;
        while (newSize <= minUsed) {
            newSize *= 2;
        }
        if (newSize > limits.slots) {
            throw NotDriven{"a table larger than the driver wants"};
        }
        if (newSize == 8 && size == 8 && fill == used) {
            return 0;
        }
        const std::vector<Slot<V>> old = slots();
        size = newSize;
        heap.clear();
        if (newSize > 8) {
            heap.resize(newSize + 1);
        } else {
            for (unsigned int index = 0; index < 8; ++index) {
                embedded[index].state = empty;
            }
        }
        used = 0;
        fill = 0;
        for (const Slot<V>& slot : old) {
            if (slot.state == occupied) {
                store(*slot.key, *slot.value);
            }
        }
        return 2;
    }

    /// The slot of a key, which is added with a value-initialised V when it is not found.
    unsigned int at(unsigned int key) {
        if (!get(key)) {
            insert(key, V());
        }
        return *get(key);
    }

    bool remove(unsigned int key) {
        const std::optional<unsigned int> index = get(key);
        if (!index) {
            return false;
        }
        slots()[*index].state = deleted;
        used -= 1;
        return true;
    }

    void clear() {
        heap.clear();
        used = 0;
        fill = 0;
        size = 8;
        for (unsigned int index = 0; index < 8; ++index) {
            embedded[index].state = empty;
            embedded[index].value = V();
        }
    }

    std::vector<unsigned int> keys() const {
        std::vector<unsigned int> result;
        for (const Slot<V>& slot : slots()) {
            if (slot.state == occupied) {
                result.push_back(*slot.key);
            }
        }
        return result;
    }

    bool equals(const Table& other) const {
        if (used != other.used) {
            return false;
        }
        for (const Slot<V>& slot : slots()) {
            if (slot.state == occupied) {
                const std::optional<unsigned int> index = other.get(*slot.key);
                if (!index || *other.slots()[*index].value != *slot.value) {
                    return false;
                }
            }
        }
        return true;
    }

    Table copy() const {
        Table result(hashOf);
        for (const Slot<V>& slot : slots()) {
            if (slot.state == occupied) {
                result.insert(*slot.key, *slot.value);
            }
        }
        return result;
    }

    /// @param text  of a value
    template <typename Text>
    std::string dump(Text text) const {
        std::string result = "<GVHashTable>";
        for (const Slot<V>& slot : slots()) {
            if (slot.state == occupied) {
                result += "\n\t<GVHashTableEntry>\n\t\t<K>" + std::to_string(*slot.key) + "</K>\n\t\t<V>" +
                          text(*slot.value) + "</V>\n\t</GVHashTableEntry>\n";
            }
        }
        return result + "</GVHashTable>";
    }
};

// ---- Pools and their pointers ------------------------------------------------------------------------------------

struct Block {
    unsigned int token;
    unsigned int length;
    bool hasBytes;
    bool alive = true;
    std::optional<unsigned char> content = {}; // what every byte was last set to
};

struct Handle {
    bool alive = true;
};

/// 0 stands for a null block in a table, n for the block of number n - 1: a value-initialised value is a null pointer.
using BlockValue = unsigned int;

inline unsigned int identity(unsigned int key) { return key; }

struct Pool {
    Table<BlockValue> table = Table<BlockValue>(identity);
    std::vector<unsigned int> freeTokens = {};
    unsigned int freeCapacity = 0;
    unsigned int initial = 0;
    unsigned int bytes = 0;
    int handle = none;
    bool useMutex = false;
    bool alive = true;
};

/// What smart pointers to one object have in common.
struct Share {
    int pool;
    unsigned int count;
    bool own;
    int handle;
    bool alive = true;
};

/// What one call does, apart from changing the state.
struct Outcome {
    std::optional<unsigned int> number = {}; // what it returns
    std::string refusal = {};                // the message of the exception that it throws
};

/// Everything that a program has at one moment: numbers index the vectors and are never used again.
struct World {
    explicit World(unsigned int firstToken) : nextToken(firstToken) {}

    unsigned int nextToken;
    unsigned int defaultNumber = 4;
    std::vector<Block> blocks = {};
    std::vector<Handle> handles = {};
    std::vector<Pool> pools = {};
    std::vector<Share> shares = {};
    std::vector<int> pointers = std::vector<int>(4, none); // each one's share

    // Pools

    void pushFree(Pool& pool, unsigned int token) {
        if (pool.freeTokens.size() == pool.freeCapacity) {
            pool.freeCapacity = pool.freeCapacity == 0 ? 1 : pool.freeCapacity * 2;
        }
        pool.freeTokens.push_back(token);
        if (pool.freeTokens.size() > limits.blocks) {
            throw NotDriven{"more free tokens than the driver wants"};
        }
    }

    void needLock(const Pool& pool) const {
        if (pool.useMutex && !handles[static_cast<unsigned int>(pool.handle)].alive) {
            throw NotDriven{"the pool's lock went with the pool that it was copied from"};
        }
    }

    Block& liveBlock(BlockValue value) {
        if (value == 0) {
            throw NotDriven{"a null block is read"};
        }
        if (!blocks[value - 1].alive) {
            throw NotDriven{"a block is touched that another pool has deleted"};
        }
        return blocks[value - 1];
    }

    void deleteBlock(BlockValue value) {
        if (value != 0) {
            liveBlock(value).alive = false;
        }
    }

    void deleteBlocks(const Pool& pool) {
        for (const Slot<BlockValue>& slot : pool.table.slots()) {
            if (slot.state == occupied) {
                deleteBlock(*slot.value);
            }
        }
    }

    void build(Pool& pool, unsigned int numberOfObjects) {
        for (unsigned int built = 0; built < numberOfObjects; ++built) {
            if (pool.table.used >= limits.blocks) {
                throw NotDriven{"more blocks than the driver wants"};
            }
            const unsigned int token = nextToken;
            nextToken += 1;
            blocks.push_back({token, pool.bytes, pool.bytes != 0});
            pool.table.insert(token, static_cast<BlockValue>(blocks.size()));
            pushFree(pool, token);
        }
    }

    void makePool(Pool& pool, unsigned int numberOfObjects) {
        needLock(pool);
        deleteBlocks(pool);
        pool.table.clear();
        build(pool, numberOfObjects);
    }

    void removeFree(Pool& pool, unsigned int token) {
        const auto first = std::find(pool.freeTokens.begin(), pool.freeTokens.end(), token);
        if (first != pool.freeTokens.end()) {
            pool.freeTokens.erase(first);
        }
    }

    void resizePool(Pool& pool, unsigned int numberOfObjects) {
        needLock(pool);
        const unsigned int count = pool.table.used;
        if (numberOfObjects > count) {
            build(pool, numberOfObjects - count);
        }
        if (numberOfObjects >= count) {
            return;
        }
        std::vector<unsigned int> tokens = pool.table.keys();
        std::sort(tokens.begin(), tokens.end());
        for (unsigned int removed = 0; removed < count - numberOfObjects; ++removed) {
            const unsigned int token = tokens.back();
            const unsigned int found = pool.table.at(token);
            deleteBlock(*pool.table.slots()[found].value);
            pool.table.remove(token);
            removeFree(pool, token);
            tokens.pop_back();
        }
    }

    unsigned int inUse(const Pool& pool) const {
        needLock(pool);
        return pool.table.used == 0 ? 0 : pool.table.used - static_cast<unsigned int>(pool.freeTokens.size());
    }

    Outcome setBytes(Pool& pool, unsigned int bytes) {
        if (inUse(pool) != 0) {
            return {std::nullopt, "Cannot change size of pool object memory while objects are still in use."};
        }
        pool.bytes = bytes;
        makePool(pool, pool.table.used);
        return {};
    }

    Outcome borrow(Pool& pool) {
        needLock(pool);
        if (pool.freeTokens.empty()) {
            if (pool.table.used != 0) {
                resizePool(pool, pool.table.used * 2);
            } else {
                makePool(pool, pool.initial);
            }
        }
        if (pool.freeTokens.empty()) {
            throw NotDriven{"nothing to lend"};
        }
        const unsigned int token = pool.freeTokens.back();
        pool.freeTokens.pop_back();
        return {token, {}};
    }

    Block& memoryOf(Pool& pool, unsigned int token) {
        needLock(pool);
        const unsigned int found = pool.table.at(token);
        return liveBlock(*pool.table.slots()[found].value);
    }

    void release(Pool& pool, unsigned int token) {
        needLock(pool);
        pushFree(pool, token);
    }

    bool equal(const Pool& one, const Pool& other) const {
        return &one == &other || (one.table.equals(other.table) && one.bytes == other.bytes);
    }

    int newHandle() {
        handles.push_back({});
        return static_cast<int>(handles.size()) - 1;
    }

    int newPool(unsigned int initial, unsigned int bytes, bool useMutex) {
        Pool pool;
        pool.initial = initial;
        pool.bytes = bytes;
        pool.useMutex = useMutex;
        pool.handle = useMutex ? newHandle() : none;
        pools.push_back(pool);
        return static_cast<int>(pools.size()) - 1;
    }

    void deletePool(Pool& pool) {
        if (!pool.alive) {
            throw NotDriven{"a pool is deleted twice"};
        }
        if (pool.handle != none) {
            Handle& handle = handles[static_cast<unsigned int>(pool.handle)];
            if (!handle.alive) {
                throw NotDriven{"a lock is deleted twice"};
            }
            handle.alive = false;
        }
        deleteBlocks(pool);
        pool.alive = false;
    }

    // Pointers

    int newShare(int pool, bool own, bool lock) {
        shares.push_back({pool, 1, own, lock ? newHandle() : none});
        return static_cast<int>(shares.size()) - 1;
    }

    Share& shareOf(int pointer) { return shares[static_cast<unsigned int>(shareNumber(pointer))]; }
    Pool& poolOf(int pointer) { return pools[static_cast<unsigned int>(shareOf(pointer).pool)]; }
    int& shareNumber(int pointer) { return pointers[static_cast<unsigned int>(pointer)]; }

    void deleteData(int pointer) {
        if (shareNumber(pointer) != none && shareOf(pointer).own) {
            deletePool(poolOf(pointer));
        }
    }

    /// @returns whether this was the last share, so that the pointer is empty now
    bool decrement(int pointer) {
        if (shareNumber(pointer) == none) {
            return true;
        }
        Share& share = shareOf(pointer);
        share.count -= 1;
        if (share.count != 0) {
            return false;
        }
        deleteData(pointer);
        share.alive = false;
        if (share.handle != none) {
            handles[static_cast<unsigned int>(share.handle)].alive = false;
        }
        shareNumber(pointer) = none;
        return true;
    }

    /// Makes a pointer a holder of this share, which counts it already, in place of its own.
    void take(int pointer, int share) {
        decrement(pointer);
        shareNumber(pointer) = share;
    }

    void assign(int pointer, int other) {
        if (shareNumber(other) != none) {
            shareOf(other).count += 1;
        }
        take(pointer, shareNumber(other));
    }

    void moveAssign(int pointer, int other) {
        if (pointer != other) {
            const int share = shareNumber(other);
            shareNumber(other) = none;
            take(pointer, share);
        }
    }

    int deepCopy(int pointer) {
        if (shareNumber(pointer) == none || !poolOf(pointer).alive) {
            throw NotDriven{"there is no pool to copy"};
        }
        const Pool& source = poolOf(pointer);
        Pool copy = source;
        copy.table = source.table.copy();
        copy.freeCapacity = static_cast<unsigned int>(source.freeTokens.size());
        pools.push_back(copy);
        return newShare(static_cast<int>(pools.size()) - 1, true, true);
    }

    /// Raw blocks that everything alive takes.
    unsigned int rawBlocks() const {
        unsigned int result = 0;
        for (const Block& block : blocks) {
            result += block.alive ? (block.hasBytes ? 2U : 1U) : 0U;
        }
        for (const Handle& handle : handles) {
            result += handle.alive ? 1 : 0;
        }
        for (const Pool& pool : pools) {
            if (pool.alive) {
                result += 1U + (pool.table.size > 8 ? 1U : 0U) + (pool.freeCapacity > 0 ? 1U : 0U);
            }
        }
        for (const Share& share : shares) {
            result += share.alive ? 2U : 0U;
        }
        return result;
    }
};

} // namespace Gilvane::model

#endif
