/// @file
/// The programs of threads over a shared pool whose schedules are explored.
#ifndef GILVANE_PROOF_SHARING_PROGRAMS_H
#define GILVANE_PROOF_SHARING_PROGRAMS_H

#include <string>
#include <vector>

namespace Gilvane::Sharing {

/// What a thread can be told to do, by a letter.
enum Do : char {
    tryBorrow = 't',
    borrow = 'b',
    borrowFor = 'f',  ///< the explorer decides when the time is over
    giveBack = 'r',   ///< the token borrowed last; nothing without one
    giveToPool = 'p', ///< the same, past the cache
    flush = 'l',      ///< nothing without a cache
    close = 'c',      ///< the pool
    readStatistics = 's',
};

struct Thread {
    unsigned int capacity; // of its cache; 0: it has none
    std::string operations;
};

struct Program {
    std::string name;
    unsigned int blocks;
    std::vector<Thread> threads;
};

/// Two threads of four operations.
const std::vector<Program>& programsOfTwo();
/// Three threads of three operations.
const std::vector<Program>& programsOfThree();
/// Two threads of four operations, or three of three, made by chance; each seed gives one.
Program randomProgram(unsigned int seed, bool ofThree);

} // namespace Gilvane::Sharing

#endif
