// Each mistake that the hardened build finds ends the program, with one line that says where it was made.
#include "gvtestpeer.h"
#include "hookledger.h"
#include "onlyline.h"
#include "poolsupport.h"

#include <gilvane/base/gvhardened.h>
#include <gilvane/threads/gvmutex.h>
#include <gilvane/threads/gvthreadsfactory.h>
#include <gilvane/utilities/gvmemorypool.h>

#include <gtest/gtest.h>

#include <memory>
#include <new>
#include <string>
#include <thread>

namespace Gilvane {

namespace {

constexpr unsigned int longestLength = 4294967295U - sizeof(void*); // with the header word, 32 bits are full

std::string addressOf(const void* object) { return ::testing::PrintToString(object); }

std::string lineOnToken(const std::string& operation, unsigned int token, const GVMemoryPool& pool,
                        const std::string& what) {
    return onlyLine(operation + ": token " + std::to_string(token) + " of pool " + addressOf(&pool) + ": " + what);
}

constexpr const char* unknown = "unknown: not of this pool, or its block is gone";
constexpr const char* twice = "returned twice, or never lent";

// A pool whose token 8 the table no longer finds, though the block is there.
struct PoolWithAHiddenBlock {
    PoolWithAHiddenBlock() {
        //  slot   0   1   2   3   4   5   6   7
        //  key    0  17   .   .   .   .   8   .      8 has home slot 0, then comes by 1
        buildBlocks(pool, {0, 17, 8});
        pool.resizePool(2);
        //  key    0   -   .   .   .   .   8   .
    }
    GVMemoryPool pool = GVMemoryPool(0, 16, false);
};

TEST(HardenedAddress, ofATokenThatNoPoolEverHadEndsTheProgram) {
    GVTestPeer::nextToken() = 0;
    GVMemoryPool pool(2, 16, false);
    EXPECT_DEATH(pool.getMemoryForToken(99), lineOnToken("getMemoryForToken", 99, pool, unknown));
}

TEST(HardenedAddress, ofATokenOfAnotherPoolEndsTheProgram) {
    GVMemoryPool pool(2, 16, false);
    GVMemoryPool other(2, 16, false);
    const unsigned int token = other.getTokenForFreeMemoryObject();
    EXPECT_DEATH(pool.getMemoryForToken(token), lineOnToken("getMemoryForToken", token, pool, unknown));
    EXPECT_NE(other.getMemoryForToken(token), nullptr);
}

TEST(HardenedAddress, ofATokenWhoseBlockAShrinkRemovedEndsTheProgram) {
    GVMemoryPool pool(2, 16, true);
    const unsigned int token = pool.getTokenForFreeMemoryObject();
    pool.resizePool(1);
    EXPECT_DEATH(pool.getMemoryForToken(token), lineOnToken("getMemoryForToken", token, pool, unknown));
}

TEST(HardenedAddress, ofADeadTokenThatARebuiltPoolLendsEndsTheProgram) {
    GVMemoryPool pool(1, 16, false);
    pool.setNumberOfBytesInPoolObject(32);
    const unsigned int fresh = pool.getTokenForFreeMemoryObject();
    const unsigned int dead = pool.getTokenForFreeMemoryObject();
    EXPECT_EQ(dead, fresh - 1);
    EXPECT_DEATH(pool.getMemoryForToken(dead), lineOnToken("getMemoryForToken", dead, pool, unknown));
}

TEST(HardenedAddress, ofATokenThatAShrinkHidEndsTheProgramAndSaysSo) {
    PoolWithAHiddenBlock hidden;
    EXPECT_DEATH(hidden.pool.getMemoryForToken(8),
                 lineOnToken("getMemoryForToken", 8, hidden.pool, "hidden by a shrink, though its block is there"));
}

TEST(HardenedAddress, addsNoEntryForAnUnknownTokenBeforeTheEnd) {
    GVMemoryPool pool(2, 16, false);
    const auto& table = GVTestPeer::table(pool);
    // An entry without a block is what the default build leaves behind.
    GVTestPeer::table(pool).insert(99, nullptr);
    EXPECT_DEATH(pool.getMemoryForToken(99), lineOnToken("getMemoryForToken", 99, pool, unknown));
    EXPECT_EQ(table.getUsedCount(), 3U);
    GVTestPeer::table(pool).remove(99);
}

TEST(HardenedReturn, ofATokenThatNoPoolEverHadEndsTheProgram) {
    GVTestPeer::nextToken() = 0;
    GVMemoryPool pool(2, 16, false);
    EXPECT_DEATH(pool.releaseObject(99), lineOnToken("releaseObject", 99, pool, unknown));
}

TEST(HardenedReturn, toTheWrongPoolEndsTheProgram) {
    GVMemoryPool pool(2, 16, false);
    GVMemoryPool other(2, 16, false);
    const unsigned int token = other.getTokenForFreeMemoryObject();
    EXPECT_DEATH(pool.releaseObject(token), lineOnToken("releaseObject", token, pool, unknown));
    other.releaseObject(token);
    EXPECT_EQ(other.numberOfObjectsInPoolInUse(), 0U);
}

TEST(HardenedReturn, ofATokenWhoseBlockAShrinkRemovedEndsTheProgram) {
    GVMemoryPool pool(2, 16, false);
    const unsigned int token = pool.getTokenForFreeMemoryObject();
    pool.resizePool(1);
    EXPECT_DEATH(pool.releaseObject(token), lineOnToken("releaseObject", token, pool, unknown));
}

TEST(HardenedReturn, secondOneInARowEndsTheProgram) {
    GVMemoryPool pool(4, 16, false);
    const unsigned int token = pool.getTokenForFreeMemoryObject();
    pool.releaseObject(token);
    EXPECT_DEATH(pool.releaseObject(token), lineOnToken("releaseObject", token, pool, twice));
}

TEST(HardenedReturn, secondOneAfterOthersEndsTheProgram) {
    GVMemoryPool pool(4, 16, false);
    const unsigned int first = pool.getTokenForFreeMemoryObject();
    const unsigned int second = pool.getTokenForFreeMemoryObject();
    pool.releaseObject(first);
    pool.releaseObject(second);
    EXPECT_DEATH(pool.releaseObject(first), lineOnToken("releaseObject", first, pool, twice));
}

TEST(HardenedReturn, ofATokenThatWasNeverLentEndsTheProgram) {
    GVTestPeer::nextToken() = 0;
    GVMemoryPool pool(4, 16, false);
    EXPECT_DEATH(pool.releaseObject(0), lineOnToken("releaseObject", 0, pool, twice));
    EXPECT_DEATH(pool.releaseObject(3), lineOnToken("releaseObject", 3, pool, twice));
}

TEST(HardenedReturn, secondOneByAnotherThreadEndsTheProgram) {
    GVMemoryPool pool(4, 16, true);
    const unsigned int token = pool.getTokenForFreeMemoryObject();
    EXPECT_DEATH(
        {
            std::thread first([&] { pool.releaseObject(token); });
            std::thread second([&] { pool.releaseObject(token); });
            first.join();
            second.join();
        },
        lineOnToken("releaseObject", token, pool, twice));
}

TEST(HardenedReturn, secondOneIsFoundInAPoolOfBlocksWithoutBytes) {
    GVMemoryPool pool(4, false);
    const unsigned int token = pool.getTokenForFreeMemoryObject();
    pool.releaseObject(token);
    EXPECT_DEATH(pool.releaseObject(token), lineOnToken("releaseObject", token, pool, twice));
}

TEST(HardenedReturn, ofATokenThatAShrinkHidIsNoMistake) {
    PoolWithAHiddenBlock hidden;
    EXPECT_EQ(GVTestPeer::table(hidden.pool).get(8), nullptr);
    EXPECT_EQ(hidden.pool.getTokenForFreeMemoryObject(), 8U);
    hidden.pool.releaseObject(8);
    EXPECT_EQ(hidden.pool.getTokenForFreeMemoryObject(), 8U);
    hidden.pool.releaseObject(8);
    EXPECT_DEATH(hidden.pool.releaseObject(8), lineOnToken("releaseObject", 8, hidden.pool, twice));
}

TEST(HardenedReturn, ofATokenBehindAnEntryWithoutABlockIsNoMistake) {
    PoolWithAHiddenBlock hidden;
    EXPECT_EQ(GVTestPeer::table(hidden.pool)[8], nullptr); // added in front of the entry that has the block
    EXPECT_EQ(hidden.pool.getTokenForFreeMemoryObject(), 8U);
    hidden.pool.releaseObject(8);
    EXPECT_EQ(hidden.pool.getTokenForFreeMemoryObject(), 8U);
}

TEST(HardenedLoan, thatFindsNothingToTakeEndsTheProgram) {
    for (const bool useMutex : {false, true}) {
        GVMemoryPool pool(0, useMutex);
        EXPECT_DEATH(pool.getTokenForFreeMemoryObject(),
                     onlyLine("getTokenForFreeMemoryObject: pool " + addressOf(&pool) +
                              ": there is no token to take, even after growth"));
    }
}

TEST(HardenedBlockSize, thatWrapsEndsTheProgramAtTheBlock) {
    const std::string line = onlyLine("GVMemoryPoolObject: a length that wraps with the header word");
    EXPECT_DEATH(GVMemoryPoolObject(4294967295U), line);
    EXPECT_DEATH(GVMemoryPoolObject(longestLength + 1), line);
}

TEST(HardenedBlockSize, thatWrapsEndsTheProgramAtThePool) {
    EXPECT_DEATH(GVMemoryPool(1, longestLength + 1, false),
                 onlyLine("building a block: pool 0x[0-9a-f]+: blocks of " + std::to_string(longestLength + 1) +
                          " bytes wrap with their header words"));
    GVMemoryPool pool(0, 4294967295U, false);
    const std::string line = onlyLine("building a block: pool " + addressOf(&pool) +
                                      ": blocks of 4294967295 bytes wrap with their header words");
    EXPECT_DEATH(pool.makePool(1), line);
    EXPECT_DEATH(pool.resizePool(1), line);
}

TEST(HardenedBlockSize, thatJustFitsIsNoMistake) {
    HookLedger ledger;
    ledger.refuseFrom(0);
    EXPECT_THROW(GVMemoryPoolObject block(longestLength), std::bad_alloc);
    ledger.refuseOnce(1); // after the block's object, its bytes
    GVMemoryPool pool(0, longestLength, false);
    EXPECT_THROW(pool.resizePool(1), std::bad_alloc);
    EXPECT_EQ(ledger.requests().back(), 4294967295U);
}

TEST(HardenedLine, isCutWhereItWouldBeTooLong) {
    const std::string text(247, 'x');
    EXPECT_DEATH(detail::reportMisuse("%s", text.substr(1).c_str()), "^gilvane: x{246}\n(qemu: .*)?$");
    EXPECT_DEATH(detail::reportMisuse("%s", text.c_str()), "^gilvane: x{246}\n(qemu: .*)?$");
    EXPECT_DEATH(detail::reportMisuse("%s", text.substr(2).c_str()), "^gilvane: x{245}\n(qemu: .*)?$");
}

TEST(HardenedLine, isEmptyWhereItCannotBeFormatted) {
    // In the locale that programs start with there are no such characters.
    EXPECT_DEATH(detail::reportMisuse("%ls", L"\x4e00"), "^gilvane: \n(qemu: .*)?$");
}

TEST(HardenedScopedLock, thatIsGivenNoHandleEndsTheProgram) {
    EXPECT_DEATH(
        {
            GVMutex guard;
            guard.setHandle(nullptr);
        },
        onlyLine("GVMutex::setHandle: a null handle"));
}

TEST(HardenedScopedLock, thatIsGivenNoHandleAfterAHandleIsToldOfTheMissingOne) {
    const std::unique_ptr<GVMutexHandle> handle(CreateUnnamedMutexHandle(gvexclusivemutex, false));
    EXPECT_DEATH(
        {
            GVMutex guard;
            guard.setHandle(handle.get());
            guard.setHandle(nullptr);
        },
        onlyLine("GVMutex::setHandle: a null handle"));
}

TEST(HardenedScopedLock, thatIsGivenASecondHandleEndsTheProgram) {
    const std::unique_ptr<GVMutexHandle> first(CreateUnnamedMutexHandle(gvexclusivemutex, false));
    const std::unique_ptr<GVMutexHandle> second(CreateUnnamedMutexHandle(gvexclusivemutex, false));
    const std::string line = onlyLine("GVMutex::setHandle: a second handle");
    EXPECT_DEATH(
        {
            GVMutex guard;
            guard.setHandle(first.get());
            guard.setHandle(second.get());
        },
        line);
    EXPECT_DEATH(
        {
            GVMutex guard;
            guard.setHandle(first.get());
            guard.setHandle(first.get());
        },
        line);
}

} // namespace

} // namespace Gilvane
