/// @file
/// Ready allocation hooks: a budget, which bounds and counts what the library takes, and an arena, which takes all of it
/// from one range of bytes.
///
/// Each is put in place by an object and taken away at the object's end. Where both are used, they end in the reverse
/// order, as objects of one scope do:
///
///     alignas(std::max_align_t) unsigned char bytes[64 * 1024];
///
///     GVAllocationArena arena(bytes);        // all memory comes from the array,
///     GVAllocationBudget budget(32 * 1024);  // and half of it at most
///     GVMemoryPool pool(200, 64, true);
///
/// The hooks are plain functions. So what they work on is not in the objects: the process has one budget and one arena,
/// and their numbers can be had at any time, also after the object's end.
#ifndef GILVANE_BASE_GVALLOCATIONBUDGET_H
#define GILVANE_BASE_GVALLOCATIONBUDGET_H

#include <gilvane/base/gvcompiler.h>
#include <gilvane/base/gvobject.h>

#include <cstddef>
#include <cstdint>
#include <limits>

namespace Gilvane {

/// While it lives, the library holds no more than so many bytes, and all that it takes is counted.
///
/// The budget stands on the hooks that were there before: it takes memory from them, and puts them back in place at its
/// end. In front of each block it keeps the block's size and the function that takes it back, in 8 bytes on 32-bit ARM
/// and 16 on x86-64, which the hooks below are asked for in addition. So blocks are aligned as the hooks below align them,
/// for `std::max_align_t` at most.
///
/// Bytes are counted as the library asks for them, with the header word of each block and without what is in front of it.
/// What the budget refuses, and what the hooks below refuse, is exhaustion for the library, as any refusal.
///
/// @par Invariants
///   1. a request is granted only if the live bytes do not exceed GetMostBytes with it
///   2. a block made under a budget counts as live until it goes back, also after the budget's end, and also in the next
///      budget
/// @par Thread safety
///   All operations may run concurrently, except construction and destruction: no other thread may allocate meanwhile.
///   The hooks hold one lock while they count and while the hooks below work.
/// @par Ownership
///   Owns nothing. Blocks may outlive it.
class GILVANE_EXPORT GVAllocationBudget : public GVObject {
  public:
    /// Puts the budget in place. Nothing counts as granted or refused so far. What is live already counts as live.
    /// @param mostBytes  that blocks may have together; without it the budget only counts
    /// @throws GVException     kind gvinvalidstate: there is one in place; nothing has changed
    /// @throws std::bad_alloc  no memory for the exception's own texts; likewise
    explicit GVAllocationBudget(std::size_t mostBytes = (std::numeric_limits<std::size_t>::max)());

    /// Not copied: there is one budget.
    GVAllocationBudget(const GVAllocationBudget&) = delete;
    GVAllocationBudget& operator=(const GVAllocationBudget&) = delete;

    /// Puts the hooks in place that were there before.
    ~GVAllocationBudget() override;

    /// Sets another limit, which may be below what is live: then nothing is granted until enough has come back.
    static void SetMostBytes(std::size_t mostBytes);

    /// @name Numbers
    /// Of the budget in place, or of the last one. Each call takes the lock.
    /// @{

    /// Bytes that blocks may have together.
    static std::size_t GetMostBytes();
    /// Blocks that were made under a budget and have not gone back.
    static std::size_t GetLiveCount();
    /// Bytes of these.
    static std::size_t GetLiveBytes();
    /// Most bytes that were live at a time, from the beginning of the budget on.
    static std::size_t GetHighestBytes();
    /// Requests that were granted.
    static std::uint64_t GetGrantedCount();
    /// Bytes of these.
    static std::uint64_t GetGrantedBytes();
    /// Requests that were refused, here or by the hooks below.
    static std::uint64_t GetRefusedCount();
    /// Bytes of these.
    static std::uint64_t GetRefusedBytes();

    /// @}
};

/// While it lives, all memory of the library comes from one range of bytes.
///
/// The range is given out from front to back; a request that does not fit any more is refused. The bytes after a block's
/// header word are aligned for `std::max_align_t`, wherever the range begins. A block that goes back gives its bytes back
/// if it is the one that was given out last, or if no other is live: then the whole range is free again. The bytes of any
/// other stay used.
///
/// @par Invariants
///   GetUsedBytes() + GetLeftBytes() is the size of the range
/// @par Thread safety
///   All operations may run concurrently, except construction and destruction: no other thread may allocate meanwhile.
///   The hooks hold one lock while they work.
/// @par Ownership
///   The range is the caller's, and must stay until all blocks have gone back. These may outlive the arena's object.
class GILVANE_EXPORT GVAllocationArena : public GVObject {
  public:
    /// Puts an arena over an array in place, mostly a static one.
    /// @throws as below
    template <std::size_t numberOfBytes>
    explicit GVAllocationArena(unsigned char (&bytes)[numberOfBytes]) : GVAllocationArena(bytes, numberOfBytes) {}

    /// Puts an arena over a range in place.
    /// @param bytes          the first byte, of any alignment
    /// @param numberOfBytes  in the range
    /// @throws GVException     kind gvinvalidstate: there is one in place, or blocks of the last one are live; nothing has
    ///                         changed
    /// @throws std::bad_alloc  no memory for the exception's own texts; likewise
    GVAllocationArena(void* bytes, std::size_t numberOfBytes);

    /// Not copied: there is one arena.
    GVAllocationArena(const GVAllocationArena&) = delete;
    GVAllocationArena& operator=(const GVAllocationArena&) = delete;

    /// Puts the hooks in place that were there before.
    ~GVAllocationArena() override;

    /// @name Numbers
    /// Of the arena in place, or of the last one. Each call takes the lock.
    /// @{

    /// Blocks that have not gone back.
    static std::size_t GetLiveCount();
    /// Bytes from the front of the range that are given out, those between blocks included.
    static std::size_t GetUsedBytes();
    /// Bytes behind them. A request may need a few of them for its alignment.
    static std::size_t GetLeftBytes();

    /// @}
};

} // namespace Gilvane

#endif
