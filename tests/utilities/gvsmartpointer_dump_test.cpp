#include <gilvane/utilities/gvmemorypool.h>
#include <gilvane/utilities/gvsmartpointer.h>

#include "dumppieces.h"
#include "gvtestpeer.h"
#include "sharedobject.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

namespace Gilvane {

namespace {

using Peer = GVTestPeer;
using PoolPointer = GVSmartPointer<GVMemoryPool>;

struct PrintedObject {
    int theNumber;
};

std::ostream& operator<<(std::ostream& stream, const PrintedObject& object) {
    return stream << "<PrintedObject>" << object.theNumber << "</PrintedObject>";
}

struct ChangedWhenWritten {
    int writings;
};
std::ostream& operator<<(std::ostream& stream, ChangedWhenWritten& object) { return stream << ++object.writings; }

const char* const dumpOfAnEmptyPool = "<GVMemoryPool><memoryPool><GVHashTable></GVHashTable></memoryPool>"
                                      "<bytesInEachObject>0</bytesInEachObject><theMutexHandle>0</theMutexHandle>"
                                      "<useMutexHandle>0</useMutexHandle></GVMemoryPool>";

} // namespace

TEST(SmartPointerDump, ofAnEmptyPointerIsItsTagsAlone) {
    const PoolPointer pointer;
    EXPECT_EQ(dumpOf(pointer), "<GVSmartPointer></GVSmartPointer>");
    EXPECT_EQ(piecesOf(pointer), (std::vector<std::string>{"<GVSmartPointer", ">", "</GVSmartPointer>"}));
}

TEST(SmartPointerDump, writesObjectCountFlagAndThenThePool) {
    GVMemoryPool pool(false);
    const PoolPointer pointer(&pool, false, false);
    EXPECT_EQ(dumpOf(pointer), "<GVSmartPointer object=\"" + addressText(&pool) + "\" refCount=\"1\" ownObject=\"0\">" +
                                   dumpOfAnEmptyPool + "</GVSmartPointer>");
}

TEST(SmartPointerDump, writesTheHandlesTextAfterTheFlag) {
    PoolPointer pointer = GVMemoryPool::init(false);
    std::ostringstream handleText;
    handleText << *Peer::lock(pointer);
    EXPECT_EQ(dumpOf(pointer), "<GVSmartPointer object=\"" + addressText(pointer.get()) +
                                   "\" refCount=\"1\" ownObject=\"1\" lock=\"" + handleText.str() + "\">" +
                                   dumpOfAnEmptyPool + "</GVSmartPointer>");
}

TEST(SmartPointerDump, writesTheSharedCount) {
    const PoolPointer pointer = GVMemoryPool::init(false);
    const std::vector<PoolPointer> others(11, pointer);
    EXPECT_NE(dumpOf(pointer).find(" refCount=\"12\" ownObject=\"1\""), std::string::npos);
}

TEST(SmartPointerDump, writesTheLargestCountUnsigned) {
    unsigned int count = 4294967295U;
    PoolPointer pointer;
    Peer::refCount(pointer) = &count;
    EXPECT_EQ(dumpOf(pointer), "<GVSmartPointer refCount=\"4294967295\"></GVSmartPointer>");
    clearFields(pointer);
}

TEST(SmartPointerDump, leavesOutEachAttributeWhoseFieldIsNull) {
    GVMemoryPool pool(false);
    unsigned int count = 3;
    bool owned = true;
    PoolPointer locked = GVMemoryPool::init(false);
    GVMutexHandle* const handle = Peer::lock(locked);
    for (int fields = 0; fields < 16; ++fields) {
        SCOPED_TRACE(fields);
        PoolPointer pointer;
        std::string expected = "<GVSmartPointer";
        if ((fields & 1) != 0) {
            Peer::object(pointer) = &pool;
            expected += " object=\"" + addressText(&pool) + "\"";
        }
        if ((fields & 2) != 0) {
            Peer::refCount(pointer) = &count;
            expected += " refCount=\"3\"";
        }
        if ((fields & 4) != 0) {
            Peer::ownObject(pointer) = &owned;
            expected += " ownObject=\"1\"";
        }
        if ((fields & 8) != 0) {
            Peer::lock(pointer) = handle;
            expected += " lock=\"" + addressText(handle) + "\"";
        }
        expected += ">";
        if ((fields & 1) != 0) {
            expected += dumpOfAnEmptyPool;
        }
        EXPECT_EQ(dumpOf(pointer), expected + "</GVSmartPointer>");
        clearFields(pointer);
    }
}

TEST(SmartPointerDump, makesOneInsertionForEachTagAttributeOpeningValueAndQuote) {
    int number = 5;
    GVSmartPointer<int> pointer(&number, false, true);
    EXPECT_EQ(piecesOf(pointer),
              (std::vector<std::string>{"<GVSmartPointer", " object=\"", addressText(&number), "\"", " refCount=\"",
                                        "1", "\"", " ownObject=\"", "0", "\"", " lock=\"",
                                        addressText(Peer::lock(pointer)), "\"", ">", "5", "</GVSmartPointer>"}));
}

TEST(SmartPointerDump, followsTheCallersFormatButForTheAddresses) {
    GVMemoryPool pool(false);
    unsigned int count = 31;
    bool owned = true;
    PoolPointer pointer;
    Peer::object(pointer) = &pool;
    Peer::refCount(pointer) = &count;
    Peer::ownObject(pointer) = &owned;
    std::ostringstream stream;
    stream << std::hex << std::showbase << std::uppercase << std::boolalpha;
    pointer.print(stream);
    EXPECT_EQ(stream.str().substr(0, stream.str().find('>')),
              "<GVSmartPointer object=\"" + addressText(&pool) + "\" refCount=\"0X1F\" ownObject=\"true\"");
    clearFields(pointer);
}

TEST(SmartPointerDump, keepsTheStreamsFormatting) {
    expectFormattingKept(GVMemoryPool::initWithNumberOfObjectsAndSize(2, 16, true));
}

TEST(SmartPointerDump, spendsAWidthOnTheFirstTag) {
    expectWidthOnFirstInsertionOnly(GVMemoryPool::initWithNumberOfObjectsAndSize(2, 16, true), "<GVSmartPointer");
}

TEST(SmartPointerDump, returnsTheStreamByBothWays) {
    std::ostringstream stream;
    const PoolPointer pointer = GVMemoryPool::init(false);
    EXPECT_EQ(&pointer.print(stream), &stream);
    EXPECT_EQ(stream.str(), dumpOf(pointer));
    stream.str("");
    EXPECT_EQ(&(stream << pointer), &stream);
    EXPECT_EQ(stream.str(), dumpOf(pointer));
}

TEST(SmartPointerDump, isWrittenThroughTheVirtualTable) {
    class PointerWithItsOwnPrint : public PoolPointer {
      public:
        std::ostream& print(std::ostream& stream) const override { return stream << "mine"; }
    };
    const PointerWithItsOwnPrint pointer;
    EXPECT_EQ(dumpOf(static_cast<const PoolPointer&>(pointer)), "mine");
    std::ostringstream stream;
    stream << static_cast<const PoolPointer&>(pointer);
    EXPECT_EQ(stream.str(), "mine");
}

TEST(SmartPointerDump, writesAnotherObjectByItsStreamOperator) {
    PrintedObject object{42};
    const GVSmartPointer<PrintedObject> pointer(&object, false, false);
    EXPECT_EQ(dumpOf(pointer), "<GVSmartPointer object=\"" + addressText(&object) +
                                   "\" refCount=\"1\" ownObject=\"0\"><PrintedObject>42</PrintedObject>"
                                   "</GVSmartPointer>");
}

TEST(SmartPointerDump, writesNothingInsideForAnObjectWithoutAStreamOperator) {
    int deletions = 0;
    SharedObject object(deletions);
    const GVSmartPointer<SharedObject> pointer(&object, false, false);
    EXPECT_EQ(dumpOf(pointer), "<GVSmartPointer object=\"" + addressText(&object) +
                                   "\" refCount=\"1\" ownObject=\"0\"></GVSmartPointer>");
}

TEST(SmartPointerDump, writesNothingInsideForAnObjectWhoseStreamOperatorMayChangeIt) {
    ChangedWhenWritten object{};
    const GVSmartPointer<ChangedWhenWritten> pointer(&object, false, false);
    EXPECT_EQ(dumpOf(pointer), "<GVSmartPointer object=\"" + addressText(&object) +
                                   "\" refCount=\"1\" ownObject=\"0\"></GVSmartPointer>");
    std::ostringstream stream;
    stream << object;
    EXPECT_EQ(stream.str(), "1");
}

} // namespace Gilvane
