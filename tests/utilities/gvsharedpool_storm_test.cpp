// Many threads use one pool in every way at once. Each block bears the stamp of whoever holds it.
#include <gilvane/utilities/gvsharedpool.h>

#include "sharedpoolsupport.h"

#include <gilvane/utilities/gvsharedtokenlease.h>
#include <gilvane/utilities/gvtokencache.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <optional>
#include <random>
#include <thread>
#include <utility>
#include <vector>

#include <poll.h>

namespace Gilvane {

namespace {

// Tells that a block is held by two: whoever holds it writes its own stamp and finds it when it returns the block.
class Stamps {
  public:
    explicit Stamps(std::uint64_t stamp) : theStamp(stamp) {}
    void write(void* bytes) const { *static_cast<std::uint64_t*>(bytes) = theStamp; }
    void expect(void* bytes) const { EXPECT_EQ(*static_cast<std::uint64_t*>(bytes), theStamp); }

  private:
    std::uint64_t theStamp;
};

// Carries tokens and leases from thread to thread.
template <typename Item>
class Queue {
  public:
    void push(Item item) {
        const std::lock_guard<std::mutex> guard(theMutex);
        theItems.push_back(std::move(item));
    }
    std::optional<Item> pop() {
        const std::lock_guard<std::mutex> guard(theMutex);
        if (theItems.empty()) {
            return {};
        }
        std::optional<Item> item(std::move(theItems.front()));
        theItems.pop_front();
        return item;
    }

  private:
    std::mutex theMutex;
    std::deque<Item> theItems;
};

// What the threads of one storm share.
struct Storm {
    Storm(unsigned int blocks, int operations) : thePool(blocks, sizeof(std::uint64_t)), theOperations(operations) {}

