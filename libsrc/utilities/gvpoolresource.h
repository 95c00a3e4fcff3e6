/// @file
/// Containers of the standard library in a pool's blocks. Empty where the standard library has no header memory_resource.
#ifndef GILVANE_UTILITIES_GVPOOLRESOURCE_H
#define GILVANE_UTILITIES_GVPOOLRESOURCE_H

#include <gilvane/base/gvversion.h>

#if __has_include(<memory_resource>)

#include <gilvane/base/gvcompiler.h>
#include <gilvane/base/gvhardened.h>
#include <gilvane/base/gvobject.h>
#include <gilvane/utilities/gvmemorypool.h>
#include <gilvane/utilities/gvsharedpool.h>
#include <gilvane/utilities/gvtokencache.h>

#include <cstddef>
#include <cstdint>
#include <memory_resource>
#include <new>
#include <optional>

namespace Gilvane {

namespace detail {

/// What stands in front of the bytes that a GVPoolResource hands out for a small request.
struct GVPoolResourceHeader {
    unsigned int theToken; // of the block; 0 where there is none
    bool isInBlock;        // whether a block was borrowed, or the resource behind was asked
};

} // namespace detail

/// A memory resource whose small requests are blocks of a pool. Its large ones go to the resource behind it.
///
///     GVMemoryPool pool(1000, 64, false);
///     GVPoolResource resource(pool);
///     std::pmr::map<int, int> numbers(&resource); // each node lies in a block
///
/// A request is small if it is aligned as `std::max_align_t` at most, and its bytes and headerBytes fit in a block.
/// headerBytes are 16 on x86-64 and 8 on 32-bit ARM.
///
///     the start of a block, or of what the      what the container gets
///     resource behind gave in place of one
///     |                                         |
///     v                                         v
///     |                       | token, isInBlock | bytes ...                      |
///       headerBytes in all, the header at their end
///
/// Where the pool is dry or closed, or the allocation hooks have not aligned its block for the request, the small request
/// goes to the resource behind, with headerBytes more. deallocate asks the header which of the two it was.
///
/// A GVMemoryPool does not grow for the resource: so a refused growth is never repeated, and threads may share a pool
/// with a lock. Make it large enough, or call resizePool.
///
/// @par Invariants
///   1. one of thePool, theSharedPool and theCache is not null
///   2. a request is small or not for as long as the resource lives
/// @par Thread safety
///   As the pool's: over a GVSharedPool, or a GVMemoryPool with a lock, several threads may use it if they may use the
///   resource behind it. Over a GVTokenCache it is for the cache's thread.
/// @par Ownership
///   Owns nothing. Containers must go before it, and it must go before the pool or cache and the resource behind it. What
///   was not deallocated stays lent. While blocks are lent, the pool must be neither shrunk nor rebuilt.
class GVPoolResource : public std::pmr::memory_resource, public GVObject {
  public:
    /// Bytes of each block that containers do not get.
    static constexpr std::size_t headerBytes = alignof(std::max_align_t);

    /// @name Construction
    /// @param upstream  the resource behind, not null
    /// @{

    /// Over a pool with a lock or without. What the blocks can take is what they could at this moment: those of a later
    /// setNumberOfBytesInPoolObject are used if they are as long.
    /// @par Threads  takes no lock
    explicit GVPoolResource(GVMemoryPool& pool,
                            std::pmr::memory_resource* upstream = std::pmr::get_default_resource()) noexcept
        : GVPoolResource(&pool, nullptr, nullptr, pool.bytesInEachObject, upstream) {}
    /// Over a pool that threads share. It is not waited for a block.
    explicit GVPoolResource(GVSharedPool& pool,
                            std::pmr::memory_resource* upstream = std::pmr::get_default_resource()) noexcept
        : GVPoolResource(nullptr, &pool, nullptr, pool.getBytesInEachObject(), upstream) {}
    /// Over the cache of this thread. It is not waited for a block.
    explicit GVPoolResource(GVTokenCache& cache,
                            std::pmr::memory_resource* upstream = std::pmr::get_default_resource()) noexcept
        : GVPoolResource(nullptr, nullptr, &cache, cache.getPool().getBytesInEachObject(), upstream) {}

    /// @}

    /// Not copied: a resource is equal to itself alone.
    GVPoolResource(const GVPoolResource&) = delete;
    GVPoolResource& operator=(const GVPoolResource&) = delete;
    ~GVPoolResource() override = default;

