// Tokens used otherwise than they should be: what happens is fixed even where no one should rely on it.
#include "gvtestpeer.h"
#include "hookledger.h"
#include "misuse.h"
#include "throwsites.h"

#include <gtest/gtest.h>

#include <csignal>
#include <unistd.h>
#include <vector>

namespace Gilvane {

namespace {

using Tokens = std::vector<unsigned int, GVStdAllocator<unsigned int>>;

TEST(TokenReturn, takesATokenTwiceAndLendsItTwice) {
    GILVANE_TEST_OF_MISUSE();
    GVTestPeer::nextToken() = 0;
    GVMemoryPool pool(4, 16, false);
    for (const unsigned int expected : {3U, 2U, 1U}) {
        EXPECT_EQ(pool.getTokenForFreeMemoryObject(), expected);
    }
    pool.releaseObject(2);
    pool.releaseObject(2);
    EXPECT_EQ(GVTestPeer::freeTokens(pool), (Tokens{0, 2, 2}));
    EXPECT_EQ(pool.numberOfObjectsInPoolInUse(), 1U); // 3 and 1 are lent
    EXPECT_EQ(pool.getTokenForFreeMemoryObject(), 2U);
    EXPECT_EQ(pool.getTokenForFreeMemoryObject(), 2U);
    EXPECT_EQ(pool.getTokenForFreeMemoryObject(), 0U);
}

TEST(TokenReturn, takesATokenThatIsFree) {
    GILVANE_TEST_OF_MISUSE();
    GVTestPeer::nextToken() = 0;
    GVMemoryPool pool(2, 16, false);
    pool.releaseObject(0);
    EXPECT_EQ(GVTestPeer::freeTokens(pool), (Tokens{0, 1, 0}));
}

TEST(TokenReturn, takesAnUnknownTokenAndLendsIt) {
    GILVANE_TEST_OF_MISUSE();
    GVTestPeer::nextToken() = 0;
    GVMemoryPool pool(2, 16, false);
    pool.releaseObject(99);
    EXPECT_EQ(GVTestPeer::freeTokens(pool), (Tokens{0, 1, 99}));
    EXPECT_EQ(pool.getTokenForFreeMemoryObject(), 99U);
    EXPECT_EQ(GVTestPeer::table(pool).get(99), nullptr);
    EXPECT_EQ(GVTestPeer::table(pool).getUsedCount(), 2U);
}

TEST(TokenReturn, takesATokenThatAnotherPoolHasLent) {
    GILVANE_TEST_OF_MISUSE();
    GVTestPeer::nextToken() = 0;
    GVMemoryPool pool(2, 16, false);
    GVMemoryPool other(2, 16, false);
    EXPECT_EQ(other.getTokenForFreeMemoryObject(), 3U);
    pool.releaseObject(3);
    EXPECT_EQ(GVTestPeer::freeTokens(pool), (Tokens{0, 1, 3}));
    EXPECT_EQ(other.numberOfObjectsInPoolInUse(), 1U);
}

TEST(TokenReturn, lendsAnUnknownTokenFromAPoolWithoutBlocksAndBuildsNone) {
    GILVANE_TEST_OF_MISUSE();
    GVMemoryPool pool(4, false);
    pool.releaseObject(99);
    EXPECT_EQ(pool.getTokenForFreeMemoryObject(), 99U);
    EXPECT_EQ(GVTestPeer::table(pool).getUsedCount(), 0U);
}

TEST(TokenReturn, takesTheTokenOfABlockThatIsGone) {
    GILVANE_TEST_OF_MISUSE();
    GVTestPeer::nextToken() = 0;
    GVMemoryPool pool(3, 16, false);
    EXPECT_EQ(pool.getTokenForFreeMemoryObject(), 2U);
    pool.resizePool(2);
    pool.releaseObject(2);
    EXPECT_EQ(GVTestPeer::freeTokens(pool), (Tokens{0, 1, 2}));
    EXPECT_EQ(pool.numberOfObjectsInPoolInUse(), 4294967295U);
    EXPECT_EQ(GVTestPeer::table(pool).get(2), nullptr);
}

TEST(MisuseOfTokens, anUnknownTokenThatGrowsTheTableInVainStaysInIt) {
    GILVANE_TEST_OF_MISUSE();
    HookLedger ledger;
    GVTestPeer::nextToken() = 0;
    GVMemoryPool pool(5, 16, false);
    ledger.refuseOnce(0);
    expectGVException([&] { pool.getMemoryForToken(99); }, gvoutofmemory, "libsrc/datastructures/gvhashtable",
                      "Unable to allocate space for new table.");
    EXPECT_EQ(GVTestPeer::table(pool).getUsedCount(), 6U);
    ASSERT_NE(GVTestPeer::table(pool).get(99), nullptr);
    EXPECT_EQ(GVTestPeer::table(pool).get(99)->theValue, nullptr);
    EXPECT_EQ(pool.numberOfObjectsInPoolInUse(), 1U);
}

#if !defined(GILVANE_TEST_SANITIZED)

GVMemoryPool* poolThatIsAsked = nullptr;

// Runs in place of the crash: ends the process, with 0 when the pool has gained an entry without a block.
void lookAtThePoolAndExit(int) {
    TokenTable& table = GVTestPeer::table(*poolThatIsAsked);
    const auto* const entry = table.get(99);
    const bool added = table.getUsedCount() == 3 && entry != nullptr && entry->theValue == nullptr;
    _exit(added ? 0 : 1);
}

[[noreturn]] void askForAnUnknownToken() {
    GVTestPeer::nextToken() = 0;
    auto* const pool = new GVMemoryPool(2, 16, false);
    poolThatIsAsked = pool;
    std::signal(SIGSEGV, &lookAtThePoolAndExit);
    void* volatile address = pool->getMemoryForToken(99); // volatile, so that the read is not left out
    static_cast<void>(address);
    _exit(2);
}

#endif

TEST(MisuseOfTokens, addsAnEntryForAnUnknownToken) {
    GILVANE_TEST_OF_MISUSE();
#if defined(GILVANE_TEST_SANITIZED)
    GTEST_SKIP() << "a sanitizer reports the read through the null pointer first";
#else
    EXPECT_EXIT(askForAnUnknownToken(), ::testing::ExitedWithCode(0), "");
#endif
}

} // namespace

} // namespace Gilvane
