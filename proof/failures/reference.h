/// @file
/// What must survive a refused allocation: table, free list, pool and smart pointer as a plain model that carries out
/// each operation step by step, with numbers of requests in place of addresses.
///
/// It holds no memory of the library's. Every request, release and lock is entered in `world().books`; a refused
/// request ends the operation where the library's must end, and what is not released on the way out must be one of the
/// accepted losses.
#ifndef GILVANE_PROOF_FAILURES_REFERENCE_H
#define GILVANE_PROOF_FAILURES_REFERENCE_H

#include "gvtestpeer.h"
#include "memory.h"
#include "recordingthreads.h"

#include <gilvane/utilities/gvmemorypool.h>

#include <algorithm>
#include <array>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace Proof {

/// The losses that are accepted. Each has one row in acceptedLosses().
enum class Loss {
    countCell,
    flagCell,
    handleOfFailedPool,
    blockOfFailedPool,
    bytesOfFailedPool,
    arrayOfFailedTableCopy,
    arrayOfFailedPoolCopy,
    poolOfFailedDeepCopy,
    arrayOfFailedDeepCopy,
    freeListOfFailedDeepCopy,
};

/// Bytes of an array of `numberOfEntries` objects that have a destructor, as a new-expression asks for them.
unsigned int arrayBytes(std::size_t entryBytes, std::size_t numberOfEntries);

struct AcceptedLoss {
    Loss loss;
    const char* when;
    unsigned int fixedBytes; // header word included
    unsigned int unitBytes;  // what comes on top for each `units`
};

inline const std::vector<AcceptedLoss>& acceptedLosses() {
    constexpr unsigned int header = Gilvane::detail::rawBlockHeaderBytes;
    const unsigned int array = header + arrayBytes(0, 0);
    constexpr unsigned int poolSlot = sizeof(Gilvane::TokenTable::Entry);
    constexpr unsigned int otherSlot = sizeof(Gilvane::GVHashTable<unsigned int, int>::Entry);
    static const std::vector<AcceptedLoss> rows = {
        {Loss::countCell, "a smart pointer's flag cell or handle is refused: its count cell",
         sizeof(unsigned int) + header, 0},
        {Loss::flagCell, "a smart pointer's handle is refused: its flag cell", sizeof(bool) + header, 0},
        {Loss::handleOfFailedPool, "a pool cannot build its blocks at construction: its handle",
         sizeof(Gilvane::RecordingMutexHandle) + header, 0},
        {Loss::blockOfFailedPool, "a pool cannot build its blocks at construction: each block built",
         sizeof(Gilvane::GVMemoryPoolObject) + header, 0},
        {Loss::bytesOfFailedPool, "a pool cannot build its blocks at construction: bytes of each block built", header,
         1},
        {Loss::arrayOfFailedTableCopy, "a table's copy cannot grow: the array it had grown to", array, otherSlot},
        {Loss::arrayOfFailedPoolCopy, "a pool's copy cannot grow its table: the array it had grown to", array,
         poolSlot},
        {Loss::poolOfFailedDeepCopy, "a deep copy cannot make its pointer: the pool copied",
         sizeof(Gilvane::GVMemoryPool) + header, 0},
        {Loss::arrayOfFailedDeepCopy, "a deep copy cannot make its pointer: the array of the pool's table", array,
         poolSlot},
        {Loss::freeListOfFailedDeepCopy, "a deep copy cannot make its pointer: the pool's free list", header,
         sizeof(unsigned int)},
    };
    return rows;
}

