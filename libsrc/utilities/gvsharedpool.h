/// @file
/// The pool that threads share: bounded, waiting, checked. GVSharedPool is what a program uses, with GVTokenCache where a
/// thread borrows often and GVSharedTokenLease where a loan is to return by itself. What is in `detail` is theirs.
#ifndef GILVANE_UTILITIES_GVSHAREDPOOL_H
#define GILVANE_UTILITIES_GVSHAREDPOOL_H

#include <gilvane/base/gvcompiler.h>
#include <gilvane/base/gvhardened.h>
#include <gilvane/base/gvobject.h>
#include <gilvane/base/gvprobes.h>
#include <gilvane/threads/gvwaiting.h>
#include <gilvane/utilities/gvmemorypool.h>
#include <gilvane/utilities/gvsharedloan.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <ostream>
#include <utility>

namespace Gilvane {

namespace detail {

class GVSharedPoolAccess;
struct GVRegisteredCache;
struct GVSharedPoolWaiter;

/// Where a token of a shared pool is.
enum GVSharedTokenState : std::uint32_t {
    gvnotoken = 0,   ///< nowhere: a gap between the pool's tokens
    gvtokenfree = 1, ///< in the pool's free list, or in a cache
    gvtokenlent = 2, ///< with a borrower
    gvtokenback = 4, ///< in the hands of the thread that returns it; in the hardened build alone
};

/// A block's address, and beside it where its token is: both are used together, in one cache line.
struct GVSharedBlock {
    void* theBytes;
    GVAtomicWord theState; // a GVSharedTokenState
};

/// Finds a shared pool's blocks by token, in one step. The pool and each of its caches have a copy.
///
/// @par Memory order
///   Every access to a state is relaxed. The state orders nothing: what a borrower wrote into a block reaches the next
///   one through the pool's lock, and with a token that changes threads through whatever carried it. It only refuses
///   what is no loan; a thread sees its own writes, and another thread's as soon as it could know of the return.
class GVSharedDirectory {
  public:
    GVSharedDirectory() noexcept = default;
    /// @param blocks      in the order of their tokens, gaps included
    /// @param firstToken  of the first block
    /// @param span        blocks and gaps
    /// @param hasGaps     whether there are gaps
    /// @param length      bytes in each block
    GVSharedDirectory(GVSharedBlock* blocks, unsigned int firstToken, unsigned int span, bool hasGaps,
                      unsigned int length) noexcept
        : theBlocks(blocks), theFirstToken(firstToken), theSpan(span), theSpanWithoutGaps(hasGaps ? 0 : span),
          theLength(length) {}

    /// The block of a token; null for a token that is not the pool's. Tokens may pass 2^32: their distance wraps too.
    GVSharedBlock* find(unsigned int token) const noexcept {
        const unsigned int index = token - theFirstToken;
        // Relaxed: gaps never change.
        return index < theSpan && theBlocks[index].theState.load(std::memory_order_relaxed) != gvnotoken
                   ? &theBlocks[index]
                   : nullptr;
    }

    /// The address of a token's block, at once where there are no gaps, else what `findOrRefuse` returns.
    template <typename FindOrRefuse>
    void* getBytes(unsigned int token, FindOrRefuse findOrRefuse) const {
        const unsigned int index = token - theFirstToken;
        return expectTrue(index < theSpanWithoutGaps) ? theBlocks[index].theBytes : findOrRefuse();
    }

    /// Whether a token is the pool's and with a borrower.
    bool isLent(unsigned int token) const noexcept {
        const unsigned int index = token - theFirstToken;
        // Relaxed: see above.
        return index < theSpan && theBlocks[index].theState.load(std::memory_order_relaxed) == gvtokenlent;
    }

    /// Notes that a token goes to a borrower. It is free, and nobody else can lend it.
    void lend(unsigned int token) const noexcept {
        GVSharedBlock& block = theBlocks[token - theFirstToken];
        if constexpr (isHardened) {
            markBytesUsable(block.theBytes, theLength);
        }
        block.theState.store(gvtokenlent, std::memory_order_relaxed); // relaxed: see above
    }

