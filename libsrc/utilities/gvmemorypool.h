/// @file
/// The memory pool and the block it lends.
#ifndef GILVANE_UTILITIES_GVMEMORYPOOL_H
#define GILVANE_UTILITIES_GVMEMORYPOOL_H

#include <gilvane/base/gvcompiler.h>
#include <gilvane/base/gvhardened.h>
#include <gilvane/base/gvobject.h>
#include <gilvane/base/gvstdallocator.h>
#include <gilvane/datastructures/gvhashtable.h>
#include <gilvane/threads/gvmutex.h>
#include <gilvane/threads/gvmutexhandle.h>
#include <gilvane/utilities/gvsmartpointer.h>

#include <ostream>
#include <type_traits>
#include <vector>

namespace Gilvane {

namespace detail {

class GVSharedPoolAccess;

} // namespace detail

/// One pooled block: bytes of a fixed length, or none, and the token that names it for life.
///
/// @par Invariants
///   theBytes is null and theLength is 0, or theBytes is the user's address of a raw block of theLength bytes.
/// @par Thread safety
///   None. Construction takes a token from one unguarded counter, so no two threads may construct blocks at once.
/// @par Ownership
///   Owns its bytes.
class GILVANE_EXPORT GVMemoryPoolObject : public GVObject {
  public:
    /// A block without bytes; allocates nothing.
    GVMemoryPoolObject();

    /// A block with bytes, whose contents are not set.
    /// @param length  bytes. The header word's are added modulo 2^32, without a check: with a length that wraps, the
    ///                block is too small even for its header word
    /// @throws std::bad_alloc no memory for the bytes; no token is used up
    explicit GVMemoryPoolObject(unsigned int length);

    /// Not copied: two blocks would own the same bytes.
    GVMemoryPoolObject(const GVMemoryPoolObject&) = delete;
    GVMemoryPoolObject& operator=(const GVMemoryPoolObject&) = delete;

    /// Releases the bytes through the deallocation function in their header word.
    ~GVMemoryPoolObject() override;

    /// The first byte, or null.
    void* getBytes() const noexcept { return theBytes; }
    /// The length in bytes.
    unsigned int getLength() const noexcept { return theLength; }
    /// Unique in the process until the 32-bit counter wraps.
    unsigned int getToken() const noexcept { return theToken; }

    /// Whether address, length and token are equal; what the bytes hold does not matter.
    bool operator==(const GVMemoryPoolObject& other) const;
    /// The opposite of `==`.
    bool operator!=(const GVMemoryPoolObject& other) const { return !(*this == other); }

    /// Writes address, length and token as text.
    /// @returns `stream`
    std::ostream& print(std::ostream& stream) const;

  private:
    friend struct GVTestPeer;

    static unsigned int takeNextToken();

    void* theBytes;         // the user's address of a raw block, or null
    unsigned int theLength; // bytes
    unsigned int theToken;

    static unsigned int theNextToken; // one counter for the process, for all pools
};

/// Writes a block's text form, as GVMemoryPoolObject::print.
GILVANE_EXPORT std::ostream& operator<<(std::ostream& stream, const GVMemoryPoolObject& block);

/// Owns blocks of one size and lends them by token.
///
/// A borrower gets a token, asks for the block's address when it needs the bytes, and returns the token. The block
/// returned or built last is lent first. A pool that has nothing left to lend doubles.
///
/// Tokens are not checked. A token is misused when it was never lent, was returned already, or names a block that is
/// gone; only the hardened build notices, see gvhardened.h. A pool that was rebuilt may lend such tokens itself, see
/// makePool.
///
/// @par Invariants (while tokens are used as they should be, building never failed, and no shrink hides a token)
///   1. memoryPool maps the token of each block to the block; its number of keys is the pool's number of blocks
///   2. until the pool is rebuilt, availableTokens holds the token of each block that is not lent, once
///   3. theMutexHandle is null  <=>  useMutexHandle is false
/// @par Thread safety
///   Several threads may use a pool that was made with a mutex.
///   - Construction, destruction, copying, comparison, print and removeTokenFromAvailableList take no lock: no other
///     thread may use the pool meanwhile. The same goes for setNumberOfBytesInPoolObject, which writes the block size
///     and reads the number of blocks outside the lock.
///   - A loan that finds no free token reads the number of blocks outside the lock, and every block takes its token
///     from a counter that all pools of the process share without a lock. So build all blocks before the threads start,
///     and keep the pool from running dry.
/// @par Ownership
///   Owns its blocks and its mutex handle. A copy, which is made member by member, holds the same blocks and the same
///   handle: only one of the two may ever be destroyed.
class GILVANE_EXPORT GILVANE_OF_THIS_BUILD GVMemoryPool : public GVObject {
  public:
    /// Blocks that a pool made without a number builds at its first loan; 4 unless set. Read at construction.
    static unsigned int defaultNumberOfObjects;

