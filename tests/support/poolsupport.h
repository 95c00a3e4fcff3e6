/// @file
/// What tests of pools have in common.
#ifndef GILVANE_TESTS_SUPPORT_POOLSUPPORT_H
#define GILVANE_TESTS_SUPPORT_POOLSUPPORT_H

#include "gvtestpeer.h"

#include <vector>

namespace Gilvane {

/// Builds one more block for each of these tokens, in this order.
inline void buildBlocks(GVMemoryPool& pool, const std::vector<unsigned int>& tokens) {
    for (const unsigned int token : tokens) {
        GVTestPeer::nextToken() = token;
        pool.resizePool(GVTestPeer::table(pool).getUsedCount() + 1);
    }
}

} // namespace Gilvane

#endif