namespace Reference {

struct BadAlloc {};

/// A GVException: its text form and the two texts' memory, given back when it has been handled.
struct Exception {
    std::string text;
    Id message;
    Id file;
};

struct Handle {
    int number;
    bool locked;
};

struct Block {
    unsigned int token;
    unsigned int length;
    Id bytes;
};

/// Everything outside the objects under test.
struct World {
    Books books;
    unsigned int nextToken = 0;
    int lastHandleNumber = 0;
    std::map<Id, Handle> handles;
    std::map<Id, Block> blocks;
    std::map<Id, unsigned int> counts;
    std::map<Id, bool> flags;
    std::map<Id, Loss> losses;
    std::vector<std::string> errors; // losses that no row accepts
};

inline World& world() {
    static World theWorld;
    return theWorld;
}

/// One raw block; 0 when refused.
inline Id request(std::size_t userBytes) {
    Books& books = world().books;
    const bool granted = books.request(static_cast<unsigned int>(userBytes) + Gilvane::detail::rawBlockHeaderBytes);
    return granted ? static_cast<Id>(books.blocks.size()) : 0;
}

inline Id requestOrThrow(std::size_t userBytes) {
    const Id id = request(userBytes);
    if (id == 0) {
        throw BadAlloc();
    }
    return id;
}

inline void release(Id id) {
    if (id != 0) {
        world().books.blocks[static_cast<std::size_t>(id) - 1].live = false;
        world().books.events.push_back("release " + std::to_string(id));
    }
}

inline void note(const std::string& event) { world().books.events.push_back(event); }

/// Block `id` is lost by the rule of a row, which gives its size to the byte.
inline void lose(Loss loss, Id id, unsigned int units = 0) {
    if (id == 0) {
        return;
    }
    const AcceptedLoss& row = acceptedLosses()[static_cast<std::size_t>(loss)];
    const unsigned int bytes = world().books.blocks[static_cast<std::size_t>(id) - 1].bytes;
    if (row.loss != loss || bytes != row.fixedBytes + row.unitBytes * units) {
        world().errors.push_back("a loss of " + std::to_string(bytes) + " bytes is not what is accepted when " +
                                 row.when);
    }
    world().losses[id] = loss;
}

/// Memory of a text in an exception: none while it fits in the string object.
inline Id requestText(const std::string& text) {
    return text.size() <= std::string().capacity() ? 0 : requestOrThrow(text.size() + 1);
}

[[noreturn]] inline void throwException(int kind, const std::string& message, const std::string& file) {
    const Id messageText = requestText(message);
    Id fileText = 0;
    try {
        fileText = requestText(file);
    } catch (const BadAlloc&) {
        release(messageText);
        throw;
    }
    throw Exception{"GVException " + std::to_string(kind) + " 0 " + file + ": " + message, messageText, fileText};
}

inline Id makeHandle(const std::string& maker) {
    const Id id = requestOrThrow(sizeof(Gilvane::RecordingMutexHandle));
    const int number = ++world().lastHandleNumber;
    note(maker + " creates " + std::to_string(number) + " (3, false)");
    world().handles[id] = {number, false};
    return id;
}

inline void lock(Id handle) {
    if (handle != 0) {
        world().handles[handle].locked = true;
        note("lock " + std::to_string(world().handles[handle].number));
    }
}

inline void unlock(Id handle) {
    if (handle != 0) {
        world().handles[handle].locked = false;
        note("unlock " + std::to_string(world().handles[handle].number));
    }
}

inline void deleteHandle(Id handle) {
    if (handle != 0) {
        note("delete " + std::to_string(world().handles[handle].number));
        world().handles.erase(handle);
        release(handle);
    }
}

/// A scoped lock: released on every way out.
class Scope {
  public:
    explicit Scope(Id handle) : theHandle(handle) { lock(handle); }
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;
    ~Scope() { unlock(theHandle); }

  private:
    Id theHandle;
};

/// Storage for the time of an operation: released on every way out.
class Storage {
  public:
    explicit Storage(std::size_t bytes) : theBlock(requestOrThrow(bytes)) {}
    Storage(const Storage&) = delete;
    Storage& operator=(const Storage&) = delete;
    ~Storage() { release(theBlock); }

