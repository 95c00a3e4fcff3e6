#include <gilvane/utilities/gvmemorypool.h>

#include "dumppieces.h"
#include "gvtestpeer.h"
#include "misuse.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

namespace Gilvane {

namespace {

using Peer = GVTestPeer;

// A pool without a lock whose blocks and handle can be made-up addresses: it forgets them before it goes.
class PoolDump : public testing::Test {
  protected:
    void addBlock(unsigned int token, std::uintptr_t address) {
        Peer::table(thePool).insert(token, madeUpAddress<GVMemoryPoolObject>(address));
    }
    ~PoolDump() override {
        Peer::table(thePool).clear();
        Peer::mutexHandle(thePool) = nullptr;
    }

    GVMemoryPool thePool{0, 16, false};
};

const char* const endOfDump = "</GVHashTable></memoryPool><bytesInEachObject>16</bytesInEachObject>"
                              "<theMutexHandle>0</theMutexHandle><useMutexHandle>0</useMutexHandle></GVMemoryPool>";

} // namespace

TEST_F(PoolDump, writesAnEmptyTableInOneLineWithZerosForTheLock) {
    EXPECT_EQ(dumpOf(thePool), std::string("<GVMemoryPool><memoryPool><GVHashTable>") + endOfDump);
}

TEST_F(PoolDump, writesEachBlockAsItsAddressUnderItsToken) {
    addBlock(0, 0x13000);
    addBlock(1, 0x13020);
    std::ostringstream stream;
    stream << thePool;
    EXPECT_EQ(stream.str(), std::string("<GVMemoryPool><memoryPool><GVHashTable>"
                                        "\n\t<GVHashTableEntry>\n\t\t<K>0</K>\n\t\t<V>0x13000</V>\n\t"
                                        "</GVHashTableEntry>\n"
                                        "\n\t<GVHashTableEntry>\n\t\t<K>1</K>\n\t\t<V>0x13020</V>\n\t"
                                        "</GVHashTableEntry>\n") +
                                endOfDump);
}

TEST_F(PoolDump, writesTheAddressesOfRealBlocks) {
    GVTestPeer::nextToken() = 5;
    GVMemoryPool pool(1, 16, false);
    EXPECT_EQ(dumpOf(pool), "<GVMemoryPool><memoryPool><GVHashTable>"
                            "\n\t<GVHashTableEntry>\n\t\t<K>5</K>\n\t\t<V>" +
                                addressText(Peer::table(pool).get(5)->theValue) + "</V>\n\t</GVHashTableEntry>\n" +
                                endOfDump);
}

TEST_F(PoolDump, writesTheLargestTokenUnsigned) {
    addBlock(4294967295U, 0x13000);
    EXPECT_NE(dumpOf(thePool).find("\t\t<K>4294967295</K>\n"), std::string::npos);
}

TEST_F(PoolDump, writesTheBlocksInTheOrderOfTheTablesSlots) {
    addBlock(9, 0x13000);
    addBlock(1, 0x13020);
    addBlock(8, 0x13040);
    //  slot    0   1   2   3   4   5   6   7
    //  token   8   9   .   .   .   .   .   1
    const std::vector<std::string> pieces = piecesOf(thePool);
    std::vector<std::string> tokens;
    for (std::size_t number = 1; number < pieces.size(); ++number) {
        if (pieces[number - 1] == "\t\t<K>") {
            tokens.push_back(pieces[number]);
        }
    }
    EXPECT_EQ(tokens, (std::vector<std::string>{"8", "9", "1"}));
}

TEST_F(PoolDump, leavesRemovedBlocksOut) {
    addBlock(0, 0x13000);
    addBlock(1, 0x13020);
    Peer::table(thePool).remove(0);
    EXPECT_EQ(dumpOf(thePool), std::string("<GVMemoryPool><memoryPool><GVHashTable>"
                                           "\n\t<GVHashTableEntry>\n\t\t<K>1</K>\n\t\t<V>0x13020</V>\n\t"
                                           "</GVHashTableEntry>\n") +
                                   endOfDump);
}

TEST_F(PoolDump, makesOneInsertionForEachTagAndValue) {
    addBlock(3, 0x13000);
    EXPECT_EQ(piecesOf(thePool), (std::vector<std::string>{"<GVMemoryPool>",
                                                           "<memoryPool>",
                                                           "<GVHashTable>",
                                                           "\n",
                                                           "\t<GVHashTableEntry>\n",
                                                           "\t\t<K>",
                                                           "3",
                                                           "</K>\n",
                                                           "\t\t<V>",
                                                           "0x13000",
                                                           "</V>\n",
                                                           "\t</GVHashTableEntry>\n",
                                                           "</GVHashTable>",
                                                           "</memoryPool>",
                                                           "<bytesInEachObject>",
                                                           "16",
                                                           "</bytesInEachObject>",
                                                           "<theMutexHandle>",
                                                           "0",
                                                           "</theMutexHandle>",
                                                           "<useMutexHandle>",
                                                           "0",
                                                           "</useMutexHandle>",
                                                           "</GVMemoryPool>"}));
}

TEST_F(PoolDump, writesTheHandlesAddressWhateverTheLockFlag) {
    Peer::mutexHandle(thePool) = madeUpAddress<GVMutexHandle>(0x15a00);
    EXPECT_NE(dumpOf(thePool).find("<theMutexHandle>0x15a00</theMutexHandle><useMutexHandle>0</useMutexHandle>"),
              std::string::npos);
}

TEST_F(PoolDump, writesTheLockFlagWhateverTheHandle) {
    Peer::useMutexHandle(thePool) = true;
    EXPECT_NE(dumpOf(thePool).find("<theMutexHandle>0</theMutexHandle><useMutexHandle>1</useMutexHandle>"),
              std::string::npos);
    Peer::useMutexHandle(thePool) = false;
}

TEST_F(PoolDump, writesARealHandlesAddressAndOneForALockingPool) {
    GVMemoryPool pool(true);
    EXPECT_EQ(dumpOf(pool), "<GVMemoryPool><memoryPool><GVHashTable></GVHashTable></memoryPool>"
                            "<bytesInEachObject>0</bytesInEachObject><theMutexHandle>" +
                                addressText(Peer::mutexHandle(pool)) +
                                "</theMutexHandle><useMutexHandle>1</useMutexHandle></GVMemoryPool>");
}

TEST_F(PoolDump, saysNothingOfTheInitialNumberAndTheFreeTokens) {
    GILVANE_TEST_OF_MISUSE();
    const std::string before = dumpOf(thePool);
    Peer::initialNumberOfObjects(thePool) = 77;
    thePool.releaseObject(123);
    EXPECT_EQ(dumpOf(thePool), before);
}

TEST_F(PoolDump, followsTheCallersFormatButForTheAddresses) {
    addBlock(31, 0x1ab00);
    std::ostringstream stream;
    stream << std::hex << std::showbase << std::uppercase << std::boolalpha;
    thePool.print(stream);
    EXPECT_EQ(stream.str(), "<GVMemoryPool><memoryPool><GVHashTable>"
                            "\n\t<GVHashTableEntry>\n\t\t<K>0X1F</K>\n\t\t<V>0x1ab00</V>\n\t</GVHashTableEntry>\n"
                            "</GVHashTable></memoryPool><bytesInEachObject>0X10</bytesInEachObject>"
                            "<theMutexHandle>0</theMutexHandle><useMutexHandle>false</useMutexHandle></GVMemoryPool>");
}

TEST_F(PoolDump, keepsTheStreamsFormatting) {
    addBlock(31, 0x1ab00);
    expectFormattingKept(thePool);
}

TEST_F(PoolDump, spendsAWidthOnTheFirstTag) {
    addBlock(0, 0x13000);
    expectWidthOnFirstInsertionOnly(thePool, "<GVMemoryPool>");
}

TEST_F(PoolDump, returnsTheStreamByBothWays) {
    std::ostringstream stream;
    const GVMemoryPool& pool = thePool;
    EXPECT_EQ(&pool.print(stream), &stream);
    EXPECT_EQ(&(stream << pool), &stream);
}

} // namespace Gilvane
