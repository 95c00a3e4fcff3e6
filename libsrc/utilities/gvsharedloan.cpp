// What the hardened build notes about the loans of a shared pool.
#include <gilvane/utilities/gvsharedloan.h>

#include <gilvane/base/gvstdallocator.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <mutex>

#include <unistd.h>

#if __has_include(<execinfo.h>)
#include <execinfo.h>
#else
// Without it no loan is traced.
static int backtrace(void**, int) { return 0; }
static void backtrace_symbols_fd(void* const*, int, int) {}
#endif

namespace Gilvane::detail {

namespace {

pid_t thisThread() noexcept {
    thread_local const pid_t thread = gettid();
    return thread;
}

} // namespace

GVLoanRecords::GVLoanRecords(unsigned int firstToken, unsigned int span, GVMutexProtocol protocol)
    : theLock(protocol), theFirstToken(firstToken), theSpan(span),
      theRecords(GVStdAllocator<GVSharedLoan>().allocate(span)) {
    std::uninitialized_default_construct_n(theRecords, span);
}

// Loans own nothing: their destructors are not missed.
GVLoanRecords::~GVLoanRecords() { GVStdAllocator<GVSharedLoan>().deallocate(theRecords, 0); }

// Not inline: the trace's first frame is this function's own, and left out.
GILVANE_OUT_OF_LINE void GVLoanRecords::begin(unsigned int token) noexcept {
    const std::lock_guard<GVPlainLock> guard(theLock);
    GVSharedLoan& loan = theRecords[token - theFirstToken];
    loan.theToken = token;
    loan.theNumber = ++theLoanCount;
    loan.theBegin = std::chrono::steady_clock::now();
    loan.theThread = thisThread();
    loan.theFrameCount = 0;
    if (theTraceInterval != 0 && theLoanCount % theTraceInterval == 0) {
        void* frames[GVSharedLoan::mostFrames + 1];
        const int count = (std::max)(1, backtrace(frames, GVSharedLoan::mostFrames + 1));
        std::copy(frames + 1, frames + count, loan.theFrames);
        loan.theFrameCount = static_cast<unsigned int>(count) - 1;
    }
}

void GVLoanRecords::end(unsigned int token) noexcept {
    const std::lock_guard<GVPlainLock> guard(theLock);
    theRecords[token - theFirstToken].theNumber = 0;
}

void GVLoanRecords::setTraceInterval(unsigned int interval) noexcept {
    void* frame = nullptr;
    static_cast<void>(backtrace(&frame, 1)); // its first call allocates: that is not to be a loan's
    const std::lock_guard<GVPlainLock> guard(theLock);
    theTraceInterval = interval;
}

bool GVLoanRecords::findLoan(unsigned int& index, std::chrono::steady_clock::time_point now, long double seconds,
                             GVSharedLoan& loan) const noexcept {
    while (index < theSpan) {
        const std::lock_guard<GVPlainLock> guard(theLock);
        const GVSharedLoan& record = theRecords[index++];
        const bool isOldEnough = inSeconds(now - record.theBegin) >= seconds;
        if (record.theNumber != 0 && isOldEnough) {
            loan = record;
            return true;
        }
    }
    return false;
}

void GVLoanRecords::report(const void* pool) const noexcept {
    unsigned int count = 0;
    const GVSharedLoan* oldest = nullptr;
    for (const GVSharedLoan* loan = theRecords; loan != theRecords + theSpan; ++loan) {
        if (loan->theNumber != 0) {
            ++count;
            oldest = oldest == nullptr || loan->theNumber < oldest->theNumber ? loan : oldest;
        }
    }
    if (oldest == nullptr) {
        return;
    }
    using std::chrono::milliseconds;
    const auto age = std::chrono::duration_cast<milliseconds>(std::chrono::steady_clock::now() - oldest->theBegin);
    // One write, as of reportMisuse.
    dprintf(
        STDERR_FILENO,
        "gilvane: ~GVSharedPool: pool %p: blocks still lent: %u, the oldest is token %u, loan %llu, borrowed by thread "
        "%d, %lld ms ago\n",
        pool, count, oldest->theToken, static_cast<unsigned long long>(oldest->theNumber),
        static_cast<int>(oldest->theThread), static_cast<long long>(age.count()));
    backtrace_symbols_fd(oldest->theFrames, static_cast<int>(oldest->theFrameCount), STDERR_FILENO);
}

} // namespace Gilvane::detail
