/// @file
/// A loan from a shared pool that returns itself.
#ifndef GILVANE_UTILITIES_GVSHAREDTOKENLEASE_H
#define GILVANE_UTILITIES_GVSHAREDTOKENLEASE_H

#include <gilvane/base/gvexception.h>
#include <gilvane/base/gvobject.h>
#include <gilvane/utilities/gvsharedpool.h>
#include <gilvane/utilities/gvtokencache.h>
#include <gilvane/utilities/gvtokenlease.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <type_traits>
#include <utility>

namespace Gilvane {

namespace detail {

/// What exceptions of a lease from a shared pool name as their source file.
inline constexpr const char* sharedTokenLeaseFile = "libsrc/utilities/gvsharedtokenlease";

} // namespace detail

/// Borrows a block of a shared pool when it is made and returns it when it goes.
///
/// It is made from a shared pool or from a cache. In both cases it returns to the pool: so a lease that was taken
/// through a cache may end in any thread, and outlive the cache. The constructors do not wait, and make an empty lease
/// when nothing came. To wait, call wait, waitFor or waitUntil.
///
/// It is a class beside GVTokenLease, which keeps its layout: that one shares the ownership of its pool, and always
/// holds a block.
///
/// @par Invariants
///   thePool is null and so are all other fields (an empty lease), or the lease holds a loan of theToken from it
/// @par Thread safety
///   One lease is for one thread at a time, and may be moved to another. Different leases of one pool may be made, used
///   and destroyed by different threads.
/// @par Ownership
///   Owns the loan; must go before the pool.
class [[nodiscard]] GVSharedTokenLease : public GVObject {
  public:
    /// An empty lease.
    GVSharedTokenLease() noexcept = default;

    /// Borrows a block as GVSharedPool::tryBorrow; empty when nothing came.
    explicit GVSharedTokenLease(GVSharedPool& pool) { hold(pool, pool.tryBorrow()); }

    /// Borrows a block as GVTokenCache::tryBorrow; empty when nothing came.
    explicit GVSharedTokenLease(GVTokenCache& cache) { hold(poolOf(cache), cache.tryBorrow()); }

    /// Takes over a loan that was made before, maybe by another thread.
    /// @param token  lent by the pool or by one of its caches, and adopted by no other lease: two would return it twice,
    ///               the second time perhaps from whoever has borrowed the block since
    /// @throws GVException     kind gvinvalidstate: the token is not this pool's, or is free; nothing has changed
    /// @throws std::bad_alloc  no memory for the exception's own texts; likewise
    GVSharedTokenLease(GVSharedPool& pool, unsigned int token, GVAdoptedLoan) {
        if (!detail::GVSharedPoolAccess::directory(pool).isLent(token)) {
            detail::GVSharedPoolAccess::refuse(pool, token);
        }
        hold(pool, token);
    }

    /// As from the pool behind the cache. The block returns to the pool, not into the cache.
    GVSharedTokenLease(GVTokenCache& cache, unsigned int token, GVAdoptedLoan loan)
        : GVSharedTokenLease(poolOf(cache), token, loan) {}

    /// @name Waiting
    /// A Lender is a GVSharedPool or a GVTokenCache.
    /// @{

    /// A lease that waits for its block as GVSharedPool::borrow; empty when the pool is closed.
    template <typename Lender>
    static GVSharedTokenLease wait(Lender& lender) {
        static_assert(IsOneThatWaits<Lender>::value);
        return of(poolOf(lender), lender.borrow());
    }
    /// A lease that waits for its block as GVSharedPool::borrowFor; empty when nothing came.
    template <typename Lender, typename Representation, typename Period>
    static GVSharedTokenLease waitFor(Lender& lender, const std::chrono::duration<Representation, Period>& time) {
        static_assert(IsOneThatWaits<Lender>::value);
        return of(poolOf(lender), lender.borrowFor(time));
    }
    /// A lease that waits for its block as GVSharedPool::borrowUntil; empty when nothing came.
    template <typename Lender, typename Clock, typename Duration>
    static GVSharedTokenLease waitUntil(Lender& lender, const std::chrono::time_point<Clock, Duration>& deadline) {
        static_assert(IsOneThatWaits<Lender>::value);
        return of(poolOf(lender), lender.borrowUntil(deadline));
    }

    /// @}

    /// Not copied: two leases would return the same token.
    GVSharedTokenLease(const GVSharedTokenLease&) = delete;
    GVSharedTokenLease& operator=(const GVSharedTokenLease&) = delete;

    /// Takes over the other's loan; the other is empty then.
    GVSharedTokenLease(GVSharedTokenLease&& other) noexcept : GVSharedTokenLease() { swap(other); }