    /// @name Construction inside a smart pointer
    /// As the constructors, with the pool owned by a pointer that has a lock of its own.
    /// @throws what the constructor throws; it leaves what it leaves. Or what the pointer's constructor throws; the
    ///         pool is then deleted
    /// @{

    /// As GVMemoryPool(bool).
    static GVSmartPointer<GVMemoryPool> init(bool useMutex);
    /// As GVMemoryPool(unsigned int, bool).
    static GVSmartPointer<GVMemoryPool> initWithNumberOfObjects(unsigned int numberOfObjects, bool useMutex);
    /// As GVMemoryPool(unsigned int, unsigned int, bool).
    static GVSmartPointer<GVMemoryPool> initWithNumberOfObjectsAndSize(unsigned int numberOfObjects,
                                                                       unsigned int bytesPerObject, bool useMutex);
    /// @}

    /// A pool that builds defaultNumberOfObjects blocks without bytes at its first loan. With 0 of them the first loan
    /// finds nothing to take, which is misuse.
    /// @param useMutex  whether operations lock
    /// @throws what GVThreadsFactory::CreateUnnamedHandle throws
    explicit GVMemoryPool(bool useMutex);

    /// A pool that builds `numberOfObjects` blocks without bytes at its first loan.
    /// @param numberOfObjects  blocks. With 0 the first loan finds nothing to take, which is misuse
    /// @param useMutex         whether operations lock
    /// @throws what GVThreadsFactory::CreateUnnamedHandle throws
    GVMemoryPool(unsigned int numberOfObjects, bool useMutex);

    /// A pool with all its blocks built.
    /// @param numberOfObjects    blocks. With 0 the first loan finds nothing to take, which is misuse
    /// @param bytesPerObject     bytes in each; with 0 the blocks have none
    /// @param useMutex           whether operations lock
    /// @throws what GVThreadsFactory::CreateUnnamedHandle throws, and what makePool throws. After the latter the mutex
    ///         handle and the blocks already built are not released
    /// @par Complexity  linear in the blocks
    GVMemoryPool(unsigned int numberOfObjects, unsigned int bytesPerObject, bool useMutex);

    /// Deletes the mutex handle and every block, lent or not, without taking the lock.
    ~GVMemoryPool() override;

    /// @name Blocks
    /// @{

    /// Destroys every block, lent or not, and builds new ones.
    ///
    /// Tokens in the free list stay there, dead, below the new ones: numberOfObjectsInPoolInUse counts them as free,
    /// and once the new ones are all lent, the pool lends the dead ones, which name no block, before it grows.
    /// @param numberOfObjects  blocks the pool shall hold
    /// @throws GVException     kind gvoutofmemory: no memory for a block or for the table. The blocks built so far stay
    ///                         in the pool, free to lend. The block being built is never lent: if the table has stored
    ///                         it, it counts as in use until the pool goes; otherwise it is lost
    /// @throws std::bad_alloc  no memory for a block's bytes, for the free list or for the exception's own texts; the
    ///                         pool is left in the same way
    /// @par Complexity  linear in the blocks, old and new
    /// @par Threads     takes the pool's lock, when it has one, for its whole body
    void makePool(unsigned int numberOfObjects);

    /// Grows or shrinks the pool to `numberOfObjects` blocks.
    ///
    /// Shrinking removes the blocks with the highest tokens, lent or not: a token lent out and removed is dead, and its
    /// holder is not told. Removed tokens leave deleted slots in the table. Rarely, such a slot hides a token that
    /// stays: searches no longer find it, although its block lives; see GVHashTable::lookup. A shrink that is to remove
    /// a hidden block does not find it either, and the pool keeps it.
    /// @param numberOfObjects  blocks the pool shall hold
    /// @throws GVException     growing, kind gvoutofmemory: no memory for a block or for the table; as with makePool
    /// @throws std::bad_alloc  growing: as with makePool; shrinking: no memory for the list of tokens, before anything
    ///                         has changed
    /// @throws                 shrinking, where a token is hidden: what GVHashTable::insert throws, since the token is
    ///                         stored once more. The blocks of higher tokens are gone then
    /// @par Complexity  growing: linear in the new blocks; shrinking: linear in the slots and free tokens, times
    ///                  the logarithm of the blocks
    /// @par Threads     takes the pool's lock, when it has one, for its whole body
    void resizePool(unsigned int numberOfObjects);

