#include <gilvane/utilities/gvmemorypool.h>

#include "dumppieces.h"
#include "gvtestpeer.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

namespace Gilvane {

namespace {

// A block whose fields say what the test wants them to say, and which owns nothing.
class BlockDump : public testing::Test {
  protected:
    void setFields(void* bytes, unsigned int length, unsigned int token) {
        GVTestPeer::bytes(theBlock) = bytes;
        GVTestPeer::length(theBlock) = length;
        GVTestPeer::token(theBlock) = token;
    }
    ~BlockDump() override { GVTestPeer::bytes(theBlock) = nullptr; }

    GVMemoryPoolObject theBlock;
};

} // namespace

TEST_F(BlockDump, writesAddressLengthAndTokenInOneLine) {
    setFields(madeUpAddress<void>(0x13048), 16, 0);
    std::ostringstream stream;
    stream << theBlock;
    EXPECT_EQ(stream.str(), "<GVMemoryPoolObject><theBytes>0x13048</theBytes><theLength>16</theLength>"
                            "<theToken>0</theToken></GVMemoryPoolObject>");
}

TEST_F(BlockDump, writesTheAddressOfRealBytes) {
    GVTestPeer::nextToken() = 31;
    const GVMemoryPoolObject block(24);
    EXPECT_EQ(dumpOf(block), "<GVMemoryPoolObject><theBytes>" + addressText(block.getBytes()) +
                                 "</theBytes><theLength>24</theLength><theToken>31</theToken></GVMemoryPoolObject>");
}

TEST_F(BlockDump, writesALoneZeroForABlockWithoutBytes) {
    setFields(nullptr, 0, 3);
    EXPECT_EQ(dumpOf(theBlock), "<GVMemoryPoolObject><theBytes>0</theBytes><theLength>0</theLength>"
                                "<theToken>3</theToken></GVMemoryPoolObject>");
}

TEST_F(BlockDump, writesTheLargestNumbersUnsigned) {
    setFields(nullptr, 4294967295U, 4294967294U);
    EXPECT_EQ(dumpOf(theBlock), "<GVMemoryPoolObject><theBytes>0</theBytes><theLength>4294967295</theLength>"
                                "<theToken>4294967294</theToken></GVMemoryPoolObject>");
}

TEST_F(BlockDump, makesOneInsertionForEachTagAndValue) {
    setFields(madeUpAddress<void>(0x13048), 16, 2);
    EXPECT_EQ(
        piecesOf(theBlock),
        (std::vector<std::string>{"<GVMemoryPoolObject>", "<theBytes>", "0x13048", "</theBytes>", "<theLength>", "16",
                                  "</theLength>", "<theToken>", "2", "</theToken>", "</GVMemoryPoolObject>"}));
}

TEST_F(BlockDump, followsTheCallersNumberFormatButForTheAddress) {
    setFields(madeUpAddress<void>(0x1abc8), 255, 16);
    std::ostringstream stream;
    stream << std::hex << std::showbase << std::uppercase;
    theBlock.print(stream);
    EXPECT_EQ(stream.str(), "<GVMemoryPoolObject><theBytes>0x1abc8</theBytes><theLength>0XFF</theLength>"
                            "<theToken>0X10</theToken></GVMemoryPoolObject>");
}

TEST_F(BlockDump, keepsTheStreamsFormatting) {
    setFields(madeUpAddress<void>(0x13048), 16, 0);
    expectFormattingKept(theBlock);
}

TEST_F(BlockDump, spendsAWidthOnTheFirstTag) { expectWidthOnFirstInsertionOnly(theBlock, "<GVMemoryPoolObject>"); }

TEST_F(BlockDump, returnsTheStreamByBothWays) {
    std::ostringstream stream;
    const GVMemoryPoolObject& block = theBlock;
    EXPECT_EQ(&block.print(stream), &stream);
    EXPECT_EQ(&(stream << block), &stream);
}

} // namespace Gilvane