  private:
    Id theBlock;
};

inline void deleteBlock(Id block) {
    if (block != 0) {
        release(world().blocks[block].bytes);
        world().blocks.erase(block);
        release(block);
    }
}

/// A block's two requests; its token is taken once it is whole. With `mayThrow`, refused storage is BadAlloc, otherwise
/// it is 0.
inline Id makeBlock(unsigned int bytes, bool mayThrow) {
    const Id block =
        mayThrow ? requestOrThrow(sizeof(Gilvane::GVMemoryPoolObject)) : request(sizeof(Gilvane::GVMemoryPoolObject));
    if (block == 0) {
        return 0;
    }
    Id userBytes = 0;
    if (bytes != 0) {
        userBytes = request(bytes);
        if (userBytes == 0) {
            release(block);
            throw BadAlloc();
        }
    }
    world().blocks[block] = {world().nextToken++, bytes, userBytes};
    return block;
}

/// One slot; a field has no value as long as nothing has set it.
struct Slot {
    unsigned int state = 0; // 0 empty, 1 occupied, 2 deleted
    std::optional<unsigned int> key;
    std::optional<long> value;
    std::optional<unsigned int> hash;
};

struct KeyList {
    struct Node {
        void* next;
        void* previous;
        unsigned int key;
    };

    std::vector<std::pair<unsigned int, Id>> nodes;

    void append(unsigned int key) { nodes.emplace_back(key, requestOrThrow(sizeof(Node))); }

    KeyList() = default;
    KeyList(KeyList&& other) noexcept : nodes(std::move(other.nodes)) { other.nodes.clear(); }
    KeyList& operator=(KeyList&&) = delete;
    ~KeyList() {
        for (const auto& node : nodes) {
            release(node.second);
        }
    }
};

/// The hash table with the key as its own hash. `value` is a number, or the Id of a block.
class Table {
  public:
    static constexpr unsigned int smallSize = 8;
    static constexpr const char* file = "libsrc/datastructures/gvhashtable";

    std::size_t entryBytes;
    Loss lossOfCopy; // by which the array of a failing copy is lost
    unsigned int used = 0;
    unsigned int fill = 0;
    unsigned int mask = smallSize - 1;
    Id array = 0; // 0: the embedded one
    std::vector<Slot> small;
    std::vector<Slot> large; // the slots of `array`

    bool leftAlone = false; // whether the array stays when this model of the table goes

    Table(std::size_t bytesOfAnEntry, Loss lossOfACopy)
        : entryBytes(bytesOfAnEntry), lossOfCopy(lossOfACopy), small(smallSize + 1) {}

    /// Stores the other's pairs in the other's slot order. A failure loses the array grown to by then.
    struct CopyOf {
        const Table& other;
    };
    explicit Table(CopyOf source) : Table(source.other.entryBytes, source.other.lossOfCopy) {
        try {
            for (const Slot& slot : source.other.slots()) {
                if (slot.state == 1) {
                    insert(*slot.key, *slot.value);
                }
            }
        } catch (...) {
            lose(lossOfCopy, array, mask + 2);
            leftAlone = true;
            throw;
        }
    }
    Table(const Table& other) : Table(CopyOf{other}) {}
    Table& operator=(const Table&) = delete;
    ~Table() {
        if (array != 0 && !leftAlone) {
            release(array);
        }
    }

    std::vector<Slot>& slots() { return array == 0 ? small : large; }
    const std::vector<Slot>& slots() const { return array == 0 ? small : large; }
    unsigned int getUsedCount() const { return used; }

    Slot& lookup(unsigned int key) {
        const unsigned int hash = key;
        unsigned int index = hash & mask;
        Slot* slot = &slots()[index];
        if (slot->state == 0) {
            return *slot;
        }
        Slot* freeSlot = nullptr;
        if (slot->state == 2) {
            freeSlot = slot;
        } else if (*slot->hash == hash && *slot->key == key) {
            return *slot;
        }
        unsigned int perturb = hash;
        index = 5 * index + 1 + perturb;
        slot = &slots()[index & mask];
        while (true) {
            if (slot->state == 0 || slot->state == 2) {
                return freeSlot != nullptr ? *freeSlot : *slot;
            }
            if (*slot->key == key) {
                return *slot;
            }
            perturb >>= 5;
            index = 5 * index + 1 + perturb;
            slot = &slots()[index & mask];
        }
    }

    Slot* get(unsigned int key) {
        Slot& slot = lookup(key);
        return slot.state == 1 ? &slot : nullptr;
    }

    /// Stored first; a growth that is refused afterwards leaves it stored.
    int insert(unsigned int key, long value) {
        store(key, value);
        if (fill * 3 < (mask + 1) * 2) {
            return 2;
        }
        if (resize(used < 30000 ? used * 4 : used * 2) <= 1) {
            throwException(20, "Error occured while resizing table.", file);
        }
        return 2;
    }

