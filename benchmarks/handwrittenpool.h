/// @file
/// What a user would write by hand in place of the pool.
#ifndef GILVANE_BENCHMARKS_HANDWRITTENPOOL_H
#define GILVANE_BENCHMARKS_HANDWRITTENPOOL_H

#include <absl/container/flat_hash_map.h>
#include <boost/pool/pool.hpp>

#include <cstddef>
#include <mutex>
#include <vector>

/// A mutex for pools that are not shared: it does nothing, and costs nothing.
struct NoMutex {
    void lock() {}
    void unlock() {}
};

/// Lends blocks by number: Boost's pool for the blocks, Abseil's flat map from token to block, and a vector of the
/// tokens that are free.
///
/// @tparam Mutex  std::mutex, or NoMutex
/// @par Thread safety
///   With std::mutex, borrow, address and giveBack may run concurrently.
/// @par Ownership
///   Owns its blocks.
template <typename Mutex>
class HandWrittenPool {
  public:
    /// A pool with all its blocks built.
    /// @param reserve  whether to make room in map and vector first
    HandWrittenPool(unsigned int numberOfObjects, std::size_t bytesPerObject, bool reserve = false)
        : theMemory(bytesPerObject) {
        if (reserve) {
            theBlocks.reserve(numberOfObjects);
            theFreeTokens.reserve(numberOfObjects);
        }
        build(numberOfObjects);
    }
    HandWrittenPool(const HandWrittenPool&) = delete;
    HandWrittenPool& operator=(const HandWrittenPool&) = delete;

    /// Lends the block that was returned last; doubles the pool when none is left.
    unsigned int borrow() {
        const std::lock_guard<Mutex> guard(theMutex);
        if (theFreeTokens.empty()) {
            build(theNextToken);
        }
        const unsigned int token = theFreeTokens.back();
        theFreeTokens.pop_back();
        return token;
    }

    /// The address of a block's first byte.
    /// @param token  of a block of this pool
    void* address(unsigned int token) {
        const std::lock_guard<Mutex> guard(theMutex);
        return theBlocks.find(token)->second;
    }

    void giveBack(unsigned int token) {
        const std::lock_guard<Mutex> guard(theMutex);
        theFreeTokens.push_back(token);
    }

  private:
    void build(unsigned int numberOfObjects) {
        for (unsigned int built = 0; built < numberOfObjects; ++built) {
            theBlocks.emplace(theNextToken, theMemory.malloc());
            theFreeTokens.push_back(theNextToken);
            ++theNextToken;
        }
    }

    boost::pool<> theMemory;
    absl::flat_hash_map<unsigned int, void*> theBlocks; // token -> block
    std::vector<unsigned int> theFreeTokens;            // the next to lend at the end
    unsigned int theNextToken = 0;                      // also the number of blocks
    Mutex theMutex;
};

#endif