    /// Notes that a token comes back from its borrower. The caller has seen that it is lent. Where another thread
    /// returns it at the same moment, the hardened build ends the program.
    void takeBack(unsigned int token) const noexcept {
        GVSharedBlock& block = theBlocks[token - theFirstToken];
        if constexpr (isHardened) {
            std::uint32_t expected = gvtokenlent;
            // Relaxed: the exchange decides between two returns and orders nothing else.
            if (!block.theState.compare_exchange_strong(expected, gvtokenback, std::memory_order_relaxed)) {
                reportMisuse("releaseObject: token %u of a shared pool: returned by two threads at once", token);
            }
            markBytesUntouchable(block.theBytes, theLength);
        }
        block.theState.store(gvtokenfree, std::memory_order_relaxed); // relaxed: see above
    }

    /// The blocks, in the order of their tokens.
    GVSharedBlock* getBlocks() const noexcept { return theBlocks; }

  private:
    GVSharedBlock* theBlocks = nullptr;
    unsigned int theFirstToken = 0;
    unsigned int theSpan = 0;            // blocks and gaps
    unsigned int theSpanWithoutGaps = 0; // the same; 0 if there are gaps
    unsigned int theLength = 0;          // bytes in each block
};

} // namespace detail

/// The state of a shared pool in numbers, all of the same moment.
///
/// @par Invariants
///   theLentCount + theCachedCount + theFreeCount == theNumberOfObjects
/// @par Thread safety
///   None needed: a copy for whoever asked.
/// @par Ownership
///   Owns nothing.
class GILVANE_EXPORT GVSharedPoolStatistics : public GVObject {
  public:
    unsigned int theNumberOfObjects = 0; ///< blocks
    /// Blocks with borrowers. While threads borrow from caches and return to them, a block that is on its way may count
    /// as lent or as cached; exact when no thread does.
    unsigned int theLentCount = 0;
    unsigned int theCachedCount = 0; ///< blocks in caches; as exact as theLentCount
    unsigned int theFreeCount = 0;   ///< blocks in the pool's free list; always exact
    /// Most blocks that were lent at a time since the start, or since resetHighestLentCount. Exact for a pool without
    /// caches. With caches it is an upper bound: what lies in them counts as lent.
    unsigned int theHighestLentCount = 0;
    unsigned int theWaitCount = 0;    ///< waits that began, those with a time of 0 included
    unsigned int theTimeoutCount = 0; ///< waits that ended because their time was over, with nothing to lend
    std::chrono::nanoseconds theLongestWait = std::chrono::nanoseconds::zero(); ///< of the waits that ended

