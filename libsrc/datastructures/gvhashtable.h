/// @file
/// An open-addressing hash table: its entry, its default hash function, its iterator, and the table itself.
#ifndef GILVANE_DATASTRUCTURES_GVHASHTABLE_H
#define GILVANE_DATASTRUCTURES_GVHASHTABLE_H

#include <gilvane/base/gvcompiler.h>
#include <gilvane/base/gvdumpvalue.h>
#include <gilvane/base/gvexception.h>
#include <gilvane/base/gvobject.h>
#include <gilvane/base/gvstdallocator.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iterator>
#include <limits>
#include <list>
#include <new>
#include <ostream>
#include <type_traits>

namespace Gilvane {

namespace detail {

/// What exceptions of the table and its iterator name as their source file.
inline constexpr const char* hashTableFile = "libsrc/datastructures/gvhashtable";

/// The slots that a search for a key looks at, one after another, from the home slot on. The first step adds the whole
/// hash, and each later step what five more bits of shifting leave of it. When nothing is left, 5 * index + 1 visits
/// every slot. All arithmetic wraps at 32 bits.
class ProbeSequence {
  public:
    /// Stands on the home slot.
    ProbeSequence(unsigned int hash, unsigned int mask) : theMask(mask), theIndex(hash), thePerturbation(hash) {}

    /// The slot that it stands on.
    unsigned int slot() const { return theIndex & theMask; }
    /// Goes on to the next slot.
    void step() {
        theIndex = 5 * theIndex + 1 + thePerturbation;
        thePerturbation >>= 5;
    }

  private:
    unsigned int theMask;         // slots - 1
    unsigned int theIndex;        // its low bits, by the mask, are the slot
    unsigned int thePerturbation; // what is left of the hash
};

} // namespace detail

/// What GVHashTableEntry::theState holds.
enum GVHashTableEntryState : unsigned int {
    gvemptyentry = 0,    ///< never used since the array was last reset: ends every search
    gvoccupiedentry = 1, ///< holds a live key
    gvdeletedentry = 2,  ///< held a key that was removed
};

/// One slot of a table.
///
/// @par Thread safety
///   None: the table's user serialises access.
/// @par Ownership
///   None: what a value points to is never touched.
template <typename K, typename V>
class GILVANE_EXPORT GVHashTableEntry : public GVObject {
  public:
    /// An empty slot. Key, value and hash stay unset until the slot is first used.
    GVHashTableEntry() : theState(gvemptyentry) {}
    GVHashTableEntry(const GVHashTableEntry&) = default;
    GVHashTableEntry& operator=(const GVHashTableEntry&) = default;
    ~GVHashTableEntry() override = default;

    /// Writes the slot's key and value as text.
    /// @returns `stream`
    std::ostream& WriteEntry(std::ostream& stream);

    K theKey;              ///< unset until the slot is first used
    V theValue;            ///< likewise
    unsigned int theHash;  ///< of theKey; set when a key is first written to the slot
    unsigned int theState; ///< a GVHashTableEntryState
};

template <typename K, typename V>
std::ostream& GVHashTableEntry<K, V>::WriteEntry(std::ostream& stream) {
    stream << "\n";
    stream << "\t<GVHashTableEntry>\n";
    stream << "\t\t<K>";
    detail::writeDumpValue(stream, theKey);
    stream << "</K>\n";
    stream << "\t\t<V>";
    detail::writeDumpValue(stream, theValue);
    stream << "</V>\n";
    stream << "\t</GVHashTableEntry>\n";
    return stream;
}

/// The hash of a key where the user gives no function of their own.
///
/// - An `unsigned int` is its own hash.
/// - Other integers and enumerations are extended to 64 bits with their sign. The hash is the exclusive or of the
///   halves.
/// - Pointers and all other types are hashed by `std::hash`, whose halves are combined in the same way.
template <typename K>
class GILVANE_EXPORT GVGenericHashFunction : public GVObject {
  public:
    GVGenericHashFunction() = default;
    GVGenericHashFunction(const GVGenericHashFunction&) = default;
    GVGenericHashFunction& operator=(const GVGenericHashFunction&) = default;
    ~GVGenericHashFunction() override = default;

