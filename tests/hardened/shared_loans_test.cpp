// The hardened build knows the loans of a shared pool: who borrowed, when, as which loan, and where.
#include "gvtestpeer.h"
#include "haltedtime.h"
#include "hookledger.h"
#include "sharedpoolsupport.h"

#include <gilvane/base/gvexception.h>
#include <gilvane/utilities/gvsharedloan.h>
#include <gilvane/utilities/gvsharedpool.h>
#include <gilvane/utilities/gvsharedtokenlease.h>
#include <gilvane/utilities/gvtokencache.h>

#include <gtest/gtest.h>

#include <execinfo.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <new>
#include <optional>
#include <ratio>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <malloc.h>
#include <unistd.h>

namespace Gilvane {

namespace {

using std::chrono::steady_clock;

constexpr std::chrono::seconds theMoment(0);

std::atomic<bool> areFramesHidden{false}; // whether backtrace finds none

std::vector<GVSharedLoan> loansOf(const GVSharedPool& pool) {
    std::vector<GVSharedLoan> loans;
    EXPECT_TRUE(pool.visitLoans(theMoment, [&](const GVSharedLoan& loan) { loans.push_back(loan); }));
    return loans;
}

using Tokens = std::vector<unsigned int>;

Tokens tokensOf(const std::vector<GVSharedLoan>& loans) {
    Tokens tokens;
    for (const GVSharedLoan& loan : loans) {
        tokens.push_back(loan.theToken);
    }
    return tokens;
}

template <typename Duration>
Tokens tokensOlderThan(const GVSharedPool& pool, Duration age) {
    Tokens tokens;
    pool.visitLoans(age, [&](const GVSharedLoan& loan) { tokens.push_back(loan.theToken); });
    return tokens;
}

// What is written on standard error when a pool goes that this was done to.
template <typename Use>
std::string reportAfter(Use use) {
    GVTestPeer::nextToken() = 14;
    std::optional<GVSharedPool> pool(std::in_place, 4U, 16U); // tokens 14 to 17
    use(*pool);
    ::testing::internal::CaptureStderr();
    pool.reset();
    return ::testing::internal::GetCapturedStderr();
}

} // namespace

} // namespace Gilvane

// The linker sends the library's calls of backtrace here.
extern "C" {
// NOLINTBEGIN(bugprone-reserved-identifier)
int __real_backtrace(void** frames, int most);
int __wrap_backtrace(void** frames, int most);

int __wrap_backtrace(void** frames, int most) { return Gilvane::areFramesHidden ? 0 : __real_backtrace(frames, most); }
// NOLINTEND(bugprone-reserved-identifier)
}

