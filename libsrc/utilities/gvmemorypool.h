/// @file
/// The memory pool and the block it lends.
#ifndef GILVANE_UTILITIES_GVMEMORYPOOL_H
#define GILVANE_UTILITIES_GVMEMORYPOOL_H

#include <gilvane/base/gvexport.h>
#include <gilvane/base/gvhardened.h>
#include <gilvane/base/gvhotpath.h>
#include <gilvane/base/gvobject.h>
#include <gilvane/base/gvstdallocator.h>
#include <gilvane/datastructures/gvhashtable.h>
#include <gilvane/threads/gvmutex.h>
#include <gilvane/threads/gvmutexhandle.h>
#include <gilvane/utilities/gvsmartpointer.h>

#include <ostream>
#include <vector>

namespace Gilvane {

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
    ///                header word itself does not fit
    /// @throws std::bad_alloc no memory for the bytes; no token is used up
    explicit GVMemoryPoolObject(unsigned int length);

    /// Not copied: two blocks would own the same bytes.
    GVMemoryPoolObject(const GVMemoryPoolObject&) = delete;
    GVMemoryPoolObject& operator=(const GVMemoryPoolObject&) = delete;

    /// Releases the bytes through the deallocation function in their header word.
    ~GVMemoryPoolObject() override;

    /// The first byte, or null.
    void* getBytes() const noexcept { return theBytes; }
    /// Bytes.
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
/// Tokens are not checked: a token that was never lent, was returned twice or belongs to a block that is gone is
/// misuse, and noticed in a hardened build alone; see gvhardened.h. A pool that was rebuilt lends such tokens itself;
/// see makePool.
///
/// @par Invariants (while tokens are used as they should be, building never failed, and no shrink hides a token)
///   1. memoryPool maps the token of each block to the block; its number of keys is the pool's number of blocks
///   2. until the pool is rebuilt, availableTokens holds the token of each block that is not lent, once
///   3. theMutexHandle is null  <=>  useMutexHandle is false
/// @par Thread safety
///   A pool made with a mutex may be used by several threads at once, with these exceptions. Construction, destruction,
///   copying, comparison, print and removeTokenFromAvailableList take no lock. setNumberOfBytesInPoolObject writes the
///   block size and reads the number of blocks outside the lock, and a loan that finds nothing to lend reads that
///   number outside it too; these accesses are not synchronised with other threads that change the pool. Tokens come
///   from a counter that all pools of the process share without a lock. So: fill shared pools before the threads start,
///   and keep them from running dry.
/// @par Ownership
///   Owns its blocks and its mutex handle. A copy, which is made member by member, holds the same blocks and the same
///   handle: only one of the two may ever be destroyed.
class GILVANE_EXPORT GVMemoryPool : public GVObject {
  public:
    /// Blocks that a pool made without a number builds at its first loan; 4 unless set. Read at construction.
    static unsigned int defaultNumberOfObjects;

    /// @name Construction inside a smart pointer
    /// As the constructors, with the pool owned by a pointer that has a lock of its own.
    /// @throws whatever the constructor throws, leaving what the constructor leaves; or the pointer's, after which the
    ///         pool is deleted
    /// @{

    /// As GVMemoryPool(bool).
    static GVSmartPointer<GVMemoryPool> init(bool useMutex);
    /// As GVMemoryPool(unsigned int, bool).
    static GVSmartPointer<GVMemoryPool> initWithNumberOfObjects(unsigned int numberOfObjects, bool useMutex);
    /// As GVMemoryPool(unsigned int, unsigned int, bool).
    static GVSmartPointer<GVMemoryPool> initWithNumberOfObjectsAndSize(unsigned int numberOfObjects,
                                                                       unsigned int bytesPerObject, bool useMutex);
    /// @}

    /// A pool that builds defaultNumberOfObjects blocks without bytes at its first loan; see the next about 0.
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
    ///                         in the pool, free to lend. The one being built is not lent: it stays, counting as in
    ///                         use, if the table had stored it, and is lost otherwise
    /// @throws std::bad_alloc  no memory for a block's bytes, for the free list or for the exception's own texts;
    ///                         likewise
    /// @par Complexity  linear in the blocks, old and new
    /// @par Threads     takes the pool's lock, when it has one, for its whole body
    void makePool(unsigned int numberOfObjects);

    /// Grows or shrinks the pool to `numberOfObjects` blocks.
    ///
    /// Shrinking removes the blocks with the highest tokens, lent or not: a token lent out and removed is dead, and its
    /// holder is not told. Removed tokens leave deleted slots in the table, behind which a token that stays may,
    /// rarely, no longer be found, although its block lives; see GVHashTable::lookup. A block that is not found while
    /// shrinking stays, and the pool keeps that many more.
    /// @param numberOfObjects  blocks the pool shall hold
    /// @throws GVException     growing, kind gvoutofmemory: no memory for a block or for the table; as with makePool
    /// @throws std::bad_alloc  growing: as with makePool; shrinking: no memory for the list of tokens, before anything
    ///                         has changed. A token that is not found while shrinking is stored again, which may throw
    ///                         what GVHashTable::insert throws; the tokens above it are then gone
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
    /// @par Threads     takes no lock: the caller holds it
    void removeTokenFromAvailableList(unsigned int token);

