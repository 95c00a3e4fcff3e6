/// @file
/// The state of a pool in numbers, and what is wrong with it.
#ifndef GILVANE_UTILITIES_GVMEMORYPOOLINSPECTOR_H
#define GILVANE_UTILITIES_GVMEMORYPOOLINSPECTOR_H

#include <gilvane/base/gvcompiler.h>
#include <gilvane/base/gvobject.h>
#include <gilvane/base/gvstdallocator.h>
#include <gilvane/datastructures/gvhashtable.h>
#include <gilvane/utilities/gvmemorypool.h>
#include <gilvane/utilities/gvsharedpool.h>

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <ostream>
#include <vector>

namespace Gilvane {

/// One block as an inspector found it.
///
/// @par Thread safety
///   None.
/// @par Ownership
///   Owns nothing. The block may have changed hands since, or be gone.
class GILVANE_EXPORT GVInspectedBlock : public GVObject {
  public:
    unsigned int theToken = 0;      ///< the key of its entry
    const void* theBytes = nullptr; ///< the first byte; null for a block without bytes
    unsigned int theLength = 0;     ///< bytes
    bool isFree = false;            ///< whether its token was in the free list; lent otherwise
    unsigned int theSlot = 0;       ///< of the table
    unsigned int theProbeCount = 0; ///< slots that a search for its token looks at; 0 when no search reaches its slot
};

/// One block as a visit finds it, see GVMemoryPoolInspector::visitBlocks.
///
/// @par Thread safety
///   None.
/// @par Ownership
///   Owns nothing.
class GILVANE_EXPORT GVVisitedBlock : public GVInspectedBlock {
  public:
    bool isNeverLent = false; ///< whether it can be told that it was never lent, see getTokensNeverLent
};

/// A snapshot of one pool: counts, bytes, slots, blocks and findings, all of the same moment.
///
/// It only reads. The pool may change or go afterwards without the snapshot's noticing. A snapshot needs memory; where
/// there is none, visitBlocks shows the blocks without a snapshot.
///
/// @par Invariants
///   1. theBlocks holds each entry of the table that has a block, in the order of slots
///   2. the lists of tokens that are findings are in ascending order
/// @par Thread safety
///   Construction may run beside operations of the pool, if the pool has a mutex. A snapshot is for one thread at a
///   time; several may read it.
/// @par Ownership
///   Owns its copies. The addresses in it are the pool's.
class GILVANE_EXPORT GVMemoryPoolInspector : public GVObject {
  public:
    using TokenList = std::vector<unsigned int, GVStdAllocator<unsigned int>>;         ///< findings
    using BlockList = std::vector<GVInspectedBlock, GVStdAllocator<GVInspectedBlock>>; ///< what getBlocks returns
    using StateList = std::vector<unsigned char, GVStdAllocator<unsigned char>>;       ///< what getSlotStates returns

    /// Takes the snapshot.
    /// @throws std::bad_alloc  no memory for it; nothing is left behind and the lock is free
    /// @par Complexity  linear in the slots, and n log n in blocks and free tokens. It takes some 40 bytes a block, 8
    ///                  more while it is made, and 1 a slot
    /// @par Threads     takes the pool's lock, when it has one, once; copies under it, so that others wait as long as
    ///                  the linear part lasts, and evaluates after it
    explicit GVMemoryPoolInspector(const GVMemoryPool& pool);

    /// Takes the snapshot of the pool that a shared pool stands on. Blocks in caches are not free in it. The shared
    /// pool's own bytes, and those of its directory, do not count.
    /// @throws std::bad_alloc  as above
    /// @par Complexity  as above
    /// @par Threads     takes the shared pool's lock once, likewise
    explicit GVMemoryPoolInspector(const GVSharedPool& pool);

    /// @name Without memory
    /// @{

    /// Calls `visit` with each block of the pool, a `const GVVisitedBlock&`, in the order of slots. It takes no memory,
    /// and so shows an exhausted pool, too.
    /// @param visit  must not use the pool, whose lock is held
    /// @throws what `visit` throws; the lock is free then
    /// @par Complexity  linear in the slots, and in blocks times free tokens
    /// @par Threads     holds the pool's lock, when it has one, all the time
    template <typename Visitor>
    static void visitBlocks(const GVMemoryPool& pool, Visitor&& visit) {
        pool.withLock([&] { visitWhileLocked(pool, visit); });
    }