    /// Writes the numbers in one line of text, without its end.
    /// @returns `stream`
    std::ostream& print(std::ostream& stream) const;
};

/// Writes the numbers of a shared pool, as GVSharedPoolStatistics::print.
GILVANE_EXPORT std::ostream& operator<<(std::ostream& stream, const GVSharedPoolStatistics& statistics);

/// Lends a fixed number of blocks of one size, by token, to many threads.
///
/// All blocks are built at construction; the pool never grows, shrinks or is rebuilt. A borrower that finds no free
/// block goes without, or waits. A token is turned into an address in one step, without a lock. Any number may be a
/// token, also 0. Tokens are checked: one that is not this pool's, or that is free, is refused. One that was returned too
/// often is taken for the loan of whoever has borrowed the block since.
///
///     GVSharedPool pool(32, 256);                             // 32 blocks of 256 bytes, for all threads
///     // a thread that produces
///     if (const std::optional<unsigned int> token = pool.borrow()) {
///         write(pool.getMemoryForToken(*token), ...);
///         queue.push(*token);                                 // any queue carries a number
///     }                                                       // empty: the pool was closed
///     // a thread that consumes
///     const unsigned int token = queue.pop();
///     read(pool.getMemoryForToken(token), ...);
///     pool.releaseObject(token);
///
/// The block returned last is lent first. A running thread may overtake those that wait, for speed; whoever has waited
/// for a millisecond, or was woken three times for blocks that others took, is handed the next one directly, the one that
/// waits longest first. When it runs is the system's affair. Waiting uses no processor time. What comes back in one step wakes as many waiters as it can serve.
///
/// The pool stands on a GVMemoryPool of its own, without a lock: blocks, tokens, header words and dumps are as there.
/// Of several pools made by several threads at once each gets all its tokens before the next one gets any; allocation
/// hooks, which are called meanwhile, must not make shared pools. The counter of tokens is without a lock as always: no
/// other thread may build blocks of a GVMemoryPool meanwhile.
///
/// @par Invariants (whenever the lock is free)
///   1. a token is in the free list or in a cache <=> its state is gvtokenfree
///   2. as many waiters are notified, and have not looked yet, as there are free tokens, or more; or else all of them
///   3. theAttention says whether caches are to send back what they hold
/// @par Thread safety
///   All operations may run concurrently, except construction and destruction. After `fork` the child may only exec.
/// @par Ownership
///   Owns the blocks. May be destroyed while some are lent; caches, waiters and leases must be gone. The hardened build
///   ends the program if a cache or a waiter is not.
class GILVANE_EXPORT GILVANE_OF_THIS_BUILD GVSharedPool : public GVObject {
  public:
    /// A pool with all its blocks built, and free.
    /// @param numberOfObjects  blocks
    /// @param bytesPerObject   bytes in each; with 0 the blocks have none, and their addresses are null
    /// @param protocol         of the pool's lock. gvpriorityinheritance is for threads of different real-time
    ///                         priorities: one that holds the lock then has that of the highest that waits for it. It
    ///                         says nothing about waits for a block, which has no owner who could run
    /// @throws GVException     kind gvinvalidstate: no blocks are asked for, there is no such protocol, or the system
    ///                         refuses it; kind gvoutofmemory: no memory for a block or for the table, or no POSIX
    ///                         mutex. Everything is given back
    /// @throws std::bad_alloc  no memory for a block's bytes, for a list or for the exception's own texts; the block
    ///                         size wraps with its header word; a table needs more bytes than the hooks' 32 bits can
    ///                         say. Everything is given back
    /// @par Complexity  linear in the blocks, and in the gaps between their tokens
    /// @par Threads     one thread of the process at a time builds the blocks of a shared pool
    GVSharedPool(unsigned int numberOfObjects, unsigned int bytesPerObject, GVMutexProtocol protocol = gvnoprotocol);

    /// Not copied: blocks belong to one pool.
    GVSharedPool(const GVSharedPool&) = delete;
    GVSharedPool& operator=(const GVSharedPool&) = delete;

    /// Deletes every block, lent or not, and closes the descriptor.
    ~GVSharedPool() override;

    /// @name Loans
    /// Each takes the pool's lock once, for a time that does not depend on the number of blocks, except where it says
    /// otherwise.
    /// @{

    /// Lends a block, without waiting. Blocks in caches do not count as free, however often it is tried: only who waits
    /// makes caches send back what they hold.
    /// @returns its token; empty when none is free or the pool is closed
    [[nodiscard]] std::optional<unsigned int> tryBorrow();

    /// Lends a block; waits for one as long as it takes: for ever where nobody returns one, or where the free ones lie
    /// in a cache whose thread does nothing (see GVTokenCache).
    /// @returns its token; empty when the pool is closed, now or while it waits
    [[nodiscard]] std::optional<unsigned int> borrow();

    /// Lends a block; waits for one no longer than `time`.
    /// @param time  0 or less asks once, and counts as a wait, for which caches that work send back what they hold; more
    ///              than thirty years waits without limit
    /// @returns its token; empty when the time is over or the pool is closed
    template <typename Representation, typename Period>
    [[nodiscard]] std::optional<unsigned int> borrowFor(const std::chrono::duration<Representation, Period>& time) {
        return borrowUntil(detail::deadlineAfter(time));
    }