    /// Takes over the other's loan, leaves the other empty, and returns its own. Assignment to itself changes nothing.
    GVSharedTokenLease& operator=(GVSharedTokenLease&& other) noexcept {
        GVSharedTokenLease taken(std::move(other));
        swap(taken);
        return *this;
    }

    /// Returns the block to the pool, and never throws: if the token was returned behind the lease's back, and is free,
    /// nothing happens; the hardened build ends the program then.
    /// @par Threads  takes the pool's lock
    ~GVSharedTokenLease() override;

    /// Exchanges the loans of two leases.
    void swap(GVSharedTokenLease& other) noexcept;

    /// Whether there is a loan.
    explicit operator bool() const noexcept { return thePool != nullptr; }

    /// The token.
    /// @throws GVException     kind gvinvalidstate: the lease is empty
    /// @throws std::bad_alloc  no memory for the exception's own texts
    unsigned int getToken() const {
        requireLoan();
        return theToken;
    }

    /// The block's first byte; null for a block without bytes and for an empty lease.
    void* getBytes() const noexcept { return theBytes; }

    /// The block's length in bytes; 0 for an empty lease.
    unsigned int getLength() const noexcept { return theLength; }

    /// The block's first bytes, seen as a T; see GVTokenLease::as.
    /// @throws GVException     kind gvinvalidstate: the lease is empty, the block is shorter than a T, or it is not
    ///                         aligned for one
    /// @throws std::bad_alloc  no memory for the exception's own texts
    template <typename T>
    T& as() const {
        requireLoan();
        return detail::bytesAs<T>(theBytes, theLength);
    }

    /// Hands the token out: the lease is empty afterwards and returns nothing.
    /// @returns the token, which the caller returns to the pool or to one of its caches
    /// @throws GVException     kind gvinvalidstate: the lease is empty
    /// @throws std::bad_alloc  no memory for the exception's own texts
    [[nodiscard]] unsigned int release() {
        const unsigned int token = getToken();
        thePool = nullptr;
        const GVSharedTokenLease emptied(std::move(*this)); // returns nothing
        return token;
    }

  private:
    friend struct GVTestPeer;

    static GVSharedTokenLease of(GVSharedPool& pool, std::optional<unsigned int> token) {
        GVSharedTokenLease lease;
        lease.hold(pool, token);
        return lease;
    }
    // Said in one plain sentence, before the compiler misses the operations.
    template <typename Lender>
    struct IsOneThatWaits : std::true_type {
        static_assert(std::is_base_of_v<GVSharedPool, Lender> || std::is_base_of_v<GVTokenCache, Lender>,
                      "Only a GVSharedPool and a GVTokenCache wait for a block");
    };
    static GVSharedPool& poolOf(GVSharedPool& pool) noexcept { return pool; }
    static GVSharedPool& poolOf(GVTokenCache& cache) noexcept { return cache.getPool(); }
    void hold(GVSharedPool& pool, std::optional<unsigned int> token) noexcept;
    void requireLoan() const {
        if (thePool == nullptr) {
            throw GVException("Lease is empty.", detail::sharedTokenLeaseFile, __LINE__, gvinvalidstate, 0);
        }
    }

    GVSharedPool* thePool = nullptr; // where the token goes back; null when the lease is empty
    unsigned int theToken = 0;
    unsigned int theLength = 0; // bytes
    void* theBytes = nullptr;   // the block's first byte; null for a block without bytes
};

inline GVSharedTokenLease::~GVSharedTokenLease() {
    if (thePool == nullptr) {
        return;
    }
    // The default build does not look: a destructor has nobody to tell.
    [[maybe_unused]] const bool wasLent = detail::GVSharedPoolAccess(*thePool).takeBack(theToken);
    if constexpr (detail::isHardened) {
        if (!wasLent) {
            detail::reportMisuse("~GVSharedTokenLease: token %u of pool %p: returned already", theToken,
                                 static_cast<const void*>(thePool));
        }
    }
}

inline void GVSharedTokenLease::swap(GVSharedTokenLease& other) noexcept {
    std::swap(thePool, other.thePool);
    std::swap(theToken, other.theToken);
    std::swap(theLength, other.theLength);
    std::swap(theBytes, other.theBytes);
}

// The pool knows the token.
inline void GVSharedTokenLease::hold(GVSharedPool& pool, std::optional<unsigned int> token) noexcept {
    if (token.has_value()) {
        thePool = &pool;
        theToken = *token;
        theLength = pool.getBytesInEachObject();
        theBytes = detail::GVSharedPoolAccess::directory(pool).find(*token)->theBytes;
    }
}

} // namespace Gilvane

#endif
