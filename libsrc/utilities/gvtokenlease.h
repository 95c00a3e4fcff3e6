/// @file
/// A loan that returns itself.
#ifndef GILVANE_UTILITIES_GVTOKENLEASE_H
#define GILVANE_UTILITIES_GVTOKENLEASE_H

#include <gilvane/base/gvexception.h>
#include <gilvane/base/gvobject.h>
#include <gilvane/utilities/gvmemorypool.h>
#include <gilvane/utilities/gvsmartpointer.h>

#include <cstdint>
#include <new>
#include <type_traits>
#include <utility>

namespace Gilvane {

namespace detail {

/// What exceptions of a lease name as their source file.
inline constexpr const char* tokenLeaseFile = "libsrc/utilities/gvtokenlease";

/// A block's first bytes, seen as a T.
/// @throws GVException     kind gvinvalidstate: the block is shorter than a T, or it is not aligned for one
/// @throws std::bad_alloc  no memory for the exception's own texts
template <typename T>
T& bytesAs(void* bytes, unsigned int length) {
    static_assert(std::is_object_v<T>, "bytes can be seen as an object only");
    if (length < sizeof(T)) {
        throw GVException("Block is too short for the type.", tokenLeaseFile, __LINE__, gvinvalidstate, 0);
    }
    if (reinterpret_cast<std::uintptr_t>(bytes) % alignof(T) != 0) {
        throw GVException("Block is not aligned for the type.", tokenLeaseFile, __LINE__, gvinvalidstate, 0);
    }
    return *static_cast<T*>(bytes);
}

} // namespace detail

/// Tells a lease's constructor that its token is lent already, and that the lease is to take the loan over.
struct GVAdoptedLoan {
    explicit GVAdoptedLoan() = default;
};

/// For the constructors of leases that take a loan over.
inline constexpr GVAdoptedLoan gvadoptedloan{};

/// Borrows a block when it is made and returns it when it goes.
///
/// Where the block lies and how long it is are looked up once, since blocks never move: asking a lease costs no search
/// and no lock. A pool that is shrunk or rebuilt takes blocks away from whoever holds them; using a lease after its
/// block went that way, or letting it return the dead token, is misuse.
///
/// @par Invariants
///   1. thePool is null and so are all other fields (an empty lease), or the lease holds a loan of theToken from it
///   2. theOwner is empty, or the pool in it is thePool
/// @par Thread safety
///   One lease is for one thread at a time, and may be moved to another. Different leases of one pool may be made, used
///   and destroyed by different threads if the pool was made with a mutex and, where they keep it alive, its smart
///   pointer with a lock.
/// @par Ownership
///   Owns the loan. A lease made from a smart pointer shares the pool and keeps it alive; one made from a reference
///   does not, and must go before the pool.
class [[nodiscard]] GVTokenLease : public GVObject {
  public:
    /// An empty lease.
    GVTokenLease() noexcept = default;

    /// Borrows a block and keeps the pool alive.
    ///
    /// Tokens in the free list that name no block are taken out of it and passed over. A rebuild leaves such tokens
    /// behind; a shrink may hide the block of one.
    /// @param owner  shares the pool
    /// @throws GVException     kind gvinvalidstate: `owner` is empty
    /// @throws std::bad_alloc  no memory to reserve room in the free list for the return
    /// @throws                 what GVMemoryPool::getTokenForFreeMemoryObject throws
    ///
    /// After any throw nothing is lent: a block already borrowed was returned, as the destructor returns it.
    /// @par Complexity  constant; linear in the blocks when the pool grows, or has grown since the last lease was made
    /// @par Threads     takes the pool's lock, when it has one, twice: to borrow, and to look the block up
    explicit GVTokenLease(GVSmartPointer<GVMemoryPool> owner);

    /// As from a smart pointer, with nothing that keeps the pool alive.
    /// @param pool  outlives the lease
    explicit GVTokenLease(GVMemoryPool& pool);

    /// Takes over a loan that was made before, maybe by another thread.
    /// @param pool   outlives the lease
    /// @param token  lent by this pool, not yet returned, and its block still there
    /// @throws GVException     kind gvinvalidstate: the token names no block of this pool; nothing has changed
    /// @throws std::bad_alloc  no memory to reserve room in the free list for the return, or for the exception's own
    ///                         texts; the caller still holds the loan
    /// @par Threads  takes the pool's lock, when it has one
    GVTokenLease(GVMemoryPool& pool, unsigned int token, GVAdoptedLoan);

    /// Not copied: two leases would return the same token.
    GVTokenLease(const GVTokenLease&) = delete;
    GVTokenLease& operator=(const GVTokenLease&) = delete;

    /// Takes over the other's loan; the other is empty then.
    GVTokenLease(GVTokenLease&& other) noexcept : GVTokenLease() { swap(other); }

    /// Takes over the other's loan, leaves the other empty, and returns its own. Assignment to itself changes nothing.
    GVTokenLease& operator=(GVTokenLease&& other) noexcept;

    /// Returns the block, and never throws. As long as the pool has not grown since this lease was made, that needs no
    /// memory. If it has, the free list may have to grow too; should there be no memory for it, the block is not lent
    /// again: it stays with the pool, counting as in use.
    /// @par Threads  takes the pool's lock, when it has one
    ~GVTokenLease() override;

    /// Exchanges the loans of two leases.
    void swap(GVTokenLease& other) noexcept;