    /// @}
    /// @name Loans
    /// @{

    /// Lends the block that was returned or built last. When none is left, the pool first doubles, or builds its
    /// initial number of blocks if it has none.
    /// @returns the block's token
    /// @throws what makePool and resizePool throw; the pool is then as they leave it and nothing is lent
    /// @par Complexity  constant; linear in the blocks when the pool grows
    /// @par Threads     takes the pool's lock, when it has one. When the pool must grow it takes it three times, and
    ///                  acts on a number of blocks read in between: meanwhile other threads may have grown the pool
    ///                  too, so that this one doubles it once more, shrinks it to twice the number it read, lent blocks
    ///                  included, or, having read 0, rebuilds it and destroys what another has just been lent; or they
    ///                  may have taken every new block, after which there is none to take, which is misuse
    unsigned int getTokenForFreeMemoryObject();

    /// The address of a block's first byte; null in a pool whose blocks have none.
    /// @param token  of a block of this pool, lent or not. For one that is not found the table gains an entry without a
    ///               block, what GVHashTable::insert throws passes, and the rest is misuse
    /// @par Complexity  constant on average
    /// @par Threads     takes the pool's lock, when it has one
    void* getMemoryForToken(unsigned int token);

    /// Takes a block back. Its bytes are left as they are.
    /// @param token  lent by this pool, not yet returned, and its block still there. Any other is put into the free
    ///               list like it
    /// @throws std::bad_alloc  no memory for the free list, which gets room as tokens come back; the token is not taken
    ///                         back, and may be returned again
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
    friend class GVTokenLease;
    friend struct GVTestPeer;

    static GVMutexHandle* createHandleIf(bool useMutex);
    GILVANE_OF_THIS_BUILD void growToLend();
    void* addressOf(unsigned int token);
    void lockIfShared(GVMutex& guard) const;
    void buildObjects(unsigned int numberOfObjects);
    void buildObject();
    void deleteObjects();
#if defined(GILVANE_HARDENED)
    const GVMemoryPoolObject* findBlock(unsigned int token) const;
    void checkThatThereIsOneToLend() const;
    void checkAfterLoan(unsigned int token) const;
    void checkBeforeAddress(unsigned int token) const;
    void checkAfterReturn(unsigned int token) const;
    void checkBlockSize() const;
#endif

    GVHashTable<unsigned int, GVMemoryPoolObject*, GVGenericHashFunction<unsigned int>> memoryPool; // token -> block
    std::vector<unsigned int, GVStdAllocator<unsigned int>> availableTokens; // free tokens, the next to lend at the end
    unsigned int initialNumberOfObjects; // blocks to build when a loan finds the pool without any
    unsigned int bytesInEachObject;      // 0: blocks carry no bytes
    GVMutexHandle* theMutexHandle;       // null when the pool does not lock
    bool useMutexHandle;
};

// What programs do most is compiled into them.

inline unsigned int GVMemoryPool::getTokenForFreeMemoryObject() {
    const bool locks = useMutexHandle;
    if (unlikely(locks)) {
        theMutexHandle->lock();
    }
    if (unlikely(availableTokens.empty())) {
        growToLend();
        // A reader would expect a second look at availableTokens here: another thread may have taken the new tokens
        // between the two locked sections. There is none, and none is to be added: growth and the pop after it are
        // defined so. Watched by TokenLending.popsAfterGrowthWithoutLookingAgain.
        GILVANE_IF_HARDENED(checkThatThereIsOneToLend());
    }
    const unsigned int token = availableTokens.back();
    availableTokens.pop_back();
    GILVANE_IF_HARDENED(checkAfterLoan(token));
    if (unlikely(locks)) {
        theMutexHandle->unlock();
    }
    return token;
}

inline void* GVMemoryPool::getMemoryForToken(unsigned int token) {
    if (likely(!useMutexHandle)) { // by itself, so that it carries no guard along
        return addressOf(token);
    }
    GVMutex guard;
    guard.setHandle(theMutexHandle);
    return addressOf(token);
}

inline void* GVMemoryPool::addressOf(unsigned int token) {
    // A reader would expect an unknown token to be refused. The table adds it, with a null block that is then read, by
    // requirement; so it does for a token that it misses behind a deleted slot, after a shrink.
    // Watched by MisuseOfTokens.addsAnEntryForAnUnknownToken.
    GILVANE_IF_HARDENED(checkBeforeAddress(token));
    return memoryPool[token]->getBytes();
}

// A reader would expect the token to be checked. It is not, by requirement: whatever comes is lent again.
// Watched by TokenReturn.takesATokenTwiceAndLendsItTwice.
inline void GVMemoryPool::releaseObject(unsigned int token) {
    GVMutex guard;
    lockIfShared(guard);
    availableTokens.push_back(token);
    GILVANE_IF_HARDENED(checkAfterReturn(token));
}

inline void GVMemoryPool::lockIfShared(GVMutex& guard) const {
    if (unlikely(useMutexHandle)) {
        guard.setHandle(theMutexHandle);
    }
}

/// Writes a pool's text form, as GVMemoryPool::print.
GILVANE_EXPORT std::ostream& operator<<(std::ostream& stream, const GVMemoryPool& pool);

} // namespace Gilvane

#endif
