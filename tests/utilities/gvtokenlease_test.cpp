#include <gilvane/utilities/gvtokenlease.h>

#include "gvtestpeer.h"
#include "hookledger.h"
#include "misuse.h"
#include "throwsites.h"

#include <gtest/gtest.h>

#include <array>
#include <condition_variable>
#include <cstddef>
#include <cstring>
#include <mutex>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

namespace Gilvane {

namespace {

using Peer = GVTestPeer;

const char* const leaseFile = "libsrc/utilities/gvtokenlease";

struct alignas(64) CacheLine {
    unsigned char bytes[64];
};

} // namespace

static_assert(!std::is_copy_constructible_v<GVTokenLease> && !std::is_copy_assignable_v<GVTokenLease>);
static_assert(std::is_nothrow_move_constructible_v<GVTokenLease> && std::is_nothrow_move_assignable_v<GVTokenLease>);
static_assert(std::is_nothrow_default_constructible_v<GVTokenLease> && std::is_nothrow_destructible_v<GVTokenLease>);
static_assert(!std::is_convertible_v<GVMemoryPool&, GVTokenLease>, "a loan is asked for aloud");

TEST(TokenLease, borrowsWhenMadeAndReturnsWhenItGoes) {
    GVMemoryPool pool(2, 16, false);
    {
        const GVTokenLease lease(pool);
        EXPECT_TRUE(lease);
        EXPECT_EQ(pool.numberOfObjectsInPoolInUse(), 1U);
    }
    EXPECT_EQ(pool.numberOfObjectsInPoolInUse(), 0U);
}

TEST(TokenLease, borrowsWhatThePoolLendsNextAndReturnsJustThat) {
    Peer::nextToken() = 40;
    GVMemoryPool pool(3, 16, false);
    const unsigned int lent = pool.getTokenForFreeMemoryObject();
    EXPECT_EQ(lent, 42U);
    {
        const GVTokenLease lease(pool);
        EXPECT_EQ(lease.getToken(), 41U);
    }
    EXPECT_EQ(pool.getTokenForFreeMemoryObject(), 41U);
    EXPECT_EQ(pool.getTokenForFreeMemoryObject(), 40U);
}

TEST(TokenLease, givesTheBlocksAddressAndLengthWithoutAskingThePoolAgain) {
    GVMemoryPool pool(1, 24, false);
    const GVTokenLease lease(pool);
    EXPECT_EQ(lease.getBytes(), pool.getMemoryForToken(lease.getToken()));
    EXPECT_EQ(lease.getLength(), 24U);
}

TEST(TokenLease, theAddressHoldsWhileThePoolGrows) {
    GVMemoryPool pool(1, 24, false);
    const GVTokenLease lease(pool);
    void* const before = lease.getBytes();
    pool.resizePool(1000);
    EXPECT_EQ(lease.getBytes(), before);
    EXPECT_EQ(lease.getBytes(), pool.getMemoryForToken(lease.getToken()));
}

TEST(TokenLease, ofABlockWithoutBytesHasANullAddressAndLengthZero) {
    GVMemoryPool pool(1, false);
    const GVTokenLease lease(pool);
    EXPECT_TRUE(lease);
    EXPECT_EQ(lease.getBytes(), nullptr);
    EXPECT_EQ(lease.getLength(), 0U);
}

TEST(TokenLease, growsThePoolThatHasNothingLeft) {
    GVMemoryPool pool(1, 16, false);
    const GVTokenLease first(pool);
    const GVTokenLease second(pool);
    EXPECT_NE(first.getToken(), second.getToken());
    EXPECT_NE(first.getBytes(), second.getBytes());
    EXPECT_EQ(pool.numberOfObjectsInPoolInUse(), 2U);
}

TEST(TokenLease, keepsThePoolOfASmartPointerAlive) {
    const HookLedger ledger;
    GVSmartPointer<GVMemoryPool> pool = GVMemoryPool::initWithNumberOfObjectsAndSize(1, 16, true);
    GVTokenLease lease(pool);
    EXPECT_EQ(pool.getRefCount(), 2U);
    pool = GVSmartPointer<GVMemoryPool>();
    std::memset(lease.getBytes(), 7, lease.getLength());
    EXPECT_NE(ledger.liveBlocks().size(), 0U);
    lease = GVTokenLease();
    EXPECT_EQ(ledger.liveBlocks().size(), 0U) << "the lease was the last";
}

TEST(TokenLease, givesUpItsShareOfThePoolWhenItGoes) {
    const GVSmartPointer<GVMemoryPool> pool = GVMemoryPool::initWithNumberOfObjectsAndSize(1, 16, false);
    { const GVTokenLease lease(pool); }
    EXPECT_EQ(pool.getRefCount(), 1U);
    EXPECT_EQ(pool->numberOfObjectsInPoolInUse(), 0U);
}

TEST(TokenLease, refusesAnEmptySmartPointer) {
    expectGVException([] { const GVTokenLease lease{GVSmartPointer<GVMemoryPool>()}; }, gvinvalidstate, leaseFile,
                      "Lease needs a pool.");
}

TEST(EmptyTokenLease, holdsNothingAndReturnsNothing) {
    const GVTokenLease lease;
    EXPECT_FALSE(lease);
    EXPECT_EQ(lease.getBytes(), nullptr);
    EXPECT_EQ(lease.getLength(), 0U);
}

TEST(EmptyTokenLease, refusesWhatNeedsALoan) {
    GVTokenLease lease;
    const char* const message = "Lease is empty.";
    expectGVException([&] { lease.getToken(); }, gvinvalidstate, leaseFile, message);
    expectGVException([&] { lease.as<char>(); }, gvinvalidstate, leaseFile, message);
    expectGVException([&] { static_cast<void>(lease.release()); }, gvinvalidstate, leaseFile, message);
}

TEST(TokenLeaseMove, handsTheLoanOn) {
    const GVSmartPointer<GVMemoryPool> pool = GVMemoryPool::initWithNumberOfObjectsAndSize(2, 16, false);
    GVTokenLease from(pool);
    const unsigned int token = from.getToken();
    void* const bytes = from.getBytes();
    const GVTokenLease to(std::move(from));
    EXPECT_FALSE(from); // NOLINT(bugprone-use-after-move): what a lease is after a move is what is tested
    EXPECT_EQ(from.getBytes(), nullptr);
    EXPECT_EQ(from.getLength(), 0U);
    EXPECT_TRUE(to);
    EXPECT_EQ(to.getToken(), token);
    EXPECT_EQ(to.getBytes(), bytes);
    EXPECT_EQ(to.getLength(), 16U);
    EXPECT_EQ(pool.getRefCount(), 2U);
    EXPECT_EQ(pool->numberOfObjectsInPoolInUse(), 1U);
}

TEST(TokenLeaseMove, byAssignmentReturnsTheLoanThatWasThere) {
    Peer::nextToken() = 0;
    GVMemoryPool pool(2, 16, false);
    GVTokenLease to(pool);
    GVTokenLease from(pool);
    to = std::move(from);
    EXPECT_FALSE(from); // NOLINT(bugprone-use-after-move): likewise
    EXPECT_EQ(to.getToken(), 0U);
    EXPECT_EQ(pool.numberOfObjectsInPoolInUse(), 1U);
    EXPECT_EQ(pool.getTokenForFreeMemoryObject(), 1U);
}

TEST(TokenLeaseMove, toItselfChangesNothing) {
    GVMemoryPool pool(1, 16, false);
    GVTokenLease lease(pool);
    const unsigned int token = lease.getToken();
    GVTokenLease& same = lease;
    lease = std::move(same);
    EXPECT_TRUE(lease);
    EXPECT_EQ(lease.getToken(), token);
    EXPECT_EQ(lease.getLength(), 16U);
    EXPECT_EQ(pool.numberOfObjectsInPoolInUse(), 1U);
}

TEST(TokenLeaseMove, carriesLoansIntoContainers) {
    const GVSmartPointer<GVMemoryPool> pool = GVMemoryPool::initWithNumberOfObjectsAndSize(1, 16, false);
    {
        std::vector<GVTokenLease> leases;
        for (int loan = 0; loan < 20; ++loan) {
            leases.emplace_back(pool);
        }
        EXPECT_EQ(pool->numberOfObjectsInPoolInUse(), 20U);
        leases.erase(leases.begin() + 5, leases.begin() + 15);
        EXPECT_EQ(pool->numberOfObjectsInPoolInUse(), 10U);
    }
    EXPECT_EQ(pool->numberOfObjectsInPoolInUse(), 0U);
}

TEST(TokenLeaseMove, swapsLoansOfDifferentPools) {
    const GVSmartPointer<GVMemoryPool> small = GVMemoryPool::initWithNumberOfObjectsAndSize(1, 16, false);
    const GVSmartPointer<GVMemoryPool> large = GVMemoryPool::initWithNumberOfObjectsAndSize(1, 64, false);
    GVTokenLease first(small);
    {
        GVTokenLease second(large);
        first.swap(second);
        EXPECT_EQ(first.getLength(), 64U);
        EXPECT_EQ(second.getLength(), 16U);
    }
    EXPECT_EQ(small->numberOfObjectsInPoolInUse(), 0U);
    EXPECT_EQ(small.getRefCount(), 1U);
    EXPECT_EQ(large->numberOfObjectsInPoolInUse(), 1U);
    EXPECT_EQ(large.getRefCount(), 2U);
}

TEST(TokenLeaseMove, letsAnotherThreadReturnTheBlock) {
    const GVSmartPointer<GVMemoryPool> pool = GVMemoryPool::initWithNumberOfObjectsAndSize(2, 16, true);
    constexpr int rounds = 500;
    std::mutex mutex;
    std::condition_variable changed;
    GVTokenLease handedOver;
    std::thread reader([&] {
        for (int round = 0; round < rounds; ++round) {
            std::unique_lock<std::mutex> lock(mutex);
            changed.wait(lock, [&] { return static_cast<bool>(handedOver); });
            const GVTokenLease mine(std::move(handedOver));
            lock.unlock();
            changed.notify_one();
            EXPECT_EQ(mine.as<int>(), round);
        }
    });
    for (int round = 0; round < rounds; ++round) {
        GVTokenLease written(pool);
        written.as<int>() = round;
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait(lock, [&] { return !handedOver; });
        handedOver = std::move(written);
        lock.unlock();
        changed.notify_one();
    }
    reader.join();
    EXPECT_EQ(pool->numberOfObjectsInPoolInUse(), 0U);
    EXPECT_EQ(pool.getRefCount(), 1U);
}

TEST(TokenLeaseView, isTheBlocksFirstBytes) {
    GVMemoryPool pool(1, 16, false);
    const GVTokenLease lease(pool);
    lease.as<std::array<int, 2>>() = {1, 2};
    const int written[] = {1, 2};
    EXPECT_EQ(std::memcmp(lease.getBytes(), written, sizeof(written)), 0);
    EXPECT_EQ(&lease.as<const char>(), lease.getBytes());
}

TEST(TokenLeaseView, mayTakeUpTheWholeBlockAndNotAByteMore) {
    GVMemoryPool pool(1, 16, false);
    const GVTokenLease lease(pool);
    EXPECT_EQ(&lease.as<char[16]>(), lease.getBytes());
    expectGVException([&] { lease.as<char[17]>(); }, gvinvalidstate, leaseFile, "Block is too short for the type.");
}

TEST(TokenLeaseView, refusesABlockWithoutBytes) {
    GVMemoryPool pool(1, false);
    const GVTokenLease lease(pool);
    expectGVException([&] { lease.as<char>(); }, gvinvalidstate, leaseFile, "Block is too short for the type.");
}

TEST(TokenLeaseView, refusesATypeThatTheBlockIsNotAlignedFor) {
    alignas(64) unsigned char storage[192] = {};
    GVMemoryPool pool(1, false);
    const unsigned int token = pool.getTokenForFreeMemoryObject();
    pool.releaseObject(token);
    GVMemoryPoolObject& block = *Peer::table(pool).get(token)->theValue;
    Peer::length(block) = 64;
    for (const unsigned int offset : {0U, 1U, 32U, 63U, 64U}) {
        Peer::bytes(block) = storage + offset;
        const GVTokenLease lease(pool);
        if (offset % 64 == 0) {
            EXPECT_EQ(static_cast<void*>(&lease.as<CacheLine>()), storage + offset);
        } else {
            expectGVException([&] { lease.as<CacheLine>(); }, gvinvalidstate, leaseFile,
                              "Block is not aligned for the type.");
        }
    }
    Peer::bytes(block) = storage + 1;
    Peer::length(block) = 63;
    {
        const GVTokenLease lease(pool);
        expectGVException([&] { lease.as<CacheLine>(); }, gvinvalidstate, leaseFile,
                          "Block is too short for the type.");
    }
    Peer::bytes(block) = nullptr; // the storage is not the block's
}

TEST(TokenLeaseRelease, handsTheTokenOutAndReturnsNothing) {
    const GVSmartPointer<GVMemoryPool> pool = GVMemoryPool::initWithNumberOfObjectsAndSize(2, 16, false);
    unsigned int token = 0;
    unsigned int expected = 1;
    {
        GVTokenLease lease(pool);
        expected = lease.getToken();
        token = lease.release();
        EXPECT_FALSE(lease);
        EXPECT_EQ(lease.getBytes(), nullptr);
        EXPECT_EQ(lease.getLength(), 0U);
        EXPECT_EQ(pool.getRefCount(), 1U) << "an empty lease keeps nothing alive";
    }
    EXPECT_EQ(token, expected);
    EXPECT_EQ(pool->numberOfObjectsInPoolInUse(), 1U);
    pool->releaseObject(token);
    EXPECT_EQ(pool->numberOfObjectsInPoolInUse(), 0U);
}

TEST(TokenLeaseRelease, endsThePoolThatTheLeaseAloneKeptAlive) {
    const HookLedger ledger;
    GVTokenLease lease(GVMemoryPool::initWithNumberOfObjectsAndSize(1, 16, true));
    static_cast<void>(lease.release());
    EXPECT_EQ(ledger.liveBlocks().size(), 0U);
}

TEST(TokenLease, passesOverTokensThatNameNoBlock) {
    Peer::nextToken() = 0;
    GVMemoryPool pool(3, 16, false);
    pool.setNumberOfBytesInPoolObject(32); // leaves 0, 1 and 2 in the free list, below 3, 4 and 5
    std::vector<GVTokenLease> leases;
    for (const unsigned int token : {5U, 4U, 3U, 8U}) {
        leases.emplace_back(pool);
        EXPECT_EQ(leases.back().getToken(), token);
        EXPECT_EQ(leases.back().getLength(), 32U);
    }
    EXPECT_EQ(Peer::table(pool).getUsedCount(), 6U) << "no entry was added";
    EXPECT_EQ(pool.numberOfObjectsInPoolInUse(), 4U) << "the dead tokens have left the list";
}

TEST(TokenLease, returnsNoTokenThatItPassedOver) {
    HookLedger ledger;
    GVMemoryPool pool(2, 16, false);
    pool.setNumberOfBytesInPoolObject(32);
    const GVTokenLease first(pool);
    const GVTokenLease second(pool);
    ledger.refuseFrom(0); // the pool cannot grow
    EXPECT_ANY_THROW(const GVTokenLease lease(pool));
    ledger.refuseNothing();
    EXPECT_TRUE(Peer::freeTokens(pool).empty());
}

TEST(TokenLease, passesOverEntriesWithoutABlock) {
    GILVANE_TEST_OF_MISUSE();
    Peer::nextToken() = 0;
    GVMemoryPool pool(1, 16, false);
    Peer::table(pool).insert(7, nullptr);
    pool.releaseObject(7);
    const GVTokenLease lease(pool);
    EXPECT_EQ(lease.getToken(), 0U);
}

TEST(TokenLeaseWithoutMemory, returnsWithoutAskingForAny) {
    HookLedger ledger;
    GVMemoryPool pool(1, 16, false);
    {
        std::vector<GVTokenLease> leases;
        for (int loan = 0; loan < 5; ++loan) {
            leases.emplace_back(pool); // the pool has 1, 2, 4 and 8 blocks; the free list never held more than 4
        }
        ledger.refuseFrom(0);
    }
    EXPECT_EQ(ledger.refusedCount(), 0U);
    EXPECT_EQ(pool.numberOfObjectsInPoolInUse(), 0U);
}

TEST(TokenLeaseWithoutMemory, losesABlockWhoseReturnFindsNoRoomAndDoesNotThrow) {
    HookLedger ledger;
    GVMemoryPool pool(1, 16, false);
    {
        const GVTokenLease lease(pool);
        pool.resizePool(2); // the one new token takes the room that the lease had made
        ledger.refuseFrom(0);
    }
    EXPECT_EQ(ledger.refusedCount(), 1U);
    ledger.refuseNothing();
    EXPECT_EQ(pool.numberOfObjectsInPoolInUse(), 1U) << "the block stays in use";
}

TEST(TokenLeaseWithoutMemory, lendsNothingWhenItsConstructorThrows) {
    int refused = 0;
    for (bool completed = false; !completed;) {
        HookLedger ledger;
        const GVSmartPointer<GVMemoryPool> pool = GVMemoryPool::initWithNumberOfObjectsAndSize(4, 16, true);
        std::vector<GVTokenLease> leases;
        leases.reserve(5);
        for (int loan = 0; loan < 4; ++loan) {
            leases.emplace_back(pool);
        }
        ledger.refuseOnce(static_cast<std::size_t>(refused));
        unsigned int builtAndLost = 0;
        try {
            leases.emplace_back(pool); // grows the pool to 8 blocks, and the free list's room
            completed = true;
        } catch (const GVException&) {
            // A block that could not be entered in the table counts as in use; growing again mends nothing.
            builtAndLost =
                Peer::table(*pool).getUsedCount() - 4 - static_cast<unsigned int>(Peer::freeTokens(*pool).size());
        } catch (const std::bad_alloc&) {
            builtAndLost =
                Peer::table(*pool).getUsedCount() - 4 - static_cast<unsigned int>(Peer::freeTokens(*pool).size());
        }
        ledger.refuseNothing();
        EXPECT_EQ(ledger.refusedCount(), completed ? 0U : 1U) << "a refusal is told";
        EXPECT_LE(builtAndLost, 1U);
        EXPECT_EQ(pool->numberOfObjectsInPoolInUse(), (completed ? 5U : 4U) + builtAndLost);
        EXPECT_EQ(pool.getRefCount(), completed ? 6U : 5U);
        refused += completed ? 0 : 1;
    }
    EXPECT_GT(refused, 8) << "four objects and their bytes, table or list, and the room for returns";
}

TEST(TokenLeaseWithoutMemory, returnsTheBlockWhenTheRoomForReturnsCannotBeHad) {
    HookLedger ledger;
    GVMemoryPool pool(1, 16, false);
    pool.getTokenForFreeMemoryObject();
    pool.getTokenForFreeMemoryObject(); // two blocks, room for one token
    pool.resizePool(3);
    EXPECT_EQ(Peer::freeTokens(pool).capacity(), 1U);
    ledger.refuseOnce(0);
    EXPECT_THROW(const GVTokenLease lease(pool), std::bad_alloc);
    EXPECT_EQ(ledger.refusedCount(), 1U);
    EXPECT_EQ(pool.numberOfObjectsInPoolInUse(), 2U);
}

TEST(TokenLeaseAdoption, takesALoanOver) {
    for (const bool locks : {false, true}) {
        GVMemoryPool pool(2, 24, locks);
        const unsigned int token = pool.getTokenForFreeMemoryObject();
        {
            const GVTokenLease lease(pool, token, gvadoptedloan);
            EXPECT_EQ(lease.getToken(), token);
            EXPECT_EQ(lease.getBytes(), pool.getMemoryForToken(token));
            EXPECT_EQ(lease.getLength(), 24U);
            EXPECT_EQ(pool.numberOfObjectsInPoolInUse(), 1U);
        }
        EXPECT_EQ(pool.numberOfObjectsInPoolInUse(), 0U);
    }
}

TEST(TokenLeaseAdoption, refusesATokenWithoutABlock) {
    GVMemoryPool pool(1, 24, true);
    const unsigned int token = pool.getTokenForFreeMemoryObject();
    expectGVException([&] { const GVTokenLease lease(pool, token + 1, gvadoptedloan); }, gvinvalidstate, leaseFile,
                      "Token names no block of the pool.");
    EXPECT_EQ(pool.numberOfObjectsInPoolInUse(), 1U) << "nothing was returned";
}

TEST(TokenLeaseAdoption, leavesTheLoanWithTheCallerWhenItsReturnCannotBeMadeSure) {
    HookLedger ledger;
    GVMemoryPool pool(1, 24, false);
    const unsigned int token = pool.getTokenForFreeMemoryObject();
    pool.resizePool(3); // the free list has room for two
    ledger.refuseFrom(0);
    EXPECT_THROW(const GVTokenLease lease(pool, token, gvadoptedloan), std::bad_alloc);
    ledger.refuseNothing();
    EXPECT_EQ(pool.numberOfObjectsInPoolInUse(), 1U);
    EXPECT_TRUE(GVTokenLease(pool, token, gvadoptedloan));
    EXPECT_EQ(pool.numberOfObjectsInPoolInUse(), 0U);
}

} // namespace Gilvane
