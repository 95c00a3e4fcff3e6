/// @file
/// Allocation hooks that never give an address out twice in one run, so that an address names one thing only, and that
/// watch what is done with each raw block.
#ifndef GILVANE_TESTS_PROOF_MODEL_ARENA_H
#define GILVANE_TESTS_PROOF_MODEL_ARENA_H

#include <cstddef>
#include <string>

namespace Gilvane::arena {

/// Installs the hooks, and forgets everything that was allocated through them before.
void begin();

/// Raw blocks given out and not taken back.
std::size_t liveCount();

/// What was done wrong with raw blocks since begin(): a release of one that was released already or never given out, or
/// bytes written next to one or after its release. Empty if nothing was. Where AddressSanitizer is, it stops such
/// writes itself.
std::string misuse();

} // namespace Gilvane::arena

#endif
