// No operation of a filled shared pool takes more than a stated number of instructions. The processor stops after each
// one, and they are counted.
#include "sharedpoolsupport.h"

#include <gilvane/utilities/gvmemorypoolinspector.h>
#include <gilvane/utilities/gvsharedpool.h>
#include <gilvane/utilities/gvtokencache.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstddef>
#include <memory>
#include <thread>
#include <vector>

namespace Gilvane {

namespace {

// [bounds]
// Instructions on x86-64, built with -O2, those of the C library's mutex included.
constexpr unsigned long mostForOneBlock = 300;  // a loan, a return or a closing, when nobody waits
constexpr unsigned long mostForACachedOne = 50; // a loan from or a return to a cache that need not take the lock
constexpr unsigned long mostForAnAddress = 15;  // at any time
constexpr unsigned long mostForEachMoved = 16;  // in addition, for each token of a cache that takes the lock
constexpr unsigned long mostForEachOfMany = 40; // in addition, for each token that tryBorrowMany lends
constexpr unsigned long mostForEachWaiter = 60; // in addition, for each thread that waits
constexpr unsigned long mostForEachCache = 20;  // in addition, in getStatistics and resetHighestLentCount
// [bounds]

volatile unsigned long theStepCount = 0;

void countStep(int) { theStepCount = theStepCount + 1; }

// The flag of the processor that stops it. The stack is left alone where functions without calls keep their variables.
inline void beginSteps() {
    asm volatile("subq $128, %%rsp\n\tpushfq\n\torq $0x100, (%%rsp)\n\tpopfq\n\taddq $128, %%rsp" ::: "cc", "memory");
}
inline void endSteps() {
    asm volatile("subq $128, %%rsp\n\tpushfq\n\tandq $~0x100, (%%rsp)\n\tpopfq\n\taddq $128, %%rsp" ::: "cc", "memory");
}

template <typename Operation>
unsigned long countedSteps(Operation operation) {
    theStepCount = 0;
    beginSteps();
    operation();
    endSteps();
    return theStepCount;
}

template <typename Operation>
unsigned long stepsOf(Operation operation) {
    return countedSteps(operation) - countedSteps([] {});
}

class RealTimeSteps : public testing::Test {
  protected:
    RealTimeSteps() {
        struct sigaction action = {};
        action.sa_handler = &countStep;
        sigaction(SIGTRAP, &action, &theFormer);
    }
    ~RealTimeSteps() override { sigaction(SIGTRAP, &theFormer, nullptr); }
    void SetUp() override {
        if (stepsOf([] { theStepCount = theStepCount + 0; }) == 0) {
            GTEST_SKIP() << "the processor does not stop after each instruction here";
        }
    }

