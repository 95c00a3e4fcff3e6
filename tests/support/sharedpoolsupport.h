/// @file
/// What tests of shared pools have in common.
#ifndef GILVANE_TESTS_SUPPORT_SHAREDPOOLSUPPORT_H
#define GILVANE_TESTS_SUPPORT_SHAREDPOOLSUPPORT_H

#include "threadsupport.h"

#include <gilvane/utilities/gvsharedpool.h>

#include <gtest/gtest.h>

#include <chrono>
#include <optional>
#include <thread>
#include <vector>

namespace Gilvane {

/// What exceptions of a shared pool name as their source file, and say of a token that is refused.
inline constexpr const char* sharedPoolFile = "libsrc/utilities/gvsharedpool";
inline constexpr const char* notOfThisPool = "Token is not of this pool.";
inline constexpr const char* freeAlready = "Token is free: returned already, or never lent.";

/// Long enough for a waiter that it is handed the next block.
inline void letTheOvertakingEnd() { std::this_thread::sleep_for(std::chrono::milliseconds(1)); }

/// Returns when so many waits have begun in a pool.
inline void awaitWaits(const GVSharedPool& pool, unsigned int count) {
    await([&] { return pool.getStatistics().theWaitCount >= count; });
}

/// Borrows all that is free, the first at the front.
template <typename Lender>
std::vector<unsigned int> borrowAll(Lender& lender) {
    std::vector<unsigned int> tokens;
    while (const std::optional<unsigned int> token = lender.tryBorrow()) {
        tokens.push_back(*token);
    }
    return tokens;
}

/// Returns these tokens, in order.
template <typename Lender>
void returnAll(Lender& lender, const std::vector<unsigned int>& tokens) {
    for (const unsigned int token : tokens) {
        lender.releaseObject(token);
    }
}

/// Expects that all blocks are free, and that each is lent once.
inline void expectThatNothingIsLost(GVSharedPool& pool) {
    EXPECT_EQ(pool.getStatistics().theFreeCount, pool.getNumberOfObjects());
    const std::vector<unsigned int> tokens = borrowAll(pool);
    EXPECT_EQ(tokens.size(), pool.getNumberOfObjects());
    returnAll(pool, tokens); // refuses a token that was there twice
}

} // namespace Gilvane

#endif