    /// Lends a block; waits for one until `deadline`.
    /// @param deadline  of any clock, which alone decides whether the time is over. It is asked without the lock
    /// @returns its token; empty when the time is over or the pool is closed
    /// @throws what the clock throws; nothing is lent then
    template <typename Clock, typename Duration>
    [[nodiscard]] std::optional<unsigned int> borrowUntil(const std::chrono::time_point<Clock, Duration>& deadline) {
        return borrowWith({&detail::timeLeftUntil<std::chrono::time_point<Clock, Duration>>, &deadline});
    }

    /// The address of a block's first byte, aligned for any type but an over-aligned one as long as the allocation hooks
    /// give such memory, as the default ones do; null in a pool whose blocks have none.
    /// @param token  of this pool, lent or not
    /// @throws GVException     kind gvinvalidstate: the token is not this pool's; nothing has changed
    /// @throws std::bad_alloc  no memory for the exception's own texts; likewise
    /// @par Complexity  constant
    /// @par Threads     takes no lock
    void* getMemoryForToken(unsigned int token) const {
        return theDirectory.getBytes(token, [this, token] { return findOrRefuse(token); });
    }

    /// Takes a block back, and wakes a waiter. Its bytes are left as they are. Goes on when the pool is closed.
    /// @param token  lent by this pool or by one of its caches
    /// @throws GVException     kind gvinvalidstate: the token is not this pool's, or is free; nothing has changed. When
    ///                         two threads return it at the very same moment, this may slip through; the hardened build
    ///                         ends the program then
    /// @throws std::bad_alloc  no memory for the exception's own texts; likewise
    void releaseObject(unsigned int token);

    /// @}
    /// @name Closing
    /// @{

    /// Ends all waits, and lends nothing from now on, by caches neither. Blocks come back as before; those in a cache come
    /// with its next work, or when it goes. A second call does nothing.
    /// @par Complexity  linear in the waiters
    void close() noexcept;

    /// Whether the pool was closed.
    /// @par Threads  takes no lock
    bool isClosed() const noexcept;

    /// @}
    /// @name Observation
    /// @{

    /// A descriptor for poll and epoll: readable while a block is in the free list, and when the pool is closed. Made
    /// when it is first asked for; each change of readiness costs a system call from then on.
    ///
    /// Poll it, level-triggered, and never read it. Then call tryBorrow. It may find nothing, since other threads may be
    /// faster: ask isClosed, and poll again. Blocks in caches do not count: while a descriptor exists and no block is
    /// free, that counts as somebody waiting, and each cache sends back what it holds with its next work.
    /// @returns the same one at each call, non-blocking and closed by exec. It is closed with the pool
    /// @throws GVException     kind gvoutofmemory: there is no descriptor to be had; nothing has changed
    /// @throws std::bad_alloc  no memory for the exception's own texts; likewise
    int getDescriptor();

    /// The pool in numbers.
    /// @par Complexity  linear in the caches
    GVSharedPoolStatistics getStatistics() const;

    /// Counts the most blocks lent at a time from what is lent at this moment.
    /// @par Complexity  linear in the caches
    void resetHighestLentCount();

    /// Calls `visit` with each loan that began `olderThan` ago or earlier, a `const GVSharedLoan&`, in the order of tokens.
    /// With 0 these are all that there were when the visit began, less those that end meanwhile. A block in a cache is no
    /// loan, and one that a waiter was handed begins to be one when the waiter runs.
    ///
    /// The hardened build alone notes loans. In the default build nothing is visited.
    /// @param visit  may use the pool in every way, and also return the block: each loan is a copy, made under a lock
    ///               that is free again
    /// @returns whether loans are noted, which is whether the build is hardened
    /// @throws what `visit` throws
    /// @par Complexity  linear in the blocks, and in the gaps between their tokens
    /// @par Threads     takes the lock of the records for each token in turn, and not the pool's
    template <typename Representation, typename Period, typename Visitor>
    bool visitLoans(const std::chrono::duration<Representation, Period>& olderThan, Visitor&& visit) const;