  private:
    struct sigaction theFormer = {};
};

// What the operations of a pool take at most, over its states.
struct Most {
    unsigned long theLoan = 0;
    unsigned long theAddress = 0;
    unsigned long theReturn = 0;
};

// Measures an operation, or does it: to stop after each instruction takes long.
template <typename Operation>
void measure(bool isMeasured, unsigned long& most, Operation operation) {
    if (isMeasured) {
        most = (std::max)(most, stepsOf(operation));
    } else {
        operation();
    }
}

// Lends and takes back so many blocks, and measures where the number of those that are lent is near a multiple of
// `interval`, or near its end.
template <typename Lender>
Most mostOver(Lender& lender, unsigned int loans, unsigned int interval) {
    const auto isMeasured = [&](std::size_t number) { return (number + 1) % interval < 2 || number + 2 >= loans; };
    Most most;
    std::vector<unsigned int> tokens(loans);
    for (std::size_t number = 0; number < loans; ++number) {
        measure(isMeasured(number), most.theLoan, [&] { tokens[number] = *lender.tryBorrow(); });
    }
    for (std::size_t number = 0; number < loans; ++number) {
        measure(isMeasured(number), most.theAddress, [&] { lender.getMemoryForToken(tokens[number]); });
    }
    for (std::size_t number = 0; number < loans; ++number) {
        measure(isMeasured(number), most.theReturn, [&] { lender.releaseObject(tokens[number]); });
    }
    return most;
}

} // namespace

TEST_F(RealTimeSteps, ofAPoolDependOnNoNumberOfBlocksAndAreBounded) {
    for (const GVMutexProtocol protocol : {gvnoprotocol, gvpriorityinheritance}) {
        std::vector<Most> found;
        for (const unsigned int numberOfBlocks : {8U, 4096U}) {
            GVSharedPool pool(numberOfBlocks, 64, protocol);
            found.push_back(mostOver(pool, numberOfBlocks, numberOfBlocks / 2));
            EXPECT_LE(found.back().theLoan, mostForOneBlock);
            EXPECT_LE(found.back().theReturn, mostForOneBlock);
            EXPECT_LE(found.back().theAddress, mostForAnAddress);
            borrowAll(pool);
            EXPECT_LE(stepsOf([&] { static_cast<void>(pool.tryBorrow()); }), mostForOneBlock);
            EXPECT_LE(stepsOf([&] { pool.close(); }), mostForOneBlock);
            EXPECT_LE(stepsOf([&] { static_cast<void>(pool.tryBorrow()); }), mostForOneBlock);
            EXPECT_LE(stepsOf([&] { static_cast<void>(pool.borrow()); }), mostForOneBlock);
            EXPECT_LE(stepsOf([&] { static_cast<void>(pool.isClosed()); }), mostForAnAddress);
        }
        EXPECT_EQ(found[0].theLoan, found[1].theLoan);
        EXPECT_EQ(found[0].theReturn, found[1].theReturn);
        EXPECT_EQ(found[0].theAddress, found[1].theAddress);
    }
}

TEST_F(RealTimeSteps, ofAPoolWithADescriptorAreBoundedToo) {
    GVSharedPool pool(4, 64);
    pool.getDescriptor();
    const Most most = mostOver(pool, 4, 2);
    EXPECT_LE(most.theLoan, mostForOneBlock);
    EXPECT_LE(most.theReturn, mostForOneBlock);
}

TEST_F(RealTimeSteps, ofACacheAreFewUntilItIsFilledOrEmptied) {
    GVSharedPool pool(256, 64);
    GVTokenCache cache(pool, 64);
    static_cast<void>(cache.tryBorrow()); // takes half the capacity
    const Most most = mostOver(cache, 31, 10);
    EXPECT_LE(most.theLoan, mostForACachedOne);
    EXPECT_LE(most.theReturn, mostForACachedOne);
    EXPECT_LE(most.theAddress, mostForAnAddress);
}

TEST_F(RealTimeSteps, ofACacheThatIsFilledOrEmptiedDependOnTheTokensThatMove) {
    for (const unsigned int numberOfBlocks : {128U, 4096U}) {
        for (const unsigned int capacity : {1U, 2U, 32U}) {
            GVSharedPool pool(numberOfBlocks, 64);
            GVTokenCache cache(pool, capacity);
            const Most most = mostOver(cache, 3 * capacity, (capacity + 1) / 2);
            const unsigned long bound = mostForOneBlock + mostForEachMoved * capacity;
            EXPECT_LE(most.theLoan, bound);
            EXPECT_LE(most.theReturn, bound);
            EXPECT_LE(most.theAddress, mostForAnAddress);
            EXPECT_LE(stepsOf([&] { cache.flush(); }), bound);
            std::array<unsigned int, 40> tokens = {};
            const auto count = static_cast<unsigned int>(tokens.size());
            EXPECT_LE(stepsOf([&] { static_cast<void>(cache.tryBorrowMany(tokens.data(), count)); }),
                      bound + mostForEachOfMany * count);
            // Each time that the cache is full, half of what it holds leaves it.
            const unsigned long leavings = 1 + count / ((capacity + 1) / 2);
            EXPECT_LE(stepsOf([&] { cache.releaseMany(tokens.data(), count); }),
                      mostForACachedOne * count + leavings * bound);
        }
    }
}

TEST_F(RealTimeSteps, ofAReturnAndAClosingDependOnTheNumberOfWaiters) {
    for (const unsigned int numberOfWaiters : {1U, 8U}) {
        const unsigned long bound = mostForOneBlock + mostForEachWaiter * numberOfWaiters;
        GVSharedPool pool(numberOfWaiters, 64);
        const std::vector<unsigned int> tokens = borrowAll(pool);
        const auto beginWaits = [&] {
            const unsigned int before = pool.getStatistics().theWaitCount;
            std::vector<std::thread> waiters;
            for (unsigned int waiter = 0; waiter < numberOfWaiters; ++waiter) {
                waiters.emplace_back([&] { static_cast<void>(pool.borrow()); });
            }
            awaitWaits(pool, before + numberOfWaiters);
            letTheOvertakingEnd();
            return waiters;
        };
        std::vector<std::thread> served = beginWaits();
        for (const unsigned int token : tokens) {
            EXPECT_LE(stepsOf([&] { pool.releaseObject(token); }), bound);
        }
        for (std::thread& waiter : served) {
            waiter.join();
        }
        std::vector<std::thread> sentAway = beginWaits();
        EXPECT_LE(stepsOf([&] { pool.close(); }), bound);
        for (std::thread& waiter : sentAway) {
            waiter.join();
        }
    }
}

TEST_F(RealTimeSteps, ofTheStatisticsDependOnTheNumberOfCaches) {
    for (const unsigned int numberOfCaches : {0U, 32U}) {
        GVSharedPool pool(16, 64);
        std::vector<std::unique_ptr<GVTokenCache>> caches;
        for (unsigned int cache = 0; cache < numberOfCaches; ++cache) {
            caches.push_back(std::make_unique<GVTokenCache>(pool, 2));
        }
        const unsigned long bound = mostForOneBlock + mostForEachCache * numberOfCaches;
        EXPECT_LE(stepsOf([&] { static_cast<void>(pool.getStatistics()); }), bound);
        EXPECT_LE(stepsOf([&] { pool.resetHighestLentCount(); }), bound);
    }
}

TEST_F(RealTimeSteps, areSeenWhereTheyDependOnTheNumberOfBlocks) {
    const auto stepsOfAVisit = [](unsigned int numberOfBlocks) {
        const GVSharedPool pool(numberOfBlocks, 64);
        unsigned int visited = 0;
        const unsigned long steps =
            stepsOf([&] { GVMemoryPoolInspector::visitBlocks(pool, [&](const GVVisitedBlock&) { ++visited; }); });
        EXPECT_EQ(visited, numberOfBlocks);
        return steps;
    };
    EXPECT_GT(stepsOfAVisit(64), stepsOfAVisit(8) + mostForOneBlock);
}

} // namespace Gilvane
