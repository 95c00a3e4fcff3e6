/// @file
/// The library's side of a program: pools and pointers whose locks and memory are watched.
#ifndef GILVANE_PROOF_INTERLEAVINGS_LIBRARY_H
#define GILVANE_PROOF_INTERLEAVINGS_LIBRARY_H

#include "programs.h"
#include "reference.h"

#include <string>

namespace Gilvane {
namespace Interleavings {

/// The library's world; what a schedule leaves behind is simply dropped with its memory by the next reset().
namespace Library {

/// No pools, no pointers, no memory in use, the token counter at 0.
void reset();
/// Makes the pools; and the pointers, as many as there are threads.
void prepare(const Program& program);
/// Does one operation for a thread.
/// @returns what the operation says; the same as the reference's
unsigned int perform(const Operation& operation, int thread);
/// Who runs; outsideThreads before and after the threads.
void setThread(int thread);

/// Whether the pools, their blocks and locks and the shared count are as in the reference.
/// @returns what differs, or nothing
std::string differenceTo(Reference& reference);
/// Ends all pools and pointers that are left.
/// @returns what is wrong with the memory then, or nothing
std::string tearDown(const Program& program, Reference& reference);

} // namespace Library

} // namespace Interleavings
} // namespace Gilvane

#endif
