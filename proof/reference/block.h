/// @file
/// Blocks, and the tokens that name them.
#ifndef GILVANE_PROOF_REFERENCE_BLOCK_H
#define GILVANE_PROOF_REFERENCE_BLOCK_H

#include "allocation.h"
#include "notdriven.h"

#include <map>
#include <optional>

namespace Gilvane::reference {

struct Block {
    unsigned int token;
    unsigned int length;
    Id bytes;                                  // 0 without bytes
    std::optional<unsigned char> content = {}; // what every byte was last set to
};

inline std::map<Id, Block> blocks;
inline unsigned int nextToken = 0;

/// A block's two requests; its token is taken once it is whole.
/// @param mayThrow  whether refused storage is BadAlloc; it is 0 otherwise
inline Id makeBlock(unsigned int length, bool mayThrow) {
    RawBlock block(mayThrow ? requestOrThrow(What::block) : meter->request(What::block, 1));
    if (block.id() == 0) {
        return 0;
    }
    const Id bytes = length == 0 ? 0 : requestOrThrow(What::bytesOfBlock, length);
    blocks[block.id()] = {nextToken++, length, bytes};
    return block.leave();
}

inline Block& liveBlock(Id id) {
    const auto found = blocks.find(id);
    if (found == blocks.end()) {
        throw NotDriven{id == 0 ? "a null block is read" : "a block is touched that another pool has deleted"};
    }
    return found->second;
}

inline void deleteBlock(Id id) {
    if (id != 0) {
        release(liveBlock(id).bytes);
        blocks.erase(id);
        release(id);
    }
}

} // namespace Gilvane::reference

#endif
