// The pool's own checks in the hardened build; in others there is nothing here.
#include <gilvane/utilities/gvmemorypool.h>

#if defined(GILVANE_HARDENED)

#include <gilvane/base/gvrawblock.h>

#include <algorithm>

namespace Gilvane {

// By the table's get, which adds nothing. A shrink may leave a block where no search comes by, or behind an entry
// without one; then every slot is looked at, so that the return of such a block does not count as misuse.
const GVMemoryPoolObject* GVMemoryPool::findBlock(unsigned int token) const {
    const auto* const entry = memoryPool.get(token);
    if (entry != nullptr && entry->theValue != nullptr) {
        return entry->theValue;
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
        reportMisuse("getTokenForFreeMemoryObject: pool %p: there is no token to take, even after growth",
                     static_cast<const void*>(this));
    }
}

// A token whose block is gone may be lent, after a rebuild; it has no bytes to mark.
void GVMemoryPool::checkAfterLoan(unsigned int token) const {
    const GVMemoryPoolObject* const block = findBlock(token);
    if (block != nullptr) {
        markUsable(block->getBytes(), block->getLength());
    }
}

void GVMemoryPool::checkBeforeAddress(unsigned int token) const {
    const auto* const entry = memoryPool.get(token);
    if (entry == nullptr || entry->theValue == nullptr) {
        reportMisuse("getMemoryForToken: token %u of pool %p: %s", token, static_cast<const void*>(this),
                     findBlock(token) != nullptr ? "hidden by a shrink, though its block is there"
                                                 : "unknown: not of this pool, or its block is gone");
    }
}

// The token stands at the end of the free list already; anywhere before it, it stands there twice.
void GVMemoryPool::checkAfterReturn(unsigned int token) const {
    const GVMemoryPoolObject* const block = findBlock(token);
    if (block == nullptr) {
        reportMisuse("releaseObject: token %u of pool %p: unknown: not of this pool, or its block is gone", token,
                     static_cast<const void*>(this));
    }
    const auto last = availableTokens.end() - 1;
    if (std::find(availableTokens.begin(), last, token) != last) {
        reportMisuse("releaseObject: token %u of pool %p: returned twice, or never lent", token,
                     static_cast<const void*>(this));
    }
    markUntouchable(block->getBytes(), block->getLength());
}

void GVMemoryPool::checkBlockSize() const {
    if (!fitsInRawBlock(bytesInEachObject)) {
        reportMisuse("building a block: pool %p: blocks of %u bytes wrap with their header words",
                     static_cast<const void*>(this), bytesInEachObject);
    }
}

} // namespace Gilvane

#endif
