/// @file
/// A loan that holds an object.
#ifndef GILVANE_UTILITIES_GVOBJECTLEASE_H
#define GILVANE_UTILITIES_GVOBJECTLEASE_H

#include <gilvane/base/gvcompiler.h>
#include <gilvane/base/gvexception.h>
#include <gilvane/base/gvobject.h>
#include <gilvane/utilities/gvmemorypool.h>
#include <gilvane/utilities/gvsharedpool.h>
#include <gilvane/utilities/gvsharedtokenlease.h>
#include <gilvane/utilities/gvsmartpointer.h>
#include <gilvane/utilities/gvtokencache.h>
#include <gilvane/utilities/gvtokenlease.h>

#include <chrono>
#include <cstddef>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>
#include <variant>

namespace Gilvane {

namespace detail {

/// What exceptions of a lease that holds an object name as their source file.
inline constexpr const char* objectLeaseFile = "libsrc/utilities/gvobjectlease";

} // namespace detail

/// Borrows a block and constructs a T in it when it is made; destroys the T and returns the block when it goes.
///
///     GVSharedPool pool(32, sizeof(Message));
///     GVObjectLease<Message> message = GVObjectLease<Message>::wait(pool, "hello"); // Message("hello"), in a block
///     queue.push(message.release());                              // the Message lives on, and its token travels
///     // another thread
///     const GVObjectLease<Message> received(pool, queue.pop(), gvadoptedloan);
///     received->print();                                          // destroyed at the end of the scope
///
/// It stands on a GVTokenLease or a GVSharedTokenLease, which borrows and returns the block.
///
/// A T may be aligned as `std::max_align_t` at most, and its destructor may not throw: others do not compile. A block
/// that is too short for a T is refused, and so is one that the allocation hooks have not aligned for it.
///
/// @par Invariants
///   theObject and theLease are both empty (an empty lease), or theObject points to a T in the block of theLease
/// @par Thread safety
///   As that of the lease that it stands on: one for one thread at a time; it may be moved to another.
/// @par Ownership
///   Owns the T and the loan. Made from a smart pointer, it shares the pool and keeps it alive; otherwise it must go
///   before the pool.
template <typename T>
class [[nodiscard]] GVObjectLease : public GVObject {
    static_assert(std::is_object_v<T> && std::is_same_v<T, std::decay_t<T>>,
                  "GVObjectLease holds one object, which is neither const nor volatile");
    static_assert(alignof(T) <= alignof(std::max_align_t),
                  "GVObjectLease cannot align this type: the allocation hooks align for std::max_align_t at most");
    static_assert(std::is_nothrow_destructible_v<T>, "GVObjectLease destroys its object where nothing may be thrown");

    template <typename... Arguments>
    using IfConstructible = std::enable_if_t<std::is_constructible_v<T, Arguments...>>;

  public:
    /// An empty lease.
    GVObjectLease() noexcept = default;

    /// @name Construction
    /// Borrows a block, and constructs a T in it from the arguments as `T(arguments...)` does. Where no block came, the
    /// lease is empty and nothing is constructed; the arguments are then as they were.
    /// @throws GVException     kind gvinvalidstate: the block is shorter than a T, or it is not aligned for one
    /// @throws std::bad_alloc  no memory for the exception's own texts
    /// @throws                 what borrowing throws, and what T's constructor throws
    ///
    /// After any throw nothing is lent: a block already borrowed was returned.
    /// @{

    /// Borrows as GVTokenLease does, and keeps the pool alive. Never empty.
    template <typename... Arguments, typename = IfConstructible<Arguments...>>
    explicit GVObjectLease(GVSmartPointer<GVMemoryPool> owner, Arguments&&... arguments)
        : GVObjectLease(Built(), GVTokenLease(std::move(owner)), std::forward<Arguments>(arguments)...) {}

