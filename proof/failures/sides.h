/// @file
/// The two sides that carry out the same operations, the library and the reference, and what each looks like in text.
#ifndef GILVANE_PROOF_FAILURES_SIDES_H
#define GILVANE_PROOF_FAILURES_SIDES_H

#include "gvtestpeer.h"
#include "ledger.h"
#include "memory.h"

#include <gilvane/utilities/gvmemorypool.h>

#include <optional>
#include <sstream>
#include <string>
#include <vector>

namespace Proof {

using Lines = std::vector<std::string>;

/// The allocation hooks of the library's side. Released blocks are kept, filled with a pattern, until forget().
struct RealMemory {
    static Books& books();
    /// Makes the hooks of that number current; 0 restores the library's own.
    static void useHooks(int hooks);
    /// The request whose user bytes start `offset` bytes before `address`; 0 for null, -1 if there is none. It may be
    /// released already: addresses do not come twice.
    static Id idOf(const void* address, std::size_t offset = 0);
    /// The user's address of a live request, or null.
    static void* userBytes(Id id);
    /// Frees everything and closes the books; what was wrong with it.
    static Lines forget();
};

/// An object that is no pool and cannot be copied.
struct UncopyableObject : Gilvane::GVObject {
    UncopyableObject() = default;
    UncopyableObject(const UncopyableObject&) = delete;
};

enum class Misuse {
    derefAtEnd,
    derefNotReady,
    stepAtEnd,
    stepNotReady,
    keyAtEnd,
    keyNotReady,
    valueAtEnd,
    valueNotReady,
};

/// The library.
struct Real {
    using Pool = Gilvane::GVMemoryPool;
    using PoolPointer = Gilvane::GVSmartPointer<Gilvane::GVMemoryPool>;
    using Plain = PlainObject;
    using PlainPointer = Gilvane::GVSmartPointer<PlainObject>;
    using Table = Gilvane::GVHashTable<unsigned int, int>;
    using Tokens = std::vector<unsigned int, Gilvane::GVStdAllocator<unsigned int>>;

    template <typename... Arguments>
    static Pool* make(const Arguments&... arguments) {
        return new Pool(arguments...);
    }
    static void destroy(Pool* pool) { delete pool; }
    static PoolPointer init(bool locked) { return Pool::init(locked); }
    static PoolPointer init(unsigned int number, bool locked) { return Pool::initWithNumberOfObjects(number, locked); }
    static PoolPointer init(unsigned int number, unsigned int bytes, bool locked) {
        return Pool::initWithNumberOfObjectsAndSize(number, bytes, locked);
    }
    template <typename Pointer>
    static Pointer deepCopy(Pointer& pointer) {
        return pointer.deepCopy();
    }
    static Plain* makePlain() { return new PlainObject; }
    static void destroy(Plain* plain) { delete plain; }
    static unsigned int& nextToken() { return Gilvane::GVTestPeer::nextToken(); }
    static std::vector<unsigned int> freeTokens(Pool& pool) {
        const auto& tokens = Gilvane::GVTestPeer::freeTokens(pool);
        return {tokens.begin(), tokens.end()};
    }
    /// Lets a copied pool go without its source's blocks and handle.
    static void disown(Pool& pool) {
        Gilvane::GVTestPeer::table(pool).clear();
        Gilvane::GVTestPeer::mutexHandle(pool) = nullptr;
    }
    template <typename Printed>
    static void print(const Printed& printed) {
        std::ostringstream stream;
        printed.print(stream);
    }
    static std::size_t keys(Table& table) { return table.get_keys().size(); }
    static bool has(Table& table, unsigned int key) { return table.get(key) != nullptr; }
    static void append(Tokens& tokens, unsigned int token) { tokens.push_back(token); }
    static bool hasMemory(Pool& pool, unsigned int token) { return pool.getMemoryForToken(token) != nullptr; }
    static bool hasBlock(Pool& pool, unsigned int token) {
        const auto* const entry = Gilvane::GVTestPeer::table(pool).get(token);
        return entry != nullptr && entry->theValue != nullptr;
    }
    static void misuse(Table& table, Misuse misuse);
    static void refuseOneHook() { Gilvane::GVObject::SetAllocationHooks(Gilvane::GVObject::GetAllocator(), nullptr); }
    static void copyTheUncopyable();
    static void makeAndCopyException(const std::string& text);
    static bool makeBlock(unsigned int bytes, bool mayThrow);
    static void makeEntries(std::size_t number);
};

/// An object that is no pool, in the reference.
struct PlainModel {
    Id self;

