// A producer fills blocks, consumers read them, and the program ends cleanly: the blocks alone limit the memory.
#include <gilvane/utilities/gvsharedpool.h>
#include <gilvane/utilities/gvsharedtokenlease.h>
#include <gilvane/utilities/gvtokencache.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <iostream>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

using Gilvane::GVSharedPool;
using Gilvane::GVSharedPoolStatistics;
using Gilvane::GVSharedTokenLease;
using Gilvane::GVTokenCache;

namespace {

constexpr unsigned int numberOfBlocks = 8;
constexpr unsigned int numberOfConsumers = 3;
constexpr unsigned int numberOfMessages = 10000;

// Carries tokens from thread to thread. Any queue will do that orders writes before the push with reads after the pop.
class TokenQueue {
  public:
    void push(unsigned int token) {
        {
            const std::lock_guard<std::mutex> guard(lock);
            tokens.push_back(token);
        }
        changed.notify_one();
    }
    // Empty: there is none left, and none will come.
    std::optional<unsigned int> pop() {
        std::unique_lock<std::mutex> guard(lock);
        changed.wait(guard, [this] { return isOver || !tokens.empty(); });
        if (tokens.empty()) {
            return {};
        }
        const unsigned int token = tokens.front();
        tokens.pop_front();
        return token;
    }
    void end() {
        {
            const std::lock_guard<std::mutex> guard(lock);
            isOver = true;
        }
        changed.notify_all();
    }

  private:
    std::mutex lock;
    std::condition_variable changed;
    std::deque<unsigned int> tokens;
    bool isOver = false;
};

} // namespace

int main() {
    // [threads]
    GVSharedPool pool(numberOfBlocks, sizeof(unsigned int));
    TokenQueue queue;
    std::atomic<unsigned long> sum = 0;

    std::thread producer([&] {
        // [producer]
        GVTokenCache cache(pool, 2);
        for (unsigned int message = 1; message <= numberOfMessages; ++message) {
            // Waits while all blocks are on their way: so the producer is never more than 8 messages ahead.
            const std::optional<unsigned int> token = cache.borrow();
            if (!token.has_value()) {
                break; // the pool was closed
            }
            *static_cast<unsigned int*>(cache.getMemoryForToken(*token)) = message;
            queue.push(*token);
        }
        // [producer]
        queue.end();
    }); // the cache gives back what it holds

    std::vector<std::thread> consumers;
    for (unsigned int consumer = 0; consumer < numberOfConsumers; ++consumer) {
        consumers.emplace_back([&] {
            while (const std::optional<unsigned int> token = queue.pop()) {
                // Takes the loan over, and returns the block at the end of its scope.
                const GVSharedTokenLease lease(pool, *token, Gilvane::gvadoptedloan);
                sum += lease.as<unsigned int>();
            }
        });
    }
    // [threads]

    producer.join();
    for (std::thread& consumer : consumers) {
        consumer.join();
    }
    std::cout << "sum: " << sum << "\n";

    // [closing]
    std::thread waiting([&] {
        std::vector<GVSharedTokenLease> leases;
        while (GVSharedTokenLease lease = GVSharedTokenLease::wait(pool)) {
            leases.push_back(std::move(lease));
        }
        // Nothing came: the pool is closed. The leases return their blocks.
    });
    while (pool.getStatistics().theFreeCount != 0) {
        std::this_thread::yield();
    }
    pool.close();
    waiting.join();

    const GVSharedPoolStatistics statistics = pool.getStatistics();
    std::cout << "free: " << statistics.theFreeCount << ", most lent at a time: " << statistics.theHighestLentCount
              << ", timeouts: " << statistics.theTimeoutCount << "\n";
    // [closing]

    return statistics.theFreeCount == numberOfBlocks ? 0 : 1;
}