    /// The 32-bit hash of `key`. Equal keys have equal hashes.
    unsigned int operator()(const K& key) const {
        if constexpr (std::is_same_v<K, unsigned int>) {
            return key;
        } else if constexpr (std::is_integral_v<K> || std::is_enum_v<K>) {
            return fold(static_cast<std::uint64_t>(static_cast<std::int64_t>(key)));
        } else {
            return fold(std::hash<K>{}(key));
        }
    }

  private:
    static unsigned int fold(std::uint64_t bits) {
        return static_cast<unsigned int>(bits) ^ static_cast<unsigned int>(bits >> 32);
    }
};

template <typename K, typename V, typename H>
class GVHashTable;

/// A position in a table's slot array.
///
/// It stands on an occupied slot, at the end, or, made by its default constructor, in no table at all ("not ready").
/// Every operation that throws a GVException throws `std::bad_alloc` instead when there is no memory for its texts.
///
/// It is good only as long as the table keeps its slot array: any insertion that grows the table, any `resize` and any
/// `clear` end its life without telling it.
///
/// @par Invariants
///   theTable is null and both numbers are 0, or theIndex < theCapacity.
/// @par Thread safety
///   None: the table's user serialises access.
/// @par Ownership
///   Owns nothing and keeps nothing alive.
template <typename K, typename V>
class GILVANE_EXPORT GVHashTableEntry_Iterator : public GVObject {
  public:
    using Entry = GVHashTableEntry<K, V>; ///< one slot

    /// @name Types
    /// @{

    /// As `std::iterator_traits` expects them: algorithms may use it as a forward iterator over the values.
    using iterator_category = std::forward_iterator_tag;
    using value_type = V;
    using difference_type = std::ptrdiff_t;
    using pointer = V*;
    using reference = V&;

    /// @}

    /// An iterator that is not ready: every operation on it but comparison throws.
    GVHashTableEntry_Iterator() : theTable(nullptr), theCapacity(0), theIndex(0) {}
    GVHashTableEntry_Iterator(const GVHashTableEntry_Iterator&) = default;
    GVHashTableEntry_Iterator& operator=(const GVHashTableEntry_Iterator&) = default;
    ~GVHashTableEntry_Iterator() override = default;

    /// Steps to the next occupied slot or to the end; empty and deleted slots are passed over.
    /// @throws GVException kind gviteratormisuse when not ready or at the end already; the position stays
    GVHashTableEntry_Iterator& operator++();
    /// As the prefix form.
    /// @returns the position before the step
    GVHashTableEntry_Iterator operator++(int);

    /// The key of the slot.
    /// @throws GVException kind gviteratormisuse when not ready or when the slot is not occupied, the end included
    const K& GetKey() const;
    /// The value of the slot.
    /// @throws GVException kind gviteratormisuse when not ready or when the slot is not occupied, the end included
    V& GetValue() const;
    /// The value of the slot, without a look at the slot's state.
    /// @throws GVException kind gviteratormisuse when not ready or at the end
    V& operator*() const;

    /// Whether both stand on the same slot of the same array.
    bool operator==(const GVHashTableEntry_Iterator& other) const {
        return theTable == other.theTable && theCapacity == other.theCapacity && theIndex == other.theIndex;
    }
    /// The opposite of `==`.
    bool operator!=(const GVHashTableEntry_Iterator& other) const { return !(*this == other); }

  private:
    friend struct GVTestPeer;
    template <typename, typename, typename>
    friend class GVHashTable;

    GVHashTableEntry_Iterator(Entry* table, unsigned int capacity, unsigned int index)
        : theTable(table), theCapacity(capacity), theIndex(index) {}

    bool isAtEnd() const { return theIndex == theCapacity - 1; }
    void moveToOccupiedFrom(unsigned int index);
    Entry* currentEntry() const;
    Entry* occupiedEntry() const;