    /// Rebuilds the pool with blocks of another size, as many as it had; see makePool.
    /// @param bytes  bytes in each block; with 0 the blocks have none
    /// @throws GVException     kind gvinvalidstate while numberOfObjectsInPoolInUse is not 0; nothing has changed
    /// @throws std::bad_alloc  no memory for that exception's own texts; likewise
    /// @throws                 what makePool throws; the new size is then recorded already
    /// @par Threads  the check and the rebuilding take the pool's lock, each by itself; in between the size is written
    ///               and the number of blocks read without it, and a block borrowed in between is destroyed
    void setNumberOfBytesInPoolObject(unsigned int bytes);

    /// Blocks that are not in the free list. Wraps below 0 when the list holds more tokens than the pool has blocks, as
    /// after a token was returned twice or the pool was rebuilt; 0 for a pool without blocks.
    /// @par Threads  takes the pool's lock, when it has one
    unsigned int numberOfObjectsInPoolInUse();

    /// Takes a token's first occurrence out of the free list; does nothing when there is none.
    /// @par Complexity  linear in the free tokens
    /// @par Threads     takes no lock, though the pool may have one: no other thread may use the pool meanwhile
    void removeTokenFromAvailableList(unsigned int token);

    /// @}
    /// @name Loans
    /// @{

    /// Lends the block that was returned or built last. When none is left, the pool first doubles, or builds its
    /// initial number of blocks if it has none.
    /// @returns the block's token
    /// @throws what makePool and resizePool throw; the pool is then as they leave it and nothing is lent
    /// @par Complexity  constant; linear in the blocks when the pool grows
    /// @par Threads     takes the pool's lock, when it has one; three times when the pool must grow. Growth acts on a
    ///                  number of blocks that is read between two of these locked sections. If other threads changed
    ///                  the pool meanwhile, one of these may happen:
    ///                  - the pool doubles once more than needed
    ///                  - the pool shrinks to twice the number that was read; lent blocks go, too
    ///                  - the number read was 0: the pool is rebuilt, and blocks that are lent by now are destroyed
    ///                  - other threads have taken every new block: there is none left to lend, which is misuse
    unsigned int getTokenForFreeMemoryObject();

    /// The address of a block's first byte; null in a pool whose blocks have none.
    /// @param token  of a block of this pool, lent or not. Any other is misuse: the table gains an entry without a
    ///               block. GVHashTable::insert may throw; otherwise the call reads through a null pointer
    /// @par Complexity  constant on average
    /// @par Threads     takes the pool's lock, when it has one
    void* getMemoryForToken(unsigned int token);

    /// Takes a block back. Its bytes are left as they are.
    /// @param token  lent by this pool, not yet returned, and its block still there. Any other is misuse: it goes into
    ///               the free list all the same, and will be lent
    /// @throws std::bad_alloc  the free list had to grow for this token, and there was no memory. The token is still
    ///                         lent, and may be returned again
    /// @par Complexity  constant on average
    /// @par Threads     takes the pool's lock, when it has one
    void releaseObject(unsigned int token);

    /// @}

    /// Whether both pools hold the very same blocks under the same tokens and build blocks of the same size.
    /// @par Threads  takes no lock
    bool operator==(const GVMemoryPool& other) const;
    /// The opposite of `==`.
    bool operator!=(const GVMemoryPool& other) const { return !(*this == other); }

    /// Writes table, block size and lock as text. Takes no lock: seen while other threads change it, the pool may be
    /// half changed.
    /// @returns `stream`
    std::ostream& print(std::ostream& stream) const;

  private:
    friend class GVMemoryPoolInspector;
    friend class GVPoolResource;
    friend class GVTokenLease;
    friend class detail::GVSharedPoolAccess;
    friend struct GVTestPeer;

    static GVMutexHandle* createHandleIf(bool useMutex);
    template <typename Function>
    decltype(auto) withLock(Function&& function) const;
    void growToLend();
    const GVMemoryPoolObject* blockOf(unsigned int token) const;
    void* addressOf(unsigned int token);
    void buildObjects(unsigned int numberOfObjects);
    void buildObject();
    void deleteObjects();
    void removeObjects(unsigned int numberOfObjects);