    /// Borrows as GVTokenLease does. Never empty.
    /// @param pool  outlives the lease
    template <typename... Arguments, typename = IfConstructible<Arguments...>>
    explicit GVObjectLease(GVMemoryPool& pool, Arguments&&... arguments)
        : GVObjectLease(Built(), GVTokenLease(pool), std::forward<Arguments>(arguments)...) {}

    /// Borrows as GVSharedPool::tryBorrow; empty when nothing came.
    template <typename... Arguments, typename = IfConstructible<Arguments...>>
    explicit GVObjectLease(GVSharedPool& pool, Arguments&&... arguments)
        : GVObjectLease(Built(), GVSharedTokenLease(pool), std::forward<Arguments>(arguments)...) {}

    /// Borrows as GVTokenCache::tryBorrow; empty when nothing came. The block returns to the pool, not into the cache.
    template <typename... Arguments, typename = IfConstructible<Arguments...>>
    explicit GVObjectLease(GVTokenCache& cache, Arguments&&... arguments)
        : GVObjectLease(Built(), GVSharedTokenLease(cache), std::forward<Arguments>(arguments)...) {}

    /// @}
    /// @name Waiting
    /// As the constructors, but these wait for their block. A Lender is a GVSharedPool or a GVTokenCache.
    /// @{

    /// Waits as GVSharedPool::borrow; empty when the pool is closed.
    template <typename Lender, typename... Arguments, typename = IfConstructible<Arguments...>>
    static GVObjectLease wait(Lender& lender, Arguments&&... arguments) {
        return GVObjectLease(Built(), GVSharedTokenLease::wait(lender), std::forward<Arguments>(arguments)...);
    }
    /// Waits as GVSharedPool::borrowFor; empty when nothing came.
    template <typename Lender, typename Representation, typename Period, typename... Arguments,
              typename = IfConstructible<Arguments...>>
    static GVObjectLease waitFor(Lender& lender, const std::chrono::duration<Representation, Period>& time,
                                 Arguments&&... arguments) {
        return GVObjectLease(Built(), GVSharedTokenLease::waitFor(lender, time), std::forward<Arguments>(arguments)...);
    }
    /// Waits as GVSharedPool::borrowUntil; empty when nothing came.
    template <typename Lender, typename Clock, typename Duration, typename... Arguments,
              typename = IfConstructible<Arguments...>>
    static GVObjectLease waitUntil(Lender& lender, const std::chrono::time_point<Clock, Duration>& deadline,
                                   Arguments&&... arguments) {
        return GVObjectLease(Built(), GVSharedTokenLease::waitUntil(lender, deadline),
                             std::forward<Arguments>(arguments)...);
    }

    /// @}
    /// @name Taking over
    /// Takes over a loan whose block holds a T at its first byte, maybe made by another thread. Nothing is constructed.
    /// A block that holds no T is not noticed.
    /// @param token  lent by this lender, not yet returned, and taken over by no other lease
    /// @throws GVException     kind gvinvalidstate: the token is refused, as by the lease that it stands on; the block
    ///                         is shorter than a T, or not aligned for one
    /// @throws std::bad_alloc  no memory for the exception's own texts, or what the lease that it stands on throws
    ///
    /// After any throw the caller still holds the loan, and the T lives.
    /// @{

    /// Takes over as GVTokenLease does.
    GVObjectLease(GVMemoryPool& pool, unsigned int token, GVAdoptedLoan loan)
        : GVObjectLease(loan, GVTokenLease(pool, token, loan)) {}
    /// Takes over as GVSharedTokenLease does.
    GVObjectLease(GVSharedPool& pool, unsigned int token, GVAdoptedLoan loan)
        : GVObjectLease(loan, GVSharedTokenLease(pool, token, loan)) {}
    /// Takes over as GVSharedTokenLease does. The block returns to the pool, not into the cache.
    GVObjectLease(GVTokenCache& cache, unsigned int token, GVAdoptedLoan loan)
        : GVObjectLease(loan, GVSharedTokenLease(cache, token, loan)) {}