    Entry* theTable;          // the slot array walked; null when not ready
    unsigned int theCapacity; // entries in that array, the end slot included
    unsigned int theIndex;    // the current slot; theCapacity - 1 is the end
};

template <typename K, typename V>
GVHashTableEntry_Iterator<K, V>& GVHashTableEntry_Iterator<K, V>::operator++() {
    if (theTable == nullptr) {
        throw GVException("Iterator not ready to increment.", detail::hashTableFile, __LINE__, gviteratormisuse, 0);
    }
    if (isAtEnd()) {
        throw GVException("Iterator at end.", detail::hashTableFile, __LINE__, gviteratormisuse, 0);
    }
    moveToOccupiedFrom(theIndex + 1);
    return *this;
}

template <typename K, typename V>
GVHashTableEntry_Iterator<K, V> GVHashTableEntry_Iterator<K, V>::operator++(int) {
    const GVHashTableEntry_Iterator previous(*this);
    ++*this;
    return previous;
}

template <typename K, typename V>
const K& GVHashTableEntry_Iterator<K, V>::GetKey() const {
    if (theTable == nullptr) {
        throw GVException("Iterator not ready to get key.", detail::hashTableFile, __LINE__, gviteratormisuse, 0);
    }
    const Entry* const entry = occupiedEntry();
    if (entry == nullptr) {
        throw GVException("Iterator refers to invalid table entry.", detail::hashTableFile, __LINE__, gviteratormisuse,
                          0);
    }
    return entry->theKey;
}

// Deliberate: GetValue and operator* refuse different positions (docs/deliberate.md, Iterator).
// Watched by HashTableIterator.dereferencesADeletedSlotThatGetValueRefuses.
template <typename K, typename V>
V& GVHashTableEntry_Iterator<K, V>::GetValue() const {
    if (theTable == nullptr) {
        throw GVException("Iterator not ready to get value.", detail::hashTableFile, __LINE__, gviteratormisuse, 0);
    }
    Entry* const entry = occupiedEntry();
    if (entry == nullptr) {
        throw GVException("Iterator refers to invalid table entry.", detail::hashTableFile, __LINE__, gviteratormisuse,
                          0);
    }
    return entry->theValue;
}

template <typename K, typename V>
V& GVHashTableEntry_Iterator<K, V>::operator*() const {
    if (theTable == nullptr) {
        throw GVException("Iterator not ready to dereference.", detail::hashTableFile, __LINE__, gviteratormisuse, 0);
    }
    if (isAtEnd()) {
        throw GVException("Iterator at end.", detail::hashTableFile, __LINE__, gviteratormisuse, 0);
    }
    Entry* const entry = currentEntry();
    if (entry == nullptr) {
        constexpr const char* message = "Iterator does not point to valid hash table entry.";
        throw GVException(message, detail::hashTableFile, __LINE__, gviteratormisuse, 0);
    }
    return entry->theValue;
}

template <typename K, typename V>
void GVHashTableEntry_Iterator<K, V>::moveToOccupiedFrom(unsigned int index) {
    theIndex = index;
    while (!isAtEnd() && theTable[theIndex].theState != gvoccupiedentry) {
        ++theIndex;
    }
}

// The current slot; null when the computed address is 0, as in an iterator that holds wrong numbers. It is computed as
// a number: a compiler may take pointer arithmetic for proof that the result is not null, and drop the callers' tests.
template <typename K, typename V>
GVHashTableEntry<K, V>* GVHashTableEntry_Iterator<K, V>::currentEntry() const {
    const std::uintptr_t offset = static_cast<std::uintptr_t>(theIndex) * sizeof(Entry);
    return reinterpret_cast<Entry*>(reinterpret_cast<std::uintptr_t>(theTable) + offset);
}

template <typename K, typename V>
GVHashTableEntry<K, V>* GVHashTableEntry_Iterator<K, V>::occupiedEntry() const {
    Entry* const entry = currentEntry();
    return entry != nullptr && entry->theState == gvoccupiedentry ? entry : nullptr;
}

/// Maps keys to values in one open-addressing array of slots, the first of them inside the table itself.
///
/// Up to five keys need no heap memory, as long as none is removed. When two thirds of the slots are occupied or
/// deleted, an insertion gives the table a new size: the smallest power of two above four times its live keys, or above
/// twice its live keys from 30000 of them on. After many removals that may be fewer slots than before.
///
///     key 0, then 8, in a table of 8 slots: both have home slot 0; key 8 takes one step
///     slot   0   1   2   3   4   5   6   7  | end
///     key    0   8   .   .   .   .   .   .  |  .
///                ^ 5 * 0 + 1 + 8, modulo 8
///
/// @tparam K  key: default-constructible, copyable and assignable, with `==`
/// @tparam V  value: likewise, with `==` where tables are compared
/// @tparam H  function object, const where it is called, that gives the unsigned 32-bit hash of a key
///
/// What the copies and comparisons of K and V throw passes through. A slot is written before it is counted: a throw
/// from storing a new key leaves the table as it was. A throw while the table gets a new array loses the keys that are
/// not yet in the new array, and the former array.
///
/// @par Invariants (after every completed insert)
///   1. theUsedCount <= theFillCount <= theMask
///   2. theFillCount * 3 < (theMask + 1) * 2, so some slot is empty and every search ends
///   3. theTable == theSmallTable  <=>  theMask == 7
///   4. the slot array has theMask + 2 entries; the last, the end slot, is never written and stays empty
/// @par Thread safety
///   None: whoever owns the table serialises access. Reading operations may run side by side.
/// @par Ownership
///   The slot array is the table's; what a value points to is not, and is never deleted here.
template <typename K, typename V, typename H = GVGenericHashFunction<K>>
class GILVANE_EXPORT GVHashTable : public GVObject {
  public:
    using Entry = GVHashTableEntry<K, V>;             ///< one slot
    using Iterator = GVHashTableEntry_Iterator<K, V>; ///< a position among the slots
    using KeyList = std::list<K, GVStdAllocator<K>>;  ///< what get_keys returns

