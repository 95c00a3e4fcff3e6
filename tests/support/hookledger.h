/// @file
/// Allocation hooks that keep books and can refuse.
#ifndef GILVANE_TESTS_SUPPORT_HOOKLEDGER_H
#define GILVANE_TESTS_SUPPORT_HOOKLEDGER_H

#include <cstddef>
#include <vector>

namespace Gilvane {

/// While it lives, every raw block of the system is entered in its books; at its end the default hooks return, and a
/// block that is still live fails the test. Only one may live at a time. Its functions may be called by any thread.
///
/// Memory is filled with a pattern when it is given out and when it is taken back.
class HookLedger {
  public:
    struct Block {
        void* start;        // what the allocation function returned: the header word's address
        unsigned int bytes; // as asked of the allocation function, the header word included
    };

    HookLedger();
    HookLedger(const HookLedger&) = delete;
    HookLedger& operator=(const HookLedger&) = delete;
    ~HookLedger();

    /// Refuses one allocation: the next one with 0, the one after it with 1, and so on.
    void refuseOnce(std::size_t allocationsBefore);
    /// Refuses that allocation and all after it.
    void refuseFrom(std::size_t allocationsBefore);
    /// Refuses nothing any more.
    void refuseNothing();
    /// Allocations refused so far.
    std::size_t refusedCount() const;

    /// Calls of the allocation function so far, refused ones included.
    std::size_t allocationCount() const;
    /// Calls of the deallocation function so far.
    std::size_t releaseCount() const;
    /// What was asked of the allocation function so far, in order, refused requests included, in bytes.
    std::vector<unsigned int> requests() const;
    /// Starts of the blocks released so far, in order.
    std::vector<void*> releases() const;
    /// Blocks given out and not taken back, oldest first.
    std::vector<Block> liveBlocks() const;
    /// Bytes of those, header words included.
    std::size_t liveBytes() const;

    /// Frees the live blocks, for tests of losses that are required.
    /// @returns how many there were
    std::size_t reclaimLiveBlocks();

    /// The deallocation function that its blocks' header words hold while it lives.
    static void release(void* block);
    /// The allocation function.
    static void* allocate(unsigned int numberOfBytes);
};

/// The bytes of each block, in the same order.
std::vector<unsigned int> bytesOf(const std::vector<HookLedger::Block>& blocks);

} // namespace Gilvane

#endif
