// Returns a token twice in the hardened build, which ends the program, while other threads wait for a block: what a
// debugger is to find in the core.
//
//   target_mistake DUMP     the file for the pool's dump, as the program writes it
#include <gilvane/utilities/gvmemorypool.h>
#include <gilvane/utilities/gvsharedpool.h>

#include <cstdio>
#include <fstream>
#include <thread>
#include <vector>

// The debugger finds it by name.
Gilvane::GVMemoryPool* lendingPool;

int main(int argumentCount, char** arguments) {
    if (argumentCount != 2) {
        std::fputs("usage: target_mistake DUMP\n", stderr);
        return 2;
    }
    constexpr unsigned int waiterCount = 3;
    Gilvane::GVSharedPool dryPool(1, 16);
    const unsigned int held = dryPool.borrow().value();
    std::vector<std::thread> waiters;
    for (unsigned int waiter = 0; waiter < waiterCount; ++waiter) {
        waiters.emplace_back([&dryPool] { dryPool.releaseObject(dryPool.borrow().value()); });
    }
    while (dryPool.getStatistics().theWaitCount < waiterCount) {
        std::this_thread::yield();
    }

    Gilvane::GVMemoryPool pool(3, 32, true);
    lendingPool = &pool;
    const unsigned int first = pool.getTokenForFreeMemoryObject();
    const unsigned int second = pool.getTokenForFreeMemoryObject();
    std::snprintf(static_cast<char*>(pool.getMemoryForToken(second)), 32, "lent when it happened");
    pool.releaseObject(first);
    std::ofstream(arguments[1]) << pool;
    pool.releaseObject(first);

    dryPool.releaseObject(held); // not reached
    for (std::thread& waiter : waiters) {
        waiter.join();
    }
}
