/// @file
/// The one place that knows what a raw block looks like.
///
///     what the allocation       what the user
///     function returned         gets
///     |                         |
///     v                         v
///     | deallocation function   | bytes ...                     |
///       one pointer               as many as the user asked for
///
/// The first pointer is the header word. Each block holds the function that takes it back, so that a later change of
/// the hooks does not affect it.
#ifndef GILVANE_BASE_GVRAWBLOCK_H
#define GILVANE_BASE_GVRAWBLOCK_H

#include <gilvane/base/gvobject.h>

#include <cstddef>
#include <cstdint>
#include <limits>
#include <new>

namespace Gilvane::detail {

static_assert(sizeof(GVDeallocatorFunction) == sizeof(void*), "the header word is one pointer wide");

/// Bytes that the header word adds in front of the user's bytes.
inline constexpr unsigned int rawBlockHeaderBytes = sizeof(GVDeallocatorFunction);

/// Whether the user's bytes and the header word together fit in 32 bits, in which the hooks count.
constexpr bool fitsInRawBlock(std::size_t numberOfBytes) noexcept {
    return numberOfBytes <= (std::numeric_limits<unsigned int>::max)() - rawBlockHeaderBytes;
}

/// The address of the header word before the user's bytes, as a number: the compiler may not take it for non-zero.
inline std::uintptr_t rawBlockStart(const void* userBytes) noexcept {
    return reinterpret_cast<std::uintptr_t>(userBytes) - rawBlockHeaderBytes;
}

/// Makes a raw block with one call of the current allocation function.
/// @param numberOfBytes  user bytes. The header word's are added modulo 2^32, without a check: callers that must not
///                       wrap check fitsInRawBlock first
/// @returns the user's first byte, or null when the allocation function returned null
inline void* allocateRawBlock(unsigned int numberOfBytes) {
    void* const start = GVObject::GetAllocator()(numberOfBytes + rawBlockHeaderBytes);
    if (start == nullptr) {
        return nullptr;
    }
    ::new (start) GVDeallocatorFunction(GVObject::GetDeallocator());
    return static_cast<char*>(start) + rawBlockHeaderBytes;
}

/// The deallocation function that the header word before `userBytes` holds.
inline GVDeallocatorFunction rawBlockDeallocator(const void* userBytes) noexcept {
    return *reinterpret_cast<const GVDeallocatorFunction*>(rawBlockStart(userBytes));
}

/// Gives a raw block back: calls the function found in its header word, as it is, with the block's start.
/// @param userBytes  what allocateRawBlock returned; not null
inline void releaseRawBlock(void* userBytes) {
    rawBlockDeallocator(userBytes)(reinterpret_cast<void*>(rawBlockStart(userBytes)));
}

} // namespace Gilvane::detail

#endif