    /// An empty table of 8 slots; takes no heap memory.
    GVHashTable();

    /// A table of its own with the same keys and values; what the values point to is shared. Its size and order follow
    /// from its own insertions and may differ from the other's.
    /// @throws whatever insert throws. The new slot array, if one had been made, is then not released
    /// @par Complexity  linear in the other's slots
    GVHashTable(const GVHashTable& other);

    /// Not assignable: the table does not own its values, so an assignment could not say what becomes of the former
    /// ones.
    GVHashTable& operator=(const GVHashTable&) = delete;

    /// Releases the slot array; no value is deleted.
    ~GVHashTable() override;

    /// Finds the slot of a key, or the slot where it would be stored.
    ///
    /// A deleted slot past the home slot ends the search, so a key stored beyond it is not found.
    /// @param key   what to find
    /// @param hash  the key's hash; it is trusted
    /// @returns     null only for a table that has no slot array
    /// @par Complexity  constant on average, whatever was removed; linear in the slots at worst
    Entry* lookup(const K& key, unsigned int hash) const;

    /// Stores without growing: a building block of insert.
    /// @returns 2 when stored; 1 only for a table that has no slot array
    int insert_helper(const K& key, const V& value);

    /// Stores a value under a key, overwriting the value that stood there, and grows the table when it is two thirds
    /// full. References, entries and iterators die when it grows.
    /// @returns 2, always
    /// @throws GVException     kind gvoutofmemory: no memory for the larger slot array. The value is stored, and the
    ///                         next insertion tries to grow again. In a table whose growth failed until every slot was
    ///                         occupied, the search for an absent key does not end
    /// @throws GVException     kind gvhashtablefailure: growth failed within itself; not reached while the invariants
    ///                         hold
    /// @throws std::bad_alloc  no memory for the exception's own texts; otherwise as kind gvoutofmemory
    /// @par Complexity  constant on average; linear in the slots when the table grows
    int insert(const K& key, const V& value);

    /// Gives the table another slot array and stores every live key again: a building block of insert.
    /// @param minUsed  keys that the new array must hold; the new size is the smallest power of two above it, at least
    ///                 8. Where the live keys would fill that size or more, the search for a free slot does not end
    /// @returns 2 when done; 0 when nothing was done: the table was small and without deleted slots already, or 2^31 or
    ///          more keys were asked for; 1 when a key could not be stored again: the table then holds the keys stored
    ///          so far, and the former array is not released
    /// @throws GVException     kind gvoutofmemory: no memory for an array; the table is unchanged
    /// @throws std::bad_alloc  no memory for the exception's own texts; the table is unchanged
    /// @par Complexity  linear in the slots, old and new
    int resize(unsigned int minUsed);

    /// Finds a key.
    ///
    /// After a removal it may miss a key that is there: the search ends at a deleted slot past the home slot, see lookup.
    /// @returns its entry, or null
    Entry* get(const K& key) const;

    /// The value under a key, which is added with a value-initialised V when it is not found.
    ///
    /// After a removal it may miss a key that is there, as get. It then adds the key a second time, and returns the new
    /// value; the former entry stays, and keeps its value.
    /// @param key  not a reference to a key in this table, whose slots may move
    /// @throws             what insert throws, when the key is absent. The key then stays, if it was stored
    /// @throws GVException kind gvhashtablefailure: the key is not found after it was stored. It is unequal to itself,
    ///                     as the floating-point NaN is
    V& operator[](const K& key);

