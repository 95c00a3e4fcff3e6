#include "recordingthreads.h"

#include <gilvane/base/gvexception.h>

#include <gtest/gtest.h>

#include <algorithm>

namespace Gilvane {

namespace {

int theLastNumber = 0;

void record(const std::string& entry) {
    ThreadsLog::entries().push_back(entry);
    if (ThreadsLog::observer()) {
        ThreadsLog::observer()(entry);
    }
}

GVMutexHandle* create(const std::string& maker, _gvmutex kind, bool flag) {
    if (ThreadsLog::refuseNextHandle()) {
        ThreadsLog::refuseNextHandle() = false;
        throw GVException("No handle.", "tests/support/recordingthreads", __LINE__, gvoutofmemory, 0);
    }
    GVMutexHandle* const handle = new RecordingMutexHandle(theLastNumber + 1);
    ++theLastNumber;
    record(maker + " creates " + std::to_string(theLastNumber) + " (" + std::to_string(kind) + ", " +
           (flag ? "true" : "false") + ")");
    return handle;
}

} // namespace

RecordingMutexHandle::~RecordingMutexHandle() {
    EXPECT_FALSE(theLocked) << "handle " << theNumber << " was deleted while locked";
    record("delete " + std::to_string(theNumber));
}

bool RecordingMutexHandle::tryLock() {
    record("tryLock " + std::to_string(theNumber));
    return !theLocked;
}

void RecordingMutexHandle::lock() {
    EXPECT_FALSE(theLocked) << "handle " << theNumber << " was locked twice";
    theLocked = true;
    record("lock " + std::to_string(theNumber));
}

void RecordingMutexHandle::unlock() {
    EXPECT_TRUE(theLocked) << "handle " << theNumber << " was unlocked while free";
    theLocked = false;
    record("unlock " + std::to_string(theNumber));
}

Log& ThreadsLog::entries() {
    static Log theEntries;
    return theEntries;
}

std::function<void(const std::string&)>& ThreadsLog::observer() {
    static std::function<void(const std::string&)> theObserver;
    return theObserver;
}

bool& ThreadsLog::refuseNextHandle() {
    static bool theRefusal = false;
    return theRefusal;
}

void ThreadsLog::clear() {
    entries().clear();
    observer() = nullptr;
    refuseNextHandle() = false;
    theLastNumber = 0;
}

int ThreadsLog::count(const std::string& entry) {
    return static_cast<int>(std::count(entries().begin(), entries().end(), entry));
}

GVThreadsFactory::GVThreadsFactory() { record("factory made"); }

GVThreadsFactory::~GVThreadsFactory() { record("factory destroyed"); }

GVMutexHandle* GVThreadsFactory::CreateUnnamedHandle(_gvmutex kind, bool flag) { return create("factory", kind, flag); }

GVMutexHandle* CreateUnnamedMutexHandle(_gvmutex kind, bool flag) { return create("function", kind, flag); }

} // namespace Gilvane