    /// Whether a request is small, that is, whether it gets a block as long as there is one.
    bool isSmall(std::size_t bytes, std::size_t alignment) const noexcept {
        return bytes < theSmallEnd && alignment <= alignof(std::max_align_t);
    }

    /// The resource behind.
    std::pmr::memory_resource* getUpstreamResource() const noexcept { return theUpstream; }

  protected:
    /// @name As the standard has it
    /// @{

    /// Bytes of a block, or of the resource behind.
    /// @throws what the resource behind throws; nothing is lent then
    /// @par Complexity  constant on average, in a block
    /// @par Threads     takes the pool's lock, when it has one, once
    void* do_allocate(std::size_t bytes, std::size_t alignment) override;

    /// Gives back what do_allocate gave for just these bytes and this alignment: to the pool, which may be closed by now,
    /// or to the resource behind. As long as a GVMemoryPool has not grown meanwhile, that needs no memory. If it has, and
    /// there is none for its free list, the block is not lent again.
    /// @throws GVException     kind gvinvalidstate: the block is one of a shared pool, and was given back already
    /// @throws std::bad_alloc  no memory for that exception's own texts
    /// @par Complexity  constant on average, in a block
    /// @par Threads     takes the pool's lock, when it has one, once
    void do_deallocate(void* bytes, std::size_t numberOfBytes, std::size_t alignment) override;

    /// Whether the other is this very object.
    bool do_is_equal(const std::pmr::memory_resource& other) const noexcept override { return this == &other; }

    /// @}

  private:
    friend struct GVTestPeer;

    using Header = detail::GVPoolResourceHeader;
    static_assert(sizeof(Header) <= headerBytes && headerBytes % alignof(Header) == 0,
                  "the header fits and is aligned");

    // A block that was borrowed; its bytes are null when nothing came.
    struct Loan {
        void* theBytes = nullptr;
        unsigned int theToken = 0;
    };

    GVPoolResource(GVMemoryPool* pool, GVSharedPool* sharedPool, GVTokenCache* cache, unsigned int bytesInEachBlock,
                   std::pmr::memory_resource* upstream) noexcept
        : thePool(pool), theSharedPool(sharedPool), theCache(cache), theUpstream(upstream),
          theSmallEnd(bytesInEachBlock < headerBytes ? 0 : bytesInEachBlock - headerBytes + 1) {}

    bool hasNoLock() const noexcept { return thePool != nullptr && !thePool->useMutexHandle; }
    Loan borrow(std::size_t bytes);
    template <typename Lender>
    static Loan borrowFrom(Lender& lender);
    static Loan takeFrom(GVMemoryPool& pool, std::size_t bytes);
    static bool makeRoomForReturns(GVMemoryPool& pool);
    static bool growFreeList(GVMemoryPool& pool);
    void giveBack(unsigned int token);
    static bool isUsable(Loan loan, std::size_t alignment) noexcept;
    void* allocateBehind(std::size_t bytes, Loan loan);
    static void* putHeader(void* start, Header header) noexcept;
    static Header headerOf(void* bytes) noexcept;
    static void* before(void* bytes, std::size_t distance) noexcept;