    /// Has the hardened build note from now on where blocks are borrowed, as `backtrace` tells it. At first it does not.
    /// Such a loan takes many times as long, and others wait meanwhile. In the default build this does nothing.
    /// @param interval  0: nowhere; 1: for every loan; n: for each whose number n divides
    /// @par Threads     takes the lock of the records
    void setLoanTraceInterval(unsigned int interval) {
        if constexpr (detail::isHardened) {
            theLoans->setTraceInterval(interval);
        }
    }

    /// The blocks that the pool has.
    unsigned int getNumberOfObjects() const noexcept { return theNumberOfObjects; }
    /// Bytes in each of them.
    unsigned int getBytesInEachObject() const noexcept { return theBytesInEachObject; }

    /// Writes the pool that the blocks are in as text; its numbers are in getStatistics. Takes no lock: what it writes
    /// never changes.
    /// @returns `stream`
    std::ostream& print(std::ostream& stream) const;

    /// @}

  private:
    friend class detail::GVSharedPoolAccess;
    friend struct GVTestPeer;

    std::optional<unsigned int> borrowWith(const detail::GVPatience& patience);
    void* findOrRefuse(unsigned int token) const;
    [[noreturn]] void refuse(unsigned int token) const;

    // The hardened build's check.
    GILVANE_HARDENED_ONLY void checkThatNobodyUsesIt() const;

    detail::GVCacheLinePadding thePaddingBefore;

    // What all threads read without the lock. It changes rarely.
    detail::GVSharedDirectory theDirectory;
    detail::GVAtomicWord theAttention; // why caches may not go on by themselves: bits of GVSharedPoolAccess; mostly 0
    unsigned int theNumberOfObjects;
    unsigned int theBytesInEachObject;

    detail::GVCacheLinePadding thePaddingBetween;

    // What the lock guards.
    mutable detail::GVPlainLock theLock;
    GVMemoryPool thePool;                                 // its free list is this pool's
    detail::GVSharedPoolWaiter* theFirstWaiter = nullptr; // the one that waits longest
    detail::GVSharedPoolWaiter* theLastWaiter = nullptr;
    detail::GVRegisteredCache* theFirstCache = nullptr;
    unsigned int theNotifiedCount = 0;    // waiters that were woken and have not looked yet
    unsigned int theHighestLentCount = 0; // since the last reset
    unsigned int theIdleCachedCount = 0;  // lie in caches since the last reset; 0 once any cache has worked
    unsigned int theWaitCount = 0;
    unsigned int theTimeoutCount = 0;
    detail::GVEventCount theEvents; // what the waiters sleep by
    int theDescriptor = -1;         // an eventfd, or -1 when nobody has asked for one
    bool theReadiness = false;      // whether the descriptor is readable
    bool theClosedFlag = false;
    bool isWatched = false; // whether there is a waiter, a descriptor, a closing or an idle count to see to
    std::chrono::nanoseconds theLongestWait = std::chrono::nanoseconds::zero();

    detail::GVLoanRecords* theLoans = nullptr; // what the hardened build notes; null in the default build
};

namespace detail {

/// A cache as its pool knows it; the cache owns it.
struct GVRegisteredCache {
    const GVAtomicWord* theCount;   // tokens in the cache
    GVRegisteredCache* thePrevious; // null before it joins
    GVRegisteredCache* theNext;
};

/// A stretch of code that holds the lock of a shared pool: all that is done to a pool is done through one, by the pool
/// itself, its caches and its leases. When it ends, it sees to the pool's invariants and releases the lock.
class GILVANE_EXPORT GVSharedPoolAccess {
  public:
    /// @name Without the lock
    /// @{

    static constexpr std::uint32_t wanted = 1; ///< in theAttention: caches are to send back what they hold
    static constexpr std::uint32_t closed = 2; ///< in theAttention: nothing is lent
    static constexpr std::uint32_t reset = 4;  ///< in theAttention: the next work of a cache is to be counted

