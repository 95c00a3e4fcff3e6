// A pool that several threads use at once, with a lock of its own and never running dry.
#include "gvtestpeer.h"
#include "threadsupport.h"

#include <gilvane/utilities/gvmemorypool.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <random>
#include <vector>

namespace Gilvane {

namespace {

constexpr unsigned int threadCount = 4;
constexpr unsigned int loansAtOnce = 8;
constexpr std::size_t blockBytes = 64;
// Even with every thread holding its most there is always one left.
constexpr unsigned int blockCount = threadCount * loansAtOnce + 1;

void expectEveryTokenFreeOnce(GVMemoryPool& pool) {
    EXPECT_EQ(pool.numberOfObjectsInPoolInUse(), 0U);
    EXPECT_EQ(GVTestPeer::table(pool).getUsedCount(), blockCount);
    auto tokens = GVTestPeer::freeTokens(pool);
    std::sort(tokens.begin(), tokens.end());
    ASSERT_EQ(tokens.size(), blockCount);
    for (unsigned int token = 0; token < blockCount; ++token) {
        EXPECT_EQ(tokens[token], token);
    }
}

TEST(PoolAmongThreads, lendsEachTokenToOneThreadAtATime) {
    GVTestPeer::nextToken() = 0;
    GVMemoryPool pool(blockCount, blockBytes, true);
    // Words: compilers for RISC-V exchange bytes in a library of their own.
    std::array<std::atomic<unsigned int>, blockCount> lent{};
    std::atomic<int> lentTwice{0};
    std::atomic<int> overwritten{0};
    runTogether(threadCount, [&](unsigned int number) {
        std::mt19937 random(number);
        const char mark = static_cast<char>('a' + number);
        std::array<char, blockBytes> expected{};
        expected.fill(mark);
        std::vector<unsigned int> held;
        for (int step = 0; step < 20000; ++step) {
            if (held.empty() || (held.size() < loansAtOnce && random() % 2 == 0)) {
                const unsigned int token = pool.getTokenForFreeMemoryObject();
                lentTwice += static_cast<int>(lent.at(token).exchange(1));
                std::memset(pool.getMemoryForToken(token), mark, blockBytes);
                held.push_back(token);
            } else {
                std::swap(held[random() % held.size()], held.back());
                const unsigned int token = held.back();
                held.pop_back();
                overwritten += std::memcmp(pool.getMemoryForToken(token), expected.data(), blockBytes) != 0 ? 1 : 0;
                lent.at(token) = 0;
                pool.releaseObject(token);
            }
        }
        for (const unsigned int token : held) {
            lent.at(token) = 0;
            pool.releaseObject(token);
        }
    });
    EXPECT_EQ(lentTwice, 0);
    EXPECT_EQ(overwritten, 0);
    expectEveryTokenFreeOnce(pool);
}

TEST(PoolAmongThreads, passesABlocksContentsOnWithItsToken) {
    GVTestPeer::nextToken() = 0;
    GVMemoryPool pool(blockCount, sizeof(int), true);
    for (unsigned int token = 0; token < blockCount; ++token) {
        std::memset(pool.getMemoryForToken(token), 0, sizeof(int));
    }
    constexpr int rounds = 5000;
    // No thread touches a count but under the loan of its block, so none is lost.
    runTogether(threadCount, [&](unsigned int) {
        for (int round = 0; round < rounds; ++round) {
            const unsigned int token = pool.getTokenForFreeMemoryObject();
            ++*static_cast<int*>(pool.getMemoryForToken(token));
            pool.releaseObject(token);
        }
    });
    int sum = 0;
    for (unsigned int token = 0; token < blockCount; ++token) {
        sum += *static_cast<const int*>(pool.getMemoryForToken(token));
    }
    EXPECT_EQ(sum, rounds * static_cast<int>(threadCount));
    expectEveryTokenFreeOnce(pool);
}

TEST(PoolAmongThreads, countsUnderTheLockWhileOthersBorrow) {
    GVTestPeer::nextToken() = 0;
    GVMemoryPool pool(blockCount, blockBytes, true);
    std::atomic<bool> isOver{false};
    runTogether(threadCount, [&](unsigned int number) {
        if (number != 0) {
            while (!isOver) {
                pool.releaseObject(pool.getTokenForFreeMemoryObject());
            }
            return;
        }
        unsigned int highest = 0;
        await([&] {
            for (int count = 0; count < 5000; ++count) {
                highest = (std::max)(highest, pool.numberOfObjectsInPoolInUse());
            }
            return highest > 0;
        });
        EXPECT_LE(highest, threadCount - 1);
        isOver = true;
    });
    expectEveryTokenFreeOnce(pool);
}

TEST(PoolAmongThreads, growsByHandUnderLoansOfOthers) {
    GVTestPeer::nextToken() = 0;
    GVMemoryPool pool(threadCount, blockBytes, true);
    // One thread enlarges the pool, and with it the table, step by step, each after some more loans of the others. Only
    // this pool builds blocks meanwhile.
    std::atomic<unsigned int> loans{0};
    std::atomic<bool> isOver{false};
    runTogether(threadCount, [&](unsigned int number) {
        if (number == 0) {
            for (unsigned int blocks = threadCount; blocks <= blockCount; ++blocks) {
                const unsigned int before = loans;
                pool.resizePool(blocks);
                await([&] { return loans - before >= 100; });
            }
            isOver = true;
            return;
        }
        while (!isOver) {
            const unsigned int token = pool.getTokenForFreeMemoryObject();
            std::memset(pool.getMemoryForToken(token), 'x', blockBytes);
            pool.releaseObject(token);
            ++loans;
        }
    });
    expectEveryTokenFreeOnce(pool);
}

} // namespace

} // namespace Gilvane
