/// @file
/// Memory as both sides of the proof see it: requests numbered in order, one of them refused, and what became of each.
#ifndef GILVANE_PROOF_FAILURES_MEMORY_H
#define GILVANE_PROOF_FAILURES_MEMORY_H

#include "reference/allocation.h"

#include <cstddef>
#include <limits>
#include <string>
#include <vector>

namespace Proof {

/// The number of a request to the allocation function. 0 stands for null, -1 for an address that no block has.
using Gilvane::reference::Id;

/// Which requests are refused.
struct Refusal {
    static constexpr std::size_t never = std::numeric_limits<std::size_t>::max();

    std::size_t at = never; // requests that come before the first refused one
    bool stays = false;     // whether all after it are refused too

    bool holds(std::size_t request) const { return request == at || (stays && request > at); }
};

/// Which pair of hooks a block came from, as its header word must say: the first while a start state is built, the
/// second afterwards.
enum Hooks : int { hooksOfTheState = 1, hooksOfTheOperation = 2 };

/// Books on requests, releases and locks; events are written in the order in which they happen.
struct Books {
    struct Block {
        unsigned int bytes; // header word included
        Hooks hooks;
        bool live;
        void* start; // null in the reference's books
    };

    std::vector<Block> blocks; // by Id - 1; a refused request is not live
    std::vector<std::string> events;
    Hooks hooks = hooksOfTheState;
    Refusal refusal;
    std::size_t requestsUnderRefusal = 0;
    std::size_t refused = 0;

    void refuse(Refusal newRefusal) {
        refusal = newRefusal;
        requestsUnderRefusal = 0;
        refused = 0;
    }

    /// Enters a request; whether it is granted.
    bool request(unsigned int bytes) {
        const bool granted = !refusal.holds(requestsUnderRefusal++);
        refused += granted ? 0 : 1;
        blocks.push_back({bytes, hooks, granted, nullptr});
        events.push_back((granted ? "take " : "refused ") + std::to_string(bytes) + " as " +
                         std::to_string(blocks.size()));
        return granted;
    }
};

} // namespace Proof

#endif