    /// Marks a key's slot deleted. The slot goes on counting towards growth, and the array stays as it is.
    ///
    /// The deleted slot ends searches for keys that were stored past it: get, `[]`, `==` and this operation may miss them
    /// from now on; insert and `[]` then add such a key a second time, and a removal takes one of the two away. This
    /// lasts until the table grows or is resized, which keeps one value of each key, or is cleared. A program that
    /// searches a table after removals needs another table.
    /// @returns whether the key was found: after an earlier removal false does not mean that it is absent
    bool remove(const K& key);

    /// Forgets everything and returns to 8 slots; no value is deleted. The keys in embedded slots stay there, unseen,
    /// until they are overwritten.
    void clear();

    /// Live keys.
    unsigned int getUsedCount() const { return theUsedCount; }

    /// The first occupied slot, or the end. Iterators visit the slots in ascending order.
    Iterator begin() const;
    /// The position after the last slot.
    Iterator end() const { return Iterator(theTable, theMask + 2, theMask + 1); }

    /// @name Slots
    /// @{

    /// Slots, without the end slot: a power of two, at least 8.
    unsigned int getSlotCount() const { return theMask + 1; }
    /// Entries in the slot array on the heap, with the end slot; 0 while the slots lie in the table itself.
    unsigned int getHeapEntryCount() const { return hasHeapArray() ? theMask + 2 : 0; }
    /// The entry in a slot, whatever its state.
    /// @param slot  less than getSlotCount()
    const Entry& getEntry(unsigned int slot) const { return theTable[slot]; }
    /// Counts the slots that a search for the key of an occupied slot looks at, this slot included.
    /// @param slot  an occupied slot
    /// @returns     0 when the search ends elsewhere: at a deleted slot, or at a second entry for the same key
    /// @par Complexity  constant on average; linear in the slots at worst
    unsigned int countProbes(unsigned int slot) const;

    /// @}

    /// The live keys in ascending slot order.
    /// @throws std::bad_alloc no memory for the list
    KeyList get_keys() const;

    /// Whether both tables hold the same keys with values that are equal by V's `==`; sizes and order do not matter.
    /// The other table is searched with this table's hash function and with its own: tables of different hash functions
    /// differ.
    ///
    /// After a removal from the other table the search may miss a key that is there, as get. Then tables that hold the
    /// same keys and values differ, `a == b` and `b == a` may give different answers, and a table may differ from itself.
    bool operator==(const GVHashTable& other) const;
    /// The opposite of `==`.
    bool operator!=(const GVHashTable& other) const { return !(*this == other); }

    /// Writes every entry as text, in the iterator's order. Takes no lock.
    /// @returns `stream`
    std::ostream& WriteTable(std::ostream& stream) const;

  private:
    friend struct GVTestPeer;

    static constexpr unsigned int theSmallSize = 8;
    static constexpr unsigned int theSlowGrowthCount = 30000; // live keys from which growth is twofold
    static constexpr unsigned int thePrefetchDistance = 12;   // entries that resize looks ahead

    // Scalar keys are passed by value, so that they stay in a register.
    using KeyArgument = std::conditional_t<std::is_scalar_v<K>, const K, const K&>;

    Entry* lookupPastHome(KeyArgument key, unsigned int hash) const;
    V& addMissing(KeyArgument key);
    unsigned int hashOf(const K& key) const { return theHashFunction(key); }
    Entry* homeOf(unsigned int hash) const { return &theTable[hash & theMask]; }
    static bool holds(const Entry& entry, const K& key, unsigned int hash) {
        return detail::expectTrue(entry.theState == gvoccupiedentry) && detail::expectTrue(entry.theHash == hash) &&
               detail::expectTrue(entry.theKey == key);
    }
    static bool isOccupied(const Entry* entry) { return entry != nullptr && entry->theState == gvoccupiedentry; }
    bool hasHeapArray() const { return theMask + 1 > theSmallSize && theTable != nullptr; }
    unsigned int grownMinimum() const;
    void prefetchHomeOf(const Entry& entry) const;
    static unsigned int sizeAbove(unsigned int minUsed);
    static Entry* makeArray(unsigned int numberOfEntries);
    Entry* copyOfArray() const;