    static PlainModel* make();
    static void destroy(PlainModel* plain);
    static PlainModel& find(Id id);
};

/// The reference.
struct Model {
    using Pool = reference::Pool;
    using PoolPointer = reference::Pointer<Pool>;
    using Plain = PlainModel;
    using PlainPointer = reference::Pointer<Plain>;
    using Table = reference::Table;
    using Tokens = reference::FreeList;

    static Ledger& ledger();
    /// Begins anew.
    static void forget();

    template <typename... Arguments>
    static Pool* make(const Arguments&... arguments) {
        return Pool::make(arguments...);
    }
    static void destroy(Pool* pool) { Pool::destroy(pool); }
    template <typename... Arguments>
    static PoolPointer init(const Arguments&... arguments) {
        return reference::share(Pool::make(arguments...));
    }
    static PoolPointer deepCopy(const PoolPointer& pointer) { return reference::deepCopy(pointer); }
    static PlainPointer deepCopy(const PlainPointer&) { return reference::share(Plain::make()); }
    static Plain* makePlain() { return Plain::make(); }
    static void destroy(Plain* plain) { Plain::destroy(plain); }
    static unsigned int& nextToken() { return reference::nextToken; }
    static std::vector<unsigned int> freeTokens(Pool& pool) { return pool.freeList.tokens; }
    static void disown(Pool& pool) {
        pool.table.clear();
        pool.handle = 0;
    }
    static void print(const Pool&) {}
    static void print(const PoolPointer& pointer) { const reference::Scope scope(pointer.fields.handle); }
    static std::size_t keys(Table& table);
    static bool has(Table& table, unsigned int key) { return table.find(key).has_value(); }
    static void append(Tokens& tokens, unsigned int token) { tokens.append(token); }
    static bool hasMemory(Pool& pool, unsigned int token) { return pool.blockOf(token).bytes != 0; }
    static bool hasBlock(Pool& pool, unsigned int token) {
        const std::optional<unsigned int> slot = pool.table.find(token);
        return slot && *pool.table.slots()[*slot].value != 0;
    }
    static void misuse(Table& table, Misuse misuse);
    static void refuseOneHook();
    static void copyTheUncopyable();
    static void makeAndCopyException(const std::string& text);
    static bool makeBlock(unsigned int bytes, bool mayThrow);
    static void makeEntries(std::size_t number);
};

/// Everything that operations work on.
template <typename SideType>
struct Actors {
    using Side = SideType;

    typename Side::Pool* pool = nullptr;
    typename Side::Pool* other = nullptr;
    typename Side::Pool* copy = nullptr;
    std::optional<typename Side::PoolPointer> pointer;
    std::optional<typename Side::PoolPointer> sharer;
    std::optional<typename Side::PoolPointer> deep;
    typename Side::Plain* plain = nullptr;
    std::optional<typename Side::PlainPointer> plainPointer;
    std::optional<typename Side::PlainPointer> plainCopy;
    std::optional<typename Side::Table> table;
    std::optional<typename Side::Table> secondTable;
    std::optional<typename Side::Tokens> tokens;
    std::vector<unsigned int> lent;
    unsigned long result = 0;

    void dropCopies() {
        if (copy != nullptr) {
            Side::disown(*copy);
            Side::destroy(copy);
            copy = nullptr;
        }
        if (deep) {
            Side::disown(*deep->get());
            deep.reset();
        }
    }
    void end() {
        dropCopies();
        plainCopy.reset();
        plainPointer.reset();
        Side::destroy(plain);
        plain = nullptr;
        sharer.reset();
        pointer.reset();
        Side::destroy(other);
        other = nullptr;
        Side::destroy(pool);
        pool = nullptr;
        secondTable.reset();
        table.reset();
        tokens.reset();
    }
};

/// The whole state of each side, in the same words. What nothing has set yet is not read: the reference says what is.
Lines stateOf(Actors<Model>& actors);
Lines stateOf(Actors<Real>& actors, Actors<Model>& known);

} // namespace Proof

#endif
