/// @file
/// Makes pthread_mutex_init fail, and counts what is destroyed, in the program of tests whose calls the linker sends to
/// this folder.
#ifndef GILVANE_TESTS_THREADS_NOPOSIXMUTEXES_H
#define GILVANE_TESTS_THREADS_NOPOSIXMUTEXES_H

#include <atomic>

namespace Gilvane {

/// Whether pthread_mutex_init fails.
extern std::atomic<bool> theMutexInitFails;

/// POSIX mutexes that were destroyed.
extern std::atomic<int> theMutexDestroyCount;

/// While it lives, no POSIX mutex can be made.
class NoPosixMutexes {
  public:
    NoPosixMutexes() { theMutexInitFails = true; }
    NoPosixMutexes(const NoPosixMutexes&) = delete;
    NoPosixMutexes& operator=(const NoPosixMutexes&) = delete;
    ~NoPosixMutexes() { theMutexInitFails = false; }
};

} // namespace Gilvane

#endif
