#include <gilvane/utilities/gvpoolresource.h>

#if __has_include(<memory_resource>)

#include "gvtestpeer.h"
#include "hookledger.h"
#include "sharedpoolsupport.h"
#include "throwsites.h"

#include <gilvane/base/gvrawblock.h>

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <list>
#include <map>
#include <memory>
#include <memory_resource>
#include <new>
#include <numeric>
#include <string>
#include <type_traits>
#include <unordered_map>
#include <utility>
#include <vector>

namespace Gilvane {

namespace {

using Peer = GVTestPeer;

constexpr std::size_t headerBytes = GVPoolResource::headerBytes;
constexpr std::size_t strictest = alignof(std::max_align_t);

// The resource behind. It takes its memory from the allocation hooks, and knows what it gave.
class Behind : public std::pmr::memory_resource {
  public:
    struct Request {
        std::size_t bytes;
        std::size_t alignment;
        void* start = nullptr; // of the raw block
        bool operator==(const Request& other) const { return bytes == other.bytes && alignment == other.alignment; }
    };

    ~Behind() override { EXPECT_TRUE(live.empty()) << "something was not given back"; }

    std::map<void*, Request> live;
    std::size_t requestCount = 0;

  private:
    void* do_allocate(std::size_t bytes, std::size_t alignment) override {
        ++requestCount;
        // The hooks align as usual; for more there is room to move.
        std::size_t room = alignment > strictest ? bytes + alignment : bytes;
        void* const start = detail::allocateRawBlock(static_cast<unsigned int>(room));
        if (start == nullptr) {
            throw std::bad_alloc();
        }
        void* memory = start;
        EXPECT_NE(std::align(alignment, bytes, memory, room), nullptr);
        live[memory] = {bytes, alignment, start};
        return memory;
    }
    void do_deallocate(void* memory, std::size_t bytes, std::size_t alignment) override {
        const auto found = live.find(memory);
        ASSERT_NE(found, live.end());
        EXPECT_TRUE((found->second == Request{bytes, alignment}));
        void* const start = found->second.start;
        live.erase(found);
        detail::releaseRawBlock(start);
    }
    bool do_is_equal(const std::pmr::memory_resource& other) const noexcept override { return this == &other; }
};

// Takes what is free, so that the pool is dry.
std::vector<unsigned int> takeAllFree(GVMemoryPool& pool) {
    std::vector<unsigned int> tokens;
    while (!Peer::freeTokens(pool).empty()) {
        tokens.push_back(pool.getTokenForFreeMemoryObject());
    }
    return tokens;
}

// By way of a number, since the compiler takes what a resource gives for the start of an object.
detail::GVPoolResourceHeader headerBefore(const void* bytes) {
    const auto address = reinterpret_cast<std::uintptr_t>(bytes) - sizeof(detail::GVPoolResourceHeader);
    return *reinterpret_cast<const detail::GVPoolResourceHeader*>(address);
}

std::size_t addressOf(const void* bytes) { return reinterpret_cast<std::uintptr_t>(bytes); }

} // namespace

static_assert(std::is_base_of_v<std::pmr::memory_resource, GVPoolResource>);
static_assert(!std::is_copy_constructible_v<GVPoolResource> && !std::is_copy_assignable_v<GVPoolResource>);
static_assert(std::is_nothrow_constructible_v<GVPoolResource, GVMemoryPool&>);
static_assert(!std::is_convertible_v<GVMemoryPool&, GVPoolResource>);

TEST(PoolResource, givesASmallRequestABlockWithTheTokenInFront) {
    GVMemoryPool pool(2, 64, false);
    Behind behind;
    GVPoolResource resource(pool, &behind);
    const unsigned int next = Peer::freeTokens(pool).back();
    void* const bytes = resource.allocate(40, 8);
    EXPECT_EQ(bytes, static_cast<char*>(pool.getMemoryForToken(next)) + headerBytes);
    const detail::GVPoolResourceHeader header = headerBefore(bytes);
    EXPECT_EQ(header.theToken, next);
    EXPECT_TRUE(header.isInBlock);
    EXPECT_EQ(pool.numberOfObjectsInPoolInUse(), 1U);
    resource.deallocate(bytes, 40, 8);
    EXPECT_EQ(pool.numberOfObjectsInPoolInUse(), 0U);
    EXPECT_EQ(Peer::freeTokens(pool).back(), next) << "what was given back last is lent first";
    EXPECT_EQ(behind.requestCount, 0U);
}

TEST(PoolResource, takesForSmallWhatFitsBehindTheHeaderAndIsAlignedAsUsual) {
    GVMemoryPool pool(1, 64, false);
    const GVPoolResource resource(pool);
    EXPECT_TRUE(resource.isSmall(0, 1));
    EXPECT_TRUE(resource.isSmall(64 - headerBytes, strictest));
    EXPECT_FALSE(resource.isSmall(64 - headerBytes + 1, 1));
    EXPECT_FALSE(resource.isSmall(1, 2 * strictest));
    EXPECT_FALSE(resource.isSmall((std::numeric_limits<std::size_t>::max)(), 1));

    GVSharedPool onlyHeaders(1, headerBytes);
    EXPECT_TRUE(GVPoolResource(onlyHeaders).isSmall(0, 1));
    EXPECT_FALSE(GVPoolResource(onlyHeaders).isSmall(1, 1));
    GVSharedPool tooShort(1, headerBytes - 1);
    GVTokenCache cache(tooShort, 1);
    EXPECT_FALSE(GVPoolResource(tooShort).isSmall(0, 1));
    EXPECT_FALSE(GVPoolResource(cache).isSmall(0, 1));
    GVMemoryPool withoutBytes(1, false);
    EXPECT_FALSE(GVPoolResource(withoutBytes).isSmall(0, 1));
}

TEST(PoolResource, handsLargeRequestsOnAsTheyAre) {
    GVMemoryPool pool(1, 64, false);
    Behind behind;
    GVPoolResource resource(pool, &behind);
    void* const large = resource.allocate(65 - headerBytes, 1);
    void* const aligned = resource.allocate(1, 2 * strictest);
    EXPECT_TRUE((behind.live.at(large) == Behind::Request{65 - headerBytes, 1}));
    EXPECT_TRUE((behind.live.at(aligned) == Behind::Request{1, 2 * strictest}));
    EXPECT_EQ(pool.numberOfObjectsInPoolInUse(), 0U);
    resource.deallocate(large, 65 - headerBytes, 1);
    resource.deallocate(aligned, 1, 2 * strictest);
    EXPECT_TRUE(behind.live.empty());
}

TEST(PoolResource, alignsForEveryAlignmentOfSmallRequests) {
    GVMemoryPool pool(8, 64, false);
    GVPoolResource resource(pool);
    for (std::size_t alignment = 1; alignment <= strictest; alignment *= 2) {
        void* const bytes = resource.allocate(8, alignment);
        EXPECT_EQ(addressOf(bytes) % alignment, 0U);
        std::memset(bytes, 0xff, 8);
        resource.deallocate(bytes, 8, alignment);
        EXPECT_EQ(pool.numberOfObjectsInPoolInUse(), 0U);
    }
}

TEST(PoolResource, givesRequestsForNothingAddressesOfTheirOwn) {
    GVMemoryPool pool(2, 64, false);
    GVPoolResource resource(pool);
    void* const first = resource.allocate(0, 1);
    void* const second = resource.allocate(0, 1);
    EXPECT_NE(first, second);
    EXPECT_EQ(pool.numberOfObjectsInPoolInUse(), 2U);
    resource.deallocate(first, 0, 1);
    resource.deallocate(second, 0, 1);
    EXPECT_EQ(pool.numberOfObjectsInPoolInUse(), 0U);
}

TEST(PoolResource, isEqualToItselfAlone) {
    GVMemoryPool pool(2, 64, false);
    const GVPoolResource resource(pool);
    const GVPoolResource other(pool);
    EXPECT_TRUE(resource.is_equal(resource));
    EXPECT_FALSE(resource.is_equal(other));
    EXPECT_EQ(resource.getUpstreamResource(), std::pmr::get_default_resource());
}

TEST(PoolResource, worksOverEachKindOfPool) {
    GVMemoryPool unlocked(4, 64, false);
    GVMemoryPool locked(4, 64, true);
    GVSharedPool shared(4, 64);
    GVTokenCache cache(shared, 2);
    Behind behind;
    GVPoolResource overUnlocked(unlocked, &behind);
    GVPoolResource overLocked(locked, &behind);
    GVPoolResource overShared(shared, &behind);
    GVPoolResource overCache(cache, &behind);
    {
        std::pmr::list<int> first({1, 2}, &overUnlocked);
        const std::pmr::list<int> second({3, 4}, &overLocked);
        const std::pmr::list<int> third({5, 6}, &overShared);
        const std::pmr::list<int> fourth({7}, &overCache);
        EXPECT_EQ(unlocked.numberOfObjectsInPoolInUse(), 2U);
        EXPECT_EQ(locked.numberOfObjectsInPoolInUse(), 2U);
        EXPECT_EQ(shared.getStatistics().theLentCount, 3U);
        first.pop_back();
        EXPECT_EQ(unlocked.numberOfObjectsInPoolInUse(), 1U);
    }
    EXPECT_EQ(unlocked.numberOfObjectsInPoolInUse(), 0U);
    EXPECT_EQ(locked.numberOfObjectsInPoolInUse(), 0U);
    EXPECT_EQ(shared.getStatistics().theLentCount, 0U);
    EXPECT_EQ(shared.getStatistics().theCachedCount, 1U) << "returned into the cache";
    cache.flush();
    expectThatNothingIsLost(shared);
    EXPECT_EQ(behind.requestCount, 0U);
}

TEST(DryPoolResource, goesToTheResourceBehindAndGrowsNothing) {
    GVMemoryPool pool(1, 64, false);
    Behind behind;
    GVPoolResource resource(pool, &behind);
    void* const first = resource.allocate(24, 8);
    void* const second = resource.allocate(24, 8);
    EXPECT_EQ(pool.numberOfObjectsInPoolInUse(), 1U);
    EXPECT_EQ(Peer::table(pool).getUsedCount(), 1U) << "no growth";
    ASSERT_EQ(behind.live.size(), 1U);
    EXPECT_TRUE((behind.live.begin()->second == Behind::Request{24 + headerBytes, headerBytes}));
    EXPECT_EQ(second, static_cast<char*>(behind.live.begin()->first) + headerBytes);
    resource.deallocate(first, 24, 8);
    void* const third = resource.allocate(24, 8);
    EXPECT_EQ(third, first) << "a block again, as soon as there is one";
    resource.deallocate(second, 24, 8);
    EXPECT_TRUE(behind.live.empty());
    resource.deallocate(third, 24, 8);
    EXPECT_EQ(pool.numberOfObjectsInPoolInUse(), 0U);
}

TEST(DryPoolResource, doesSoOverSharedPoolsAndCachesWithoutWaiting) {
    GVSharedPool pool(2, 64);
    Behind behind;
    {
        GVTokenCache cache(pool, 1);
        GVPoolResource overShared(pool, &behind);
        GVPoolResource overCache(cache, &behind);
        const std::pmr::list<int> first({1, 2, 3}, &overShared);
        const std::pmr::list<int> second({4, 5}, &overCache);
        EXPECT_EQ(behind.live.size(), 3U);
        EXPECT_EQ(pool.getStatistics().theWaitCount, 0U);
    }
    expectThatNothingIsLost(pool);
}

TEST(DryPoolResource, isOneWhosePoolWasClosed) {
    GVSharedPool pool(2, 64);
    Behind behind;
    GVPoolResource resource(pool, &behind);
    {
        std::pmr::list<int> numbers({1}, &resource);
        pool.close();
        numbers.push_back(2);
        EXPECT_EQ(pool.getStatistics().theLentCount, 1U);
        EXPECT_EQ(behind.live.size(), 1U);
    }
    EXPECT_EQ(pool.getStatistics().theFreeCount, 2U);
}

TEST(DryPoolResource, lendsNothingWhenTheResourceBehindRefusesToo) {
    HookLedger ledger;
    GVMemoryPool pool(1, 64, false);
    Behind behind;
    GVPoolResource resource(pool, &behind);
    void* const first = resource.allocate(24, 8);
    ledger.refuseFrom(0);
    EXPECT_THROW(static_cast<void>(resource.allocate(24, 8)), std::bad_alloc);
    EXPECT_THROW(static_cast<void>(resource.allocate(1000, 8)), std::bad_alloc);
    EXPECT_EQ(ledger.refusedCount(), 2U) << "a growth of the pool is not tried";
    resource.deallocate(first, 24, 8);
    ledger.refuseNothing();
    EXPECT_EQ(pool.numberOfObjectsInPoolInUse(), 0U);
}

TEST(PoolResourceBlocks, thatTheHooksDoNotAlignGoBackUnused) {
    struct HeaderWordIgnored {
        static void* allocate(unsigned int bytes) { return std::malloc(bytes); } // aligns what is behind the word less
        static void release(void* block) { std::free(block); }
    };
    GVObject::SetAllocationHooks(&HeaderWordIgnored::allocate, &HeaderWordIgnored::release);
    {
        GVMemoryPool pool(1, 64, false);
        GVPoolResource resource(pool);
        const bool isStrictlyAligned =
            addressOf(pool.getMemoryForToken(Peer::freeTokens(pool).back())) % strictest == 0;
        void* const word = resource.allocate(8, alignof(void*));
        EXPECT_EQ(pool.numberOfObjectsInPoolInUse(), 1U) << "it is aligned for what was asked";
        EXPECT_EQ(addressOf(word) % alignof(void*), 0U);
        resource.deallocate(word, 8, alignof(void*));
        void* const strict = resource.allocate(8, strictest);
        EXPECT_EQ(addressOf(strict) % strictest, 0U);
        EXPECT_EQ(pool.numberOfObjectsInPoolInUse(), isStrictlyAligned ? 1U : 0U);
        resource.deallocate(strict, 8, strictest);
        EXPECT_EQ(pool.numberOfObjectsInPoolInUse(), 0U);
    }
    GVObject::SetAllocationHooks(nullptr, nullptr);
}

TEST(PoolResourceBlocks, areAlignedForTheHeaderToo) {
    alignas(64) unsigned char storage[128] = {};
    GVMemoryPool pool(1, 64, false);
    GVMemoryPoolObject& block = *Peer::table(pool).get(Peer::freeTokens(pool).back())->theValue;
    void* const own = std::exchange(Peer::bytes(block), storage + 1);
    Behind behind;
    GVPoolResource resource(pool, &behind);
    void* const bytes = resource.allocate(1, 1);
    EXPECT_EQ(behind.live.size(), 1U);
    EXPECT_EQ(pool.numberOfObjectsInPoolInUse(), 0U);
    resource.deallocate(bytes, 1, 1);
    Peer::bytes(block) = own;
}

TEST(PoolResourceBlocks, ofAnotherSizeAreUsedAsLongAsTheyAreLongEnough) {
    GVMemoryPool pool(2, 64, false);
    Behind behind;
    GVPoolResource resource(pool, &behind);
    pool.setNumberOfBytesInPoolObject(32);
    EXPECT_TRUE(resource.isSmall(48 - headerBytes, 1)) << "as it was when the resource was made";
    void* const tooLong = resource.allocate(33 - headerBytes, 1);
    EXPECT_EQ(pool.numberOfObjectsInPoolInUse(), 0U - 2) << "none is lent; two tokens are stale";
    EXPECT_EQ(behind.live.size(), 1U);
    void* const fits = resource.allocate(32 - headerBytes, 1);
    EXPECT_EQ(behind.live.size(), 1U);
    resource.deallocate(tooLong, 33 - headerBytes, 1);
    resource.deallocate(fits, 32 - headerBytes, 1);
}

TEST(PoolResourceBlocks, passOverTokensThatNameNone) {
    GVMemoryPool pool(2, 64, false);
    pool.setNumberOfBytesInPoolObject(128); // leaves two dead tokens below the new ones
    Behind behind;
    GVPoolResource resource(pool, &behind);
    {
        const std::pmr::list<int> numbers({1, 2, 3}, &resource);
        EXPECT_EQ(behind.live.size(), 1U);
        EXPECT_TRUE(Peer::freeTokens(pool).empty()) << "the dead tokens have left the list";
    }
    EXPECT_EQ(pool.numberOfObjectsInPoolInUse(), 0U);
}

TEST(PoolResourceReturn, needsNoMemory) {
    HookLedger ledger;
    GVMemoryPool pool(1, 64, false);
    std::vector<unsigned int> lent = takeAllFree(pool);
    pool.resizePool(2);
    lent.push_back(pool.getTokenForFreeMemoryObject());
    pool.resizePool(3); // three blocks, and room for fewer tokens
    ASSERT_LT(Peer::freeTokens(pool).capacity(), 3U);
    Behind behind;
    GVPoolResource resource(pool, &behind);
    void* const bytes = resource.allocate(8, 8);
    EXPECT_EQ(behind.requestCount, 0U);
    ledger.refuseFrom(0);
    for (const unsigned int token : lent) {
        pool.releaseObject(token);
    }
    resource.deallocate(bytes, 8, 8);
    EXPECT_EQ(ledger.refusedCount(), 0U);
    EXPECT_EQ(pool.numberOfObjectsInPoolInUse(), 0U);
    ledger.refuseNothing();
}

TEST(PoolResourceReturn, whoseRoomIsRefusedBeforehandLeavesTheBlockInThePool) {
    HookLedger ledger;
    GVMemoryPool pool(1, 64, false);
    const std::vector<unsigned int> lent = takeAllFree(pool);
    pool.resizePool(2);
    ASSERT_LT(Peer::freeTokens(pool).capacity(), 2U);
    Behind behind;
    GVPoolResource resource(pool, &behind);
    ledger.refuseOnce(0);
    void* const bytes = resource.allocate(8, 8);
    EXPECT_EQ(ledger.refusedCount(), 1U);
    EXPECT_EQ(behind.live.size(), 1U);
    EXPECT_EQ(pool.numberOfObjectsInPoolInUse(), 1U) << "the one that was lent before";
    resource.deallocate(bytes, 8, 8);
    pool.releaseObject(lent.front());
    EXPECT_EQ(pool.numberOfObjectsInPoolInUse(), 0U);
}

TEST(PoolResourceReturn, thatFindsNoRoomAfterAGrowthThrowsNothing) {
    HookLedger ledger;
    GVMemoryPool pool(1, 64, false);
    GVPoolResource resource(pool);
    void* const bytes = resource.allocate(8, 8);
    pool.resizePool(2); // the one new token takes the room that was made
    ledger.refuseFrom(0);
    resource.deallocate(bytes, 8, 8);
    EXPECT_EQ(ledger.refusedCount(), 1U);
    ledger.refuseNothing();
    EXPECT_EQ(pool.numberOfObjectsInPoolInUse(), 1U) << "the block stays in use";
}

TEST(PoolResourceReturn, ofWhatASharedPoolHasBackAlreadyIsRefused) {
    GVSharedPool pool(1, 64);
    GVTokenCache cache(pool, 1);
    GVPoolResource overShared(pool);
    GVPoolResource overCache(cache);
    void* const bytes = overShared.allocate(8, 8);
    const detail::GVPoolResourceHeader header = headerBefore(bytes);
    alignas(strictest) unsigned char copy[64] = {}; // the block's own bytes may not be read once it is free
    std::memcpy(copy + headerBytes - sizeof(header), &header, sizeof(header));
    overShared.deallocate(bytes, 8, 8);
    for (GVPoolResource* const resource : {&overShared, &overCache}) {
        expectGVException([&] { resource->deallocate(copy + headerBytes, 8, 8); }, gvinvalidstate, sharedPoolFile,
                          freeAlready);
    }
    expectThatNothingIsLost(pool);
}

// --- containers, with every request refused in turn -------------------------------------------------------------------

namespace {

// Fills each kind of container, removes from it, and looks whether it holds what it should.
void useContainers(std::pmr::memory_resource& resource) {
    constexpr int most = 10;
    std::pmr::list<int> list(&resource);
    std::pmr::map<int, std::pmr::string> map(&resource);
    std::pmr::unordered_map<int, int> table(&resource);
    std::pmr::string text(&resource);
    std::pmr::vector<std::pmr::string> texts(&resource);
    for (int number = 0; number < most; ++number) {
        list.push_back(number);
        map.try_emplace(number, "a text that is too long for the string itself");
        table[number] = number;
        text += "some more of it ";
        texts.emplace_back(text);
    }
    list.remove_if([](int number) { return number % 2 != 0; });
    map.erase(map.begin(), map.find(most / 2));
    table.erase(3);
    texts.resize(most / 2);
    EXPECT_EQ(list.size(), most / 2U);
    EXPECT_EQ(map.size(), most / 2U);
    EXPECT_EQ(map.at(most - 1), "a text that is too long for the string itself");
    EXPECT_EQ(table.size(), most - 1U);
    EXPECT_EQ(table.at(most - 1), most - 1);
    EXPECT_EQ(texts.back().size(), 16U * most / 2);
    list.insert(list.begin(), most, 1);
    EXPECT_EQ(std::accumulate(list.begin(), list.end(), 0), most / 2 * (most / 2 - 1) + most)
        << "the even ones and the ones";
}

// Has every request to the hooks refused, once each and from there on, and expects after each that all came back.
// `isAllFree` says whether the pool has all its blocks.
template <typename Lender, typename IsAllFree>
void refuseEachInTurn(HookLedger& ledger, Lender& lender, IsAllFree isAllFree) {
    for (const bool isOnce : {true, false}) {
        std::size_t refused = 0;
        for (bool isComplete = false; !isComplete;) {
            const std::size_t liveBefore = ledger.liveBlocks().size();
            {
                Behind behind;
                GVPoolResource resource(lender, &behind);
                isOnce ? ledger.refuseOnce(refused) : ledger.refuseFrom(refused);
                try {
                    useContainers(resource);
                    isComplete = true;
                } catch (const std::bad_alloc&) {
                    ++refused;
                }
                ledger.refuseNothing();
                EXPECT_TRUE(behind.live.empty());
            }
            EXPECT_TRUE(isAllFree());
            EXPECT_EQ(ledger.liveBlocks().size(), liveBefore);
        }
        EXPECT_GT(refused, 10U) << "there were requests to refuse";
    }
}

} // namespace

TEST(PoolResourceContainers, loseNothingWhicheverRequestIsRefusedOverAMemoryPool) {
    for (const bool useMutex : {false, true}) {
        for (const unsigned int numberOfBlocks : {1U, 30U, 200U}) {
            HookLedger ledger;
            GVMemoryPool pool(numberOfBlocks, 64, useMutex);
            refuseEachInTurn(ledger, pool, [&] { return pool.numberOfObjectsInPoolInUse() == 0; });
        }
    }
}

TEST(PoolResourceContainers, loseNothingWhicheverRequestIsRefusedOverASharedPool) {
    for (const unsigned int numberOfBlocks : {1U, 30U, 200U}) {
        HookLedger ledger;
        GVSharedPool pool(numberOfBlocks, 64);
        refuseEachInTurn(ledger, pool, [&] { return pool.getStatistics().theFreeCount == numberOfBlocks; });
    }
}

TEST(PoolResourceContainers, loseNothingWhicheverRequestIsRefusedOverACache) {
    for (const unsigned int numberOfBlocks : {1U, 30U, 200U}) {
        HookLedger ledger;
        GVSharedPool pool(numberOfBlocks, 64);
        GVTokenCache cache(pool, 8);
        refuseEachInTurn(ledger, cache, [&] { return pool.getStatistics().theLentCount == 0; });
        cache.flush();
        expectThatNothingIsLost(pool);
    }
}

} // namespace Gilvane

#endif