    /// Whether there is a loan.
    explicit operator bool() const noexcept { return thePool != nullptr; }

    /// The token.
    /// @throws GVException     kind gvinvalidstate: the lease is empty
    /// @throws std::bad_alloc  no memory for the exception's own texts
    unsigned int getToken() const;

    /// The block's first byte; null for a block without bytes and for an empty lease.
    void* getBytes() const noexcept { return theBytes; }

    /// The block's length in bytes; 0 for an empty lease.
    unsigned int getLength() const noexcept { return theLength; }

    /// The block's first bytes, seen as a T.
    ///
    /// Nothing is constructed or destroyed, and the bytes are what the last holder left: for a T with a constructor or
    /// a destructor of its own, call those at getBytes.
    /// @throws GVException     kind gvinvalidstate: the lease is empty, the block is shorter than a T, or it is not
    ///                         aligned for one
    /// @throws std::bad_alloc  no memory for the exception's own texts
    template <typename T>
    T& as() const;

    /// Hands the token out: the lease is empty afterwards and returns nothing. If it was the last to keep the pool
    /// alive, the pool goes, and the token is dead.
    /// @returns the token, which the caller returns with GVMemoryPool::releaseObject
    /// @throws GVException     kind gvinvalidstate: the lease is empty
    /// @throws std::bad_alloc  no memory for the exception's own texts
    [[nodiscard]] unsigned int release();

  private:
    friend struct GVTestPeer;

    void borrowFrom(GVMemoryPool& pool);
    bool hold(GVMemoryPool& pool, unsigned int token);
    void requireLoan() const;

    GVSmartPointer<GVMemoryPool> theOwner; // empty when the lease does not keep the pool alive
    GVMemoryPool* thePool = nullptr;       // where the token goes back; null when the lease is empty
    unsigned int theToken = 0;
    unsigned int theLength = 0; // bytes
    void* theBytes = nullptr;   // the block's first byte; null for a block without bytes
};

// Both constructors delegate to the default one. So the destructor runs when borrowing fails half-way, and returns the
// token.
inline GVTokenLease::GVTokenLease(GVSmartPointer<GVMemoryPool> owner) : GVTokenLease() {
    if (owner.get() == nullptr) {
        throw GVException("Lease needs a pool.", detail::tokenLeaseFile, __LINE__, gvinvalidstate, 0);
    }
    theOwner = std::move(owner);
    borrowFrom(*theOwner);
}

inline GVTokenLease::GVTokenLease(GVMemoryPool& pool) : GVTokenLease() { borrowFrom(pool); }

// Does not delegate: when it fails, the loan stays with the caller, and nothing may return it.
inline GVTokenLease::GVTokenLease(GVMemoryPool& pool, unsigned int token, GVAdoptedLoan) {
    if (!pool.withLock([&] { return hold(pool, token); })) {
        throw GVException("Token names no block of the pool.", detail::tokenLeaseFile, __LINE__, gvinvalidstate, 0);
    }
}

inline GVTokenLease& GVTokenLease::operator=(GVTokenLease&& other) noexcept {
    GVTokenLease taken(std::move(other));
    swap(taken);
    return *this;
}

inline GVTokenLease::~GVTokenLease() {
    if (thePool == nullptr) {
        return;
    }
    try {
        thePool->releaseObject(theToken);
    } catch (const std::bad_alloc&) {
        // The free list has no room. A destructor has nobody to tell; the pool keeps the block.
    }
}

inline void GVTokenLease::swap(GVTokenLease& other) noexcept {
    std::swap(theOwner, other.theOwner);
    std::swap(thePool, other.thePool);
    std::swap(theToken, other.theToken);
    std::swap(theLength, other.theLength);
    std::swap(theBytes, other.theBytes);
}

inline unsigned int GVTokenLease::getToken() const {
    requireLoan();
    return theToken;
}

template <typename T>
T& GVTokenLease::as() const {
    requireLoan();
    return detail::bytesAs<T>(theBytes, theLength);
}

inline unsigned int GVTokenLease::release() {
    requireLoan();
    const unsigned int token = theToken;
    thePool = nullptr;
    const GVTokenLease emptied(std::move(*this)); // takes the share of the pool along, and returns nothing
    return token;
}

inline void GVTokenLease::borrowFrom(GVMemoryPool& pool) {
    unsigned int token = pool.getTokenForFreeMemoryObject();
    while (!pool.withLock([&] { return hold(pool, token); })) {
        token = pool.getTokenForFreeMemoryObject();
    }
}

// Holds the loan of a token, under the pool's lock; returns false, and changes nothing, when the token names no block.
inline bool GVTokenLease::hold(GVMemoryPool& pool, unsigned int token) {
    const GVMemoryPoolObject* const block = pool.blockOf(token);
    if (block == nullptr) {
        return false;
    }
    thePool = &pool;
    theToken = token;
    theLength = block->getLength();
    theBytes = block->getBytes();
    // Room for every block now, so that the return in the destructor needs no memory.
    pool.availableTokens.reserve(pool.memoryPool.getUsedCount());
    return true;
}

inline void GVTokenLease::requireLoan() const {
    if (thePool == nullptr) {
        throw GVException("Lease is empty.", detail::tokenLeaseFile, __LINE__, gvinvalidstate, 0);
    }
}

} // namespace Gilvane

#endif
