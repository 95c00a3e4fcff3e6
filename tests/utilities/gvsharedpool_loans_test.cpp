// The default build notes nothing about loans; what only the hardened build does is in tests/hardened.
#include "gvtestpeer.h"
#include "sharedpoolsupport.h"

#include <gilvane/base/gvhardened.h>
#include <gilvane/utilities/gvsharedloan.h>
#include <gilvane/utilities/gvsharedpool.h>

#include <gtest/gtest.h>

#include <chrono>

namespace Gilvane {

TEST(SharedPoolLoans, areVisitedInTheHardenedBuildAlone) {
    GVSharedPool pool(2, 16);
    pool.setLoanTraceInterval(1);
    const unsigned int token = *pool.tryBorrow();
    unsigned int visited = 0;
    const bool areNoted = pool.visitLoans(std::chrono::seconds(0), [&](const GVSharedLoan& loan) {
        EXPECT_EQ(loan.theToken, token);
        ++visited;
    });
    EXPECT_EQ(areNoted, detail::isHardened);
    EXPECT_EQ(visited, detail::isHardened ? 1U : 0U);
    pool.releaseObject(token);
}

TEST(SharedPoolLoans, haveRecordsInTheHardenedBuildAlone) {
    const GVSharedPool pool(2, 16);
    EXPECT_EQ(GVTestPeer::loanRecords(pool) != nullptr, detail::isHardened);
}

} // namespace Gilvane
