// With the library's handles, which do not inherit, and shared pools, which do where they are asked to.
#include "priorities.h"

#include <gilvane/utilities/gvmemorypool.h>
#include <gilvane/utilities/gvsharedpool.h>
#include <gilvane/utilities/gvtokencache.h>

#include <gtest/gtest.h>

namespace Gilvane {

namespace {

using PriorityInversion = OfPriorities;

} // namespace

TEST_F(PriorityInversion, isThereWithTheHandlesOfTheLibrary) {
    const auto pool = GVMemoryPool::initWithNumberOfObjectsAndSize(4, 16, true);
    EXPECT_EQ(orderOfEvents(visitorOf(*pool), [&] { pool->numberOfObjectsInPoolInUse(); }), inverted);
}

TEST_F(PriorityInversion, isThereInASharedPoolWithoutTheOption) {
    GVSharedPool pool(4, 16);
    EXPECT_EQ(orderOfEvents(visitorOf(pool), [&] { EXPECT_TRUE(pool.tryBorrow().has_value()); }), inverted);
}

TEST_F(PriorityInversion, isNotThereInASharedPoolThatInherits) {
    GVSharedPool pool(4, 16, gvpriorityinheritance);
    EXPECT_EQ(orderOfEvents(visitorOf(pool), [&] { EXPECT_TRUE(pool.tryBorrow().has_value()); }), inherited);
}

TEST_F(PriorityInversion, isNotThereBehindACacheOfASharedPoolThatInherits) {
    for (const bool inherits : {false, true}) {
        GVSharedPool pool(4, 16, inherits ? gvpriorityinheritance : gvnoprotocol);
        GVTokenCache cache(pool, 2);
        EXPECT_EQ(orderOfEvents(visitorOf(pool), [&] { EXPECT_TRUE(cache.tryBorrow().has_value()); }),
                  inherits ? inherited : inverted);
    }
}

} // namespace Gilvane
