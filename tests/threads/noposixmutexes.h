/// @file
/// Refuses what POSIX mutexes are made by, and counts what is destroyed, in the program of tests whose calls the linker
/// sends to this folder.
#ifndef GILVANE_TESTS_THREADS_NOPOSIXMUTEXES_H
#define GILVANE_TESTS_THREADS_NOPOSIXMUTEXES_H

#include <atomic>
#include <cerrno>

namespace Gilvane {

/// What pthread_mutex_init, pthread_mutexattr_init and pthread_mutexattr_setprotocol end with; the system is asked where
/// it is 0.
extern std::atomic<int> theMutexInitError;
extern std::atomic<int> theAttributesInitError;
extern std::atomic<int> theSetProtocolError;

/// POSIX mutexes that were made or refused, and that were destroyed.
extern std::atomic<int> theMutexInitCount;
extern std::atomic<int> theMutexDestroyCount;

/// POSIX mutex attributes that were made, and that were destroyed.
extern std::atomic<int> theAttributesInitCount;
extern std::atomic<int> theAttributesDestroyCount;

/// The protocol of the POSIX mutex that was asked for last, as POSIX numbers it.
extern std::atomic<int> theLastProtocol;

/// While it lives, one of the calls ends with an error.
class PosixRefusal {
  public:
    PosixRefusal(std::atomic<int>& call, int error) : theError(call) { theError = error; }
    PosixRefusal(const PosixRefusal&) = delete;
    PosixRefusal& operator=(const PosixRefusal&) = delete;
    ~PosixRefusal() { theError = 0; }

  private:
    std::atomic<int>& theError;
};

/// While it lives, no POSIX mutex can be made.
class NoPosixMutexes {
  private:
    PosixRefusal theRefusal{theMutexInitError, EAGAIN};
};

} // namespace Gilvane

#endif
