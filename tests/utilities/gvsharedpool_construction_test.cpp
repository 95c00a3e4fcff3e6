#include <gilvane/utilities/gvsharedpool.h>

#include "gvtestpeer.h"
#include "hookledger.h"
#include "sharedpoolsupport.h"
#include "throwsites.h"

#include <gilvane/base/gvexception.h>
#include <gilvane/utilities/gvtokencache.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <new>
#include <set>
#include <sstream>
#include <type_traits>
#include <vector>

namespace Gilvane {

namespace {

using Peer = GVTestPeer;

unsigned int theGap = 0;

// Lets the counter of tokens jump with each allocation.
void* allocateWithGaps(unsigned int numberOfBytes) {
    Peer::nextToken() += theGap;
    return HookLedger::allocate(numberOfBytes);
}

// Builds with the allocation that comes after `before` others refused. Whether it was built.
bool isBuiltWithARefusal(HookLedger& ledger, std::size_t before) {
    ledger.refuseOnce(before);
    bool isBuilt = false;
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
    return isBuilt;
}

// The bytes that the hooks are asked for first, and refuse; 0 when they are not asked.
template <typename Operation>
unsigned int firstRequestOf(Operation operation) {
    HookLedger ledger;
    ledger.refuseOnce(0);
    EXPECT_ANY_THROW(operation());
    return ledger.allocationCount() == 0 ? 0 : ledger.requests().front();
}

unsigned int bytesOfTable(unsigned int slots) {
    return firstRequestOf([&] { TokenTable().resize(slots - 1); });
}

unsigned int firstRequestOfPool(unsigned int numberOfObjects) {
    return firstRequestOf([&] { const GVSharedPool pool(numberOfObjects, 0); });
}

} // namespace

static_assert(!std::is_copy_constructible_v<GVSharedPool> && !std::is_copy_assignable_v<GVSharedPool>);
static_assert(!std::is_move_constructible_v<GVSharedPool> && !std::is_move_assignable_v<GVSharedPool>);
static_assert(sizeof(void*) != 8 || sizeof(detail::GVSharedBlock) == 16, "what a block costs beside its own memory");

TEST(SharedPoolConstruction, buildsAllBlocksAndLendsEachOnce) {
    GVSharedPool pool(100, 24);
    EXPECT_EQ(pool.getNumberOfObjects(), 100U);
    EXPECT_EQ(pool.getBytesInEachObject(), 24U);
    const std::vector<unsigned int> tokens = borrowAll(pool);
    EXPECT_EQ(std::set<unsigned int>(tokens.begin(), tokens.end()).size(), 100U);
    std::set<void*> addresses;
    for (const unsigned int token : tokens) {
        void* const bytes = pool.getMemoryForToken(token);
        std::memset(bytes, static_cast<int>(token), 24);
        addresses.insert(bytes);
    }
    EXPECT_EQ(addresses.size(), 100U);
}

TEST(SharedPoolConstruction, takesItsTokensFromTheProcessesCounter) {
    Peer::nextToken() = 700;
    GVSharedPool pool(3, 16);
    EXPECT_EQ(borrowAll(pool), (std::vector<unsigned int>{702, 701, 700}));
    EXPECT_EQ(GVMemoryPoolObject().getToken(), 703U);
}

TEST(SharedPoolConstruction, withoutBlocksIsRefused) {
    const HookLedger ledger;
    for (const unsigned int length : {16U, 4294967295U}) {
        expectGVException([&] { const GVSharedPool pool(0, length); }, gvinvalidstate, sharedPoolFile,
                          "A shared pool needs at least one block.");
    }
}

TEST(SharedPoolConstruction, ofBlocksWithoutBytesGivesNullAsTheirAddresses) {
    GVSharedPool pool(2, 0);
    const unsigned int token = *pool.tryBorrow();
    EXPECT_EQ(pool.getMemoryForToken(token), nullptr);
    EXPECT_TRUE(pool.tryBorrow().has_value());
    EXPECT_FALSE(pool.tryBorrow().has_value());
    expectGVException([&] { pool.getMemoryForToken(token + 2); }, gvinvalidstate, sharedPoolFile, notOfThisPool);
    pool.releaseObject(token);
    expectGVException([&] { pool.releaseObject(token); }, gvinvalidstate, sharedPoolFile, freeAlready);
}

TEST(SharedPoolConstruction, givesEverythingBackWhenAnyAllocationIsRefused) {
    HookLedger ledger;
    std::size_t before = 0;
    while (!isBuiltWithARefusal(ledger, before)) {
        ++before;
    }
    EXPECT_GT(before, 10U) << "table, free list, two for each block, directory";
    EXPECT_EQ(ledger.refusedCount(), before);
}

TEST(SharedPoolConstruction, refusesABlockSizeThatWrapsWithItsHeaderWord) {
    const HookLedger ledger;
    EXPECT_THROW(GVSharedPool(1, 4294967295U), std::bad_alloc);
    EXPECT_THROW(GVSharedPool(1, 4294967295U - sizeof(void*) + 1), std::bad_alloc);
    EXPECT_EQ(ledger.allocationCount(), 0U);
}

TEST(SharedPoolConstruction, asksTheHooksForTheLongestBlockThatDoesNotWrap) {
    HookLedger ledger;
    ledger.refuseFrom(3); // table, free list and the block's object come before its bytes
    EXPECT_THROW(GVSharedPool(6, 4294967295U - sizeof(void*)), std::bad_alloc);
    EXPECT_EQ(ledger.requests().back(), 4294967295U);
}

TEST(SharedPoolConstruction, asksForATableThatItsBlocksDoNotFillToTwoThirds) {
    const unsigned int header = sizeof(void*);
    EXPECT_EQ(firstRequestOfPool(4), header + 4 * sizeof(unsigned int)) << "8 slots lie in the pool; the free list";
    EXPECT_EQ(firstRequestOfPool(5), bytesOfTable(16));
    EXPECT_EQ(firstRequestOfPool(9), bytesOfTable(16));
    EXPECT_EQ(firstRequestOfPool(10), bytesOfTable(32));
    EXPECT_EQ(firstRequestOfPool(20), bytesOfTable(32));
    EXPECT_EQ(firstRequestOfPool(21), bytesOfTable(64));
}

TEST(SharedPoolConstruction, asksForADirectoryFromItsFirstTokenToItsLast) {
    const HookLedger ledger;
    const GVSharedPool pool(5, 16);
    EXPECT_EQ(ledger.requests().back(), sizeof(void*) + 5 * sizeof(detail::GVSharedBlock));
}

TEST(SharedPoolConstruction, asksForTheLargestTableOf32BitsAndRefusesTheNext) {
    constexpr bool has64Bits = sizeof(void*) == 8; // an entry has 32 bytes then, and 20 otherwise
    constexpr unsigned int mostBlocks = has64Bits ? 44739241 : 89478484;
    EXPECT_EQ(firstRequestOfPool(mostBlocks), bytesOfTable(1U << (has64Bits ? 26 : 27)));
    const HookLedger ledger;
    EXPECT_THROW(GVSharedPool(mostBlocks + 1, 0), std::bad_alloc);
    EXPECT_EQ(ledger.allocationCount(), 0U);
}

TEST(SharedPoolConstruction, refusesACountWhoseTablesExceedTheHooks32Bits) {
    const HookLedger ledger;
    EXPECT_THROW(GVSharedPool(4294967295U, 0), std::bad_alloc);
    EXPECT_THROW(GVSharedPool(2147483648U, 0), std::bad_alloc);
    EXPECT_THROW(GVSharedPool(100000000U, 0), std::bad_alloc);
    EXPECT_EQ(ledger.allocationCount(), 0U);
}

TEST(SharedPoolConstruction, isTheLastThatAllocates) {
    const HookLedger ledger;
    GVSharedPool pool(50, 16);
    const std::size_t before = ledger.allocationCount();
    const std::vector<unsigned int> tokens = borrowAll(pool);
    EXPECT_FALSE(pool.borrowFor(std::chrono::milliseconds(1)).has_value());
    returnAll(pool, tokens);
    EXPECT_EQ(ledger.allocationCount(), before);
}

TEST(SharedPoolConstruction, worksWithTokensThatPass2ToThe32) {
    Peer::nextToken() = 4294967294U;
    GVSharedPool pool(4, 16);
    const std::vector<unsigned int> tokens = borrowAll(pool);
    EXPECT_EQ(tokens, (std::vector<unsigned int>{1, 0, 4294967295U, 4294967294U}));
    for (const unsigned int token : tokens) {
        EXPECT_NE(pool.getMemoryForToken(token), nullptr);
    }
    for (const unsigned int token : {2U, 4294967293U, 2147483648U}) {
        expectGVException([&] { pool.getMemoryForToken(token); }, gvinvalidstate, sharedPoolFile, notOfThisPool);
    }
    returnAll(pool, tokens);
    expectThatNothingIsLost(pool);
}

TEST(SharedPoolConstruction, findsAddressesAtOnceWhereThereAreNoGaps) {
    Peer::nextToken() = 4294967294U;
    GVSharedPool pool(4, 16);
    const detail::GVSharedDirectory& directory = detail::GVSharedPoolAccess::directory(pool);
    const auto notAtOnce = [&pool]() -> void* { return &pool; };
    for (const unsigned int token : {4294967294U, 4294967295U, 0U, 1U}) {
        EXPECT_EQ(directory.getBytes(token, notAtOnce), pool.getMemoryForToken(token));
    }
    for (const unsigned int token : {4294967293U, 2U}) {
        EXPECT_EQ(directory.getBytes(token, notAtOnce), &pool);
    }
}

TEST(SharedPoolConstruction, findsNoAddressAtOnceBesideGaps) {
    const HookLedger ledger;
    GVObject::SetAllocationHooks(&allocateWithGaps, &HookLedger::release);
    theGap = 2;
    Peer::nextToken() = 0;
    {
        GVSharedPool pool(2, 16);
        theGap = 0;
        const detail::GVSharedDirectory& directory = detail::GVSharedPoolAccess::directory(pool);
        for (unsigned int token = 0; token < 20; ++token) {
            EXPECT_EQ(directory.getBytes(token, [&pool]() -> void* { return &pool; }), &pool);
        }
        for (const unsigned int token : borrowAll(pool)) {
            EXPECT_EQ(pool.getMemoryForToken(token), Peer::innerPool(pool).getMemoryForToken(token));
        }
    }
}

TEST(SharedPoolConstruction, refusesNumbersInTheGapsBetweenItsTokens) {
    const HookLedger ledger;
    GVObject::SetAllocationHooks(&allocateWithGaps, &HookLedger::release);
    theGap = 2;
    Peer::nextToken() = 4294967285U;
    {
        GVSharedPool pool(4, 16); // two allocations a block
        theGap = 0;
        const std::vector<unsigned int> tokens = borrowAll(pool);
        ASSERT_EQ(tokens.size(), 4U);
        EXPECT_EQ(tokens[2] - tokens[3], 5U);
        EXPECT_LT(tokens[0], tokens[3]) << "they pass 2^32, too";
        GVTokenCache cache(pool);
        const std::set<unsigned int> known(tokens.begin(), tokens.end());
        for (unsigned int token = tokens.back() - 6; token != tokens.front() + 6; ++token) {
            if (known.count(token) != 0) {
                EXPECT_NE(pool.getMemoryForToken(token), nullptr);
                continue;
            }
            expectGVException([&] { pool.getMemoryForToken(token); }, gvinvalidstate, sharedPoolFile, notOfThisPool);
            expectGVException([&] { pool.releaseObject(token); }, gvinvalidstate, sharedPoolFile, notOfThisPool);
            expectGVException([&] { cache.getMemoryForToken(token); }, gvinvalidstate, sharedPoolFile, notOfThisPool);
            expectGVException([&] { cache.releaseObject(token); }, gvinvalidstate, sharedPoolFile, notOfThisPool);
        }
        returnAll(pool, tokens);
        expectThatNothingIsLost(pool);
    }
}

TEST(SharedPoolConstruction, givesEverythingBackWhenTheGapsMakeTheDirectoryTooLarge) {
    const HookLedger ledger;
    GVObject::SetAllocationHooks(&allocateWithGaps, &HookLedger::release);
    theGap = 400000000;
    EXPECT_THROW(GVSharedPool(2, 16), std::bad_alloc);
    theGap = 0;
    EXPECT_EQ(ledger.liveBlocks().size(), 0U);
}

TEST(SharedPoolConstruction, byThreadsAtOnceGivesEachPoolTokensInARow) {
    static constexpr unsigned int blocks = 200;
    std::array<std::vector<unsigned int>, 3> firsts;
    runTogether(3, [&firsts](unsigned int number) {
        for (int round = 0; round < 30; ++round) {
            GVSharedPool pool(blocks, 8);
            std::vector<unsigned int> tokens = borrowAll(pool);
            EXPECT_EQ(tokens.size(), blocks);
            EXPECT_EQ(tokens.front() - tokens.back(), blocks - 1);
            firsts[number].push_back(tokens.back());
        }
    });
    std::vector<unsigned int> all;
    for (const std::vector<unsigned int>& first : firsts) {
        all.insert(all.end(), first.begin(), first.end());
    }
    std::sort(all.begin(), all.end());
    for (std::size_t position = 1; position < all.size(); ++position) {
        EXPECT_GE(all[position] - all[position - 1], blocks) << "two pools share tokens";
    }
}

TEST(SharedPoolDirectory, ofNoBlocksFindsNone) {
    const detail::GVSharedDirectory directory;
    EXPECT_EQ(directory.getBlocks(), nullptr);
    EXPECT_EQ(directory.find(0), nullptr);
    EXPECT_FALSE(directory.isLent(0));
    int elsewhere = 0;
    EXPECT_EQ(directory.getBytes(0, [&]() -> void* { return &elsewhere; }), &elsewhere);
}

TEST(SharedPoolDirectory, tellsWhatIsLentFromAllElse) {
    using namespace detail;
    for (const GVSharedTokenState state : {gvnotoken, gvtokenfree, gvtokenlent, gvtokenback}) {
        GVSharedBlock block = {nullptr, {state}};
        EXPECT_EQ(GVSharedDirectory(&block, 7, 1, false, 0).isLent(7), state == gvtokenlent) << state;
    }
}

TEST(SharedPoolDestruction, deletesBlocksThatAreLent) {
    const HookLedger ledger;
    {
        GVSharedPool pool(3, 16);
        EXPECT_TRUE(pool.tryBorrow().has_value());
    }
    EXPECT_EQ(ledger.liveBlocks().size(), 0U);
}

TEST(SharedPoolDump, isThatOfThePoolInItWithTagsAround) {
    GVSharedPool pool(3, 16);
    std::ostringstream text;
    std::ostringstream inner;
    inner << Peer::innerPool(pool);
    EXPECT_EQ(&(text << pool), &text);
    EXPECT_EQ(text.str(), "<GVSharedPool>" + inner.str() + "</GVSharedPool>");
    std::ostringstream printed;
    EXPECT_EQ(&pool.print(printed), &printed);
    EXPECT_EQ(printed.str(), text.str());
}

TEST(SharedPoolFreeList, isThatOfThePoolInIt) {
    GVSharedPool pool(3, 16);
    const unsigned int token = *pool.tryBorrow();
    EXPECT_EQ(Peer::innerPool(pool).numberOfObjectsInPoolInUse(), 1U);
    EXPECT_EQ(Peer::freeTokens(Peer::innerPool(pool)).size(), 2U);
    EXPECT_EQ(Peer::innerPool(pool).getMemoryForToken(token), pool.getMemoryForToken(token));
    pool.releaseObject(token);
    EXPECT_EQ(Peer::freeTokens(Peer::innerPool(pool)).back(), token);
}

} // namespace Gilvane
