/// @file
/// The programs whose interleavings are explored.
#ifndef GILVANE_PROOF_INTERLEAVINGS_PROGRAMS_H
#define GILVANE_PROOF_INTERLEAVINGS_PROGRAMS_H

#include <vector>

namespace Gilvane {
namespace Interleavings {

/// What a thread can be told to do. A thread keeps four tokens and four pointers, each in a place of that number.
enum class Do : unsigned char {
    borrow,  ///< (pool, place) a token
    give,    ///< (pool, place) it back
    use,     ///< (pool, place) the bytes of its block
    count,   ///< (pool) what is in use
    resize,  ///< (pool, blocks)
    rebuild, ///< (pool, blocks)
    setSize, ///< (pool, bytes)
    copy,    ///< (from, to) a pointer
    assign,  ///< (from, to) a pointer
    move,    ///< (from, to) a pointer
    drop,    ///< (place) a pointer
    refs,    ///< (place) ask a pointer for its number of sharers
    print,   ///< (place) a pointer
    pause,   ///< nothing but a switch point
};

struct Operation {
    Do what;
    unsigned int first = 0;
    unsigned int second = 0;
};

/// A locked pool as the program finds it: made with that many blocks, or without any if it has `later` ones instead.
struct PoolAtStart {
    unsigned int blocks;
    unsigned int bytes;
    unsigned int later = 0; // blocks to build at the first loan
};

struct Program {
    const char* name;
    std::vector<PoolAtStart> pools;
    bool shared; // the first pool is owned by smart pointers; each thread has one in its first place
    /// Done by no thread, before they start; what it borrows, the first thread holds.
    std::vector<Operation> before;
    std::vector<std::vector<Operation>> threads;
};

/// Two threads of six operations.
const std::vector<Program>& exhaustivePrograms();
/// Three threads of three operations.
const std::vector<Program>& boundedPrograms();
/// More threads, or longer ones.
const std::vector<Program>& randomPrograms();

} // namespace Interleavings
} // namespace Gilvane

#endif