    GVMemoryPool* thePool;
    GVSharedPool* theSharedPool;
    GVTokenCache* theCache;
    std::pmr::memory_resource* theUpstream;
    std::size_t theSmallEnd; // bytes of the first request that is too large for a block; 0: all are
};

// Inline: containers call these for each of their nodes. What is rare, and what waits for a lock, is out of line, so that
// the rest stays short.

inline void* GVPoolResource::do_allocate(std::size_t bytes, std::size_t alignment) {
    if (detail::expectFalse(!isSmall(bytes, alignment))) {
        return theUpstream->allocate(bytes, alignment);
    }
    const Loan loan = hasNoLock() ? takeFrom(*thePool, bytes) : borrow(bytes);
    if (detail::expectFalse(!isUsable(loan, alignment))) {
        return allocateBehind(bytes, loan);
    }
    return putHeader(loan.theBytes, {loan.theToken, true});
}

inline void GVPoolResource::do_deallocate(void* bytes, std::size_t numberOfBytes, std::size_t alignment) {
    if (detail::expectFalse(!isSmall(numberOfBytes, alignment))) {
        theUpstream->deallocate(bytes, numberOfBytes, alignment);
        return;
    }
    const Header header = headerOf(bytes);
    if (detail::expectFalse(!header.isInBlock)) {
        theUpstream->deallocate(before(bytes, headerBytes), numberOfBytes + headerBytes, headerBytes);
        return;
    }
    giveBack(header.theToken);
}

// Borrows from what has a lock, or is a cache.
GILVANE_OUT_OF_LINE inline GVPoolResource::Loan GVPoolResource::borrow(std::size_t bytes) {
    if (thePool != nullptr) {
        return thePool->withLock([this, bytes] { return takeFrom(*thePool, bytes); });
    }
    return theSharedPool != nullptr ? borrowFrom(*theSharedPool) : borrowFrom(*theCache);
}

// Never throws: tryBorrow does not, and the token is the lender's.
template <typename Lender>
GVPoolResource::Loan GVPoolResource::borrowFrom(Lender& lender) {
    const std::optional<unsigned int> token = lender.tryBorrow();
    return token.has_value() ? Loan{lender.getMemoryForToken(*token), *token} : Loan{};
}

// Borrows from a pool whose lock is held, if it has one. Tokens that name no block are taken out of the free list, and
// passed over.
inline GVPoolResource::Loan GVPoolResource::takeFrom(GVMemoryPool& pool, std::size_t bytes) {
    // Another block size may have been set since the resource was made.
    if (detail::expectTrue(headerBytes + bytes <= pool.bytesInEachObject && makeRoomForReturns(pool))) {
        while (detail::expectTrue(!pool.availableTokens.empty())) {
            const unsigned int token = pool.availableTokens.back();
            pool.availableTokens.pop_back();
            const GVMemoryPoolObject* const block = pool.blockOf(token);
            if (detail::expectTrue(block != nullptr)) {
                if constexpr (detail::isHardened) {
                    pool.markLent(token);
                }
                return {block->getBytes(), token};
            }
        }
    }
    return {nullptr, 0};
}

// Makes room in the free list for every block now, so that no return needs memory. Whether there is that room.
inline bool GVPoolResource::makeRoomForReturns(GVMemoryPool& pool) {
    return detail::expectTrue(pool.availableTokens.capacity() >= pool.memoryPool.getUsedCount()) || growFreeList(pool);
}

GILVANE_OUT_OF_LINE inline bool GVPoolResource::growFreeList(GVMemoryPool& pool) {
    try {
        pool.availableTokens.reserve(pool.memoryPool.getUsedCount());
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

inline void GVPoolResource::giveBack(unsigned int token) {
    if (thePool == nullptr) {
        theSharedPool != nullptr ? theSharedPool->releaseObject(token) : theCache->releaseObject(token);
        return;
    }
    try {
        thePool->releaseObject(token);
    } catch (const std::bad_alloc&) {
        // The free list has no room, and a container can do nothing about it; the pool keeps the block.
    }
}

// Whether a block came, and is aligned for the request and for a header. Alignments are powers of two.
inline bool GVPoolResource::isUsable(Loan loan, std::size_t alignment) noexcept {
    const std::size_t mask = (alignment - 1) | (alignof(Header) - 1);
    return loan.theBytes != nullptr && (reinterpret_cast<std::uintptr_t>(loan.theBytes) & mask) == 0;
}

// For a small request that got no block, or one that is of no use.
GILVANE_OUT_OF_LINE inline void* GVPoolResource::allocateBehind(std::size_t bytes, Loan loan) {
    if (loan.theBytes != nullptr) {
        giveBack(loan.theToken);
    }
    return putHeader(theUpstream->allocate(headerBytes + bytes, headerBytes), {0, false});
}

// Returns where the bytes for the container begin.
inline void* GVPoolResource::putHeader(void* start, Header header) noexcept {
    char* const bytes = static_cast<char*>(start) + headerBytes;
    ::new (static_cast<void*>(bytes - sizeof(Header))) Header(header);
    return bytes;
}

inline GVPoolResource::Header GVPoolResource::headerOf(void* bytes) noexcept {
    return *static_cast<const Header*>(before(bytes, sizeof(Header)));
}

// The address so far in front of what was handed out. By way of a number: a compiler that sees the allocation takes what
// it returned for the start of an object.
inline void* GVPoolResource::before(void* bytes, std::size_t distance) noexcept {
    return reinterpret_cast<void*>(reinterpret_cast<std::uintptr_t>(bytes) - distance);
}

} // namespace Gilvane

#endif

#endif
