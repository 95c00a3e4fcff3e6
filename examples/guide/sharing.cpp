// A pool that threads share and that never runs dry: it is built before they start, and a limit is in front of it.
#include <gilvane/utilities/gvmemorypool.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <iostream>
#include <mutex>
#include <thread>
#include <vector>

using Gilvane::GVMemoryPool;

namespace {

constexpr unsigned int numberOfBlocks = 4;
constexpr unsigned int numberOfThreads = 8;

// [limit]
// Lets as many borrowers in as there are blocks. The others wait. The pool itself never waits: it grows.
class LoanLimit {
  public:
    explicit LoanLimit(unsigned int blocks) : freeBlocks(blocks) {}

    void enter() {
        std::unique_lock<std::mutex> guard(lock);
        returned.wait(guard, [this] { return freeBlocks != 0; });
        --freeBlocks;
    }
    void leave() {
        const std::lock_guard<std::mutex> guard(lock);
        ++freeBlocks;
        returned.notify_one();
    }

  private:
    std::mutex lock;
    std::condition_variable returned;
    unsigned int freeBlocks;
};
// [limit]

} // namespace

int main() {
    std::atomic<bool> overlapped = false;
    // [sharing]
    // All blocks are built before the first thread starts.
    auto pool = GVMemoryPool::initWithNumberOfObjectsAndSize(numberOfBlocks, sizeof(unsigned int), true);
    LoanLimit limit(numberOfBlocks);

    std::vector<std::thread> threads;
    for (unsigned int self = 0; self < numberOfThreads; ++self) {
        // Each thread holds a pointer of its own: one pointer is for one thread at a time.
        threads.emplace_back([pool, self, &limit, &overlapped] {
            for (int loan = 0; loan < 1000; ++loan) {
                limit.enter();
                const unsigned int token = pool->getTokenForFreeMemoryObject();
                // The address stays good until the block goes; the bytes are this thread's.
                auto* const bytes = static_cast<volatile unsigned int*>(pool->getMemoryForToken(token));
                *bytes = self;
                std::this_thread::yield(); // so that two borrowers of one block would be seen
                if (*bytes != self) {
                    overlapped = true;
                }
                pool->releaseObject(token);
                limit.leave();
            }
        });
    }
    // [sharing]
    for (std::thread& thread : threads) {
        thread.join();
    }
    std::cout << "in use: " << pool->numberOfObjectsInPoolInUse() << "\n";

    // There are as many blocks as at the start: the pool never grew.
    unsigned int highest = 0;
    for (unsigned int block = 0; block < numberOfBlocks; ++block) {
        highest = std::max(highest, pool->getTokenForFreeMemoryObject());
    }
    std::cout << "highest token: " << highest << "\n";
    return overlapped ? 1 : 0;
}