    // The hardened build's checks, and its marks on the bytes of blocks.
    GILVANE_HARDENED_ONLY const GVMemoryPoolObject* blockInAnySlot(unsigned int token) const;
    GILVANE_HARDENED_ONLY void checkThatThereIsOneToLend() const;
    GILVANE_HARDENED_ONLY void markLent(unsigned int token) const;
    GILVANE_HARDENED_ONLY void checkBeforeAddress(unsigned int token) const;
    GILVANE_HARDENED_ONLY void checkAfterReturn(unsigned int token) const;
    GILVANE_HARDENED_ONLY void checkBlockSize() const;

    GVHashTable<unsigned int, GVMemoryPoolObject*, GVGenericHashFunction<unsigned int>> memoryPool; // token -> block
    std::vector<unsigned int, GVStdAllocator<unsigned int>> availableTokens; // free tokens, the next to lend at the end
    unsigned int initialNumberOfObjects; // blocks to build when a loan finds the pool without any
    unsigned int bytesInEachObject;      // 0: blocks carry no bytes
    GVMutexHandle* theMutexHandle;       // null when the pool does not lock
    bool useMutexHandle;
};

/// A deep copy of a pool holds the source's blocks and mutex handle: see GVMemoryPool.
template <typename T>
struct GVCopySharesWithSource<T, std::enable_if_t<std::is_base_of_v<GVMemoryPool, T>>> : std::true_type {};

// Inline: what programs do most.

// Runs a function under the pool's lock, if the pool has one, and returns what it returns. Holding the function twice, it
// is large; but a caller whose pool has no lock runs a few instructions of it, fewer than a call would take.
template <typename Function>
GILVANE_ALWAYS_INLINE decltype(auto) GVMemoryPool::withLock(Function&& function) const {
    if (detail::expectTrue(!useMutexHandle)) { // a return of its own, without a guard and the code that cleans it up
        return function();
    }
    GVMutex guard;
    guard.setHandle(theMutexHandle);
    return function();
}

// Locks by hand, because growToLend unlocks.
inline unsigned int GVMemoryPool::getTokenForFreeMemoryObject() {
    const bool locks = useMutexHandle;
    if (detail::expectFalse(locks)) {
        theMutexHandle->lock();
    }
    if (detail::expectFalse(availableTokens.empty())) {
        growToLend();
        // Deliberate: no second look at availableTokens (docs/deliberate.md, Growth).
        // Watched by TokenLending.popsAfterGrowthWithoutLookingAgain.
        if constexpr (detail::isHardened) {
            checkThatThereIsOneToLend();
        }
    }
    const unsigned int token = availableTokens.back();
    availableTokens.pop_back();
    if constexpr (detail::isHardened) {
        markLent(token);
    }
    if (detail::expectFalse(locks)) {
        theMutexHandle->unlock();
    }
    return token;
}

inline void* GVMemoryPool::getMemoryForToken(unsigned int token) {
    return withLock([this, token] { return addressOf(token); });
}

inline void* GVMemoryPool::addressOf(unsigned int token) {
    if constexpr (detail::isHardened) {
        checkBeforeAddress(token);
    }
    // Deliberate: an unknown token adds an entry (docs/deliberate.md, Tokens).
    // Watched by MisuseOfTokens.addsAnEntryForAnUnknownToken.
    return memoryPool[token]->getBytes();
}

// Deliberate: any token is taken back (docs/deliberate.md, Tokens).
// Watched by TokenReturn.takesATokenTwiceAndLendsItTwice.
inline void GVMemoryPool::releaseObject(unsigned int token) {
    withLock([this, token] {
        availableTokens.push_back(token);
        if constexpr (detail::isHardened) {
            checkAfterReturn(token);
        }
    });
}

// The block of a token, found without changing the table; null for a token that the table does not find, or that has an
// entry without a block.
inline const GVMemoryPoolObject* GVMemoryPool::blockOf(unsigned int token) const {
    const auto* const entry = memoryPool.get(token);
    return entry != nullptr ? entry->theValue : nullptr;
}

/// Writes a pool's text form, as GVMemoryPool::print.
GILVANE_EXPORT std::ostream& operator<<(std::ostream& stream, const GVMemoryPool& pool);

} // namespace Gilvane

#endif
