/// @file
/// The root class and the two allocation hooks behind every allocation of the system.
#ifndef GILVANE_BASE_GVOBJECT_H
#define GILVANE_BASE_GVOBJECT_H

#include <gilvane/base/gvcompiler.h>

#include <cstddef>
#include <new>

namespace Gilvane {

/// Takes a byte count and returns that many writable bytes, or null when no memory can be had.
///
/// It must not throw: the pool asks for its blocks without exceptions, and a throw there would end the program. It must
/// be callable from several threads at once. The user's bytes start one pointer after what it returns, so its alignment
/// decides theirs.
using GVAllocatorFunction = void* (*)(unsigned int numberOfBytes);

/// Takes back what the GVAllocatorFunction that it belongs to has returned. It never gets null.
///
/// It must not throw, and must be callable from several threads at once.
using GVDeallocatorFunction = void (*)(void* block);

/// The root of every class: a virtual destructor, and allocation through two exchangeable hooks.
///
/// @par Storage
///   Every object and every array of a class of the system is one raw block (see gvrawblock.h): one call of the
///   allocation hook, one pointer of overhead, and a release through the function that was current at allocation.
///   A class that asks for more alignment than `std::max_align_t` does not get it from these operators.
/// @par Thread safety
///   All operations may run concurrently, except SetAllocationHooks.
/// @par Ownership
///   Owns nothing.
class GILVANE_EXPORT GVObject {
  public:
    /// The current allocation function. Never null; callers ask afresh at each allocation and keep no copy.
    static GVAllocatorFunction GetAllocator();

    /// The current deallocation function. Never null; callers ask right after a successful allocation and store the
    /// answer in the block's header word.
    static GVDeallocatorFunction GetDeallocator();

    /// Replaces both hooks, or restores the default ones when both arguments are null: `malloc` and `free`, or mimalloc
    /// where the library was built on it.
    ///
    /// Blocks made before the change go back through the deallocation function in their own header word. The user's
    /// bytes start one pointer after what the allocation function returned. The default function aligns them for
    /// `std::max_align_t`; another one must see to their alignment by itself.
    /// @param allocator    gives memory for every raw block from now on
    /// @param deallocator  takes back every raw block made from now on
    /// @throws GVException    kind gvinvalidstate when only one of the two is null; both hooks stay as they were
    /// @throws std::bad_alloc no memory for the exception's own texts; both hooks stay as they were
    /// @par Threads        to be called while no other thread allocates
    static void SetAllocationHooks(GVAllocatorFunction allocator, GVDeallocatorFunction deallocator);

    /// Storage for one object.
    /// @param size  bytes; more than the hook's 32 bits can carry counts as exhaustion
    /// @throws std::bad_alloc when the allocation function returns null
    static void* operator new(std::size_t size);
    /// As the ordinary form, but returns null instead of throwing.
    static void* operator new(std::size_t size, const std::nothrow_t&) noexcept;
    /// Allocates nothing: the object is built at `place`.
    static void* operator new(std::size_t, void* place) noexcept { return place; }

    /// Storage for one array; otherwise as for one object.
    static void* operator new[](std::size_t size);
    /// As the ordinary form, but returns null instead of throwing.
    static void* operator new[](std::size_t size, const std::nothrow_t&) noexcept;
    /// Allocates nothing: the array is built at `place`.
    static void* operator new[](std::size_t, void* place) noexcept { return place; }

    /// Gives back what an `operator new` of this class returned, through the deallocation function in its header word.
    /// Null is allowed and does nothing.
    static void operator delete(void* p) noexcept;
    /// As the ordinary form, for a `new (std::nothrow)` whose constructor threw.
    static void operator delete(void* p, const std::nothrow_t&) noexcept;
    /// Undoes a placement new whose constructor threw: releases nothing.
    static void operator delete(void*, void*) noexcept {}

    /// Gives back what an `operator new[]` of this class returned; null is allowed and does nothing.
    static void operator delete[](void* p) noexcept;
    /// As the ordinary form, for a `new (std::nothrow)` whose constructor threw.
    static void operator delete[](void* p, const std::nothrow_t&) noexcept;
    /// Undoes a placement new whose constructor threw: releases nothing.
    static void operator delete[](void*, void*) noexcept {}

    GVObject() = default;
    GVObject(const GVObject&) = default;
    GVObject& operator=(const GVObject&) = default;

    /// Does nothing. Inline, so that destroying an array of table entries costs nothing per entry.
    virtual ~GVObject() = default;
};

} // namespace Gilvane

#endif
