// Tells who has had a block for too long. The hardened build alone knows; the default build says so.
#include <gilvane/utilities/gvsharedloan.h>
#include <gilvane/utilities/gvsharedpool.h>

#include <chrono>
#include <iostream>
#include <optional>
#include <thread>

#if __has_include(<execinfo.h>)
#include <execinfo.h>
#else
static void backtrace_symbols_fd(void* const*, int, int) {}
#endif

using Gilvane::GVSharedLoan;
using Gilvane::GVSharedPool;

namespace {

// [watch]
// For a thread that watches: writes who has had a block for so long, and where it was borrowed.
void tellOfLongLoans(const GVSharedPool& pool, std::chrono::seconds time) {
    const bool areNoted = pool.visitLoans(time, [](const GVSharedLoan& loan) {
        std::cerr << "token " << loan.theToken << ": loan " << loan.theNumber << ", thread " << loan.theThread << "\n";
        backtrace_symbols_fd(loan.theFrames, static_cast<int>(loan.theFrameCount), 2);
    });
    if (!areNoted) {
        std::cerr << "Only the hardened library knows who has the blocks.\n";
    }
}
// [watch]

} // namespace

int main() {
    // [trace]
    GVSharedPool pool(4, 256);
    pool.setLoanTraceInterval(1); // 1: every loan; 100: each hundredth; 0: none
    // [trace]
    std::optional<unsigned int> forgotten;
    std::thread([&] { forgotten = pool.tryBorrow(); }).join();
    std::cout << "lent: " << pool.getStatistics().theLentCount << "\n";
    tellOfLongLoans(pool, std::chrono::seconds(0));
    pool.releaseObject(*forgotten);
    std::cout << "lent: " << pool.getStatistics().theLentCount << "\n";
}