namespace Gilvane {

namespace {

TEST(HardenedLoans, beginAsNone) {
    const GVSharedLoan loan;
    EXPECT_EQ(loan.theToken, 0U);
    EXPECT_EQ(loan.theNumber, 0U);
    EXPECT_EQ(loan.theBegin, steady_clock::time_point());
    EXPECT_EQ(loan.theThread, 0);
    EXPECT_EQ(loan.theFrameCount, 0U);
    EXPECT_EQ(loan.theFrames[0], nullptr);
}

TEST(HardenedLoans, knowTheirThreadTheirTimeAndTheirNumber) {
    GVSharedPool pool(3, 16);
    EXPECT_TRUE(loansOf(pool).empty());
    const auto before = steady_clock::now();
    const unsigned int first = *pool.tryBorrow();
    const auto between = steady_clock::now();
    pid_t otherThread = 0;
    unsigned int second = 0;
    std::thread([&] {
        second = *pool.borrow();
        otherThread = gettid();
    }).join();
    const auto after = steady_clock::now();
    const std::vector<GVSharedLoan> loans = loansOf(pool);
    ASSERT_EQ(tokensOf(loans), (Tokens{second, first})) << "in the order of tokens, of which the last is lent first";
    EXPECT_EQ(loans[1].theThread, gettid());
    EXPECT_EQ(loans[0].theThread, otherThread);
    EXPECT_NE(otherThread, gettid());
    EXPECT_GE(loans[1].theBegin, before);
    EXPECT_LE(loans[1].theBegin, between);
    EXPECT_GE(loans[0].theBegin, between);
    EXPECT_LE(loans[0].theBegin, after);
    EXPECT_EQ(loans[1].theNumber, 1U);
    EXPECT_EQ(loans[0].theNumber, 2U);
    EXPECT_EQ(loans[0].theFrameCount, 0U) << "nobody asked for traces";
}

TEST(HardenedLoans, areNumberedOnAfterReturns) {
    GVSharedPool pool(2, 16);
    const unsigned int token = *pool.tryBorrow();
    pool.releaseObject(token);
    EXPECT_TRUE(loansOf(pool).empty());
    EXPECT_EQ(pool.tryBorrow(), token);
    ASSERT_EQ(tokensOf(loansOf(pool)), Tokens{token});
    EXPECT_EQ(loansOf(pool)[0].theNumber, 2U);
}

TEST(HardenedLoans, areVisitedFromTheGivenAgeOn) {
    using std::chrono::hours;
    GVSharedPool pool(3, 16);
    const Tokens tokens = borrowAll(pool);
    GVTestPeer::loanOf(pool, tokens[0]).theBegin -= hours(1);
    GVTestPeer::loanOf(pool, tokens[2]).theBegin -= hours(3);
    EXPECT_EQ(tokensOlderThan(pool, theMoment), (Tokens{tokens[2], tokens[1], tokens[0]}));
    EXPECT_EQ(tokensOlderThan(pool, std::chrono::minutes(59)), (Tokens{tokens[2], tokens[0]}));
    EXPECT_EQ(tokensOlderThan(pool, std::chrono::duration<double, std::ratio<3600>>(1.5)), Tokens{tokens[2]});
    EXPECT_EQ(tokensOlderThan(pool, hours(4)), Tokens());
    EXPECT_EQ(tokensOlderThan(pool, (hours::max)()), Tokens()) << "more nanoseconds than 64 bits hold";
    EXPECT_EQ(tokensOlderThan(pool, (hours::min)()).size(), 3U);
}

TEST(HardenedLoans, ofACacheLastFromTheLoanToTheReturn) {
    GVSharedPool pool(4, 16);
    GVTokenCache cache(pool, 4);
    const unsigned int first = *cache.tryBorrow(); // takes two from the pool
    EXPECT_EQ(tokensOf(loansOf(pool)), Tokens{first});
    const unsigned int second = *cache.borrow();
    EXPECT_EQ(loansOf(pool).size(), 2U);
    cache.releaseObject(first);
    EXPECT_EQ(tokensOf(loansOf(pool)), Tokens{second});
    pool.releaseObject(second);
    EXPECT_TRUE(loansOf(pool).empty());
    EXPECT_EQ(cache.tryBorrow(), first);
    EXPECT_EQ(loansOf(pool)[0].theNumber, 3U);
    cache.releaseObject(first);
    cache.flush();
    EXPECT_TRUE(loansOf(pool).empty());
}

TEST(HardenedLoans, areNotedWhenACacheLendsOrTakesManyAtOnce) {
    GVSharedPool pool(5, 16);
    GVTokenCache cache(pool, 4);
    cache.releaseObject(*cache.tryBorrow()); // two lie in the cache
    unsigned int tokens[4];
    ASSERT_EQ(cache.tryBorrowMany(tokens, 4), 4U);
    EXPECT_EQ(loansOf(pool).size(), 4U);
    cache.releaseMany(tokens, 4);
    EXPECT_TRUE(loansOf(pool).empty());
}

TEST(HardenedLoans, ofAFullCacheEndWithTheReturn) {
    GVSharedPool pool(4, 16);
    GVTokenCache cache(pool, 1);
    const Tokens tokens = borrowAll(pool);
    returnAll(cache, tokens);
    EXPECT_TRUE(loansOf(pool).empty());
}

TEST(HardenedLoans, endWithTheirLease) {
    GVSharedPool pool(2, 16);
    {
        const GVSharedTokenLease lease(pool);
        EXPECT_EQ(tokensOf(loansOf(pool)), Tokens{lease.getToken()});
    }
    EXPECT_TRUE(loansOf(pool).empty());
}

TEST(HardenedLoans, ofAWaiterAreItsOwnAlsoWhenAnotherThreadHandsItTheBlock) {
    GVSharedPool pool(1, 16);
    const unsigned int token = *pool.tryBorrow();
    const pid_t ownThread = gettid();
    std::thread waiter([&] {
        EXPECT_EQ(pool.borrow(), token);
        const std::vector<GVSharedLoan> loans = loansOf(pool);
        ASSERT_EQ(loans.size(), 1U);
        EXPECT_EQ(loans[0].theThread, gettid());
        EXPECT_NE(loans[0].theThread, ownThread);
        EXPECT_EQ(loans[0].theNumber, 2U);
    });
    awaitWaits(pool, 1);
    letTheOvertakingEnd();
    pool.releaseObject(token);
    waiter.join();
    EXPECT_EQ(loansOf(pool).size(), 1U);
}

TEST(HardenedLoans, mayBeReturnedAndMadeByTheVisitor) {
    GVSharedPool pool(3, 16);
    GVTokenCache cache(pool, 1);
    const Tokens tokens = borrowAll(pool);
    Tokens visited;
    pool.visitLoans(theMoment, [&](const GVSharedLoan& loan) {
        visited.push_back(loan.theToken);
        pool.releaseObject(loan.theToken);
        EXPECT_EQ(cache.tryBorrow(), loan.theToken);
        pool.setLoanTraceInterval(0);
        pool.visitLoans(theMoment, [](const GVSharedLoan&) {});
    });
    EXPECT_EQ(visited, (Tokens{tokens[2], tokens[1], tokens[0]}));
}

TEST(HardenedLoans, letWhatTheVisitorThrowsPass) {
    GVSharedPool pool(2, 16);
    borrowAll(pool);
    unsigned int count = 0;
    EXPECT_THROW(pool.visitLoans(theMoment,
                                 [&](const GVSharedLoan&) {
                                     ++count;
                                     throw std::runtime_error("enough");
                                 }),
                 std::runtime_error);
    EXPECT_EQ(count, 1U);
    EXPECT_EQ(loansOf(pool).size(), 2U) << "the lock is free";
}

TEST(HardenedLoans, areVisitedWhileThreadsBorrow) {
    GVSharedPool pool(8, 16);
    pool.setLoanTraceInterval(3);
    std::atomic<bool> isOver{false};
    std::vector<std::thread> threads;
    for (int number = 0; number < 2; ++number) {
        threads.emplace_back([&] {
            GVTokenCache cache(pool, 2);
            while (!isOver) {
                const std::optional<unsigned int> token = cache.borrow();
                const std::optional<unsigned int> other = pool.tryBorrow();
                cache.releaseObject(*token);
                if (other.has_value()) {
                    pool.releaseObject(*other);
                }
            }
        });
    }
    std::size_t visited = 0;
    std::size_t traced = 0;
    await([&] {
        for (int visit = 0; visit < 1000; ++visit) {
            for (const GVSharedLoan& loan : loansOf(pool)) {
                EXPECT_NE(loan.theThread, gettid());
                EXPECT_EQ(loan.theFrameCount != 0, loan.theNumber % 3 == 0) << "a record is of one loan";
                ++visited;
                traced += loan.theFrameCount != 0 ? 1 : 0;
            }
        }
        return visited > traced && traced != 0;
    });
    isOver = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_TRUE(loansOf(pool).empty());
}

// Traces: which, where they begin and how far they go.

// What backtrace says of a call that returns to this address.
void* asInTraces(void* returnAddress) {
#if defined(__arm__)
    return reinterpret_cast<void*>(reinterpret_cast<std::uintptr_t>(returnAddress) &
                                   ~std::uintptr_t{1}); // Thumb's mark
#else
    return returnAddress;
#endif
}

// Borrows, and says where it is itself called from.
[[gnu::noinline]] void* borrowHere(detail::GVLoanRecords& records) {
    records.begin(7);
    return asInTraces(__builtin_return_address(0));
}

[[gnu::noinline]] unsigned int borrowBehindCalls(GVSharedPool& pool, unsigned int calls) {
    if (calls == 0) {
        return *pool.tryBorrow();
    }
    const unsigned int token = borrowBehindCalls(pool, calls - 1);
    asm volatile(""); // so that the call is not the last thing that is done
    return token;
}

Tokens frameCountsOfSixLoans(unsigned int interval) {
    GVSharedPool pool(6, 16);
    pool.setLoanTraceInterval(interval);
    Tokens counts;
    for (const unsigned int token : borrowAll(pool)) {
        counts.push_back(GVTestPeer::loanOf(pool, token).theFrameCount != 0 ? 1 : 0);
    }
    return counts;
}

TEST(HardenedLoanTraces, areOfTheLoansThatTheIntervalDivides) {
    EXPECT_EQ(frameCountsOfSixLoans(0), (Tokens{0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(frameCountsOfSixLoans(1), (Tokens{1, 1, 1, 1, 1, 1}));
    EXPECT_EQ(frameCountsOfSixLoans(3), (Tokens{0, 0, 1, 0, 0, 1}));
}

TEST(HardenedLoanTraces, endWhenTheyAreSwitchedOff) {
    GVSharedPool pool(1, 16);
    pool.setLoanTraceInterval(1);
    const unsigned int token = *pool.tryBorrow();
    EXPECT_NE(GVTestPeer::loanOf(pool, token).theFrameCount, 0U);
    pool.releaseObject(token);
    pool.setLoanTraceInterval(0);
    EXPECT_EQ(pool.tryBorrow(), token);
    EXPECT_EQ(GVTestPeer::loanOf(pool, token).theFrameCount, 0U) << "the trace of the loan before does not count";
}

// Frames that backtrace puts before its caller's own: what it is wrapped in, and sanitizers, stand between.
[[gnu::noinline]] std::ptrdiff_t framesBetween() {
    void* frames[4];
    void** const end = frames + backtrace(frames, 4);
    return std::find(frames, end, asInTraces(__builtin_return_address(0))) - frames - 1;
}

TEST(HardenedLoanTraces, beginWithTheCall) {
    detail::GVLoanRecords records(7, 1);
    records.setTraceInterval(1);
    const std::ptrdiff_t before = framesBetween();
    void* const returnAddress = borrowHere(records);
    GVSharedLoan loan;
    unsigned int index = 0;
    ASSERT_TRUE(records.findLoan(index, steady_clock::now(), 0, loan));
    void* frames[GVSharedLoan::mostFrames];
    const int frameCount = backtrace(frames, static_cast<int>(GVSharedLoan::mostFrames));
    EXPECT_EQ(loan.theFrames[before + 1], returnAddress) << "the frame before is borrowHere itself";
    ASSERT_GT(frameCount, before + 1);
    EXPECT_EQ(loan.theFrameCount, static_cast<unsigned int>((std::min)(frameCount + 1, 16)));
    EXPECT_EQ(loan.theFrames[before + 2], frames[before + 1]) << "what called this test";
}

TEST(HardenedLoanTraces, areEmptyWhereNoFrameIsFound) {
    GVSharedPool pool(1, 16);
    pool.setLoanTraceInterval(1);
    areFramesHidden = true;
    const unsigned int token = *pool.tryBorrow();
    areFramesHidden = false;
    EXPECT_EQ(GVTestPeer::loanOf(pool, token).theFrameCount, 0U);
}

TEST(HardenedLoanTraces, goBackSixteenCallsAtMost) {
    GVSharedPool pool(2, 16);
    pool.setLoanTraceInterval(1);
    const unsigned int higher = *pool.tryBorrow();
    const std::string_view next(reinterpret_cast<const char*>(&GVTestPeer::loanOf(pool, higher)), sizeof(GVSharedLoan));
    const std::string before(next);
    const unsigned int token = borrowBehindCalls(pool, 40);
    const GVSharedLoan& loan = GVTestPeer::loanOf(pool, token);
    EXPECT_EQ(loan.theFrameCount, 16U);
    EXPECT_EQ(GVSharedLoan::mostFrames, 16U);
    EXPECT_NE(loan.theFrames[15], nullptr);
    EXPECT_EQ(&loan + 1, &GVTestPeer::loanOf(pool, higher));
    EXPECT_EQ(next, before) << "the next record";
}

// Memory

TEST(HardenedLoanRecords, areMadeAtConstructionSoThatLendingAllocatesNothing) {
    const HookLedger ledger;
    {
        GVSharedPool pool(50, 16);
        EXPECT_EQ(loansOf(pool).size(), 0U) << "though the memory is not empty";
        GVTokenCache cache(pool, 8);
        const std::size_t before = ledger.allocationCount();
        pool.setLoanTraceInterval(1);
        const Tokens tokens = borrowAll(cache);
        EXPECT_EQ(loansOf(pool).size(), 50U);
        returnAll(pool, tokens);
        EXPECT_EQ(ledger.allocationCount(), before);
    }
    EXPECT_EQ(ledger.liveBlocks().size(), 0U);
}

#if defined(__GLIBC__)
// A process of its own traces nothing before.
TEST(HardenedLoanTraces, loadWhatTheyNeedWhenTheyAreSwitchedOnAndNotWithTheFirstLoan) {
#if defined(GILVANE_TEST_EMULATED)
    GTEST_SKIP() << "a program that is emulated cannot start itself again";
#endif
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            GVSharedPool pool(1, 16);
            pool.setLoanTraceInterval(1);
            const std::size_t before = mallinfo2().uordblks;
            const bool isTraced = GVTestPeer::loanOf(pool, *pool.tryBorrow()).theFrameCount != 0;
            _exit(isTraced && mallinfo2().uordblks == before ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
    GTEST_FLAG_SET(death_test_style, "fast");
}
#endif

TEST(HardenedLoanRecords, thatAreRefusedRefuseThePool) {
    HookLedger ledger;
    std::size_t before = 0;
    for (bool isBuilt = false; !isBuilt; ++before) {
        ledger.refuseOnce(before);
        try {
            const GVSharedPool pool(5, 24);
            isBuilt = true;
        } catch (const GVException& exception) {
            EXPECT_EQ(exception.getKind(), gvoutofmemory);
        } catch (const std::bad_alloc&) {
            // The other way to say so.
        }
        ledger.refuseNothing();
        EXPECT_EQ(ledger.liveBlocks().size(), 0U) << "after a refusal behind " << before << " allocations";
    }
    const std::size_t records = ledger.requests().size() - 2;
    EXPECT_EQ(ledger.requests()[records], sizeof(void*) + 5 * sizeof(GVSharedLoan)) << "before the directory";
    EXPECT_EQ(ledger.requests()[records - 1], sizeof(void*) + sizeof(detail::GVLoanRecords));
}

TEST(HardenedLoanRecords, areRefusedBeyondTheHooks32Bits) {
    const HookLedger ledger;
    EXPECT_THROW(detail::GVLoanRecords(0, 4294967295U), std::bad_alloc);
    EXPECT_EQ(ledger.liveBlocks().size(), 0U);
}

TEST(HardenedLoanRecords, areOfNoLoanWhateverTheMemoryHeld) {
    const HookLedger ledger; // fills memory with a pattern
    const detail::GVLoanRecords records(7, 3);
    unsigned int index = 0;
    GVSharedLoan loan;
    EXPECT_FALSE(records.findLoan(index, steady_clock::now(), -1e9L, loan));
    EXPECT_EQ(index, 3U);
}

TEST(HardenedLoanRecords, areFoundFromAnIndexOnIfTheyAreOldEnough) {
    using std::chrono::seconds;
    detail::GVLoanRecords records(7, 3);
    records.begin(8);
    records.begin(9);
    records.begin(7);
    records.end(7);
    const auto now = steady_clock::now() + seconds(5);
    GVSharedLoan loan;
    unsigned int index = 0;
    ASSERT_TRUE(records.findLoan(index, now, 5, loan));
    EXPECT_EQ(loan.theToken, 8U);
    EXPECT_EQ(index, 2U);
    ASSERT_TRUE(records.findLoan(index, now, 5, loan));
    EXPECT_EQ(loan.theToken, 9U);
    EXPECT_EQ(index, 3U);
    loan.theToken = 99;
    EXPECT_FALSE(records.findLoan(index, now, 5, loan));
    EXPECT_EQ(index, 3U);
    index = 0;
    EXPECT_FALSE(records.findLoan(index, now, 10, loan));
    EXPECT_EQ(loan.theToken, 99U) << "nothing is copied";
}

TEST(HardenedLoanRecords, areOldEnoughAtJustThatAge) {
    detail::GVLoanRecords records(7, 1);
    records.begin(7);
    GVSharedLoan loan;
    unsigned int index = 0;
    ASSERT_TRUE(records.findLoan(index, steady_clock::now(), 0, loan));
    index = 0;
    EXPECT_TRUE(records.findLoan(index, loan.theBegin + std::chrono::seconds(8), 8, loan));
    index = 0;
    EXPECT_FALSE(records.findLoan(index, loan.theBegin + std::chrono::seconds(8), 9, loan));
    records.end(7);
    index = 0;
    EXPECT_FALSE(records.findLoan(index, loan.theBegin + std::chrono::seconds(8), 8, loan));
}

// The report

TEST(HardenedLoanReport, isNotMadeWhenNothingIsLent) {
    EXPECT_EQ(reportAfter([](GVSharedPool& pool) { returnAll(pool, borrowAll(pool)); }), "");
}

TEST(HardenedLoanReport, isOneLineThatNamesTheOldestLoan) {
    const HaltedTime halted;
    const std::string report = reportAfter([](GVSharedPool& pool) {
        const Tokens tokens = borrowAll(pool); // from 17 down
        pool.releaseObject(tokens[0]);
        pool.releaseObject(tokens[3]);
        EXPECT_EQ(pool.tryBorrow(), tokens[3]); // loan 5
        GVTestPeer::loanOf(pool, 16).theBegin -= std::chrono::hours(1);
    });
    const std::string beginning = "gilvane: ~GVSharedPool: pool ";
    EXPECT_EQ(report.substr(0, beginning.size() + 2), beginning + "0x");
    const std::string who = ": blocks still lent: 3, the oldest is token 16, loan 2, borrowed by thread " +
                            std::to_string(gettid()) + ", 3600000 ms ago\n";
    EXPECT_NE(report.find(who), std::string::npos) << report;
    EXPECT_EQ(report.find('\n'), report.size() - 1);
}

TEST(HardenedLoanReport, findsTheOldestWhereverItsTokenIs) {
    for (const unsigned int oldest : {14U, 15U, 16U, 17U}) {
        const std::string report = reportAfter([oldest](GVSharedPool& pool) {
            borrowAll(pool);
            for (const unsigned int token : {14U, 15U, 16U, 17U}) {
                if (token != oldest) {
                    pool.releaseObject(token);
                }
            }
            borrowAll(pool);
        });
        EXPECT_NE(report.find("lent: 4, the oldest is token " + std::to_string(oldest) + ","), std::string::npos)
            << report;
    }
}

TEST(HardenedLoanReport, endsWithTheTraceIfThereIsOne) {
    unsigned int frameCount = 0;
    const std::string report = reportAfter([&](GVSharedPool& pool) {
        pool.setLoanTraceInterval(1);
        frameCount = GVTestPeer::loanOf(pool, *pool.tryBorrow()).theFrameCount;
    });
    EXPECT_NE(frameCount, 0U);
    EXPECT_EQ(report.find("gilvane: "), 0U);
    EXPECT_EQ(std::count(report.begin(), report.end(), '\n'), 1 + static_cast<std::ptrdiff_t>(frameCount)) << report;
}

} // namespace

} // namespace Gilvane
