// Pools for threads of different priorities: no lock of theirs lets a middle priority hold up a high one.
#include <gilvane/base/gvexception.h>
#include <gilvane/threads/gvthreadsfactory.h>
#include <gilvane/utilities/gvmemorypool.h>
#include <gilvane/utilities/gvsharedpool.h>

#include <pthread.h>
#include <sched.h>

#include <iostream>
#include <memory>
#include <thread>
#include <vector>

using Gilvane::GVException;
using Gilvane::GVMemoryPool;
using Gilvane::GVMutexHandle;
using Gilvane::GVSharedPool;

namespace {

// [priority]
// Gives the calling thread a real-time priority. Whether the system permits it.
bool runWithPriority(int priority) {
    sched_param parameters = {};
    parameters.sched_priority = priority;
    return pthread_setschedparam(pthread_self(), SCHED_FIFO, &parameters) == 0;
}
// [priority]

} // namespace

int main() {
    // [pools]
    // Both before the first thread starts. The first takes its lock from the program's own handles.
    auto pool = GVMemoryPool::initWithNumberOfObjectsAndSize(8, 64, true);
    GVSharedPool sharedPool(8, 64, Gilvane::gvpriorityinheritance);
    // [pools]

    std::vector<std::thread> threads;
    for (int priority = 1; priority <= 3; ++priority) {
        threads.emplace_back([pool, &sharedPool, priority] {
            runWithPriority(priority); // where it is not permitted, the threads are of one priority
            for (int loan = 0; loan < 1000; ++loan) {
                pool->releaseObject(pool->getTokenForFreeMemoryObject());
                if (const auto token = sharedPool.tryBorrow()) {
                    sharedPool.releaseObject(*token);
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    std::cout << "in use: " << pool->numberOfObjectsInPoolInUse() << " and " << sharedPool.getStatistics().theLentCount
              << "\n";

    // The handles are this program's: the library's throws another text.
    try {
        const std::unique_ptr<GVMutexHandle> handle(Gilvane::CreateUnnamedMutexHandle(Gilvane::gvexclusivemutex, true));
    } catch (const GVException& exception) {
        std::cout << exception.getMessage() << "\n";
    }
    return 0;
}
