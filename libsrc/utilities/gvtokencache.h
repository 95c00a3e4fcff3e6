/// @file
/// A few free tokens of a shared pool at hand for one thread.
#ifndef GILVANE_UTILITIES_GVTOKENCACHE_H
#define GILVANE_UTILITIES_GVTOKENCACHE_H

#include <gilvane/base/gvcompiler.h>
#include <gilvane/base/gvhardened.h>
#include <gilvane/base/gvobject.h>
#include <gilvane/threads/gvwaiting.h>
#include <gilvane/utilities/gvsharedpool.h>

#include <chrono>
#include <optional>

namespace Gilvane {

/// Keeps free tokens of a shared pool for one thread, so that its loans and returns seldom take the pool's lock. The
/// literature calls it a magazine.
///
/// An empty cache takes half its capacity from the pool in one step, or what there is. A return to a cache that holds
/// its capacity already first gives the oldest half back, so that what is warm stays. The token returned last is lent
/// first. Tokens may be returned to any cache of the pool, or to the pool itself.
///
/// What lies in a cache is not free to others:
///   - **call flush before the thread waits for anything but a block of this pool**: a queue, a socket, another thread.
///     Nobody else reaches what lies in a cache whose thread does nothing, and others may wait for it for ever
///   - keep the sum of the capacities below the number of blocks. At least the pool's blocks, less those lent and less
///     that sum, are free to whoever asks. With few blocks, half a default capacity may be all that there are
///   - while anybody waits for a block, or the pool is closed, the next loan from or return to a cache sends all that it
///     holds to the pool. The loan is then one from the pool, behind whoever has waited for a millisecond. A descriptor
///     counts as somebody waiting while no block is free; tryBorrow does not wait
///
/// @par Invariants
///   1. theCount <= theCapacity
///   2. the tokens in the cache are not lent, and in no other cache
/// @par Thread safety
///   One cache is for one thread at a time. Different caches of one pool may be used at once, beside the pool itself.
/// @par Ownership
///   Owns its loans from the pool's free list; must go before the pool, which the hardened build checks.
class GILVANE_EXPORT GILVANE_OF_THIS_BUILD GVTokenCache : public GVObject {
  public:
    /// An empty cache, known to its pool. No later operation allocates.
    /// @param pool      outlives the cache
    /// @param capacity  tokens that the cache can hold. A small one leaves more to others, a large one takes the lock
    ///                  less often
    /// @throws GVException     kind gvinvalidstate: the capacity is 0; nothing has changed
    /// @throws std::bad_alloc  no memory for the tokens or for the exception's own texts; likewise
    /// @par Threads  takes the pool's lock
    explicit GVTokenCache(GVSharedPool& pool, unsigned int capacity = 64);

    /// Not copied: a free token lies in one place.
    GVTokenCache(const GVTokenCache&) = delete;
    GVTokenCache& operator=(const GVTokenCache&) = delete;

    /// Gives all tokens back, and never throws.
    /// @par Threads  takes the pool's lock
    ~GVTokenCache() override;

    /// @name Loans
    /// As the pool's. They take the pool's lock once if the cache is empty or full, or if the pool wants its tokens
    /// back; otherwise neither a lock nor an atomic read-modify-write.
    /// @{

    /// As GVSharedPool::tryBorrow.
    [[nodiscard]] std::optional<unsigned int> tryBorrow() {
        const unsigned int count = theCount.load(std::memory_order_relaxed); // relaxed: this thread alone writes it
        if (detail::expectFalse(count == 0 || isAttentionAsked())) {
            return tryBorrowWithLock();
        }
        return lendLast(count);
    }

    /// As GVSharedPool::borrow.
    [[nodiscard]] std::optional<unsigned int> borrow() { return borrowWith({nullptr, nullptr}); }

    /// As GVSharedPool::borrowFor.
    template <typename Representation, typename Period>
    [[nodiscard]] std::optional<unsigned int> borrowFor(const std::chrono::duration<Representation, Period>& time) {
        return borrowUntil(detail::deadlineAfter(time));
    }

    /// As GVSharedPool::borrowUntil.
    template <typename Clock, typename Duration>
    [[nodiscard]] std::optional<unsigned int> borrowUntil(const std::chrono::time_point<Clock, Duration>& deadline) {
        return borrowWith({&detail::timeLeftUntil<std::chrono::time_point<Clock, Duration>>, &deadline});
    }

