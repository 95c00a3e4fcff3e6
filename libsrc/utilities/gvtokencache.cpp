#include <gilvane/utilities/gvtokencache.h>

#include <gilvane/base/gvexception.h>
#include <gilvane/base/gvstdallocator.h>

#include <algorithm>
#include <cstddef>

namespace Gilvane {

namespace {

constexpr const char* theSourceFile = "libsrc/utilities/gvtokencache";

// Tokens before the first and behind the last that nobody uses, so that no other object is in the cache lines of those
// between.
constexpr std::size_t thePaddingTokens = detail::cacheLineBytes / sizeof(unsigned int);

unsigned int* allocateTokens(unsigned int capacity) {
    if (capacity == 0) {
        throw GVException("A cache needs a capacity.", theSourceFile, __LINE__, gvinvalidstate, 0);
    }
    GVStdAllocator<unsigned int> allocator;
    // More than the allocator can have is refused by it. The sum does not wrap where it has 32 bits.
    const std::size_t room = (std::min)(std::size_t{capacity}, allocator.max_size());
    return allocator.allocate(room + 2 * thePaddingTokens) + thePaddingTokens;
}

void deallocateTokens(unsigned int* tokens) { GVStdAllocator<unsigned int>().deallocate(tokens - thePaddingTokens, 0); }

} // namespace

GVTokenCache::GVTokenCache(GVSharedPool& pool, unsigned int capacity)
    : theCount(0), theCapacity(capacity), theTokens(allocateTokens(capacity)),
      theDirectory(detail::GVSharedPoolAccess::directory(pool)),
      theAttention(&detail::GVSharedPoolAccess::attention(pool)),
      thePool(&pool), theRegistration{&theCount, nullptr, nullptr} {
    detail::GVSharedPoolAccess(pool).join(theRegistration);
}

GVTokenCache::~GVTokenCache() {
    {
        detail::GVSharedPoolAccess access(*thePool);
        access.beginCacheWork();
        sendBackAll(access);
        access.leave(theRegistration);
    }
    deallocateTokens(theTokens);
}

// Where blocks were sent back, they are handed to those who were overtaken for too long before this thread asks.
std::optional<unsigned int> GVTokenCache::tryBorrowWithLock() {
    const bool areOthersFirst = sendBackIfWanted();
    detail::GVSharedPoolAccess access(*thePool);
    if (areOthersFirst || !fill(access)) {
        return access.lend();
    }
    return lendLast(theCount.load(std::memory_order_relaxed));
}

std::optional<unsigned int> GVTokenCache::borrowWithLock(const detail::GVPatience& patience) {
    const bool areOthersFirst = sendBackIfWanted();
    detail::GVSharedPoolAccess access(*thePool);
    if (areOthersFirst || !fill(access)) {
        return access.lendOrWait(patience);
    }
    return lendLast(theCount.load(std::memory_order_relaxed));
}

unsigned int GVTokenCache::tryBorrowMany(unsigned int* tokens, unsigned int count) {
    unsigned int lent = 0;
    if (!sendBackIfWanted()) {
        if (isAttentionAsked()) {
            detail::GVSharedPoolAccess(*thePool).beginCacheWork();
        }
        for (unsigned int held = theCount.load(std::memory_order_relaxed); lent < count && held != 0; --held) {
            tokens[lent++] = lendLast(held);
        }
    }
    if (lent < count) {
        lent += detail::GVSharedPoolAccess(*thePool).lendMany(tokens + lent, count - lent);
    }
    return lent;
}

void GVTokenCache::releaseMany(const unsigned int* tokens, unsigned int count) {
    std::for_each(tokens, tokens + count, [this](unsigned int token) { releaseObject(token); });
}

// The token is lent, and stays so until there is a place for it.
void GVTokenCache::releaseWithLock(unsigned int token) {
    detail::GVSharedPoolAccess access(*thePool);
    access.beginCacheWork();
    if (access.isWanted()) {
        sendBackAll(access);
        access.takeBack(token);
        return;
    }
    unsigned int count = theCount.load(std::memory_order_relaxed);
    if (count == theCapacity) {
        const unsigned int oldest = halfOfCapacity();
        access.emptyCache(theTokens, oldest);
        std::copy(theTokens + oldest, theTokens + count, theTokens);
        count -= oldest;
    }
    keep(token, count);
}

void GVTokenCache::flush() noexcept {
    detail::GVSharedPoolAccess access(*thePool);
    access.beginCacheWork();
    sendBackAll(access);
}

// Sees to it that the cache holds a token. Whether it does.
bool GVTokenCache::fill(detail::GVSharedPoolAccess& access) noexcept {
    access.beginCacheWork();
    if (theCount.load(std::memory_order_relaxed) == 0) {
        // Relaxed: others only count.
        theCount.store(access.fillCache(theTokens, halfOfCapacity()), std::memory_order_relaxed);
    }
    return theCount.load(std::memory_order_relaxed) != 0;
}

// Sends back what the cache holds while somebody waits, or when the pool is closed. Whether that is so: then the cache
// takes no more from the pool than it was asked for.
bool GVTokenCache::sendBackIfWanted() noexcept {
    // Relaxed: a hint, as in isAttentionAsked.
    if ((theAttention->load(std::memory_order_relaxed) & detail::GVSharedPoolAccess::wanted) == 0) {
        return false;
    }
    flush();
    return true;
}

void GVTokenCache::sendBackAll(detail::GVSharedPoolAccess& access) noexcept {
    access.emptyCache(theTokens, theCount.load(std::memory_order_relaxed));
    // Relaxed: others only count.
    theCount.store(0, std::memory_order_relaxed);
}

} // namespace Gilvane
