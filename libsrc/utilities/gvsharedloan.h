/// @file
/// What the hardened build knows about each loan of a shared pool.
#ifndef GILVANE_UTILITIES_GVSHAREDLOAN_H
#define GILVANE_UTILITIES_GVSHAREDLOAN_H

#include <gilvane/base/gvcompiler.h>
#include <gilvane/base/gvhardened.h>
#include <gilvane/base/gvobject.h>
#include <gilvane/threads/gvwaiting.h>

#include <chrono>
#include <cstdint>

#include <sys/types.h>

namespace Gilvane {

/// A loan of a shared pool, see GVSharedPool::visitLoans. It lasts from the borrowing to the return, through a cache or
/// not.
///
/// @par Thread safety
///   None needed: a copy for whoever asked.
/// @par Ownership
///   Owns nothing.
class GILVANE_EXPORT GVSharedLoan : public GVObject {
  public:
    /// Calls that a trace goes back at most.
    static constexpr unsigned int mostFrames = 16;

    unsigned int theToken = 0;                      ///< of the block
    std::uint64_t theNumber = 0;                    ///< the pool's loans up to this one: its first is loan 1
    std::chrono::steady_clock::time_point theBegin; ///< when the block was borrowed
    pid_t theThread = 0;                            ///< borrowed it: the kernel's number, as GDB and top show it
    unsigned int theFrameCount = 0;                 ///< frames in theFrames; 0 when the loan was not traced
    /// Where it was borrowed: addresses of calls, the innermost first, as of backtrace()
    void* theFrames[mostFrames] = {};
};

namespace detail {

/// What the hardened build notes about the loans of one shared pool: a record for each token.
///
/// @par Thread safety
///   All operations may run concurrently, except construction and destruction. Each takes the records' own lock, under
///   which no other lock is taken. A token's begin and end are called by the thread that lends it or takes it back.
/// @par Ownership
///   Owns the records.
class GVLoanRecords : public GVObject {
  public:
    /// Records for tokens in a row, none of them lent.
    /// @param protocol  of the records' lock: the pool's
    /// @throws GVException     kind gvoutofmemory: no POSIX mutex
    /// @throws std::bad_alloc  no memory for the records or for the exception's own texts; they need more bytes than the
    ///                         hooks' 32 bits can say
    GILVANE_HARDENED_ONLY GVLoanRecords(unsigned int firstToken, unsigned int span,
                                        GVMutexProtocol protocol = gvnoprotocol);

    /// Not copied: a pool's loans are noted once.
    GVLoanRecords(const GVLoanRecords&) = delete;
    GVLoanRecords& operator=(const GVLoanRecords&) = delete;

    /// Gives the records back.
    ~GVLoanRecords() override;

    /// Notes that the calling thread has borrowed this token.
    GILVANE_HARDENED_ONLY void begin(unsigned int token) noexcept;
    /// Notes that a token came back.
    GILVANE_HARDENED_ONLY void end(unsigned int token) noexcept;
    /// As GVSharedPool::setLoanTraceInterval.
    GILVANE_HARDENED_ONLY void setTraceInterval(unsigned int interval) noexcept;

    /// Copies the next loan, in the order of tokens, that is old enough.
    /// @param index    of the record to begin with; of the one behind the loan, afterwards
    /// @param seconds  age at the time `now`; as such a number, a long duration is compared without an overflow
    /// @returns false, and copies nothing, when there is none any more
    GILVANE_HARDENED_ONLY bool findLoan(unsigned int& index, std::chrono::steady_clock::time_point now,
                                        long double seconds, GVSharedLoan& loan) const noexcept;

    /// Writes to standard error how many loans there are, and the oldest one, if there is any. No other thread uses the
    /// pool any more.
    GILVANE_HARDENED_ONLY void report(const void* pool) const noexcept;

  private:
    friend struct Gilvane::GVTestPeer;

    mutable GVPlainLock theLock;       // guards all that follows
    unsigned int theFirstToken;        // of the first record
    unsigned int theSpan;              // records
    GVSharedLoan* theRecords;          // in the order of tokens; a number of 0 where there is no loan
    std::uint64_t theLoanCount = 0;    // since the start
    unsigned int theTraceInterval = 0; // loans of which one is traced; 0: none is
};

} // namespace detail

} // namespace Gilvane

#endif