    unsigned int theUsedCount;             // occupied slots
    unsigned int theFillCount;             // occupied and deleted slots: the growth rule counts these
    unsigned int theMask;                  // slots - 1; slots is a power of two, at least 8
    Entry* theTable;                       // theSmallTable, or a heap array of theMask + 2 entries
    Entry theSmallTable[theSmallSize + 1]; // the slots of a small table, and their end slot
    H theHashFunction;
};

template <typename K, typename V, typename H>
GVHashTable<K, V, H>::GVHashTable()
    : theUsedCount(0), theFillCount(0), theMask(theSmallSize - 1), theTable(theSmallTable), theHashFunction() {}

// Deliberate: a failing copy loses its grown array (docs/deliberate.md, Failures). So this constructor must not
// delegate to another one, after which the destructor would run.
// Watched by HashTableCopy.losesItsGrownArrayWhenAnInsertionThrows.
template <typename K, typename V, typename H>
GVHashTable<K, V, H>::GVHashTable(const GVHashTable& other)
    : GVObject(other), theUsedCount(0), theFillCount(0), theMask(theSmallSize - 1), theTable(theSmallTable),
      theHashFunction(other.theHashFunction) {
    for (Iterator position = other.begin(); position != other.end(); ++position) {
        insert(position.GetKey(), *position);
    }
}

template <typename K, typename V, typename H>
GVHashTable<K, V, H>::~GVHashTable() {
    if (hasHeapArray()) {
        delete[] theTable;
    }
}

template <typename K, typename V, typename H>
GVHashTableEntry<K, V>* GVHashTable<K, V, H>::lookup(const K& key, unsigned int hash) const {
    if (theTable == nullptr) {
        return nullptr;
    }
    // Nearly every search ends at the home slot: this much is compiled into every caller.
    Entry* const home = homeOf(hash);
    if (holds(*home, key, hash)) {
        return home;
    }
    return home->theState == gvemptyentry ? home : lookupPastHome(key, hash);
}

// The rest of lookup, when the home slot is deleted or holds another key.
template <typename K, typename V, typename H>
GILVANE_OUT_OF_LINE GVHashTableEntry<K, V>* GVHashTable<K, V, H>::lookupPastHome(KeyArgument key,
                                                                                 unsigned int hash) const {
    detail::ProbeSequence probe(hash, theMask);
    Entry* const home = homeOf(hash);
    Entry* const reusable = home->theState == gvdeletedentry ? home : nullptr;
    for (;;) {
        probe.step();
        Entry* const entry = &theTable[probe.slot()];
        // Deliberate: a deleted slot past the home slot ends the search (docs/deliberate.md, Hash table).
        // Watched by HashTable.aDeletedSlotPastTheHomeSlotEndsTheSearch.
        if (entry->theState != gvoccupiedentry) {
            return reusable != nullptr ? reusable : entry;
        }
        if (entry->theKey == key) {
            return entry;
        }
    }
}

template <typename K, typename V, typename H>
int GVHashTable<K, V, H>::insert_helper(const K& key, const V& value) {
    const unsigned int hash = hashOf(key);
    Entry* const entry = lookup(key, hash);
    if (entry == nullptr) {
        return 1;
    }
    if (entry->theState == gvoccupiedentry) {
        entry->theKey = key;
        entry->theValue = value;
        return 2;
    }
    entry->theKey = key;
    entry->theValue = value;
    entry->theHash = hash;
    // From here on nothing throws.
    if (entry->theState == gvemptyentry) {
        ++theFillCount;
    }
    entry->theState = gvoccupiedentry;
    ++theUsedCount;
    return 2;
}

// Not reached while the invariants hold: the three failures of kind gvhashtablefailure.
// Deliberate: their three spellings (docs/deliberate.md, Exceptions).
// Watched by HashTableInsertion.spellsItsThreeFailuresInThreeWays.
template <typename K, typename V, typename H>
int GVHashTable<K, V, H>::insert(const K& key, const V& value) {
    int stored = insert_helper(key, value);
    while (stored == 1) {
        if (resize(grownMinimum()) <= 1) {
            throw GVException("Error ocurred while resizing table.", detail::hashTableFile, __LINE__,
                              gvhashtablefailure, 0);
        }
        stored = insert_helper(key, value);
    }
    if (stored == 0) {
        throw GVException("Error occurred while inserting.", detail::hashTableFile, __LINE__, gvhashtablefailure, 0);
    }
    // Deliberate: checked after a replacement, too (docs/deliberate.md, Hash table).
    // Watched by HashTableGrowth.isCheckedAfterAMereReplacement.
    if (theFillCount * 3 < (theMask + 1) * 2) {
        return 2;
    }
    const int resized = resize(grownMinimum());
    if (resized <= 1) {
        throw GVException("Error occured while resizing table.", detail::hashTableFile, __LINE__, gvhashtablefailure,
                          0);
    }
    return resized;
}

// The size to grow to follows from the live keys, not from the fill count.
// Deliberate: growth may make a table smaller (docs/deliberate.md, Hash table).
// Watched by HashTableGrowth.shrinksATableFullOfDeletedSlots.
template <typename K, typename V, typename H>
unsigned int GVHashTable<K, V, H>::grownMinimum() const {
    return theUsedCount < theSlowGrowthCount ? theUsedCount * 4 : theUsedCount * 2;
}

template <typename K, typename V, typename H>
int GVHashTable<K, V, H>::resize(unsigned int minUsed) {
    const unsigned int newSize = sizeAbove(minUsed);
    if (newSize == 0) {
        return 0;
    }
    Entry* oldArray = theTable;
    Entry* newArray = theSmallTable;
    if (newSize > theSmallSize) {
        newArray = makeArray(newSize + 1);
        if (newArray == nullptr) {
            throw GVException("Unable to allocate space for new table.", detail::hashTableFile, __LINE__, gvoutofmemory,
                              0);
        }
    } else {
        if (theTable == theSmallTable && theFillCount == theUsedCount) {
            return 0;
        }
        // Deliberate: a small resize copies a heap array first (docs/deliberate.md, Hash table).
        // Watched by HashTableResize.copiesEvenAHeapArrayFirst.
        oldArray = copyOfArray();
        if (theTable != theSmallTable) {
            delete[] theTable;
        }
    }

    const unsigned int oldMask = theMask;
    unsigned int remaining = theFillCount;
    theMask = newSize - 1;
    theTable = newArray;
    theUsedCount = 0;
    // A new heap array is empty already.
    if (theTable == theSmallTable) {
        for (unsigned int slot = 0; slot < newSize; ++slot) {
            theTable[slot].theState = gvemptyentry;
        }
    }
    theFillCount = 0;

    for (unsigned int slot = 0; remaining > 0; ++slot) {
        const Entry& entry = oldArray[slot];
        if (slot + thePrefetchDistance <= oldMask) {
            prefetchHomeOf(oldArray[slot + thePrefetchDistance]);
        }
        if (entry.theState == gvemptyentry) {
            continue;
        }
        // Deliberate: the old array is kept when a key finds no slot (docs/deliberate.md, Failures).
        // Watched by HashTableResize.returnsOneAndKeepsTheOldArrayWhenAKeyFindsNoSlot.
        if (entry.theState == gvoccupiedentry && insert_helper(entry.theKey, entry.theValue) <= 1) {
            return 1;
        }
        --remaining;
    }
    if (oldArray != theSmallTable) {
        delete[] oldArray;
    }
    return 2;
}

// Prefetches the slot of the new array where an entry of the old one will most likely be stored. Scattered keys reach
// the new array in no order: without the prefetch each insertion waits for a cache miss of its own.
template <typename K, typename V, typename H>
void GVHashTable<K, V, H>::prefetchHomeOf(const Entry& entry) const {
    if (entry.theState == gvoccupiedentry) {
        detail::prefetchLine(homeOf(entry.theHash));
    }
}

// The smallest power of two above minUsed, at least 8; 0 when 32 bits do not hold it.
template <typename K, typename V, typename H>
unsigned int GVHashTable<K, V, H>::sizeAbove(unsigned int minUsed) {
    unsigned int size = theSmallSize;
    while (size != 0 && size <= minUsed) {
        size *= 2;
    }
    return size;
}

// Empty entries on the heap, or null. More bytes than the hook or the language can count are refused here: the
// new-expression would throw std::bad_array_new_length.
template <typename K, typename V, typename H>
GVHashTableEntry<K, V>* GVHashTable<K, V, H>::makeArray(unsigned int numberOfEntries) {
    constexpr std::size_t mostBytes = std::min<std::size_t>((std::numeric_limits<unsigned int>::max)(), PTRDIFF_MAX);
    if (numberOfEntries > mostBytes / sizeof(Entry)) {
        return nullptr;
    }
    return new (std::nothrow) Entry[numberOfEntries];
}

// The slots of the current array, empty ones too, without the end slot, in a new array on the heap.
template <typename K, typename V, typename H>
GVHashTableEntry<K, V>* GVHashTable<K, V, H>::copyOfArray() const {
    Entry* const copy = makeArray(theMask + 2);
    if (copy == nullptr) {
        throw GVException("Unable to allocate space for new table.", detail::hashTableFile, __LINE__, gvoutofmemory, 0);
    }
    if (theTable != nullptr) {
        std::copy(theTable, theTable + theMask + 1, copy);
    }
    return copy;
}

template <typename K, typename V, typename H>
GVHashTableEntry<K, V>* GVHashTable<K, V, H>::get(const K& key) const {
    Entry* const entry = lookup(key, hashOf(key));
    return isOccupied(entry) ? entry : nullptr;
}

template <typename K, typename V, typename H>
V& GVHashTable<K, V, H>::operator[](const K& key) {
    Entry* const entry = get(key);
    return entry != nullptr ? entry->theValue : addMissing(key);
}

template <typename K, typename V, typename H>
GILVANE_OUT_OF_LINE V& GVHashTable<K, V, H>::addMissing(KeyArgument key) {
    insert(key, V());
    Entry* const entry = get(key);
    if (entry == nullptr) {
        throw GVException("Internal lookup error during operator[].", detail::hashTableFile, __LINE__,
                          gvhashtablefailure, 0);
    }
    return entry->theValue;
}

template <typename K, typename V, typename H>
bool GVHashTable<K, V, H>::remove(const K& key) {
    Entry* const entry = get(key);
    if (entry == nullptr) {
        return false;
    }
    entry->theState = gvdeletedentry;
    --theUsedCount;
    return true;
}

template <typename K, typename V, typename H>
void GVHashTable<K, V, H>::clear() {
    if (hasHeapArray()) {
        delete[] theTable;
    }
    theUsedCount = 0;
    theFillCount = 0;
    theMask = theSmallSize - 1;
    theTable = theSmallTable;
    for (unsigned int slot = 0; slot < theSmallSize; ++slot) {
        theSmallTable[slot].theState = gvemptyentry;
        theSmallTable[slot].theValue = V();
    }
}

template <typename K, typename V, typename H>
GVHashTableEntry_Iterator<K, V> GVHashTable<K, V, H>::begin() const {
    Iterator position(theTable, theMask + 2, 0);
    position.moveToOccupiedFrom(0);
    return position;
}

template <typename K, typename V, typename H>
unsigned int GVHashTable<K, V, H>::countProbes(unsigned int slot) const {
    const Entry& entry = theTable[slot];
    const unsigned int hash = hashOf(entry.theKey);
    // A search for a key that is in the table ends, even where every slot is occupied.
    if (lookup(entry.theKey, hash) != &entry) {
        return 0;
    }
    unsigned int count = 1;
    for (detail::ProbeSequence probe(hash, theMask); probe.slot() != slot; probe.step()) {
        ++count;
    }
    return count;
}

template <typename K, typename V, typename H>
std::list<K, GVStdAllocator<K>> GVHashTable<K, V, H>::get_keys() const {
    KeyList keys;
    for (unsigned int slot = 0; slot <= theMask; ++slot) {
        if (theTable[slot].theState == gvoccupiedentry) {
            keys.push_back(theTable[slot].theKey);
        }
    }
    return keys;
}

template <typename K, typename V, typename H>
bool GVHashTable<K, V, H>::operator==(const GVHashTable& other) const {
    if (theUsedCount != other.theUsedCount) {
        return false;
    }
    for (Iterator position = begin(); position != end(); ++position) {
        const K& key = position.GetKey();
        if (!isOccupied(other.lookup(key, hashOf(key)))) {
            return false;
        }
        const Entry* const counterpart = other.get(key);
        if (counterpart == nullptr || !(counterpart->theValue == *position)) {
            return false;
        }
    }
    return true;
}

template <typename K, typename V, typename H>
std::ostream& GVHashTable<K, V, H>::WriteTable(std::ostream& stream) const {
    stream << "<GVHashTable>";
    for (Iterator position = begin(); position != end(); ++position) {
        theTable[position.theIndex].WriteEntry(stream);
    }
    stream << "</GVHashTable>";
    return stream;
}

} // namespace Gilvane

#endif
