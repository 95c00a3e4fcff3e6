#include <gilvane/utilities/gvpoolresource.h>

#if __has_include(<memory_resource>)

#include "sharedpoolsupport.h"

#include <gtest/gtest.h>

#include <list>
#include <memory_resource>
#include <numeric>
#include <thread>

namespace Gilvane {

TEST(PoolResourceThreads, shareALockedPoolAndASharedPool) {
    GVMemoryPool locked(64, 64, true);
    GVSharedPool shared(64, 64);
    GVPoolResource overLocked(locked);
    GVPoolResource overShared(shared);
    const auto work = [](GVPoolResource& resource) {
        for (int round = 0; round < 200; ++round) {
            std::pmr::list<int> numbers(&resource);
            for (int number = 0; number < 40; ++number) { // the two of them run the pool dry
                numbers.push_back(number);
            }
            EXPECT_EQ(std::accumulate(numbers.begin(), numbers.end(), 0), 780);
        }
    };
    for (GVPoolResource* const resource : {&overLocked, &overShared}) {
        std::thread other([&] { work(*resource); });
        work(*resource);
        other.join();
    }
    EXPECT_EQ(locked.numberOfObjectsInPoolInUse(), 0U);
    expectThatNothingIsLost(shared);
}

} // namespace Gilvane

#endif
