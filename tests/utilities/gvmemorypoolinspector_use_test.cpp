// What the inspector says of pools that no one misused, and so in the hardened build too.
#include <gilvane/utilities/gvmemorypoolinspector.h>

#include "gvtestpeer.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>

namespace Gilvane {

namespace {

using Inspector = GVMemoryPoolInspector;
using Tokens = Inspector::TokenList;
using Peer = GVTestPeer;

TEST(PoolInspectorOfAUsedPool, namesTheTokensThatARebuildingLeftBehind) {
    Peer::nextToken() = 0;
    GVMemoryPool pool(2, 16, false);
    pool.setNumberOfBytesInPoolObject(32);
    const Inspector inspector(pool);
    EXPECT_EQ(inspector.getTokensUnknown(), (Tokens{0, 1}));
    EXPECT_EQ(inspector.getTokensTwiceFree(), Tokens());
    EXPECT_TRUE(inspector.hasFindings());
}

// Only the free list itself can be given one token twice where returns are checked.
TEST(PoolInspectorOfAUsedPool, namesATokenThatStandsTwiceInTheFreeList) {
    Peer::nextToken() = 0;
    GVMemoryPool pool(3, 16, false);
    Peer::freeTokens(pool) = {1, 2, 0, 1};
    const Inspector inspector(pool);
    EXPECT_EQ(inspector.getTokensTwiceFree(), (Tokens{1}));
    EXPECT_EQ(inspector.getTokensUnknown(), Tokens());
    EXPECT_TRUE(inspector.hasFindings());
}

TEST(PoolInspectorOfAUsedPool, showsASharedPoolWithBlocksInCachesAsLent) {
    Peer::nextToken() = 0;
    GVSharedPool pool(8, 16);
    GVTokenCache cache(pool, 4);
    EXPECT_EQ(cache.tryBorrow(), 7U);
    EXPECT_EQ(pool.tryBorrow(), 5U);
    const Inspector inspector(pool);
    EXPECT_EQ(inspector.getNumberOfBlocks(), 8U);
    EXPECT_EQ(inspector.getNumberOfFreeBlocks(), 5U);
    EXPECT_EQ(inspector.getNumberOfLentBlocks(), 3U) << "with the one in the cache";
    EXPECT_EQ(inspector.getBytesInEachObject(), 16U);
    EXPECT_FALSE(inspector.hasFindings());
    pool.releaseObject(5);
    EXPECT_EQ(Inspector(pool).getNumberOfFreeBlocks(), 6U) << "the lock is free again";
}

TEST(PoolInspectorOfAUsedPool, writesOfEachBlockWhetherItIsLent) {
    Peer::nextToken() = 0;
    GVMemoryPool pool(2, 16, false);
    pool.getTokenForFreeMemoryObject();
    std::ostringstream stream;
    stream << Inspector(pool);
    const std::string text = stream.str();
    const std::size_t first = text.find("<token>0</token>");
    const std::size_t second = text.find("<token>1</token>");
    ASSERT_NE(first, std::string::npos);
    ASSERT_NE(second, std::string::npos);
    EXPECT_EQ(text.find("<state>free</state>", first), text.find("<state>", first));
    EXPECT_EQ(text.find("<state>lent</state>", second), text.find("<state>", second));
}

} // namespace

} // namespace Gilvane
