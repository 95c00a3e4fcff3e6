/// @file
/// Allocation hooks that never give an address out twice in one run, so that an address names one thing only, and that
/// watch what is done with each raw block.
#ifndef GILVANE_PROOF_MODEL_ARENA_H
#define GILVANE_PROOF_MODEL_ARENA_H

#include <cstddef>
#include <string>

namespace Gilvane::arena {

/// Installs the hooks, and forgets everything that was allocated through them before.
void begin();

/// Raw blocks given out and not taken back.
std::size_t liveCount();

/// Requests so far. They are numbered from 1, in order.
int requestCount();

/// What the user got for the request of that number; null for 0 and for numbers that no request has.
void* userBytes(int request);

/// The number of the request whose user bytes start here; 0 for null, -1 if there is none.
int requestOf(const void* userBytes);

/// As long as one lives, requests are not numbered.
class Aside {
  public:
    Aside();
    Aside(const Aside&) = delete;
    Aside& operator=(const Aside&) = delete;
    ~Aside();
};

/// What was done wrong with raw blocks since begin(): a release of one that was released already or never given out, or
/// bytes written next to one or after its release. Empty if nothing was. Where AddressSanitizer is, it stops such
/// writes itself.
std::string misuse();

} // namespace Gilvane::arena

#endif
