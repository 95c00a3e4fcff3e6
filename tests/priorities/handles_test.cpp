// With the handles of a program that inherit, which is the guide's.
#include "priorities.h"

#include <gilvane/base/gvexception.h>
#include <gilvane/threads/gvthreadsfactory.h>
#include <gilvane/utilities/gvmemorypool.h>

#include <gtest/gtest.h>

#include <memory>

namespace Gilvane {

namespace {

using InheritingHandles = OfPriorities;

} // namespace

TEST_F(InheritingHandles, endThePriorityInversionOfALockedPool) {
    const auto pool = GVMemoryPool::initWithNumberOfObjectsAndSize(4, 16, true);
    EXPECT_EQ(orderOfEvents(visitorOf(*pool), [&] { pool->numberOfObjectsInPoolInUse(); }), inherited);
}

TEST(InheritingHandlesOfAProgram, takeThePlaceOfTheLibrarysAndKeepTheirContract) {
    const std::unique_ptr<GVMutexHandle> handle(GVThreadsFactory().CreateUnnamedHandle(gvexclusivemutex, false));
    EXPECT_TRUE(handle->tryLock());
    EXPECT_FALSE(handle->tryLock());
    handle->unlock();
    handle->lock();
    EXPECT_FALSE(handle->tryLock());
    handle->unlock();
    EXPECT_THROW(CreateUnnamedMutexHandle(gvexclusivemutex, true), GVException);
    EXPECT_THROW(CreateUnnamedMutexHandle(static_cast<_gvmutex>(4), false), GVException);
}

} // namespace Gilvane
