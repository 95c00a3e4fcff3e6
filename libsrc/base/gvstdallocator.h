/// @file
/// The allocator through which the standard containers and strings of the system take their memory.
#ifndef GILVANE_BASE_GVSTDALLOCATOR_H
#define GILVANE_BASE_GVSTDALLOCATOR_H

#include <gilvane/base/gvobject.h>
#include <gilvane/base/gvrawblock.h>

#include <cstddef>
#include <limits>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

namespace Gilvane {

/// A standard allocator over the allocation hooks: one raw block, with its header word, for each allocation.
///
/// Any instance can release what any other allocated, because the deallocation function travels with the block; so
/// all instances are equal and copying or rebinding carries nothing over.
///
/// A T may be aligned as `std::max_align_t` at most: a stricter one does not compile.
///
/// @par Thread safety
///   All operations may run concurrently.
/// @par Ownership
///   Owns nothing; what it allocated belongs to the container that asked.
template <typename T>
class GILVANE_EXPORT GVStdAllocator : public GVObject {
  public:
    /// @name Types
    /// @{

    /// As containers expect it of an allocator.
    using value_type = T;
    using pointer = T*;
    using const_pointer = const T*;
    using reference = T&;
    using const_reference = const T&;
    using size_type = std::size_t;
    using difference_type = std::ptrdiff_t;
    using is_always_equal = std::true_type; // the default, std::is_empty, is false: there is a virtual table

    /// @}

    /// How containers ask for the allocator of another type.
    template <typename U>
    struct rebind {
        using other = GVStdAllocator<U>; ///< that allocator
    };

    GVStdAllocator() noexcept = default;
    GVStdAllocator(const GVStdAllocator&) noexcept = default;
    /// Rebinding copy: there is nothing to carry over.
    template <typename U>
    GVStdAllocator(const GVStdAllocator<U>&) noexcept {} // NOLINT(google-explicit-constructor): containers convert
    GVStdAllocator& operator=(const GVStdAllocator&) noexcept = default;
    ~GVStdAllocator() override = default;

    /// Storage for `n` objects, not constructed.
    /// @param n  objects; 0 gives a block of the header word alone
    /// @returns  the address just past the header word, never null
    /// @throws std::bad_alloc when the allocation function returns null, or the bytes and the header word together do
    ///           not fit in 32 bits; nothing is left to release
    T* allocate(size_type n) {
        static_assert(alignof(T) <= alignof(std::max_align_t),
                      "GVStdAllocator cannot align this type: the allocation hooks align for std::max_align_t at most");
        if (n > max_size() || !detail::fitsInRawBlock(n * sizeof(T))) {
            throw std::bad_alloc();
        }
        void* const storage = detail::allocateRawBlock(static_cast<unsigned int>(n * sizeof(T)));
        if (storage == nullptr) {
            throw std::bad_alloc();
        }
        return static_cast<T*>(storage);
    }

    /// Gives storage back through the deallocation function in its header word; null is allowed. The count is ignored.
    void deallocate(T* p, size_type) noexcept {
        // Deliberate: a block with a null header word is left alone, only here (docs/deliberate.md, Allocation).
        // Watched by StdAllocator.leavesABlockWithANullHeaderWordAlone.
        if (p != nullptr && detail::rawBlockDeallocator(p) != nullptr) {
            detail::releaseRawBlock(p);
        }
    }

    /// The largest count whose byte size fits in 32 bits. The header word is not counted in, so a block of just this
    /// many objects can still be refused.
    size_type max_size() const noexcept { return (std::numeric_limits<unsigned int>::max)() / sizeof(T); }

    /// Builds an object in storage that is there already.
    template <typename U, typename... Arguments>
    void construct(U* place, Arguments&&... arguments) {
        ::new (static_cast<void*>(place)) U(std::forward<Arguments>(arguments)...);
    }
    /// Ends an object's life and leaves its storage.
    template <typename U>
    void destroy(U* object) {
        object->~U();
    }

    /// The object's address, even where its type overloads `operator&`.
    pointer address(reference object) const noexcept { return std::addressof(object); }
    /// The same for a const object.
    const_pointer address(const_reference object) const noexcept { return std::addressof(object); }
};

/// The allocator of no type in particular: it allocates nothing, and converts to the allocator of any type. Functions
/// such as `std::allocate_shared` take it.
template <>
class GILVANE_EXPORT GVStdAllocator<void> : public GVObject {
  public:
    /// @name Types
    /// @{

    /// As the standard library expects it of an allocator.
    using value_type = void;
    using pointer = void*;
    using const_pointer = const void*;
    using is_always_equal = std::true_type;

    /// @}

    /// How containers ask for the allocator of another type.
    template <typename U>
    struct rebind {
        using other = GVStdAllocator<U>; ///< that allocator
    };

    GVStdAllocator() noexcept = default;
    GVStdAllocator(const GVStdAllocator&) noexcept = default;
    /// Rebinding copy: there is nothing to carry over.
    template <typename U>
    GVStdAllocator(const GVStdAllocator<U>&) noexcept {} // NOLINT(google-explicit-constructor): containers convert
    GVStdAllocator& operator=(const GVStdAllocator&) noexcept = default;
    ~GVStdAllocator() override = default;
};

/// Always true: any instance can release what another allocated.
template <typename T, typename U>
bool operator==(const GVStdAllocator<T>&, const GVStdAllocator<U>&) noexcept {
    return true;
}
/// Always false.
template <typename T, typename U>
bool operator!=(const GVStdAllocator<T>&, const GVStdAllocator<U>&) noexcept {
    return false;
}

} // namespace Gilvane

#endif