    /// The same for the pool that a shared pool stands on. Blocks in caches are not free in it.
    /// @param visit  must not use the pool, nor its caches and leases
    template <typename Visitor>
    static void visitBlocks(const GVSharedPool& pool, Visitor&& visit) {
        const std::lock_guard<detail::GVPlainLock> guard(detail::GVSharedPoolAccess::lock(pool));
        visitWhileLocked(detail::GVSharedPoolAccess::innerPool(pool), visit);
    }

    /// @}
    /// @name Blocks
    /// @{

    /// The table's entries that have a block.
    std::size_t getNumberOfBlocks() const { return theBlocks.size(); }
    /// Blocks whose token is in the free list, however often.
    std::size_t getNumberOfFreeBlocks() const { return theFreeBlockCount; }
    /// Blocks whose token is not in the free list.
    std::size_t getNumberOfLentBlocks() const { return theBlocks.size() - theFreeBlockCount; }
    /// Tokens in the free list, with those that are there twice or name no block.
    std::size_t getNumberOfFreeTokens() const { return theFreeTokenCount; }
    /// The blocks, in the order of slots.
    const BlockList& getBlocks() const { return theBlocks; }
    /// Calls `visit` with each block, a `const GVInspectedBlock&`, in the order of slots. No lock is held meanwhile.
    template <typename Visitor>
    void visitBlocks(Visitor&& visit) const {
        for (const GVInspectedBlock& block : theBlocks) {
            visit(block);
        }
    }

    /// Tokens of blocks that count as lent and can have been lent to nobody, ascending: when they were built, the table
    /// stored them and could not grow. It stores blocks in two thirds of its slots, rounded down, without growing. The
    /// blocks beyond that number, counted from the highest token down, cannot have been lent.
    ///
    /// More cannot be told. A block that the table stored after removals, or whose token found no room in the free list,
    /// looks as if it were lent, and so does every one of them as soon as the table has grown. The token of one that was
    /// returned all the same is free; lent after that, it is named here again. Where the tokens of a pool pass 2^32, the
    /// wrong blocks are named.
    /// @throws std::bad_alloc  no memory for the list
    /// @par Complexity  linear in the blocks
    TokenList getTokensNeverLent() const;

    /// @}
    /// @name Bytes
    /// What the pool holds of memory. The mutex handle is not counted in, nor what belongs to the smart pointers around
    /// the pool, nor what the allocation function adds of its own.
    /// @{

    /// What a block built now would get.
    unsigned int getBytesInEachObject() const { return theBytesInEachObject; }
    /// The blocks' lengths together: what borrowers can use.
    std::size_t getBytesAskedFor() const { return theBytesAskedFor; }
    /// The pool object, with the slots that are embedded in its table.
    std::size_t getBytesOfPool() const { return sizeof(GVMemoryPool); }
    /// The objects of the blocks: address, length and token of each.
    std::size_t getBytesOfBlockObjects() const { return theBlocks.size() * sizeof(GVMemoryPoolObject); }
    /// The header words of blocks' objects, of blocks' bytes, of the slot array and of the free list. The pool's own is
    /// not counted: a pool made with `new` has one, a pool on the stack has none.
    std::size_t getBytesOfHeaderWords() const;
    /// The slot array on the heap, with what the compiler puts before its first element; 0 for a small table.
    std::size_t getBytesOfSlots() const { return theBytesOfSlots; }
    /// The room that the free list has, used or not.
    std::size_t getBytesOfFreeList() const { return theBytesOfFreeList; }
    /// All of these together.
    std::size_t getBytesSpent() const;

    /// @}
    /// @name Table
    /// @{

    /// Slots, without the end slot.
    std::size_t getTableSize() const { return theSlotStates.size(); }
    /// The state of each slot, a GVHashTableEntryState, in the order of slots.
    const StateList& getSlotStates() const { return theSlotStates; }
    /// Slots in that state.
    std::size_t getNumberOfSlots(GVHashTableEntryState state) const;
    /// Occupied and deleted slots as a share of all, from 0 to 1. The table grows at two thirds.
    double getLoad() const;
    /// Most slots that a search for a key in the table looks at; 1 when all keys lie in their home slots, 0 without
    /// keys. Keys that no search reaches do not count.
    unsigned int getLongestProbe() const { return theLongestProbe; }
    /// Slots that such a search looks at on average; 0 without keys.
    double getMeanProbe() const;

    /// @}
    /// @name Findings
    /// Tokens by what is wrong with them, ascending. All four lists are empty for a pool in order.
    /// @{

