#include <gilvane/utilities/gvmemorypool.h>
#include <gilvane/utilities/gvsmartpointer.h>

#include "../dumppieces.h"
#include "../sharedobject.h"
#include "gvtestpeer.h"
#include "recordingthreads.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <ostream>
#include <sstream>
#include <stdexcept>
#include <streambuf>
#include <string>

namespace Gilvane {

namespace {

using PoolPointer = GVSmartPointer<GVMemoryPool>;
using Peer = GVTestPeer;
using DumpLocking = TestOfLocks;

// Writes what it gets into the log of the locks, and refuses all characters after the first `limit`.
class LoggingBuffer : public std::streambuf {
  public:
    explicit LoggingBuffer(std::size_t limit) : theRest(limit) {}

  protected:
    int_type overflow(int_type character) override {
        if (theRest == 0) {
            throw std::runtime_error("full");
        }
        --theRest;
        Log& log = ThreadsLog::entries();
        if (log.empty() || log.back().rfind("text ", 0) != 0) {
            log.push_back("text ");
        }
        log.back().push_back(traits_type::to_char_type(character));
        return character;
    }

  private:
    std::size_t theRest; // characters
};

constexpr std::size_t unlimited = static_cast<std::size_t>(-1);

struct ObjectThatCannotBeWritten {};

std::ostream& operator<<(std::ostream&, const ObjectThatCannotBeWritten&) { throw std::runtime_error("unwritable"); }

} // namespace

TEST_F(DumpLocking, ofASmartPointerHoldsItsHandleFromTheFirstCharacterToTheLast) {
    PoolPointer pointer = GVMemoryPool::initWithNumberOfObjectsAndSize(2, 16, true);
    const std::string text = dumpOf(pointer);
    ThreadsLog::entries().clear();
    LoggingBuffer buffer(unlimited);
    std::ostream stream(&buffer);
    pointer.print(stream);
    EXPECT_EQ(ThreadsLog::entries(), (Log{"lock 2", "text " + text, "unlock 2"}));
}

TEST_F(DumpLocking, ofASmartPointerReadsTheCountUnderTheHandle) {
    PoolPointer pointer = GVMemoryPool::init(false);
    ThreadsLog::observer() = [count = Peer::refCount(pointer)](const std::string& entry) {
        *count = entry == "lock 1" ? 55U : 1U;
    };
    EXPECT_NE(dumpOf(pointer).find(" refCount=\"55\""), std::string::npos);
    ThreadsLog::observer() = nullptr;
}

TEST_F(DumpLocking, ofASmartPointerShowsTheHandlesTextWithoutLockingItAgain) {
    PoolPointer pointer = GVMemoryPool::init(false);
    ThreadsLog::entries().clear();
    const std::string text = dumpOf(pointer);
    EXPECT_NE(text.find(" lock=\"" + addressText(Peer::lock(pointer)) + "\">"), std::string::npos);
    EXPECT_EQ(ThreadsLog::entries(), (Log{"lock 1", "unlock 1"}));
}

TEST_F(DumpLocking, ofASmartPointerWithoutALockLocksNothing) {
    GVMemoryPool pool(true);
    const PoolPointer pointer(&pool, false, false);
    ThreadsLog::entries().clear();
    EXPECT_EQ(dumpOf(pointer).find(" lock="), std::string::npos);
    EXPECT_TRUE(ThreadsLog::entries().empty());
}

TEST_F(DumpLocking, ofAnEmptySmartPointerLocksNothing) {
    const PoolPointer pointer;
    EXPECT_EQ(dumpOf(pointer), "<GVSmartPointer></GVSmartPointer>");
    EXPECT_TRUE(ThreadsLog::entries().empty());
}

TEST_F(DumpLocking, ofAPoolTakesNoLock) {
    GVMemoryPool pool(2, 16, true);
    ThreadsLog::entries().clear();
    EXPECT_NE(dumpOf(pool).find("<theMutexHandle>" + addressText(Peer::mutexHandle(pool)) +
                                "</theMutexHandle><useMutexHandle>1</useMutexHandle>"),
              std::string::npos);
    EXPECT_TRUE(ThreadsLog::entries().empty());
}

TEST_F(DumpLocking, endsUnlockedWhereverTheStreamThrows) {
    PoolPointer pointer = GVMemoryPool::initWithNumberOfObjectsAndSize(2, 16, true);
    const std::size_t length = dumpOf(pointer).size();
    for (std::size_t limit = 0; limit < length; ++limit) {
        ThreadsLog::entries().clear();
        LoggingBuffer buffer(limit);
        std::ostream stream(&buffer);
        stream.exceptions(std::ios_base::badbit);
        ASSERT_THROW(pointer.print(stream), std::runtime_error) << limit;
        ASSERT_EQ(ThreadsLog::entries().front(), "lock 2");
        ASSERT_EQ(ThreadsLog::entries().back(), "unlock 2");
        ASSERT_EQ(ThreadsLog::count("unlock 2"), 1);
    }
    EXPECT_EQ(pointer.getRefCount(), 1U);
}

TEST_F(DumpLocking, endsUnlockedWhenTheObjectsStreamOperatorThrows) {
    ObjectThatCannotBeWritten object;
    const GVSmartPointer<ObjectThatCannotBeWritten> pointer(&object, false, true);
    ThreadsLog::entries().clear();
    std::ostringstream stream;
    EXPECT_THROW(pointer.print(stream), std::runtime_error);
    EXPECT_EQ(ThreadsLog::entries(), (Log{"lock 1", "unlock 1"}));
    EXPECT_EQ(stream.str().substr(stream.str().size() - 2), "\">");
}

TEST_F(DumpLocking, endsUnlockedOnAStreamThatHasFailed) {
    const PoolPointer pointer = GVMemoryPool::init(false);
    ThreadsLog::entries().clear();
    std::ostringstream stream;
    stream.setstate(std::ios_base::failbit);
    pointer.print(stream);
    EXPECT_TRUE(stream.str().empty());
    EXPECT_EQ(ThreadsLog::entries(), (Log{"lock 1", "unlock 1"}));
}

} // namespace Gilvane