    /// @}

    /// Not copied: two leases would destroy the same object.
    GVObjectLease(const GVObjectLease&) = delete;
    GVObjectLease& operator=(const GVObjectLease&) = delete;

    /// Takes over the other's object and loan; the other is empty then. The object does not move.
    GVObjectLease(GVObjectLease&& other) noexcept : GVObjectLease() { swap(other); }

    /// Takes over the other's object and loan, leaves the other empty, destroys its own object and returns its own
    /// loan. Assignment to itself changes nothing.
    GVObjectLease& operator=(GVObjectLease&& other) noexcept {
        GVObjectLease taken(std::move(other));
        swap(taken);
        return *this;
    }

    /// Destroys the object, and then returns the block as the lease that it stands on does.
    ~GVObjectLease() override {
        if (theObject != nullptr) {
            theObject->~T();
        }
    }

    /// Exchanges the objects and loans of two leases.
    void swap(GVObjectLease& other) noexcept {
        std::swap(theObject, other.theObject);
        theLease.swap(other.theLease);
    }

    /// Whether there is an object.
    explicit operator bool() const noexcept { return theObject != nullptr; }

    /// The object; null for an empty lease.
    T* get() const noexcept { return theObject; }

    /// The object.
    /// @throws GVException     kind gvinvalidstate: the lease is empty
    /// @throws std::bad_alloc  no memory for the exception's own texts
    T& operator*() const {
        requireObject();
        return *theObject;
    }
    /// As `*`.
    T* operator->() const {
        requireObject();
        return theObject;
    }

    /// The token of the block that the object lies in.
    /// @throws GVException     kind gvinvalidstate: the lease is empty
    /// @throws std::bad_alloc  no memory for the exception's own texts
    unsigned int getToken() const {
        requireObject();
        return std::visit([](const auto& lease) { return lease.getToken(); }, theLease);
    }

    /// Hands the token out, with the object alive in the block: the lease is empty afterwards, destroys nothing and
    /// returns nothing. A lease takes both over again with gvadoptedloan. If this one was the last to keep the pool
    /// alive, the pool goes, and the object's bytes with it: it is never destroyed.
    /// @returns the token
    /// @throws GVException     kind gvinvalidstate: the lease is empty
    /// @throws std::bad_alloc  no memory for the exception's own texts
    [[nodiscard]] unsigned int release() {
        requireObject();
        theObject = nullptr;
        return std::visit([](auto& lease) { return lease.release(); }, theLease);
    }

  private:
    friend struct GVTestPeer;

    struct Built {};

    // The object comes before the loan moves in: when its constructor throws, `lease` still holds the loan, and returns
    // it.
    template <typename Lease, typename... Arguments>
    GVObjectLease(Built, Lease lease, Arguments&&... arguments)
        : theObject(lease ? ::new (static_cast<void*>(std::addressof(lease.template as<T>())))
                                T(std::forward<Arguments>(arguments)...)
                          : nullptr),
          theLease(std::move(lease)) {}

    template <typename Lease>
    GVObjectLease(GVAdoptedLoan, Lease lease) : theObject(objectIn(lease)), theLease(std::move(lease)) {}

    // The T in the block of a lease. A lease whose block is refused gives its loan up, which is the caller's again.
    template <typename Lease>
    static T* objectIn(Lease& lease) {
        try {
            return std::launder(std::addressof(lease.template as<T>()));
        } catch (...) {
            static_cast<void>(lease.release());
            throw;
        }
    }

    void requireObject() const {
        if (detail::expectFalse(theObject == nullptr)) {
            throw GVException("Lease is empty.", detail::objectLeaseFile, __LINE__, gvinvalidstate, 0);
        }
    }

    T* theObject = nullptr; // in the block; null when the lease is empty
    std::variant<GVSharedTokenLease, GVTokenLease> theLease;
};

} // namespace Gilvane

#endif
