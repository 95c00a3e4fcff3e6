// What the library tells AddressSanitizer of a block's bytes. This program brings the sanitizer's functions itself, and
// writes down with what they are called.
#include "gvtestpeer.h"
#include "poolsupport.h"

#include <gilvane/utilities/gvmemorypool.h>
#include <gilvane/utilities/gvpoolresource.h>
#include <gilvane/utilities/gvsharedpool.h>
#include <gilvane/utilities/gvtokencache.h>

#include <gtest/gtest.h>

#include <cstddef>
#include <ostream>
#include <vector>

namespace {

enum class Call { poison, unpoison };

struct Mark {
    Call call;
    const volatile void* bytes;
    std::size_t numberOfBytes;

    bool operator==(const Mark& other) const {
        return call == other.call && bytes == other.bytes && numberOfBytes == other.numberOfBytes;
    }
};

std::ostream& operator<<(std::ostream& stream, const Mark& mark) {
    return stream << (mark.call == Call::poison ? "poison " : "unpoison ") << mark.bytes << " " << mark.numberOfBytes;
}

std::vector<Mark> marks;

} // namespace

extern "C" {
void __asan_poison_memory_region(const volatile void* bytes, std::size_t numberOfBytes) {
    marks.push_back({Call::poison, bytes, numberOfBytes});
}
void __asan_unpoison_memory_region(const volatile void* bytes, std::size_t numberOfBytes) {
    marks.push_back({Call::unpoison, bytes, numberOfBytes});
}
}

namespace Gilvane {

namespace {

constexpr unsigned int blockBytes = 13;

class HardenedMarks : public ::testing::Test {
  protected:
    void SetUp() override {
        GVTestPeer::nextToken() = 0;
        marks.clear();
    }
    static const void* bytesOf(GVMemoryPool& pool, unsigned int token) { return pool.getMemoryForToken(token); }
};

TEST_F(HardenedMarks, areSetOnEachBlockThatIsBuilt) {
    GVMemoryPool pool(2, blockBytes, false);
    EXPECT_EQ(marks, (std::vector<Mark>{{Call::poison, bytesOf(pool, 0), blockBytes},
                                        {Call::poison, bytesOf(pool, 1), blockBytes}}));
}

TEST_F(HardenedMarks, areTakenOffByALoanAndSetByAReturn) {
    for (const bool useMutex : {false, true}) {
        GVMemoryPool pool(1, blockBytes, useMutex);
        marks.clear();
        const unsigned int token = pool.getTokenForFreeMemoryObject();
        EXPECT_EQ(marks, (std::vector<Mark>{{Call::unpoison, bytesOf(pool, token), blockBytes}}));
        marks.clear();
        pool.releaseObject(token);
        EXPECT_EQ(marks, (std::vector<Mark>{{Call::poison, bytesOf(pool, token), blockBytes}}));
    }
}

#if __has_include(<memory_resource>)
TEST_F(HardenedMarks, areTakenOffByARequestToAResourceAndSetByItsReturn) {
    for (const bool useMutex : {false, true}) {
        GVMemoryPool pool(1, 64, useMutex);
        const void* const block = bytesOf(pool, GVTestPeer::freeTokens(pool).back());
        GVPoolResource resource(pool);
        marks.clear();
        void* const bytes = resource.allocate(8, 8);
        EXPECT_EQ(marks, (std::vector<Mark>{{Call::unpoison, block, 64}}));
        marks.clear();
        resource.deallocate(bytes, 8, 8);
        EXPECT_EQ(marks, (std::vector<Mark>{{Call::poison, block, 64}}));
    }
}
#endif

TEST_F(HardenedMarks, areTakenOffWithATokenTakenOutOfTheFreeListByHand) {
    GVMemoryPool pool(2, blockBytes, false);
    marks.clear();
    pool.removeTokenFromAvailableList(0);
    EXPECT_EQ(marks, (std::vector<Mark>{{Call::unpoison, bytesOf(pool, 0), blockBytes}}));
    pool.removeTokenFromAvailableList(77);
    EXPECT_EQ(marks.size(), 1U);
}

TEST_F(HardenedMarks, areTakenOffBeforeABlockIsReleased) {
    GVMemoryPool pool(2, blockBytes, false);
    const void* const bytes = bytesOf(pool, 1);
    marks.clear();
    pool.resizePool(1);
    EXPECT_EQ(marks, (std::vector<Mark>{{Call::unpoison, bytes, blockBytes}}));
}

TEST_F(HardenedMarks, areTakenOffABlockThatAShrinkHid) {
    GVMemoryPool pool(0, blockBytes, false);
    //  slot   0   1   2   3   4   5   6   7
    //  key    0   -   .   .   .   .   8   .      8 is searched for in slot 0, then in slot 1, where 17 was
    buildBlocks(pool, {0, 17, 8});
    pool.resizePool(2);
    ASSERT_EQ(GVTestPeer::table(pool).get(8), nullptr);
    const Mark built = marks[2];
    marks.clear();
    ASSERT_EQ(pool.getTokenForFreeMemoryObject(), 8U);
    EXPECT_EQ(marks, (std::vector<Mark>{{Call::unpoison, built.bytes, blockBytes}}));
}

TEST_F(HardenedMarks, areNotSetWhereThereAreNoBytes) {
    GVMemoryPool pool(2, false);
    pool.releaseObject(pool.getTokenForFreeMemoryObject());
    const GVMemoryPoolObject block(0);
    EXPECT_EQ(marks, std::vector<Mark>());
}

TEST_F(HardenedMarks, ofOneByteAreSet) {
    GVMemoryPool pool(1, 1, false);
    EXPECT_EQ(marks, (std::vector<Mark>{{Call::poison, bytesOf(pool, 0), 1}}));
    pool.getTokenForFreeMemoryObject();
    EXPECT_EQ(marks.back(), (Mark{Call::unpoison, bytesOf(pool, 0), 1}));
}

TEST_F(HardenedMarks, areTakenOffByALoanFromASharedPoolAndSetByAReturn) {
    GVSharedPool pool(1, blockBytes);
    const void* const bytes = pool.getMemoryForToken(0);
    EXPECT_EQ(marks, (std::vector<Mark>{{Call::poison, bytes, blockBytes}}));
    marks.clear();
    const unsigned int token = *pool.tryBorrow();
    EXPECT_EQ(marks, (std::vector<Mark>{{Call::unpoison, bytes, blockBytes}}));
    marks.clear();
    pool.releaseObject(token);
    EXPECT_EQ(marks, (std::vector<Mark>{{Call::poison, bytes, blockBytes}}));
}

TEST_F(HardenedMarks, staySetWhileATokenIsInACache) {
    GVSharedPool pool(2, blockBytes);
    GVTokenCache cache(pool, 4);
    marks.clear();
    EXPECT_EQ(cache.tryBorrow(), 1U);
    const void* const bytes = pool.getMemoryForToken(1);
    EXPECT_EQ(marks, (std::vector<Mark>{{Call::unpoison, bytes, blockBytes}})) << "of two tokens that it took";
    marks.clear();
    cache.releaseObject(1);
    EXPECT_EQ(marks, (std::vector<Mark>{{Call::poison, bytes, blockBytes}}));
    marks.clear();
    cache.flush();
    EXPECT_EQ(marks, std::vector<Mark>());
}

} // namespace

} // namespace Gilvane
