/// @file
/// A threads factory that writes down what is asked of it, linked in place of the library's own.
///
/// A test program that contains recordingthreads.cpp gets these handles in every pool and smart pointer.
#ifndef GILVANE_TESTS_SUPPORT_RECORDINGTHREADS_H
#define GILVANE_TESTS_SUPPORT_RECORDINGTHREADS_H

#include <gilvane/threads/gvthreadsfactory.h>

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

namespace Gilvane {

/// A handle that locks nothing and records its operations; numbered from 1 in the order of creation since clear().
/// Locking a locked handle, unlocking a free one and deleting a locked one fail the test.
class RecordingMutexHandle : public GVMutexHandle {
  public:
    explicit RecordingMutexHandle(int number) : theNumber(number) {}
    ~RecordingMutexHandle() override;

    bool tryLock() override;
    void lock() override;
    void unlock() override;

    bool isLocked() const { return theLocked; }

  private:
    int theNumber;
    bool theLocked = false;
};

/// Entries, the oldest first.
using Log = std::vector<std::string>;

/// What happened since clear(). The entries, N being a handle's number:
///   "factory made", "factory destroyed",
///   "factory creates N (3, false)" for GVThreadsFactory::CreateUnnamedHandle,
///   "function creates N (3, false)" for CreateUnnamedMutexHandle,
///   "lock N", "unlock N", "tryLock N", "delete N".
struct ThreadsLog {
    static Log& entries();
    /// Called after each entry, with the entry: a test looks at or changes things at this very moment.
    static std::function<void(const std::string&)>& observer();
    /// When set, the next creation of a handle throws GVException kind gvoutofmemory instead.
    static bool& refuseNextHandle();
    /// Empties the log, forgets observer and refusal, and starts numbering anew.
    static void clear();
    /// Number of entries equal to `entry`.
    static int count(const std::string& entry);
};

/// A test that begins and ends with an empty log.
class TestOfLocks : public testing::Test {
  public:
    TestOfLocks() { ThreadsLog::clear(); }
    ~TestOfLocks() override { ThreadsLog::clear(); }
};

} // namespace Gilvane

#endif
