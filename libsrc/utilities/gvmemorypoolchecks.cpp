// The pool's checks in the hardened build. The default build compiles them, and calls none.
#include <gilvane/utilities/gvmemorypool.h>

#include <gilvane/base/gvrawblock.h>

#include <algorithm>

namespace Gilvane {

// As blockOf, but looks at every slot when the search fails. A shrink may hide a block, and the return of a hidden
// block is no misuse.
const GVMemoryPoolObject* GVMemoryPool::blockInAnySlot(unsigned int token) const {
    if (const GVMemoryPoolObject* const block = blockOf(token)) {
        return block;
    }
    for (auto position = memoryPool.begin(); position != memoryPool.end(); ++position) {
        if (position.GetKey() == token && *position != nullptr) {
            return *position;
        }
    }
    return nullptr;
}

void GVMemoryPool::checkThatThereIsOneToLend() const {
    if (availableTokens.empty()) {
        detail::reportMisuse("getTokenForFreeMemoryObject: pool %p: there is no token to take, even after growth",
                             static_cast<const void*>(this));
    }
}

// A rebuilt pool may lend a token whose block is gone: then there is nothing to mark.
void GVMemoryPool::markLent(unsigned int token) const {
    const GVMemoryPoolObject* const block = blockInAnySlot(token);
    if (block != nullptr) {
        detail::markBytesUsable(block->getBytes(), block->getLength());
    }
}

void GVMemoryPool::checkBeforeAddress(unsigned int token) const {
    if (blockOf(token) == nullptr) {
        detail::reportMisuse("getMemoryForToken: token %u of pool %p: %s", token, static_cast<const void*>(this),
                             blockInAnySlot(token) != nullptr ? "hidden by a shrink, though its block is there"
                                                              : "unknown: not of this pool, or its block is gone");
    }
}

// The token is at the end of the free list already. A second occurrence means that it was free before.
void GVMemoryPool::checkAfterReturn(unsigned int token) const {
    const GVMemoryPoolObject* const block = blockInAnySlot(token);
    if (block == nullptr) {
        detail::reportMisuse("releaseObject: token %u of pool %p: unknown: not of this pool, or its block is gone",
                             token, static_cast<const void*>(this));
    }
    const auto last = availableTokens.end() - 1;
    if (std::find(availableTokens.begin(), last, token) != last) {
        detail::reportMisuse("releaseObject: token %u of pool %p: returned twice, or never lent", token,
                             static_cast<const void*>(this));
    }
    detail::markBytesUntouchable(block->getBytes(), block->getLength());
}

void GVMemoryPool::checkBlockSize() const {
    if (!detail::fitsInRawBlock(bytesInEachObject)) {
        detail::reportMisuse("building a block: pool %p: blocks of %u bytes wrap with their header words",
                             static_cast<const void*>(this), bytesInEachObject);
    }
}

} // namespace Gilvane