    /// The pool's directory.
    static const GVSharedDirectory& directory(const GVSharedPool& pool) noexcept { return pool.theDirectory; }
    /// The word that is 0 while caches may go on by themselves.
    static const GVAtomicWord& attention(const GVSharedPool& pool) noexcept { return pool.theAttention; }
    /// The pool that it stands on, and the lock that guards it.
    static const GVMemoryPool& innerPool(const GVSharedPool& pool) noexcept { return pool.thePool; }
    static GVPlainLock& lock(const GVSharedPool& pool) noexcept { return pool.theLock; }
    /// Where the hardened build notes loans.
    GILVANE_HARDENED_ONLY static GVLoanRecords& loans(const GVSharedPool& pool) noexcept;
    /// The address of a token's block, or what the pool throws for a token that it does not take.
    static void* findOrRefuse(const GVSharedPool& pool, unsigned int token) { return pool.findOrRefuse(token); }
    /// Throws what the pool throws for a token that it does not take.
    [[noreturn]] static void refuse(const GVSharedPool& pool, unsigned int token) { pool.refuse(token); }

    /// @}
    /// @name With the lock
    /// @{

    /// Waits for the lock.
    explicit GVSharedPoolAccess(GVSharedPool& pool) noexcept : thePool(pool) { thePool.theLock.lock(); }
    GVSharedPoolAccess(const GVSharedPoolAccess&) = delete;
    GVSharedPoolAccess& operator=(const GVSharedPoolAccess&) = delete;
    /// Tells those who wait, poll, and have caches what has changed, and releases the lock.
    ~GVSharedPoolAccess() {
        if (expectFalse(thePool.isWatched)) {
            tellWatchersAndUnlock();
        } else {
            thePool.theLock.unlock();
        }
    }

    /// Whether caches are to send back what they hold: somebody waits, or the pool is closed.
    bool isWanted() const noexcept;
    /// Lends a block; empty when none is free or the pool is closed.
    std::optional<unsigned int> lend() noexcept;
    /// As lend, but waits, and releases the lock meanwhile.
    /// @throws what the clock throws
    std::optional<unsigned int> lendOrWait(const GVPatience& patience);
    /// Lends as many blocks as there are, `count` at most.
    /// @returns how many came
    unsigned int lendMany(unsigned int* tokens, unsigned int count) noexcept;
    /// Takes a lent token back.
    /// @returns false, and changes nothing, when it is not lent
    bool takeBack(unsigned int token) noexcept;

    /// Moves tokens from the free list to a cache, the next to lend at the end: `count`, or what there is.
    /// @returns how many came; 0 when the pool is closed
    unsigned int fillCache(unsigned int* tokens, unsigned int count) noexcept;
    /// Moves tokens from a cache to the free list, the next to lend at the end.
    void emptyCache(const unsigned int* tokens, unsigned int count) noexcept;
    /// To be called before a cache works: blocks in caches count towards the most that were lent from now on.
    void beginCacheWork() noexcept {
        thePool.theIdleCachedCount = 0;
        noteHighestLentCount();
    }
    /// Counts a cache in.
    void join(GVRegisteredCache& cache) noexcept;
    /// Counts a cache out.
    void leave(GVRegisteredCache& cache) noexcept;

    /// @}

  private:
    friend class Gilvane::GVSharedPool;

    static auto& freeTokensOf(GVMemoryPool& pool) noexcept { return pool.availableTokens; }
    static auto& tableOf(GVMemoryPool& pool) noexcept { return pool.memoryPool; }
    auto& freeTokens() noexcept { return freeTokensOf(thePool.thePool); }
    std::optional<unsigned int> waitForBlock(const GVPatience& patience);
    unsigned int lendNext() noexcept;
    unsigned int takeFreeToken() noexcept;
    static unsigned int numberOfFreeTokens(const GVSharedPool& pool) noexcept {
        return static_cast<unsigned int>(pool.thePool.availableTokens.size());
    }
    static unsigned int numberOfCachedTokens(const GVSharedPool& pool) noexcept;
    void noteHighestLentCount() noexcept;
    void tellWatchersAndUnlock() noexcept;
    void tellWatchers() noexcept;
    GVEventCount::Marks serveWaiters() noexcept;
    void beginWait(GVSharedPoolWaiter& waiter) noexcept;
    void endWait(GVSharedPoolWaiter& waiter) noexcept;
    void leaveQueue(GVSharedPoolWaiter& waiter) noexcept;
    void forgetNotification(GVSharedPoolWaiter& waiter) noexcept;
    GVSharedPoolWaiter& serve(GVSharedPoolWaiter& waiter) noexcept;
    void sleep(GVSharedPoolWaiter& waiter, std::chrono::nanoseconds timeLeft) noexcept;
    std::chrono::nanoseconds askUnlocked(const GVPatience& patience);
    void announceReadiness() noexcept;

