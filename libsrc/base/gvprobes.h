/// @file
/// Static probes: places of the slow paths that a tracer or a debugger finds by name in a program that runs.
///
/// `GILVANE_PROBES` is defined for the library and for every program that uses it, or for neither; CMake and pkg-config
/// pass the definition on. Without it none of this is compiled: GILVANE_PROBE leaves an empty statement. The probes are
/// those of the provider `gilvane`. Each lies in a function of the library, so that it has one address, and programs need
/// no header of a tracer. Those of a pool fire under its lock, if it has one.
#ifndef GILVANE_BASE_GVPROBES_H
#define GILVANE_BASE_GVPROBES_H

#include <gilvane/base/gvversion.h>

#if defined(GILVANE_PROBES)

#include <gilvane/base/gvcompiler.h>

/// Code that only a build with probes has. What it tells is computed nowhere else.
#define GILVANE_PROBE(...) __VA_ARGS__

namespace Gilvane {

namespace detail {

/// How a wait ended.
enum GVWaitOutcome : unsigned int {
    gvwaitlent = 0,    ///< with a block
    gvwaittimeout = 1, ///< the time was over
    gvwaitclosed = 2,  ///< the pool was closed
    gvwaitthrown = 3,  ///< the deadline's clock threw
};

/// Fires `grow`, before the first of the new blocks is built: memory may be refused to any of them.
/// @param pool       the address of the GVMemoryPool
/// @param blocks     that it has; 0 for a new pool, and for one that is built anew
/// @param newBlocks  to be built, at least 1
GILVANE_OUT_OF_LINE void probeGrow(const void* pool, unsigned int blocks, unsigned int newBlocks) noexcept;

/// Fires `shrink`, before the first block is removed.
/// @param pool        the address of the GVMemoryPool
/// @param blocks      that it has
/// @param goneBlocks  to be removed, at least 1
GILVANE_OUT_OF_LINE void probeShrink(const void* pool, unsigned int blocks, unsigned int goneBlocks) noexcept;

/// Fires `refill`, after a cache has taken free tokens from its pool.
/// @param pool        the address of the GVSharedPool
/// @param moved       tokens that the cache took, at least 1
/// @param freeBlocks  left in the pool's free list
GILVANE_OUT_OF_LINE void probeRefill(const void* pool, unsigned int moved, unsigned int freeBlocks) noexcept;

/// Fires `spill`, after a cache has given tokens back to its pool.
/// @param pool        the address of the GVSharedPool
/// @param moved       tokens that the cache gave, at least 1
/// @param freeBlocks  in the pool's free list, with these
GILVANE_OUT_OF_LINE void probeSpill(const void* pool, unsigned int moved, unsigned int freeBlocks) noexcept;

/// Fires `dry`: a loan from an open pool found fewer blocks in its free list than it wanted. A loan that waits fires it
/// once, before it begins to wait.
/// @param pool    the address of the GVSharedPool
/// @param wanted  blocks
/// @param found   less than that
GILVANE_EXPORT GILVANE_OUT_OF_LINE void probeDry(const void* pool, unsigned int wanted, unsigned int found) noexcept;

/// Fires `wait_begin`.
/// @param pool    the address of the GVSharedPool
/// @param number  of the wait, counted from 1 for each pool
GILVANE_OUT_OF_LINE void probeWaitBegin(const void* pool, unsigned int number) noexcept;

/// Fires `wait_end`, in the thread that has waited.
/// @param pool     the address of the GVSharedPool
/// @param number   as at its beginning
/// @param outcome  how it ended
GILVANE_OUT_OF_LINE void probeWaitEnd(const void* pool, unsigned int number, GVWaitOutcome outcome) noexcept;

/// Fires `closed`, when a pool is closed for the first time.
/// @param pool     the address of the GVSharedPool
/// @param outside  blocks that are lent, or lie in caches
GILVANE_OUT_OF_LINE void probeClosed(const void* pool, unsigned int outside) noexcept;

/// A wait, which fires at its beginning and at its end, after a throw too.
class GVProbedWait {
  public:
    GVProbedWait(const void* pool, unsigned int number) noexcept : thePool(pool), theNumber(number) {
        probeWaitBegin(thePool, theNumber);
    }
    GVProbedWait(const GVProbedWait&) = delete;
    GVProbedWait& operator=(const GVProbedWait&) = delete;
    ~GVProbedWait() { probeWaitEnd(thePool, theNumber, theOutcome); }

    /// Says how it ends.
    void end(GVWaitOutcome outcome) noexcept { theOutcome = outcome; }

  private:
    const void* thePool;
    unsigned int theNumber;
    GVWaitOutcome theOutcome = gvwaitthrown;
};

} // namespace detail

} // namespace Gilvane

#else

#define GILVANE_PROBE(...)

#endif

#endif