    int resize(unsigned int minUsed) {
        unsigned int size = smallSize;
        while (size != 0 && size <= minUsed) {
            size *= 2;
        }
        if (size == 0) {
            return 0;
        }
        std::vector<Slot> oldSlots = slots();
        Id oldArray = array;
        if (size > smallSize) {
            const Id newArray = requestArray(size + 1);
            array = newArray;
            large.assign(size + 1, Slot());
        } else {
            if (array == 0 && fill == used) {
                return 0;
            }
            oldArray = requestArray(mask + 2);
            release(array);
            array = 0;
            large.clear();
        }
        mask = size - 1;
        used = 0;
        fill = 0;
        for (unsigned int index = 0; index < size; ++index) {
            slots()[index].state = 0;
        }
        for (const Slot& slot : oldSlots) {
            if (slot.state == 1) {
                store(*slot.key, *slot.value);
            }
        }
        release(oldArray);
        return 2;
    }

    long& operator[](unsigned int key) {
        Slot* slot = get(key);
        if (slot == nullptr) {
            insert(key, 0);
            slot = get(key);
        }
        return *slot->value;
    }

    bool remove(unsigned int key) {
        Slot& slot = lookup(key);
        if (slot.state != 1) {
            return false;
        }
        slot.state = 2;
        --used;
        return true;
    }

    void clear() {
        release(array);
        array = 0;
        large.clear();
        used = 0;
        fill = 0;
        mask = smallSize - 1;
        for (unsigned int index = 0; index < smallSize; ++index) {
            small[index].state = 0;
            small[index].value = 0;
        }
    }

    std::vector<unsigned int> keys() const {
        std::vector<unsigned int> keys;
        for (const Slot& slot : slots()) {
            if (slot.state == 1) {
                keys.push_back(*slot.key);
            }
        }
        return keys;
    }

    KeyList get_keys() const {
        KeyList list;
        for (const unsigned int key : keys()) {
            list.append(key);
        }
        return list;
    }

    bool operator==(Table& other) {
        return used == other.used && std::all_of(slots().begin(), slots().end(), [&other](const Slot& slot) {
                   const Slot* const found = slot.state == 1 ? other.get(*slot.key) : nullptr;
                   return slot.state != 1 || (found != nullptr && found->value == slot.value);
               });
    }

    unsigned int arrayUserBytes(unsigned int entries) const { return arrayBytes(entryBytes, entries); }

  private:
    void store(unsigned int key, long value) {
        Slot& slot = lookup(key);
        if (slot.state == 1) {
            slot.key = key;
            slot.value = value;
            return;
        }
        if (slot.state == 0) {
            ++fill;
        }
        slot = {1, key, value, key};
        ++used;
    }

    Id requestArray(unsigned int entries) const {
        const Id id = request(arrayUserBytes(entries));
        if (id == 0) {
            throwException(5, "Unable to allocate space for new table.", file);
        }
        return id;
    }
};

/// A standard vector of tokens.
class FreeList {
  public:
    std::vector<unsigned int> tokens;
    std::size_t capacity = 0;
    Id storage = 0;
    bool leftAlone = false;

    FreeList() = default;
    FreeList(const FreeList& other) : capacity(other.tokens.size()) {
        storage = capacity == 0 ? 0 : requestOrThrow(capacity * sizeof(unsigned int));
        tokens = other.tokens;
    }
    FreeList& operator=(const FreeList&) = delete;
    ~FreeList() {
        if (!leftAlone) {
            release(storage);
        }
    }

    void append(unsigned int token) {
        if (tokens.size() == capacity) {
            const std::size_t grown = capacity == 0 ? 1 : 2 * capacity;
            const Id newStorage = requestOrThrow(grown * sizeof(unsigned int));
            release(storage);
            storage = newStorage;
            capacity = grown;
        }
        tokens.push_back(token);
    }
};

class Pool {
  public:
    static constexpr const char* file = "libsrc/utilities/gvmemorypool";

