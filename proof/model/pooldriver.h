/// @file
/// Drives four smart pointers and their pools.
#ifndef GILVANE_PROOF_MODEL_POOLDRIVER_H
#define GILVANE_PROOF_MODEL_POOLDRIVER_H

#include "driver.h"

#include <memory>

namespace Gilvane::driver {

/// Operations on pools and pointers: `a` says which pointer in its two lowest bits and which other one in the next two;
/// `b` holds a count, a size, a flag or the choice of a token.
enum class PoolCall : unsigned char {
    init,          // b: bit 0 mutex
    initCount,     // b: bit 0 mutex, blocks in the rest
    initSized,     // b: bit 0 mutex, bits 1 to 4 blocks, size in the rest
    borrow,        //
    write,         // b: token
    release,       // b: token
    removeFree,    // b: token
    resizeTo,      // b: blocks
    growBy,        // b: blocks
    shrinkBy,      // b: blocks
    makePool,      // b: blocks
    setBytes,      // b: size
    setDefault,    // b: blocks
    copyConstruct, // the pointer anew, from the other
    assign,        // the pointer from the other
    moveConstruct, //
    moveAssign,    //
    reset,         //
    decrement,     //
    deepCopy,      // of the pointer, into the other
    alias,         // the other from the pointer's pool; b: bit 0 mutex, bit 1 owning
    fromNull,      // b: bit 0 mutex, bit 1 owning
    deleteData,    //
    numberOfCalls, // the calls from here on no program makes
    forget         // leaves the pointer empty without its destructor
};

/// Choices of a token, in the two highest bits of `b`; the rest counts.
enum TokenChoice : unsigned char {
    ofTable = 0x00, // of the pool's table, in the order of the slots
    ofFree = 0x40,  // of the pool's free list, from its end
    ofLent = 0x80,  // of all tokens that any pool lent so far, from the last
    unknown = 0xc0  // one that no pool has
};

/// First tokens that a scene may ask for.
inline constexpr unsigned int firstTokens[] = {0, 1, 0xfffffff9, 0xfffffffc, 0xffffffff, 0x7ffffffe, 27, 0xffffffe0};
/// Bytes in each block.
inline constexpr unsigned int blockSizes[] = {0, 1, 4, 7, 16, 24, 40, 64};

/// @param scene  says which token is the first
std::unique_ptr<Driver> makePoolDriver(unsigned char scene);

} // namespace Gilvane::driver

#endif
