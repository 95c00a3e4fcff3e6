// What is no mistake passes without a word in the hardened build, and comes to the same as in others.
#include "gvtestpeer.h"
#include "hookledger.h"
#include "threadsupport.h"

#include <gilvane/threads/gvmutex.h>
#include <gilvane/threads/gvthreadsfactory.h>
#include <gilvane/utilities/gvmemorypool.h>

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <vector>

namespace Gilvane {

namespace {

using Tokens = std::vector<unsigned int, GVStdAllocator<unsigned int>>;

// What a test writes on standard error ends it with a failure.
class HardenedUse : public ::testing::Test {
  protected:
    void SetUp() override { ::testing::internal::CaptureStderr(); }
    void TearDown() override { EXPECT_EQ(::testing::internal::GetCapturedStderr(), ""); }
};

// Borrows, writes, finds again, returns, grows, shrinks and rebuilds as the generator says, by the rules alone: no
// block that is lent is removed.
class RandomUser {
  public:
    RandomUser(unsigned int seed, unsigned int bytes, bool useMutex)
        : theGenerator(seed), theBytes(bytes), thePool(4, bytes, useMutex) {}

    void step() {
        const unsigned int kind = next(100);
        if (kind < 45) {
            borrow();
        } else if (kind < 90) {
            giveBack();
        } else if (kind < 97) {
            lookAtAll();
        } else if (kind < 99) {
            thePool.resizePool(GVTestPeer::table(thePool).getUsedCount() + next(3));
        } else if (theLoans.empty()) {
            rebuild();
        }
    }
    std::size_t steps() const { return theSteps; }

  private:
    unsigned int next(unsigned int bound) { return static_cast<unsigned int>(theGenerator() % bound); }

    void borrow() {
        const unsigned int token = thePool.getTokenForFreeMemoryObject();
        EXPECT_EQ(theLoans.count(token), 0U);
        const auto content = static_cast<unsigned char>(next(256));
        if (theBytes != 0) {
            std::memset(thePool.getMemoryForToken(token), content, theBytes);
        }
        theLoans[token] = content;
        ++theSteps;
    }

    void giveBack() {
        if (theLoans.empty()) {
            return;
        }
        const auto loan = std::next(theLoans.begin(), next(static_cast<unsigned int>(theLoans.size())));
        expectContent(*loan);
        thePool.releaseObject(loan->first);
        theLoans.erase(loan);
        ++theSteps;
    }

    void lookAtAll() {
        for (const auto& loan : theLoans) {
            expectContent(loan);
        }
        EXPECT_EQ(thePool.numberOfObjectsInPoolInUse(), theLoans.size());
    }

    // By shrinking to nothing first, so that no dead token stays in the free list.
    void rebuild() {
        thePool.resizePool(0);
        thePool.setNumberOfBytesInPoolObject(theBytes);
        thePool.resizePool(4);
    }

    void expectContent(const std::pair<const unsigned int, unsigned char>& loan) {
        const auto* const bytes = static_cast<const unsigned char*>(thePool.getMemoryForToken(loan.first));
        for (unsigned int index = 0; index < theBytes; ++index) {
            ASSERT_EQ(bytes[index], loan.second);
        }
    }

    std::mt19937 theGenerator;
    unsigned int theBytes;
    GVMemoryPool thePool;
    std::map<unsigned int, unsigned char> theLoans;
    std::size_t theSteps = 0;
};

TEST_F(HardenedUse, byTheRulesPassesWithoutAWord) {
    for (const unsigned int bytes : {0U, 1U, 13U, 64U}) {
        for (const bool useMutex : {false, true}) {
            const HookLedger ledger; // overwrites what it is given back
            RandomUser user(2024 + bytes, bytes, useMutex);
            for (int step = 0; step < 5000; ++step) {
                user.step();
            }
            EXPECT_GT(user.steps(), 3000U);
        }
    }
}

TEST_F(HardenedUse, bySeveralThreadsPassesWithoutAWord) {
    GVMemoryPool pool(16, 24, true);
    runTogether(4, [&pool](unsigned int number) {
        for (unsigned int round = 0; round < 2000; ++round) {
            const unsigned int token = pool.getTokenForFreeMemoryObject();
            std::memset(pool.getMemoryForToken(token), static_cast<int>(number), 24);
            pool.releaseObject(token);
        }
    });
    EXPECT_EQ(pool.numberOfObjectsInPoolInUse(), 0U);
}

TEST_F(HardenedUse, mayLendDeadTokensAfterARebuildAndCountThemAsFree) {
    GVTestPeer::nextToken() = 0;
    GVMemoryPool pool(2, 16, false);
    pool.setNumberOfBytesInPoolObject(32);
    EXPECT_EQ(pool.numberOfObjectsInPoolInUse(), 4294967294U);
    for (const unsigned int expected : {3U, 2U, 1U, 0U, 5U}) {
        EXPECT_EQ(pool.getTokenForFreeMemoryObject(), expected);
    }
}

TEST_F(HardenedUse, mayShrinkBlocksAwayThatAreLent) {
    GVMemoryPool pool(3, 16, false);
    const unsigned int token = pool.getTokenForFreeMemoryObject();
    std::memset(pool.getMemoryForToken(token), 1, 16);
    pool.resizePool(1);
    EXPECT_EQ(pool.numberOfObjectsInPoolInUse(), 0U);
}

TEST_F(HardenedUse, mayAskForTheAddressOfAFreeBlock) {
    GVTestPeer::nextToken() = 0;
    GVMemoryPool pool(2, 16, false);
    EXPECT_NE(pool.getMemoryForToken(0), nullptr);
    GVMemoryPool empty(2, false);
    EXPECT_EQ(empty.getMemoryForToken(empty.getTokenForFreeMemoryObject()), nullptr);
}

TEST_F(HardenedUse, findsTheBytesThatAFormerBorrowerLeft) {
    GVMemoryPool pool(2, 16, false);
    const unsigned int token = pool.getTokenForFreeMemoryObject();
    std::memset(pool.getMemoryForToken(token), 7, 16);
    pool.releaseObject(token);
    ASSERT_EQ(pool.getTokenForFreeMemoryObject(), token);
    EXPECT_EQ(static_cast<const unsigned char*>(pool.getMemoryForToken(token))[15], 7);
}

TEST_F(HardenedUse, mayReturnATokenThatWasTakenOutOfTheFreeListByHand) {
    GVTestPeer::nextToken() = 0;
    GVMemoryPool pool(2, 16, false);
    pool.removeTokenFromAvailableList(0);
    std::memset(pool.getMemoryForToken(0), 1, 16);
    pool.releaseObject(0);
    EXPECT_EQ(GVTestPeer::freeTokens(pool), (Tokens{1, 0}));
}

TEST_F(HardenedUse, ofTheScopedLockIsAsEver) {
    const std::unique_ptr<GVMutexHandle> handle(CreateUnnamedMutexHandle(gvexclusivemutex, false));
    {
        GVMutex guard;
        guard.setHandle(handle.get());
        EXPECT_FALSE(handle->tryLock());
    }
    EXPECT_TRUE(handle->tryLock());
    handle->unlock();
    { const GVMutex guard; }
}

} // namespace

} // namespace Gilvane
