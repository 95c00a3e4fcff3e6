/// @file
/// Allocation hooks that only count.
#ifndef GILVANE_TESTS_SUPPORT_COUNTINGHOOKS_H
#define GILVANE_TESTS_SUPPORT_COUNTINGHOOKS_H

#include <cstdlib>

namespace Gilvane {

/// Calls of the two hooks; a test begins with 0.
inline int countedAllocations = 0;
inline int countedReleases = 0;

inline void* countingAllocate(unsigned int numberOfBytes) {
    ++countedAllocations;
    return std::malloc(numberOfBytes);
}

inline void countingRelease(void* block) {
    ++countedReleases;
    std::free(block);
}

} // namespace Gilvane

#endif