    GVSharedPool& thePool;
};

// Inline: what the pool and its caches do most.

inline std::optional<unsigned int> GVSharedPoolAccess::lend() noexcept {
    if (expectFalse(freeTokens().empty() || thePool.theClosedFlag)) {
        GILVANE_PROBE(if (!thePool.theClosedFlag) probeDry(&thePool, 1, 0));
        return {};
    }
    return lendNext();
}

inline std::optional<unsigned int> GVSharedPoolAccess::lendOrWait(const GVPatience& patience) {
    if (expectFalse(freeTokens().empty() && !thePool.theClosedFlag)) {
        return waitForBlock(patience);
    }
    return lend();
}

inline bool GVSharedPoolAccess::takeBack(unsigned int token) noexcept {
    if (expectFalse(!thePool.theDirectory.isLent(token))) {
        return false;
    }
    thePool.theDirectory.takeBack(token);
    if constexpr (isHardened) {
        loans(thePool).end(token);
    }
    freeTokens().push_back(token); // there is room for every token
    return true;
}

// Lends a block to the calling thread.
inline unsigned int GVSharedPoolAccess::lendNext() noexcept {
    const unsigned int token = takeFreeToken();
    if constexpr (isHardened) {
        loans(thePool).begin(token);
    }
    return token;
}

inline unsigned int GVSharedPoolAccess::takeFreeToken() noexcept {
    const unsigned int token = freeTokens().back();
    freeTokens().pop_back();
    thePool.theDirectory.lend(token);
    noteHighestLentCount();
    return token;
}

// What left the free list may be lent, also where it went to a cache: the cache lends it without notice. Only of what
// lay in caches at the last reset it is known that it is not lent, as long as no cache has worked.
inline void GVSharedPoolAccess::noteHighestLentCount() noexcept {
    const unsigned int outside = thePool.theNumberOfObjects - numberOfFreeTokens(thePool);
    if (expectFalse(outside > thePool.theHighestLentCount)) {
        const unsigned int lent = outside - thePool.theIdleCachedCount;
        thePool.theHighestLentCount = lent > thePool.theHighestLentCount ? lent : thePool.theHighestLentCount;
    }
}

} // namespace detail

// Inline so that a token is returned in a register, without a detour through memory.

inline std::optional<unsigned int> GVSharedPool::tryBorrow() {
    detail::GVSharedPoolAccess access(*this);
    return access.lend();
}

inline std::optional<unsigned int> GVSharedPool::borrow() { return borrowWith({nullptr, nullptr}); }

inline std::optional<unsigned int> GVSharedPool::borrowWith(const detail::GVPatience& patience) {
    detail::GVSharedPoolAccess access(*this);
    return access.lendOrWait(patience);
}

inline void GVSharedPool::releaseObject(unsigned int token) {
    if (detail::expectFalse(!detail::GVSharedPoolAccess(*this).takeBack(token))) {
        refuse(token);
    }
}

template <typename Representation, typename Period, typename Visitor>
bool GVSharedPool::visitLoans(const std::chrono::duration<Representation, Period>& olderThan, Visitor&& visit) const {
    if constexpr (detail::isHardened) {
        const auto now = std::chrono::steady_clock::now();
        unsigned int index = 0;
        GVSharedLoan loan;
        while (theLoans->findLoan(index, now, detail::inSeconds(olderThan), loan)) {
            visit(std::as_const(loan));
        }
    }
    return detail::isHardened;
}

/// Writes a pool's text form, as GVSharedPool::print.
GILVANE_EXPORT std::ostream& operator<<(std::ostream& stream, const GVSharedPool& pool);

} // namespace Gilvane

#endif