    Id self = 0; // the object's own raw block
    Table table;
    FreeList freeList;
    unsigned int initial;
    unsigned int bytes;
    Id handle;
    bool useMutex;

    Pool(unsigned int numberOfObjects, bool locked)
        : table(sizeof(Gilvane::TokenTable::Entry), Loss::arrayOfFailedPoolCopy), initial(numberOfObjects), bytes(0),
          handle(handleIf(locked)), useMutex(locked) {}

    explicit Pool(bool locked) : Pool(Gilvane::GVMemoryPool::defaultNumberOfObjects, locked) {}

    /// A failure loses the handle and the blocks built so far.
    Pool(unsigned int numberOfObjects, unsigned int bytesPerObject, bool locked)
        : table(sizeof(Gilvane::TokenTable::Entry), Loss::arrayOfFailedPoolCopy), initial(numberOfObjects),
          bytes(bytesPerObject), handle(handleIf(locked)), useMutex(locked) {
        try {
            makePool(numberOfObjects);
        } catch (...) {
            lose(Loss::handleOfFailedPool, handle);
            for (const Slot& slot : table.slots()) {
                if (slot.state == 1) {
                    lose(Loss::blockOfFailedPool, static_cast<Id>(*slot.value));
                    lose(Loss::bytesOfFailedPool, world().blocks[static_cast<Id>(*slot.value)].bytes, bytes);
                }
            }
            throw;
        }
    }

    /// Member by member: the same blocks, the same handle.
    Pool(const Pool&) = default;
    Pool& operator=(const Pool&) = delete;

    /// With new and delete: the storage is had before and given back after.
    template <typename... Arguments>
    static Pool* make(const Arguments&... arguments) {
        const Id storage = requestOrThrow(sizeof(Gilvane::GVMemoryPool));
        try {
            auto pool = std::make_unique<Pool>(arguments...);
            pool->self = storage;
            return pool.release();
        } catch (...) {
            release(storage);
            throw;
        }
    }
    static void destroy(Pool* pool) {
        if (pool == nullptr) {
            return;
        }
        deleteHandle(pool->handle);
        pool->deleteBlocks();
        const Id storage = pool->self;
        delete pool;
        release(storage);
    }

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
        const unsigned int surplus = count - numberOfObjects;
        constexpr std::size_t bitsOfWord = 8 * sizeof(unsigned long);
        const Storage marks((surplus + bitsOfWord - 1) / bitsOfWord * sizeof(unsigned long));
        const Storage list(count * sizeof(unsigned int));
        std::vector<unsigned int> tokens = table.keys();
        std::sort(tokens.begin(), tokens.end());
        for (unsigned int removed = surplus; removed > 0; --removed) {
            const unsigned int token = tokens.back();
            deleteBlock(static_cast<Id>(table[token]));
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

    unsigned int numberOfObjectsInPoolInUse() {
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
            world().errors.push_back("a token is taken where there is none");
            return 0;
        }
        const unsigned int token = freeList.tokens.back();
        freeList.tokens.pop_back();
        unlock(lockHandle());
        return token;
    }

    Id getMemoryForToken(unsigned int token) {
        const Scope scope(lockHandle());
        const Id block = static_cast<Id>(table[token]);
        if (world().blocks.count(block) == 0) {
            world().errors.push_back("a token is asked for that names no block");
            return 0;
        }
        return world().blocks[block].bytes;
    }

    void releaseObject(unsigned int token) {
        const Scope scope(lockHandle());
        freeList.append(token);
    }

    bool operator==(Pool& other) { return this == &other || (table == other.table && bytes == other.bytes); }

  private:
    static Id handleIf(bool locked) {
        struct Factory {
            Factory() { note("factory made"); }
            Factory(const Factory&) = delete;
            Factory& operator=(const Factory&) = delete;
            ~Factory() { note("factory destroyed"); }
        } const factory;
        return locked ? makeHandle("factory") : 0;
    }

    Id lockHandle() const { return useMutex ? handle : 0; }

    void deleteBlocks() {
        for (const Slot& slot : table.slots()) {
            if (slot.state == 1) {
                deleteBlock(static_cast<Id>(*slot.value));
            }
        }
    }

