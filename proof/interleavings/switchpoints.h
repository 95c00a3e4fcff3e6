/// @file
/// The moments at which one thread may be stopped and another go on.
#ifndef GILVANE_PROOF_INTERLEAVINGS_SWITCHPOINTS_H
#define GILVANE_PROOF_INTERLEAVINGS_SWITCHPOINTS_H

namespace Gilvane {
namespace Interleavings {

/// What a thread is about to do.
enum class Step : unsigned char {
    lock,         ///< take a handle
    unlock,       ///< release a handle
    readCount,    ///< read a pool's number of blocks without its lock
    writeSize,    ///< write a pool's block size without its lock
    readCounter,  ///< read the token counter
    writeCounter, ///< write the token counter
    removeBlock,  ///< take a block out of a pool; it changes the number that readCount reads
    touch,        ///< use a block's bytes

    // No other thread gets a turn at the following.
    pop,          ///< take the last free token
    lookUp,       ///< look a token up
    deleteHandle, ///< delete a handle
    cut,          ///< something undefined: the reference goes no further
    finished,

    // In the exploration of shared pools; what they are done to has a number.
    read,   ///< a word
    write,  ///< a word
    sleep,  ///< until somebody wakes the thread
    doze,   ///< likewise, or until it wakes up by itself
    wake,   ///< threads that sleep at a word
    choose, ///< one of so many ways to go on
};

/// Called by the library's copy and by the reference before each of these; returns when it is the thread's turn. Does
/// nothing outside the threads of a program.
/// @param subject  the handle's number where there is one
void at(Step step, unsigned int subject = 0);

} // namespace Interleavings
} // namespace Gilvane

#endif