    /// Tokens that are more than once in the free list, each named once. They were returned twice, and two borrowers
    /// get the same block.
    const TokenList& getTokensTwiceFree() const { return theTokensTwiceFree; }
    /// Tokens in the free list that the table has no entry for, each named once. They are left over from a rebuild, or
    /// were never the pool's. A borrower gets a token without a block.
    const TokenList& getTokensUnknown() const { return theTokensUnknown; }
    /// Tokens of entries that no search reaches, behind a deleted slot or a second entry for the same token. For such a
    /// token getMemoryForToken adds an entry without a block.
    const TokenList& getTokensUnreachable() const { return theTokensUnreachable; }
    /// Tokens of entries without a block, which getMemoryForToken adds for unknown tokens.
    const TokenList& getTokensWithoutBlock() const { return theTokensWithoutBlock; }
    /// Whether any of the lists holds a token.
    bool hasFindings() const;

    /// @}

    /// Writes the snapshot as text.
    ///
    /// The text is one well-formed XML element without attributes, and ends without a newline. Numbers are decimal on a
    /// stream with default flags; addresses are written as in the dumps. What it holds, each element on a line of its
    /// own that begins with a tab, in this order:
    ///
    ///     pool                    the pool's address
    ///     numberOfBlocks          and further values of the getters of these names: numberOfFreeBlocks,
    ///                             numberOfLentBlocks, numberOfFreeTokens, bytesInEachObject, bytesAskedFor,
    ///                             bytesOfPool, bytesOfBlockObjects, bytesOfHeaderWords, bytesOfSlots,
    ///                             bytesOfFreeList, bytesSpent, tableSize
    ///     occupiedSlots           how many; likewise emptySlots, deletedSlots
    ///     load                    and longestProbe, meanProbe
    ///     tokensTwiceFree         the tokens, with a blank between each two; likewise tokensUnknown,
    ///                             tokensUnreachable, tokensWithoutBlock
    ///     slots                   a character for each slot, 64 to a line that begins with two tabs: "." empty,
    ///                             "o" occupied, "x" deleted; its tags have lines of their own
    ///     block                   once for each block, in the order of slots, with the elements token, bytes (the
    ///                             address), length, state ("free" or "lent"), slot and probes, 0 when unreachable
    /// @returns `stream`
    std::ostream& print(std::ostream& stream) const;

  private:
    friend struct GVTestPeer;

    using Table = GVHashTable<unsigned int, GVMemoryPoolObject*, GVGenericHashFunction<unsigned int>>;

    template <typename Visitor>
    static void visitWhileLocked(const GVMemoryPool& pool, Visitor& visit);
    static bool lookAt(const GVMemoryPool& pool, unsigned int slot, GVVisitedBlock& block);
    static std::uint64_t lowestTokenNeverLent(const GVMemoryPool& pool);
    static void describe(const Table& table, unsigned int slot, GVInspectedBlock& block);

    void copyFrom(const GVMemoryPool& pool, TokenList& keys, TokenList& freeTokens);
    void copyEntry(const Table& table, unsigned int slot);
    void evaluate(TokenList& keys, TokenList& freeTokens);

    const GVMemoryPool* thePool; // its address alone: it may be gone
    BlockList theBlocks;
    std::size_t theFreeBlockCount = 0;
    std::size_t theFreeTokenCount = 0;
    unsigned int theBytesInEachObject = 0;
    std::size_t theBytesAskedFor = 0;
    std::size_t theBytesOfSlots = 0;
    std::size_t theBytesOfFreeList = 0;
    StateList theSlotStates;
    unsigned int theLongestProbe = 0; // slots
    std::size_t theReachedCount = 0;  // keys that searches reach
    std::size_t theProbeSum = 0;      // slots that searches for all of those look at together
    TokenList theTokensTwiceFree;
    TokenList theTokensUnknown;
    TokenList theTokensUnreachable;
    TokenList theTokensWithoutBlock;
};

template <typename Visitor>
void GVMemoryPoolInspector::visitWhileLocked(const GVMemoryPool& pool, Visitor& visit) {
    const std::uint64_t lowest = lowestTokenNeverLent(pool);
    for (unsigned int slot = 0; slot < pool.memoryPool.getSlotCount(); ++slot) {
        GVVisitedBlock block;
        if (lookAt(pool, slot, block)) {
            block.isNeverLent = !block.isFree && block.theToken >= lowest;
            visit(static_cast<const GVVisitedBlock&>(block));
        }
    }
}

/// Writes a snapshot's text form, as GVMemoryPoolInspector::print.
GILVANE_EXPORT std::ostream& operator<<(std::ostream& stream, const GVMemoryPoolInspector& inspector);

} // namespace Gilvane

#endif