    /// A block that the table or the free list cannot take is not deleted.
    void build(unsigned int numberOfObjects) {
        for (unsigned int built = 0; built < numberOfObjects; ++built) {
            const Id block = makeBlock(bytes, false);
            if (block == 0) {
                throwException(5, "Unable to allocate memory for new pool object", file);
            }
            const unsigned int token = world().blocks[block].token;
            table.insert(token, block);
            freeList.append(token);
        }
    }
};

/// An object that is no pool.
struct Plain {
    Id self = 0;
    static void destroy(Plain* plain) {
        if (plain != nullptr) {
            release(plain->self);
            delete plain;
        }
    }
};

template <typename T>
class Pointer {
  public:
    T* object = nullptr;
    Id count = 0;
    Id flag = 0;
    Id handle = 0;

    Pointer() = default;

    /// A failure loses the cells that were had before it.
    Pointer(T* sharedObject, bool owns, bool locked) : object(sharedObject) {
        if (object == nullptr) {
            return;
        }
        try {
            count = requestOrThrow(sizeof(unsigned int));
            world().counts[count] = 1;
            flag = requestOrThrow(sizeof(bool));
            world().flags[flag] = owns;
            handle = locked ? makeHandle("function") : 0;
        } catch (...) {
            lose(Loss::countCell, count);
            lose(Loss::flagCell, flag);
            throw;
        }
    }
    Pointer(const Pointer& other) : object(other.object), count(other.count), flag(other.flag), handle(other.handle) {
        if (count != 0) {
            const Scope scope(handle);
            ++world().counts[count];
        }
    }
    Pointer(Pointer&& other) noexcept
        : object(other.object), count(other.count), flag(other.flag), handle(other.handle) {
        other.forget();
    }
    Pointer& operator=(const Pointer& other) {
        Pointer added(other);
        decrementRefCount();
        object = added.object;
        count = added.count;
        flag = added.flag;
        handle = added.handle;
        added.forget();
        return *this;
    }
    ~Pointer() {
        if (object != nullptr) {
            decrementRefCount();
        }
    }

    void decrementRefCount() {
        lock(handle);
        if (count == 0 || --world().counts[count] != 0) {
            unlock(handle);
            return;
        }
        if (world().flags[flag]) {
            T::destroy(object);
        }
        world().counts.erase(count);
        world().flags.erase(flag);
        release(count);
        release(flag);
        unlock(handle);
        deleteHandle(handle);
        forget();
    }

    unsigned int getRefCount() const {
        if (count == 0) {
            return 0;
        }
        const Scope scope(handle);
        return world().counts[count];
    }

    T* get() const { return object; }

  private:
    void forget() {
        object = nullptr;
        count = 0;
        flag = 0;
        handle = 0;
    }
};

/// A factory's second half: should the pointer fail, the pool goes.
inline Pointer<Pool> share(Pool* pool) {
    try {
        return Pointer<Pool>(pool, true, true);
    } catch (...) {
        Pool::destroy(pool);
        throw;
    }
}

/// Should the pointer fail, the copied pool is lost with all that is its own.
inline Pointer<Pool> deepCopy(const Pointer<Pool>& source) {
    Pool* const copy = Pool::make(*source.object);
    try {
        return Pointer<Pool>(copy, true, true);
    } catch (...) {
        lose(Loss::poolOfFailedDeepCopy, copy->self);
        lose(Loss::arrayOfFailedDeepCopy, copy->table.array, copy->table.mask + 2);
        lose(Loss::freeListOfFailedDeepCopy, copy->freeList.storage,
             static_cast<unsigned int>(copy->freeList.capacity));
        copy->table.leftAlone = true;
        copy->freeList.leftAlone = true;
        delete copy;
        throw;
    }
}

/// Of an object that is no pool: the copy goes when its pointer fails.
inline Pointer<Plain> deepCopy(const Pointer<Plain>&) {
    const Id storage = requestOrThrow(sizeof(void*) + sizeof(void*));
    auto* const copy = new Plain{storage};
    try {
        return Pointer<Plain>(copy, true, true);
    } catch (...) {
        Plain::destroy(copy);
        throw;
    }
}

} // namespace Reference

} // namespace Proof

#endif
