#include <gilvane/utilities/gvobjectlease.h>

#include "gvtestpeer.h"
#include "hookledger.h"
#include "sharedpoolsupport.h"
#include "throwsites.h"

#include <gilvane/base/gvexception.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>

namespace Gilvane {

namespace {

using Peer = GVTestPeer;

const char* const objectLeaseFile = "libsrc/utilities/gvobjectlease";
const char* const tokenLeaseFile = "libsrc/utilities/gvtokenlease";

// Counts its objects, and throws when it is told to.
struct Counted {
    struct Refusal {};

    explicit Counted(int given) : number(given) { ++alive; }
    Counted(std::unique_ptr<std::string> given, int number_) : number(number_), text(std::move(given)) { ++alive; }
    explicit Counted(Refusal) { throw std::runtime_error("refused"); }
    Counted(const Counted&) = delete;
    Counted& operator=(const Counted&) = delete;
    ~Counted() { --alive; }

    int number = 0;
    std::unique_ptr<std::string> text;
    static inline int alive = 0;
};

// Overloads `&`, and has an `operator new` of its own, which a lease calls as little.
struct Unruly {
    static void* operator new(std::size_t) noexcept { return nullptr; }
    static void* operator new(std::size_t, void*) noexcept { return nullptr; }
    Unruly* operator&() { return nullptr; } // NOLINT(google-runtime-operator): what is tested
    int number = 7;
};

struct Aggregate {
    int first;
    int second;
};

template <typename T>
void expectEmpty(const GVObjectLease<T>& lease) {
    EXPECT_FALSE(lease);
    EXPECT_EQ(lease.get(), nullptr);
}

} // namespace

using Lease = GVObjectLease<Counted>;

static_assert(!std::is_copy_constructible_v<Lease> && !std::is_copy_assignable_v<Lease>);
static_assert(std::is_nothrow_move_constructible_v<Lease> && std::is_nothrow_move_assignable_v<Lease>);
static_assert(std::is_nothrow_default_constructible_v<Lease> && std::is_nothrow_destructible_v<Lease>);
static_assert(!std::is_convertible_v<GVSharedPool&, GVObjectLease<std::string>>, "a loan is asked for aloud");
static_assert(!std::is_convertible_v<GVTokenCache&, GVObjectLease<std::string>>, "a loan is asked for aloud");
static_assert(!std::is_convertible_v<GVMemoryPool&, GVObjectLease<std::string>>, "a loan is asked for aloud");
static_assert(!std::is_constructible_v<Lease, GVSharedPool&, const char*>, "as T is constructible, so is its lease");
static_assert(!std::is_constructible_v<Lease, GVMemoryPool&> && std::is_constructible_v<Lease, GVMemoryPool&, int>);
static_assert(std::is_constructible_v<Lease, GVSharedPool&, int, GVAdoptedLoan>, "any number is a token");

TEST(ObjectLease, constructsWhenItIsMadeAndDestroysBeforeTheBlockGoesBack) {
    struct Watching {
        explicit Watching(GVSharedPool& given) : pool(given) {}
        Watching(const Watching&) = delete;
        Watching& operator=(const Watching&) = delete;
        ~Watching() { EXPECT_EQ(pool.getStatistics().theLentCount, 1U) << "its block is still lent"; }
        GVSharedPool& pool;
    };
    GVSharedPool pool(2, 64);
    {
        const GVObjectLease<Watching> lease(pool, pool);
        EXPECT_TRUE(lease);
        EXPECT_EQ(static_cast<void*>(lease.get()), pool.getMemoryForToken(lease.getToken()));
        EXPECT_EQ(pool.getStatistics().theLentCount, 1U);
    }
    expectThatNothingIsLost(pool);
}

TEST(ObjectLease, forwardsItsArguments) {
    GVSharedPool pool(1, 64);
    auto text = std::make_unique<std::string>("taken over");
    const Lease lease(pool, std::move(text), 5);
    EXPECT_EQ(lease->number, 5);
    EXPECT_EQ(*(*lease).text, "taken over");
    EXPECT_EQ(lease.get(), &*lease);
}

TEST(ObjectLease, withoutArgumentsHoldsZeros) {
    GVMemoryPool pool(1, 64, false);
    {
        const GVTokenLease bytes(pool);
        bytes.as<Aggregate>() = {3, 4};
    }
    const GVObjectLease<Aggregate> lease(pool);
    EXPECT_EQ(lease->first, 0);
    EXPECT_EQ(lease->second, 0);
    const GVObjectLease<Aggregate> copied(pool, Aggregate{1, 2});
    EXPECT_EQ(copied->second, 2);
}

TEST(ObjectLease, worksOverEachKindOfPool) {
    const GVSmartPointer<GVMemoryPool> owned = GVMemoryPool::initWithNumberOfObjectsAndSize(1, 64, true);
    GVMemoryPool unlocked(1, 64, false);
    GVSharedPool shared(2, 64);
    GVTokenCache cache(shared, 1);
    {
        const Lease first(owned, 1);
        const Lease second(unlocked, 2);
        const Lease third(shared, 3);
        const Lease fourth(cache, 4);
        EXPECT_EQ(first->number + second->number + third->number + fourth->number, 10);
        EXPECT_EQ(Counted::alive, 4);
        EXPECT_EQ(owned->numberOfObjectsInPoolInUse(), 1U);
        EXPECT_EQ(unlocked.numberOfObjectsInPoolInUse(), 1U);
        EXPECT_EQ(shared.getStatistics().theLentCount, 2U);
    }
    EXPECT_EQ(Counted::alive, 0);
    EXPECT_EQ(owned->numberOfObjectsInPoolInUse(), 0U);
    EXPECT_EQ(unlocked.numberOfObjectsInPoolInUse(), 0U);
    EXPECT_EQ(shared.getStatistics().theFreeCount, 2U) << "returned to the pool, not into the cache";
}

TEST(ObjectLease, keepsThePoolOfASmartPointerAlive) {
    const HookLedger ledger;
    {
        const Lease lease(GVMemoryPool::initWithNumberOfObjectsAndSize(1, 64, true), 1);
        EXPECT_EQ(lease->number, 1);
        EXPECT_NE(ledger.liveBlocks().size(), 0U);
    }
    EXPECT_EQ(Counted::alive, 0);
    EXPECT_EQ(ledger.liveBlocks().size(), 0U) << "the lease was the last";
}

TEST(ObjectLease, growsAMemoryPoolThatHasNothingLeft) {
    GVMemoryPool pool(1, 64, false);
    const Lease first(pool, 1);
    const Lease second(pool, 2);
    EXPECT_NE(first.getToken(), second.getToken());
    EXPECT_EQ(first->number, 1);
}

TEST(ObjectLease, isEmptyAndConstructsNothingWhenNothingCame) {
    GVSharedPool pool(1, 64);
    GVTokenCache cache(pool);
    const Lease first(pool, 1);
    auto text = std::make_unique<std::string>("stays");
    expectEmpty(Lease(pool, std::move(text), 2));
    expectEmpty(Lease(cache, std::move(text), 2));
    ASSERT_NE(text, nullptr) << "the arguments are as they were";
    expectEmpty(Lease());
    EXPECT_EQ(Counted::alive, 1);
    EXPECT_EQ(pool.getStatistics().theWaitCount, 0U);
}

TEST(ObjectLease, thatIsEmptyRefusesWhatNeedsAnObject) {
    Lease lease;
    const char* const message = "Lease is empty.";
    expectGVException([&] { static_cast<void>(*lease); }, gvinvalidstate, objectLeaseFile, message);
    expectGVException([&] { static_cast<void>(lease->number); }, gvinvalidstate, objectLeaseFile, message);
    expectGVException([&] { lease.getToken(); }, gvinvalidstate, objectLeaseFile, message);
    expectGVException([&] { static_cast<void>(lease.release()); }, gvinvalidstate, objectLeaseFile, message);
}

TEST(ObjectLease, mindsNeitherAnAddressOperatorNorAnOperatorNewOfTheType) {
    GVSharedPool pool(1, 64);
    const GVObjectLease<Unruly> lease(pool);
    EXPECT_EQ(static_cast<void*>(lease.get()), pool.getMemoryForToken(lease.getToken()));
    EXPECT_EQ(lease->number, 7);
}

TEST(ObjectLeaseThrow, ofTheConstructorGivesTheBlockBack) {
    const GVSmartPointer<GVMemoryPool> owned = GVMemoryPool::initWithNumberOfObjectsAndSize(1, 64, true);
    GVMemoryPool unlocked(1, 64, false);
    GVSharedPool shared(1, 64);
    EXPECT_THROW(const Lease lease(owned, Counted::Refusal()), std::runtime_error);
    EXPECT_THROW(const Lease lease(unlocked, Counted::Refusal()), std::runtime_error);
    EXPECT_THROW(const Lease lease(shared, Counted::Refusal()), std::runtime_error);
    EXPECT_THROW(const Lease lease = Lease::wait(shared, Counted::Refusal()), std::runtime_error);
    {
        GVTokenCache cache(shared, 1);
        EXPECT_THROW(const Lease lease(cache, Counted::Refusal()), std::runtime_error);
    }
    EXPECT_EQ(owned->numberOfObjectsInPoolInUse(), 0U);
    EXPECT_EQ(owned.getRefCount(), 1U);
    EXPECT_EQ(unlocked.numberOfObjectsInPoolInUse(), 0U);
    expectThatNothingIsLost(shared);
    EXPECT_EQ(Counted::alive, 0);
}

TEST(ObjectLeaseThrow, ofBorrowingConstructsNothing) {
    HookLedger ledger;
    GVMemoryPool pool(1, 64, false);
    const Lease first(pool, 1);
    ledger.refuseFrom(0);
    EXPECT_THROW(const Lease lease(pool, 2), std::bad_alloc);
    ledger.refuseNothing();
    EXPECT_EQ(Counted::alive, 1);
    EXPECT_EQ(pool.numberOfObjectsInPoolInUse(), 1U);
    expectGVException([] { const Lease lease(GVSmartPointer<GVMemoryPool>(), 1); }, gvinvalidstate, tokenLeaseFile,
                      "Lease needs a pool.");
}

TEST(ObjectLeaseRefusal, ofABlockThatIsTooShortGivesItBack) {
    constexpr unsigned int enough = sizeof(Counted);
    GVMemoryPool shortPool(1, enough - 1, false);
    GVSharedPool shared(1, enough - 1);
    GVSharedPool longEnough(1, enough);
    const char* const message = "Block is too short for the type.";
    expectGVException([&] { const Lease lease(shortPool, 1); }, gvinvalidstate, tokenLeaseFile, message);
    expectGVException([&] { const Lease lease(shared, 1); }, gvinvalidstate, tokenLeaseFile, message);
    EXPECT_EQ(shortPool.numberOfObjectsInPoolInUse(), 0U);
    expectThatNothingIsLost(shared);
    EXPECT_EQ(Counted::alive, 0);
    EXPECT_TRUE(Lease(longEnough, 1));
}

TEST(ObjectLeaseRefusal, ofABlockThatIsNotAlignedGivesItBack) {
    alignas(64) unsigned char storage[128] = {};
    GVMemoryPool pool(1, false);
    const unsigned int token = pool.getTokenForFreeMemoryObject();
    pool.releaseObject(token);
    GVMemoryPoolObject& block = *Peer::table(pool).get(token)->theValue;
    Peer::length(block) = 64;
    Peer::bytes(block) = storage + 1;
    expectGVException([&] { const Lease lease(pool, 1); }, gvinvalidstate, tokenLeaseFile,
                      "Block is not aligned for the type.");
    EXPECT_EQ(pool.numberOfObjectsInPoolInUse(), 0U);
    Peer::bytes(block) = storage + 64;
    EXPECT_TRUE(Lease(pool, 1));
    Peer::bytes(block) = nullptr; // the storage is not the block's
    EXPECT_EQ(Counted::alive, 0);
}

TEST(ObjectLeaseMove, handsTheObjectOnWithoutMovingIt) {
    GVSharedPool pool(2, 64);
    Lease from(pool, 1);
    const Counted* const object = from.get();
    const unsigned int token = from.getToken();
    Lease to(std::move(from));
    expectEmpty(from); // NOLINT(bugprone-use-after-move): what a lease is after a move is what is tested
    EXPECT_EQ(to.get(), object);
    EXPECT_EQ(to.getToken(), token);
    Lease other(pool, 2);
    other = std::move(to);
    EXPECT_EQ(other->number, 1);
    EXPECT_EQ(Counted::alive, 1) << "its own object is destroyed";
    EXPECT_EQ(pool.getStatistics().theLentCount, 1U) << "its own block went back";
    Lease& itself = other;
    other = std::move(itself);
    EXPECT_EQ(other->number, 1);
    other = Lease();
    EXPECT_EQ(Counted::alive, 0);
    expectThatNothingIsLost(pool);
}

TEST(ObjectLeaseMove, swapsObjectsOfDifferentKindsOfPools) {
    GVMemoryPool memoryPool(1, 64, false);
    GVSharedPool sharedPool(1, 64);
    Lease first(memoryPool, 1);
    {
        Lease second(sharedPool, 2);
        first.swap(second);
        EXPECT_EQ(first->number, 2);
        EXPECT_EQ(second->number, 1);
    }
    EXPECT_EQ(memoryPool.numberOfObjectsInPoolInUse(), 0U);
    EXPECT_EQ(sharedPool.getStatistics().theLentCount, 1U);
    first = Lease();
    expectThatNothingIsLost(sharedPool);
}

TEST(ObjectLeaseAdoption, takesOverWhatAReleaseLeftAlive) {
    GVMemoryPool memoryPool(1, 64, false);
    GVSharedPool sharedPool(2, 64);
    GVTokenCache cache(sharedPool, 1);
    const auto expectATurn = [](auto& lender) {
        Lease first(lender, 9);
        const Counted* const object = first.get();
        const unsigned int token = first.release();
        expectEmpty(first);
        EXPECT_EQ(Counted::alive, 1);
        const Lease second(lender, token, gvadoptedloan);
        EXPECT_EQ(second.get(), object);
        EXPECT_EQ(second->number, 9);
        EXPECT_EQ(second.getToken(), token);
    };
    expectATurn(memoryPool);
    EXPECT_EQ(Counted::alive, 0);
    EXPECT_EQ(memoryPool.numberOfObjectsInPoolInUse(), 0U);
    expectATurn(sharedPool);
    expectATurn(cache);
    EXPECT_EQ(Counted::alive, 0);
    EXPECT_EQ(sharedPool.getStatistics().theFreeCount, 2U);
}

TEST(ObjectLeaseAdoption, leavesTheLoanWithTheCallerWhenItIsRefused) {
    GVMemoryPool memoryPool(1, sizeof(Counted) - 1, false);
    GVSharedPool sharedPool(1, sizeof(Counted) - 1);
    const unsigned int memoryToken = memoryPool.getTokenForFreeMemoryObject();
    const unsigned int sharedToken = *sharedPool.tryBorrow();
    const char* const message = "Block is too short for the type.";
    expectGVException([&] { const Lease lease(memoryPool, memoryToken, gvadoptedloan); }, gvinvalidstate,
                      tokenLeaseFile, message);
    expectGVException([&] { const Lease lease(sharedPool, sharedToken, gvadoptedloan); }, gvinvalidstate,
                      tokenLeaseFile, message);
    EXPECT_EQ(memoryPool.numberOfObjectsInPoolInUse(), 1U);
    EXPECT_EQ(sharedPool.getStatistics().theLentCount, 1U);
    expectGVException([&] { const Lease lease(memoryPool, memoryToken + 1, gvadoptedloan); }, gvinvalidstate,
                      tokenLeaseFile, "Token names no block of the pool.");
    expectGVException([&] { const Lease lease(sharedPool, sharedToken + 1, gvadoptedloan); }, gvinvalidstate,
                      sharedPoolFile, notOfThisPool);
    EXPECT_EQ(Counted::alive, 0);
    memoryPool.releaseObject(memoryToken);
    sharedPool.releaseObject(sharedToken);
}

TEST(ObjectLeaseAdoption, carriesAnObjectToAnotherThread) {
    GVSharedPool pool(1, 64);
    const unsigned int token = Lease(pool, std::make_unique<std::string>("carried"), 3).release();
    std::thread([&pool, token] {
        const Lease lease(pool, token, gvadoptedloan);
        EXPECT_EQ(*lease->text, "carried");
    }).join();
    EXPECT_EQ(Counted::alive, 0);
    expectThatNothingIsLost(pool);
}

TEST(ObjectLeaseRelease, endsThePoolThatTheLeaseAloneKeptAliveWithoutDestroyingTheObject) {
    const HookLedger ledger;
    Lease lease(GVMemoryPool::initWithNumberOfObjectsAndSize(1, 64, true), 1);
    static_cast<void>(lease.release());
    EXPECT_EQ(ledger.liveBlocks().size(), 0U);
    EXPECT_EQ(std::exchange(Counted::alive, 0), 1);
}

TEST(ObjectLeaseWaiting, saysSoInItsName) {
    GVSharedPool pool(1, 64);
    GVTokenCache cache(pool, 1);
    const auto soon = [] { return std::chrono::steady_clock::now() + std::chrono::milliseconds(1); };
    {
        const Lease lease = Lease::wait(pool, 1);
        EXPECT_EQ(lease->number, 1);
        expectEmpty(Lease::waitFor(pool, std::chrono::milliseconds(1), 2));
        expectEmpty(Lease::waitUntil(pool, soon(), 2));
        expectEmpty(Lease::waitFor(cache, std::chrono::milliseconds(1), 2));
        expectEmpty(Lease::waitUntil(cache, soon(), 2));
        EXPECT_EQ(pool.getStatistics().theTimeoutCount, 4U);
        EXPECT_EQ(Counted::alive, 1);
    }
    EXPECT_EQ(Lease::waitFor(pool, std::chrono::hours(1), 3)->number, 3);
    EXPECT_EQ(Lease::waitUntil(cache, soon() + std::chrono::hours(1), 4)->number, 4);
    Lease held = Lease::wait(cache, 5);
    std::thread waiter([&] { EXPECT_EQ(Lease::wait(cache, 6)->number, 6); });
    awaitWaits(pool, 5);
    held = Lease();
    waiter.join();
    pool.close();
    expectEmpty(Lease::wait(pool, 7));
    EXPECT_EQ(Counted::alive, 0);
}

} // namespace Gilvane
