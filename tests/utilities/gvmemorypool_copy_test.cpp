// Comparing pools, and the copy that is made member by member.
#include "gvtestpeer.h"
#include "hookledger.h"

#include <gtest/gtest.h>

#include <type_traits>
#include <vector>

namespace Gilvane {

namespace {

using Tokens = std::vector<unsigned int, GVStdAllocator<unsigned int>>;

static_assert(std::is_copy_constructible_v<GVMemoryPool>, "a pool is copied member by member");
static_assert(!std::is_copy_assignable_v<GVMemoryPool>, "an assigned pool would lose its own blocks");
static_assert(!std::is_move_assignable_v<GVMemoryPool>, "an assigned pool would lose its own blocks");

// A copy of a pool, which must not be destroyed beside the original: of the copy's own memory, only that of the object
// and of the free list is given back, so the copied table must be a small one.
class Copy {
  public:
    explicit Copy(const GVMemoryPool& original) : theCopy(new GVMemoryPool(original)) {}
    Copy(const Copy&) = delete;
    Copy& operator=(const Copy&) = delete;
    ~Copy() {
        Tokens().swap(GVTestPeer::freeTokens(*theCopy));
        GVObject::operator delete(theCopy);
    }

    GVMemoryPool& operator*() const { return *theCopy; }

  private:
    GVMemoryPool* theCopy;
};

TEST(PoolCopy, takesEveryFieldOver) {
    const HookLedger ledger;
    GVTestPeer::nextToken() = 0;
    GVMemoryPool pool(3, 16, true);
    pool.resizePool(4);
    EXPECT_EQ(pool.getTokenForFreeMemoryObject(), 3U);
    const Copy holder(pool);
    GVMemoryPool& copy = *holder;
    EXPECT_EQ(GVTestPeer::freeTokens(copy), (Tokens{0, 1, 2}));
    EXPECT_EQ(GVTestPeer::initialNumberOfObjects(copy), 3U);
    EXPECT_EQ(GVTestPeer::bytesInEachObject(copy), 16U);
    EXPECT_EQ(GVTestPeer::mutexHandle(copy), GVTestPeer::mutexHandle(pool));
    EXPECT_TRUE(GVTestPeer::useMutexHandle(copy));
    EXPECT_EQ(GVTestPeer::nextToken(), 4U); // no block was built
}

TEST(PoolCopy, sharesTheBlocks) {
    const HookLedger ledger;
    GVTestPeer::nextToken() = 0;
    GVMemoryPool pool(4, 16, false);
    const Copy holder(pool);
    GVMemoryPool& copy = *holder;
    EXPECT_EQ(GVTestPeer::table(copy).getUsedCount(), 4U);
    for (unsigned int token = 0; token < 4; ++token) {
        ASSERT_NE(GVTestPeer::table(copy).get(token), nullptr);
        EXPECT_EQ(GVTestPeer::table(copy).get(token)->theValue, GVTestPeer::table(pool).get(token)->theValue);
        EXPECT_EQ(copy.getMemoryForToken(token), pool.getMemoryForToken(token));
    }
}

TEST(PoolCopy, hasAFreeListAndATableOfItsOwn) {
    const HookLedger ledger;
    GVTestPeer::nextToken() = 0;
    GVMemoryPool pool(3, 16, false);
    const Copy holder(pool);
    GVMemoryPool& copy = *holder;
    EXPECT_EQ(copy.getTokenForFreeMemoryObject(), 2U);
    EXPECT_EQ(GVTestPeer::freeTokens(pool), (Tokens{0, 1, 2}));
    GVTestPeer::table(copy).remove(1);
    EXPECT_NE(GVTestPeer::table(pool).get(1), nullptr);
}

TEST(PoolComparison, aPoolEqualsItself) {
    GVMemoryPool pool(3, 16, false);
    EXPECT_TRUE(pool == pool);
    EXPECT_FALSE(pool != pool);
}

TEST(PoolComparison, aPoolEqualsItselfEvenWhenItsTableMissesAKey) {
    //  slot   0   1   2   3   4   5   6   7
    //  token  0   x   .   .   .   .   8   .     8 is missed past the deleted slot
    GVMemoryPool pool(3, 16, false);
    TokenTable& table = GVTestPeer::table(pool);
    pool.makePool(0);
    for (const unsigned int token : {0U, 9U, 8U}) {
        table.insert(token, nullptr);
    }
    table.remove(9);
    ASSERT_FALSE(table == table);
    EXPECT_TRUE(pool == pool);
    EXPECT_FALSE(pool != pool);
}

TEST(PoolComparison, poolsOfTheSameBlocksAreEqualWhateverTheirFreeListsAndLocking) {
    GVTestPeer::nextToken() = 0;
    GVMemoryPool pool(3, 16, true);
    const Copy holder(pool);
    GVMemoryPool& copy = *holder;
    EXPECT_TRUE(pool == copy);
    EXPECT_FALSE(pool != copy);

    copy.getTokenForFreeMemoryObject();
    GVTestPeer::initialNumberOfObjects(copy) = 9;
    GVTestPeer::mutexHandle(copy) = nullptr;
    GVTestPeer::useMutexHandle(copy) = false;
    EXPECT_TRUE(pool == copy);
    EXPECT_TRUE(copy == pool);
    EXPECT_FALSE(pool != copy);
}

TEST(PoolComparison, poolsOfTheSameBlocksAndAnotherSizeAreUnequal) {
    GVMemoryPool pool(3, 16, false);
    const Copy holder(pool);
    GVTestPeer::bytesInEachObject(*holder) = 17;
    EXPECT_FALSE(pool == *holder);
    EXPECT_FALSE(*holder == pool);
    EXPECT_TRUE(pool != *holder);
}

TEST(PoolComparison, poolsThatHoldDifferentBlocksUnderTheSameTokensAreUnequal) {
    GVTestPeer::nextToken() = 0;
    const GVMemoryPool one(3, 0, false);
    GVTestPeer::nextToken() = 0;
    const GVMemoryPool other(3, 0, false);
    EXPECT_FALSE(one == other);
    EXPECT_TRUE(one != other);
}

TEST(PoolComparison, poolsOfDifferentTokensAreUnequal) {
    GVMemoryPool pool(3, 16, false);
    const Copy holder(pool);
    GVTestPeer::table(*holder).remove(GVTestPeer::freeTokens(pool).back());
    EXPECT_FALSE(pool == *holder);
    EXPECT_TRUE(pool != *holder);
}

TEST(PoolComparison, poolsWithoutBlocksAreEqualIfTheirSizesAre) {
    const GVMemoryPool one(3, false);
    const GVMemoryPool other(5, true);
    EXPECT_TRUE(one == other);
    const GVMemoryPool sized(0, 16, false);
    EXPECT_FALSE(one == sized);
    EXPECT_TRUE(one != sized);
}

} // namespace

} // namespace Gilvane
