#include <gilvane/utilities/gvsharedpool.h>

#include <gilvane/base/gvexception.h>
#include <gilvane/base/gvprobes.h>
#include <gilvane/base/gvrawblock.h>
#include <gilvane/base/gvstdallocator.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <memory>
#include <mutex>
#include <new>
#include <utility>

#include <sys/eventfd.h>
#include <unistd.h>

namespace Gilvane {

namespace detail {

/// A thread that waits for a block, in its pool's queue. It lives on the thread's own stack; the pool's lock guards it.
struct GVSharedPoolWaiter {
    GVEventCount::Marks theMark = 0;
    std::chrono::steady_clock::time_point theBegin = std::chrono::steady_clock::now();
    GVSharedPoolWaiter* thePrevious = nullptr; // waits longer
    GVSharedPoolWaiter* theNext = nullptr;
    bool isQueued = false;
    bool isNotified = false;              // was woken, and has not looked since
    unsigned int theVainLooks = 0;        // how often it was woken and found nothing
    std::optional<unsigned int> theToken; // the block that was handed to it, which is lent with that
};

} // namespace detail

namespace {

constexpr const char* theSourceFile = "libsrc/utilities/gvsharedpool";

// How long running threads may overtake one that waits, and how often they may when it was woken for what they took.
constexpr std::chrono::milliseconds theLongestOvertaking(1);
constexpr unsigned int theMostVainLooks = 3;

// Gives the tokens of pools that are built at once one after another. Constant-initialised: pools may be made before
// main.
pthread_mutex_t theConstructionLock = PTHREAD_MUTEX_INITIALIZER;

class ConstructionGuard {
  public:
    ConstructionGuard() { pthread_mutex_lock(&theConstructionLock); }
    ConstructionGuard(const ConstructionGuard&) = delete;
    ConstructionGuard& operator=(const ConstructionGuard&) = delete;
    ~ConstructionGuard() { pthread_mutex_unlock(&theConstructionLock); }
};

// Keys that a token table is asked to hold, so that storing `numberOfObjects` does not fill two thirds of its slots.
std::uint64_t roomInTable(unsigned int numberOfObjects) {
    return std::uint64_t{numberOfObjects} + numberOfObjects / 2 + 1;
}

// Throws std::bad_alloc unless the hooks' 32 bits can say how many bytes the token table of so many blocks has.
template <typename Table>
void requireThatTableFits(const Table&, unsigned int numberOfObjects) {
    std::uint64_t slots = 16;
    while (slots <= roomInTable(numberOfObjects)) {
        slots *= 2;
    }
    // So many slots are never just below 2^32 bytes: what the array has beside them decides nothing.
    if (slots * sizeof(typename Table::Entry) > (std::numeric_limits<unsigned int>::max)()) {
        throw std::bad_alloc();
    }
}

} // namespace

namespace detail {

// --- what is done under the lock -------------------------------------------------------------------------------------

bool GVSharedPoolAccess::isWanted() const noexcept {
    // Relaxed: written under the lock, which this thread holds.
    return (thePool.theAttention.load(std::memory_order_relaxed) & wanted) != 0;
}

std::optional<unsigned int> GVSharedPoolAccess::waitForBlock(const GVPatience& patience) {
    // Its destructor runs under the lock, after a throw of the clock too.
    struct Wait {
        explicit Wait(GVSharedPoolAccess& access) noexcept : theAccess(access) { theAccess.beginWait(theWaiter); }
        Wait(const Wait&) = delete;
        Wait& operator=(const Wait&) = delete;
        ~Wait() { theAccess.endWait(theWaiter); }
        GVSharedPoolAccess& theAccess;
        GVSharedPoolWaiter theWaiter;
    };
    GILVANE_PROBE(probeDry(&thePool, 1, 0));
    GILVANE_PROBE(GVProbedWait probed(&thePool, thePool.theWaitCount + 1));
    Wait wait(*this);
    // The clock is asked without the lock. So after each time all else is looked at once more.
    const bool isTimed = patience.theTimeLeft != nullptr;
    bool isTimeKnown = !isTimed;
    std::chrono::nanoseconds timeLeft = noLimit;
    for (;;) {
        if (wait.theWaiter.theToken.has_value()) {
            GILVANE_PROBE(probed.end(gvwaitlent));
            if constexpr (isHardened) {
                loans(thePool).begin(*wait.theWaiter.theToken);
            }
            return std::exchange(wait.theWaiter.theToken, std::nullopt);
        }
        if (!freeTokens().empty() || thePool.theClosedFlag) {
            GILVANE_PROBE(probed.end(thePool.theClosedFlag ? gvwaitclosed : gvwaitlent));
            return lend();
        }
        tellWatchers(); // nobody is to be served: nothing is free
        if (!isTimeKnown) {
            timeLeft = askUnlocked(patience);
            isTimeKnown = true;
        } else if (timeLeft <= std::chrono::nanoseconds::zero()) {
            ++thePool.theTimeoutCount;
            GILVANE_PROBE(probed.end(gvwaittimeout));
            return {};
        } else {
            sleep(wait.theWaiter, timeLeft);
            isTimeKnown = !isTimed;
        }
    }
}

unsigned int GVSharedPoolAccess::lendMany(unsigned int* tokens, unsigned int count) noexcept {
    if (thePool.theClosedFlag) {
        return 0;
    }
    const unsigned int lent = (std::min)(count, numberOfFreeTokens(thePool));
    GILVANE_PROBE(if (lent < count) probeDry(&thePool, count, lent));
    std::generate_n(tokens, lent, [this] { return lendNext(); });
    return lent;
}

unsigned int GVSharedPoolAccess::fillCache(unsigned int* tokens, unsigned int count) noexcept {
    const unsigned int moved = thePool.theClosedFlag ? 0 : (std::min)(count, numberOfFreeTokens(thePool));
    const auto first = freeTokens().end() - static_cast<std::ptrdiff_t>(moved);
    std::copy(first, freeTokens().end(), tokens);
    freeTokens().erase(first, freeTokens().end());
    noteHighestLentCount();
    GILVANE_PROBE(if (moved != 0) probeRefill(&thePool, moved, numberOfFreeTokens(thePool)));
    return moved;
}

void GVSharedPoolAccess::emptyCache(const unsigned int* tokens, unsigned int count) noexcept {
    freeTokens().insert(freeTokens().end(), tokens, tokens + count); // there is room for every token
    GILVANE_PROBE(if (count != 0) probeSpill(&thePool, count, numberOfFreeTokens(thePool)));
}

void GVSharedPoolAccess::join(GVRegisteredCache& cache) noexcept {
    cache.theNext = thePool.theFirstCache;
    if (cache.theNext != nullptr) {
        cache.theNext->thePrevious = &cache;
    }
    thePool.theFirstCache = &cache;
}

void GVSharedPoolAccess::leave(GVRegisteredCache& cache) noexcept {
    (cache.thePrevious != nullptr ? cache.thePrevious->theNext : thePool.theFirstCache) = cache.theNext;
    if (cache.theNext != nullptr) {
        cache.theNext->thePrevious = cache.thePrevious;
    }
}

// Tokens may go from cache to cache while the counts are read one after another: they may be seen twice. So there are
// never more than those that the pool itself does not have.
unsigned int GVSharedPoolAccess::numberOfCachedTokens(const GVSharedPool& pool) noexcept {
    std::uint64_t cached = 0;
    for (const GVRegisteredCache* cache = pool.theFirstCache; cache != nullptr; cache = cache->theNext) {
        // Relaxed: the numbers of different caches are of different moments whatever the order.
        cached += cache->theCount->load(std::memory_order_relaxed);
    }
    return static_cast<unsigned int>(
        (std::min)(cached, std::uint64_t{pool.theNumberOfObjects - numberOfFreeTokens(pool)}));
}

void GVSharedPoolAccess::tellWatchersAndUnlock() noexcept {
    const GVEventCount::Marks woken = serveWaiters();
    tellWatchers();
    thePool.theLock.unlock();
    // The pool is there: this thread's operation has not ended.
    if (woken != 0) {
        thePool.theEvents.wake(woken);
    }
}

// Says what is so to caches and to those who poll.
void GVSharedPoolAccess::tellWatchers() noexcept {
    const bool hasDescriptor = thePool.theDescriptor >= 0;
    const bool isMissed = thePool.theFirstWaiter != nullptr || (hasDescriptor && freeTokens().empty());
    const std::uint32_t attention = (isMissed || thePool.theClosedFlag ? wanted : 0U) |
                                    (thePool.theClosedFlag ? closed : 0U) |
                                    (thePool.theIdleCachedCount != 0 ? reset : 0U);
    // Relaxed: the word orders nothing. A cache that sees a bit takes the lock, which shows it the rest; one that does
    // not see it yet works as if it had been earlier, and sees it at its next work.
    if (attention != thePool.theAttention.load(std::memory_order_relaxed)) {
        thePool.theAttention.store(attention, std::memory_order_relaxed);
    }
    if (hasDescriptor) {
        announceReadiness();
    }
    thePool.isWatched = attention != 0 || hasDescriptor;
}

// Hands free blocks to those who were overtaken for too long or too often, and notifies a waiter for each of the others.
// Those that were notified already, and have not looked yet, count. When the pool is closed, all are notified. Returns
// whom to wake when the lock is released.
GVEventCount::Marks GVSharedPoolAccess::serveWaiters() noexcept {
    if (thePool.theFirstWaiter == nullptr || (freeTokens().empty() && !thePool.theClosedFlag)) {
        return 0;
    }
    GVEventCount::Marks woken = 0;
    if (!thePool.theClosedFlag) {
        const auto now = std::chrono::steady_clock::now();
        const auto isToBeServed = [now](const GVSharedPoolWaiter* waiter) {
            return waiter != nullptr &&
                   (waiter->theVainLooks >= theMostVainLooks || now - waiter->theBegin >= theLongestOvertaking);
        };
        while (!freeTokens().empty() && isToBeServed(thePool.theFirstWaiter)) {
            woken |= serve(*thePool.theFirstWaiter).theMark;
        }
    }
    for (GVSharedPoolWaiter* waiter = thePool.theFirstWaiter;
         waiter != nullptr && (thePool.theClosedFlag || thePool.theNotifiedCount < numberOfFreeTokens(thePool));
         waiter = waiter->theNext) {
        if (!waiter->isNotified) {
            waiter->isNotified = true;
            ++thePool.theNotifiedCount;
            woken |= waiter->theMark;
        }
    }
    if (woken != 0) {
        thePool.theEvents.advance();
    }
    return woken;
}

void GVSharedPoolAccess::beginWait(GVSharedPoolWaiter& waiter) noexcept {
    waiter.thePrevious = thePool.theLastWaiter;
    (waiter.thePrevious != nullptr ? waiter.thePrevious->theNext : thePool.theFirstWaiter) = &waiter;
    thePool.theLastWaiter = &waiter;
    waiter.isQueued = true;
    waiter.theMark = GVEventCount::markOf(thePool.theWaitCount++);
}

// A waiter that was handed a block has it taken already, unless the clock threw.
void GVSharedPoolAccess::endWait(GVSharedPoolWaiter& waiter) noexcept {
    if (waiter.isQueued) {
        leaveQueue(waiter);
    }
    if (waiter.theToken.has_value()) {
        takeBack(*waiter.theToken);
    }
    const std::chrono::nanoseconds time = std::chrono::steady_clock::now() - waiter.theBegin;
    thePool.theLongestWait = (std::max)(thePool.theLongestWait, time);
}

void GVSharedPoolAccess::leaveQueue(GVSharedPoolWaiter& waiter) noexcept {
    (waiter.thePrevious != nullptr ? waiter.thePrevious->theNext : thePool.theFirstWaiter) = waiter.theNext;
    (waiter.theNext != nullptr ? waiter.theNext->thePrevious : thePool.theLastWaiter) = waiter.thePrevious;
    waiter.isQueued = false;
    forgetNotification(waiter);
}

void GVSharedPoolAccess::forgetNotification(GVSharedPoolWaiter& waiter) noexcept {
    if (waiter.isNotified) {
        waiter.isNotified = false;
        ++waiter.theVainLooks; // what it finds otherwise ends its wait
        --thePool.theNotifiedCount;
    }
}

// Hands a free block to a waiter, which does not wait any longer.
GVSharedPoolWaiter& GVSharedPoolAccess::serve(GVSharedPoolWaiter& waiter) noexcept {
    leaveQueue(waiter);
    waiter.theToken = takeFreeToken();
    return waiter;
}

// For a waiter that has looked, and found nothing.
void GVSharedPoolAccess::sleep(GVSharedPoolWaiter& waiter, std::chrono::nanoseconds timeLeft) noexcept {
    forgetNotification(waiter);
    thePool.theEvents.wait(thePool.theLock, waiter.theMark, timeLeft);
}

std::chrono::nanoseconds GVSharedPoolAccess::askUnlocked(const GVPatience& patience) {
    struct Unlocked {
        explicit Unlocked(GVPlainLock& lock) noexcept : theLock(lock) { theLock.unlock(); }
        Unlocked(const Unlocked&) = delete;
        Unlocked& operator=(const Unlocked&) = delete;
        ~Unlocked() { theLock.lock(); }
        GVPlainLock& theLock;
    };
    const Unlocked unlocked(thePool.theLock);
    return patience.theTimeLeft(patience.theDeadline);
}

// The descriptor's counter is 1 while it is readable, and 0 otherwise. So neither call can block or fail.
void GVSharedPoolAccess::announceReadiness() noexcept {
    const bool isReady = thePool.theClosedFlag || !freeTokens().empty();
    if (isReady != thePool.theReadiness) {
        eventfd_t counter = 0;
        static_cast<void>(isReady ? eventfd_write(thePool.theDescriptor, 1)
                                  : eventfd_read(thePool.theDescriptor, &counter));
        thePool.theReadiness = isReady;
    }
}

} // namespace detail

// --- the numbers -----------------------------------------------------------------------------------------------------

std::ostream& GVSharedPoolStatistics::print(std::ostream& stream) const {
    using Milliseconds = std::chrono::duration<double, std::milli>;
    return stream << theNumberOfObjects << " blocks: " << theLentCount << " lent, " << theCachedCount << " in caches, "
                  << theFreeCount << " free; at most " << theHighestLentCount << " lent; " << theWaitCount << " waits, "
                  << theTimeoutCount << " timeouts, the longest wait " << Milliseconds(theLongestWait).count() << " ms";
}

std::ostream& operator<<(std::ostream& stream, const GVSharedPoolStatistics& statistics) {
    return statistics.print(stream);
}

// --- the pool --------------------------------------------------------------------------------------------------------

// What blocks need beside their own memory is made before the first block. The records of loans and the directory come
// last, since the tokens decide their sizes; when one is refused, everything made before is given back.
GVSharedPool::GVSharedPool(unsigned int numberOfObjects, unsigned int bytesPerObject, GVMutexProtocol protocol)
    : theAttention(0), theNumberOfObjects(numberOfObjects), theBytesInEachObject(bytesPerObject), theLock(protocol),
      thePool(0, bytesPerObject, false) {
    if (numberOfObjects == 0) {
        throw GVException("A shared pool needs at least one block.", theSourceFile, __LINE__, gvinvalidstate, 0);
    }
    if (!detail::fitsInRawBlock(bytesPerObject)) {
        throw std::bad_alloc();
    }
    auto& table = detail::GVSharedPoolAccess::tableOf(thePool);
    auto& freeTokens = detail::GVSharedPoolAccess::freeTokensOf(thePool);
    requireThatTableFits(table, numberOfObjects);
    table.resize(static_cast<unsigned int>(roomInTable(numberOfObjects)));
    freeTokens.reserve(numberOfObjects);
    {
        const ConstructionGuard guard;
        thePool.resizePool(numberOfObjects);
    }

    // Tokens ascend, modulo 2^32, in the order in which the blocks were built.
    const unsigned int firstToken = freeTokens.front();
    const unsigned int span = freeTokens.back() - firstToken + 1;
    std::unique_ptr<detail::GVLoanRecords> loans;
    if constexpr (detail::isHardened) {
        loans = std::make_unique<detail::GVLoanRecords>(firstToken, span, protocol);
    }
    detail::GVSharedBlock* const blocks = GVStdAllocator<detail::GVSharedBlock>().allocate(span);
    // Nothing throws from here on.
    if constexpr (detail::isHardened) {
        theLoans = loans.release();
    }
    for (unsigned int index = 0; index < span; ++index) {
        ::new (blocks + index) detail::GVSharedBlock{nullptr, {detail::gvnotoken}};
    }
    for (const GVMemoryPoolObject* const object : table) {
        detail::GVSharedBlock& block = blocks[object->getToken() - firstToken];
        block.theBytes = object->getBytes();
        // Relaxed: no other thread knows the pool yet.
        block.theState.store(detail::gvtokenfree, std::memory_order_relaxed);
    }
    theDirectory = detail::GVSharedDirectory(blocks, firstToken, span, span != numberOfObjects, bytesPerObject);
}

GVSharedPool::~GVSharedPool() {
    if constexpr (detail::isHardened) {
        checkThatNobodyUsesIt();
        theLoans->report(this);
        delete theLoans;
    }
    if (theDescriptor >= 0) {
        ::close(theDescriptor);
    }
    GVStdAllocator<detail::GVSharedBlock>().deallocate(theDirectory.getBlocks(), 0);
}

void* GVSharedPool::findOrRefuse(unsigned int token) const {
    const detail::GVSharedBlock* const block = theDirectory.find(token);
    if (block == nullptr) {
        refuse(token);
    }
    return block->theBytes;
}

void GVSharedPool::refuse(unsigned int token) const {
    if (theDirectory.find(token) == nullptr) {
        throw GVException("Token is not of this pool.", theSourceFile, __LINE__, gvinvalidstate, 0);
    }
    throw GVException("Token is free: returned already, or never lent.", theSourceFile, __LINE__, gvinvalidstate, 0);
}

void GVSharedPool::close() noexcept {
    const detail::GVSharedPoolAccess access(*this); // tells the waiters, at its end
    GILVANE_PROBE(if (!theClosedFlag) detail::probeClosed(this, thePool.numberOfObjectsInPoolInUse()));
    theClosedFlag = true;
    isWatched = true;
}

bool GVSharedPool::isClosed() const noexcept {
    // Relaxed: nothing is handed over with the answer.
    return (theAttention.load(std::memory_order_relaxed) & detail::GVSharedPoolAccess::closed) != 0;
}

int GVSharedPool::getDescriptor() {
    {
        const detail::GVSharedPoolAccess access(*this);
        if (theDescriptor < 0) {
            theDescriptor = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
        }
        if (theDescriptor >= 0) {
            isWatched = true;
            return theDescriptor;
        }
    }
    throw GVException("Unable to create the descriptor of a shared pool.", theSourceFile, __LINE__, gvoutofmemory, 0);
}

GVSharedPoolStatistics GVSharedPool::getStatistics() const {
    const std::lock_guard<detail::GVPlainLock> guard(theLock);
    GVSharedPoolStatistics statistics;
    statistics.theNumberOfObjects = theNumberOfObjects;
    statistics.theFreeCount = detail::GVSharedPoolAccess::numberOfFreeTokens(*this);
    statistics.theCachedCount = detail::GVSharedPoolAccess::numberOfCachedTokens(*this);
    statistics.theLentCount = theNumberOfObjects - statistics.theFreeCount - statistics.theCachedCount;
    statistics.theHighestLentCount = theHighestLentCount;
    statistics.theWaitCount = theWaitCount;
    statistics.theTimeoutCount = theTimeoutCount;
    statistics.theLongestWait = theLongestWait;
    return statistics;
}

// What lies in caches is not lent. As soon as a cache works, it may be, without notice: the bit makes that cache say
// so.
void GVSharedPool::resetHighestLentCount() {
    const detail::GVSharedPoolAccess access(*this);
    theIdleCachedCount = detail::GVSharedPoolAccess::numberOfCachedTokens(*this);
    theHighestLentCount =
        theNumberOfObjects - detail::GVSharedPoolAccess::numberOfFreeTokens(*this) - theIdleCachedCount;
    isWatched = true;
}

std::ostream& GVSharedPool::print(std::ostream& stream) const {
    return stream << "<GVSharedPool>" << thePool << "</GVSharedPool>";
}

std::ostream& operator<<(std::ostream& stream, const GVSharedPool& pool) { return pool.print(stream); }

} // namespace Gilvane
