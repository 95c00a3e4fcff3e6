// Empty unless the library is built with probes.
#include <gilvane/base/gvprobes.h>

#if defined(GILVANE_PROBES)

#include <sys/sdt.h>

// clang++ takes what the header's macros leave out of ISO C++ for their user's own.
#pragma GCC diagnostic ignored "-Wpedantic"

namespace Gilvane::detail {

void probeGrow(const void* pool, unsigned int blocks, unsigned int newBlocks) noexcept {
    DTRACE_PROBE3(gilvane, grow, pool, blocks, newBlocks);
}

void probeShrink(const void* pool, unsigned int blocks, unsigned int goneBlocks) noexcept {
    DTRACE_PROBE3(gilvane, shrink, pool, blocks, goneBlocks);
}

void probeRefill(const void* pool, unsigned int moved, unsigned int freeBlocks) noexcept {
    DTRACE_PROBE3(gilvane, refill, pool, moved, freeBlocks);
}

void probeSpill(const void* pool, unsigned int moved, unsigned int freeBlocks) noexcept {
    DTRACE_PROBE3(gilvane, spill, pool, moved, freeBlocks);
}

void probeDry(const void* pool, unsigned int wanted, unsigned int found) noexcept {
    DTRACE_PROBE3(gilvane, dry, pool, wanted, found);
}

void probeWaitBegin(const void* pool, unsigned int number) noexcept {
    DTRACE_PROBE2(gilvane, wait_begin, pool, number);
}

void probeWaitEnd(const void* pool, unsigned int number, GVWaitOutcome outcome) noexcept {
    DTRACE_PROBE3(gilvane, wait_end, pool, number, static_cast<unsigned int>(outcome));
}

void probeClosed(const void* pool, unsigned int outside) noexcept { DTRACE_PROBE2(gilvane, closed, pool, outside); }

} // namespace Gilvane::detail

#endif