    /// Lends as many blocks as there are, in this cache and in the pool's free list, `count` at most, without waiting.
    /// The capacity does not limit the number.
    /// @param tokens  where the tokens are written; room for `count`
    /// @returns how many came; 0 when the pool is closed
    /// @par Complexity  linear in what came
    [[nodiscard]] unsigned int tryBorrowMany(unsigned int* tokens, unsigned int count);

    /// As GVSharedPool::getMemoryForToken.
    void* getMemoryForToken(unsigned int token) const {
        return theDirectory.getBytes(
            token, [this, token] { return detail::GVSharedPoolAccess::findOrRefuse(*thePool, token); });
    }

    /// As GVSharedPool::releaseObject, into the cache. A token that lies in any cache is free, and refused.
    void releaseObject(unsigned int token) {
        if (detail::expectFalse(!theDirectory.isLent(token))) {
            detail::GVSharedPoolAccess::refuse(*thePool, token);
        }
        const unsigned int count = theCount.load(std::memory_order_relaxed); // relaxed: this thread alone writes it
        if (detail::expectFalse(count == theCapacity || isAttentionAsked())) {
            releaseWithLock(token);
        } else {
            keep(token, count);
        }
    }

    /// As that many calls of releaseObject, in order.
    /// @throws what releaseObject throws, for the first token that is refused: those before it are returned, it and
    ///         those behind it are not
    void releaseMany(const unsigned int* tokens, unsigned int count);

    /// @}

    /// Gives all tokens back. To be called before the thread waits for anything but a block of this cache, since nobody
    /// else reaches what lies here.
    /// @par Threads  takes the pool's lock
    void flush() noexcept;

    /// The pool behind the cache.
    GVSharedPool& getPool() const noexcept { return *thePool; }

  private:
    friend struct GVTestPeer;

    bool isAttentionAsked() const noexcept {
        // Relaxed: the word is a hint. What a bit means is looked at under the lock.
        return theAttention->load(std::memory_order_relaxed) != 0;
    }
    unsigned int lendLast(unsigned int count) noexcept;
    void keep(unsigned int token, unsigned int count) noexcept;
    std::optional<unsigned int> borrowWith(const detail::GVPatience& patience);
    std::optional<unsigned int> tryBorrowWithLock();
    std::optional<unsigned int> borrowWithLock(const detail::GVPatience& patience);
    void releaseWithLock(unsigned int token);
    bool fill(detail::GVSharedPoolAccess& access) noexcept;
    bool sendBackIfWanted() noexcept;
    void sendBackAll(detail::GVSharedPoolAccess& access) noexcept;
    unsigned int halfOfCapacity() const noexcept { return theCapacity / 2 + theCapacity % 2; }

    detail::GVCacheLinePadding thePaddingBefore;

    // What every operation uses.
    detail::GVAtomicWord theCount; // tokens here; written by this cache's thread, read by the pool's statistics
    unsigned int theCapacity;
    unsigned int* theTokens; // the next to lend at theCount - 1, the oldest at 0
    detail::GVSharedDirectory theDirectory;
    const detail::GVAtomicWord* theAttention; // the pool's
    GVSharedPool* thePool;

    detail::GVCacheLinePadding thePaddingBetween;

    detail::GVRegisteredCache theRegistration; // its links are written by threads that make and destroy other caches
};

// Inline: what programs do most.

inline unsigned int GVTokenCache::lendLast(unsigned int count) noexcept {
    const unsigned int token = theTokens[count - 1];
    theDirectory.lend(token);
    if constexpr (detail::isHardened) {
        detail::GVSharedPoolAccess::loans(*thePool).begin(token);
    }
    // Relaxed: others only count.
    theCount.store(count - 1, std::memory_order_relaxed);
    return token;
}

inline void GVTokenCache::keep(unsigned int token, unsigned int count) noexcept {
    theDirectory.takeBack(token);
    if constexpr (detail::isHardened) {
        detail::GVSharedPoolAccess::loans(*thePool).end(token);
    }
    theTokens[count] = token;
    // Relaxed: others only count.
    theCount.store(count + 1, std::memory_order_relaxed);
}

inline std::optional<unsigned int> GVTokenCache::borrowWith(const detail::GVPatience& patience) {
    const unsigned int count = theCount.load(std::memory_order_relaxed); // relaxed: this thread alone writes it
    if (detail::expectFalse(count == 0 || isAttentionAsked())) {
        return borrowWithLock(patience);
    }
    return lendLast(count);
}

} // namespace Gilvane

#endif