    GVSharedPool thePool;
    Queue<unsigned int> theTokens;
    Queue<GVSharedTokenLease> theLeases;
    int theOperations;         // of each thread
    bool isToBeClosed = false; // then they count from the closing on
    std::atomic<unsigned int> theLoans{0};
};

template <typename Lender>
std::optional<unsigned int> borrowSomehow(Lender& lender, unsigned int way) {
    switch (way % 4) {
    case 0:
        return lender.tryBorrow();
    case 1:
        return lender.borrowFor(std::chrono::microseconds(way % 100));
    case 2:
        return lender.borrowUntil(std::chrono::system_clock::now() + std::chrono::microseconds(way % 50));
    default:
        return lender.borrow();
    }
}

// One thread of a storm. It holds no block while it waits, and an empty cache: so somebody always goes on.
template <typename Lender>
void take(Storm& storm, Lender& lender, unsigned int number) {
    std::minstd_rand random(number + 1);
    const Stamps stamps(number + 1);
    for (int operation = 0; operation < storm.theOperations;) {
        operation += !storm.isToBeClosed || storm.thePool.isClosed() ? 1 : 0;
        const unsigned int way = static_cast<unsigned int>(random()) / 8;
        switch (way % 8) {
        case 0: // a token goes through the queue
            if (const std::optional<unsigned int> token = lender.tryBorrow()) {
                Stamps(*token).write(lender.getMemoryForToken(*token));
                storm.theTokens.push(*token);
            }
            break;
        case 1:
            if (const std::optional<unsigned int> token = storm.theTokens.pop()) {
                Stamps(*token).expect(lender.getMemoryForToken(*token));
                lender.releaseObject(*token);
            }
            break;
        case 2: // a lease goes through the queue
            if (GVSharedTokenLease lease{lender}) {
                Stamps(lease.getToken()).write(lease.getBytes());
                storm.theLeases.push(std::move(lease));
            }
            break;
        case 3:
            if (const std::optional<GVSharedTokenLease> lease = storm.theLeases.pop()) {
                Stamps(lease->getToken()).expect(lease->getBytes());
            }
            break;
        case 4: {
            const GVSharedPoolStatistics statistics = storm.thePool.getStatistics();
            EXPECT_EQ(statistics.theLentCount + statistics.theCachedCount + statistics.theFreeCount,
                      storm.thePool.getNumberOfObjects());
            break;
        }
        default: {
            const std::optional<unsigned int> token = borrowSomehow(lender, way / 8);
            if (token.has_value()) {
                void* const bytes = lender.getMemoryForToken(*token);
                stamps.write(bytes);
                if (way % 16 == 7) {
                    std::this_thread::yield();
                }
                stamps.expect(bytes);
                lender.releaseObject(*token);
                ++storm.theLoans;
            }
        }
        }
    }
}

// Threads with caches of `capacities`, 0 meaning none. While they wait for ever, blocks must not lie in the queues for
// ever: one thread sees to that.
void raise(Storm& storm, const std::vector<unsigned int>& capacities) {
    std::atomic<bool> isOver{false};
    std::thread emptying([&] {
        while (!isOver) {
            if (const std::optional<unsigned int> token = storm.theTokens.pop()) {
                storm.thePool.releaseObject(*token);
            }
            static_cast<void>(storm.theLeases.pop());
            std::this_thread::sleep_for(std::chrono::microseconds(20));
        }
    });
    std::vector<std::thread> threads;
    for (unsigned int number = 0; number < capacities.size(); ++number) {
        threads.emplace_back([&storm, number, capacity = capacities[number]] {
            if (capacity == 0) {
                take(storm, storm.thePool, number);
            } else {
                GVTokenCache cache(storm.thePool, capacity);
                take(storm, cache, number);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    isOver = true;
    emptying.join();
    while (const std::optional<unsigned int> token = storm.theTokens.pop()) {
        storm.thePool.releaseObject(*token);
    }
    while (storm.theLeases.pop().has_value()) {
    }
}

constexpr int theOperations = 4000;

// Of each thread of the longest storm: so many, or what the environment asks for.
int operationsAskedFor() {
    const char* const asked = std::getenv("GILVANE_STORM_OPERATIONS");
    return asked != nullptr ? std::atoi(asked) : theOperations;
}

} // namespace

TEST(SharedPoolStorm, withCachesOfEverySizeAndWithoutLosesNothing) {
    Storm storm(64, theOperations);
    raise(storm, {0, 1, 64, 0, 1, 64});
    expectThatNothingIsLost(storm.thePool);
    EXPECT_GT(storm.theLoans, 0U);
}

TEST(SharedPoolStorm, ofEightThreadsLosesNothing) {
    Storm storm(32, operationsAskedFor());
    raise(storm, {0, 1, 64, 4, 0, 2, 16, 8});
    expectThatNothingIsLost(storm.thePool);
    EXPECT_GE(storm.theLoans, static_cast<unsigned int>(operationsAskedFor()));
}

TEST(SharedPoolStorm, ofMoreThreadsThanBlocksLosesNothing) {
    Storm storm(3, theOperations);
    raise(storm, {0, 1, 64, 0, 1, 64, 2, 0});
    expectThatNothingIsLost(storm.thePool);
    EXPECT_GT(storm.thePool.getStatistics().theWaitCount, 0U);
}

TEST(SharedPoolStorm, forOneBlockLosesNothing) {
    Storm storm(1, theOperations / 4);
    raise(storm, {0, 1, 64, 3});
    expectThatNothingIsLost(storm.thePool);
}

TEST(SharedPoolStorm, withADescriptorLosesNothing) {
    Storm storm(4, theOperations / 4);
    EXPECT_GE(storm.thePool.getDescriptor(), 0);
    raise(storm, {0, 64, 2, 64});
    pollfd entry = {storm.thePool.getDescriptor(), POLLIN, 0};
    EXPECT_EQ(poll(&entry, 1, 0), 1) << "all blocks are free";
    expectThatNothingIsLost(storm.thePool);
}

TEST(SharedPoolStorm, thatIsClosedInTheMiddleEndsAndLosesNothing) {
    Storm storm(2, theOperations / 4);
    storm.isToBeClosed = true;
    std::thread closing([&] {
        await([&] { return storm.theLoans > 200; });
        storm.thePool.close();
    });
    raise(storm, {0, 1, 64, 0, 64, 2});
    closing.join();
    const GVSharedPoolStatistics statistics = storm.thePool.getStatistics();
    EXPECT_EQ(statistics.theFreeCount, 2U);
    EXPECT_EQ(statistics.theLentCount, 0U);
}

} // namespace Gilvane
