// The pool's checks in the hardened build. The default build compiles them, and calls none.
#include <gilvane/utilities/gvmemorypool.h>

#include <gilvane/base/gvrawblock.h>

#include <algorithm>

namespace Gilvane {

// As blockOf, but finds hidden blocks too, whose return is no misuse: after a shrink, searches may miss a block, or find
// an entry without a block before it. Then every slot is looked at.
const GVMemoryPoolObject* GVMemoryPool::findBlock(unsigned int token) const {
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

// A token whose block is gone may be lent, after a rebuild; it has no bytes to mark.
void GVMemoryPool::checkAfterLoan(unsigned int token) const {
    const GVMemoryPoolObject* const block = findBlock(token);
    if (block != nullptr) {
        detail::markBytesUsable(block->getBytes(), block->getLength());
    }
}

void GVMemoryPool::checkBeforeAddress(unsigned int token) const {
    if (blockOf(token) == nullptr) {
        detail::reportMisuse("getMemoryForToken: token %u of pool %p: %s", token, static_cast<const void*>(this),
                             findBlock(token) != nullptr ? "hidden by a shrink, though its block is there"
                                                         : "unknown: not of this pool, or its block is gone");
    }
}

// The token stands at the end of the free list already; anywhere before it, it stands there twice.
void GVMemoryPool::checkAfterReturn(unsigned int token) const {
    const GVMemoryPoolObject* const block = findBlock(token);
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
