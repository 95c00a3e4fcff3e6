/// @file
/// Where the reference stops: what it has no outcome for, and what it will not carry out.
#ifndef GILVANE_PROOF_REFERENCE_NOTDRIVEN_H
#define GILVANE_PROOF_REFERENCE_NOTDRIVEN_H

namespace Gilvane::reference {

/// Thrown by an operation that has no defined outcome in this state, or a larger one than limits allow. The state is
/// then to be thrown away, and the library's operation is not to be called.
struct NotDriven {
    const char* reason;
};

/// Tables and pools that would get larger than this are not driven.
struct Limits {
    unsigned int slots = 1U << 12;
    unsigned int crowdedKeys = 200; // in a table whose searches pass many keys one by one
    unsigned int blocks = 200;
};
inline Limits limits;

} // namespace Gilvane::reference

#endif
