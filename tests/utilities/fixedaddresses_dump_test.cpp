// Dumps of things that lie where the test wants them, to compare whole texts, addresses and all.

#include <gilvane/base/gvrawblock.h>
#include <gilvane/utilities/gvmemorypool.h>

#include "dumppieces.h"
#include "gvtestpeer.h"

#include <gtest/gtest.h>

#include <sys/mman.h>

#include <cstdint>
#include <cstdlib>
#include <deque>
#include <sstream>
#include <string>

namespace Gilvane {

namespace {

using Peer = GVTestPeer;

constexpr std::uintptr_t regionStart = 0x12000;
constexpr std::size_t regionBytes = 0x2000;
constexpr std::uintptr_t poolAddress = 0x12f08;
constexpr std::uintptr_t firstBlockAddress = 0x13000;
constexpr std::uintptr_t firstBytesAddress = 0x13048;
constexpr std::uintptr_t secondBlockAddress = 0x13020;

// Whether a pool at its address ends before the first block's header word: it does where pointers have 32 bits.
constexpr bool poolEndsBeforeBlocks =
    poolAddress + sizeof(GVMemoryPool) <= firstBlockAddress - detail::rawBlockHeaderBytes &&
    firstBlockAddress + sizeof(GVMemoryPoolObject) <= secondBlockAddress - detail::rawBlockHeaderBytes;

// User addresses that the next allocations shall give, in order; 0 for any.
std::deque<std::uintptr_t>& places() {
    static std::deque<std::uintptr_t> thePlaces;
    return thePlaces;
}

void* allocateAtPlace(unsigned int numberOfBytes) {
    std::uintptr_t place = 0;
    if (!places().empty()) {
        place = places().front();
        places().pop_front();
    }
    return place != 0 ? reinterpret_cast<void*>(place - detail::rawBlockHeaderBytes) : std::malloc(numberOfBytes);
}

void releaseFromPlace(void* block) {
    const std::uintptr_t address = reinterpret_cast<std::uintptr_t>(block);
    if (address < regionStart || address >= regionStart + regionBytes) {
        std::free(block);
    }
}

// Maps two pages at a fixed address and lets allocations fall into them. Where the machine does not give these pages,
// allocations fall anywhere, and the texts' addresses have to be put in.
class DumpAtFixedAddresses : public testing::Test {
  protected:
    DumpAtFixedAddresses() {
        void* const wanted = madeUpAddress<void>(regionStart);
        theRegion =
            mmap(wanted, regionBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0);
        theRegionIsThere = theRegion == wanted;
        places().clear();
        GVObject::SetAllocationHooks(&allocateAtPlace, &releaseFromPlace);
    }
    ~DumpAtFixedAddresses() override {
        GVObject::SetAllocationHooks(nullptr, nullptr);
        if (theRegion != MAP_FAILED) {
            munmap(theRegion, regionBytes);
        }
    }

    void setPlaces(std::deque<std::uintptr_t> wanted) {
        if (theRegionIsThere) {
            places() = std::move(wanted);
        }
    }
    // What the dump shows of a thing that should lie at `wanted`.
    std::string textOf(std::uintptr_t wanted, const void* actual) const {
        return addressText(theRegionIsThere ? madeUpAddress<void>(wanted) : actual);
    }

    void* theRegion;
    bool theRegionIsThere;
};

} // namespace

TEST_F(DumpAtFixedAddresses, ofASharedPoolWithTwoBlocksIsElevenLines) {
    Peer::nextToken() = 0;
    const bool blocksAreReal = theRegionIsThere && poolEndsBeforeBlocks;
    GVMemoryPool* pool = nullptr;
    if (blocksAreReal) {
        // Each block: the object, its bytes, the free list that grows for its token.
        setPlaces({poolAddress, firstBlockAddress, firstBytesAddress, 0, secondBlockAddress, 0, 0});
        pool = new GVMemoryPool(2, 16, false);
    } else {
        setPlaces({poolAddress});
        pool = new GVMemoryPool(0, 16, false);
        Peer::table(*pool).insert(0, madeUpAddress<GVMemoryPoolObject>(firstBlockAddress));
        Peer::table(*pool).insert(1, madeUpAddress<GVMemoryPoolObject>(secondBlockAddress));
    }
    std::ostringstream stream;
    {
        const GVSmartPointer<GVMemoryPool> pointer(pool, true, false);
        pointer.print(stream);
        if (!blocksAreReal) {
            Peer::table(*pool).clear();
        }
    }
    EXPECT_EQ(stream.str(), "<GVSmartPointer object=\"" + textOf(0x12f08, pool) +
                                "\" refCount=\"1\" ownObject=\"1\"><GVMemoryPool><memoryPool><GVHashTable>\n"
                                "\t<GVHashTableEntry>\n"
                                "\t\t<K>0</K>\n"
                                "\t\t<V>0x13000</V>\n"
                                "\t</GVHashTableEntry>\n"
                                "\n"
                                "\t<GVHashTableEntry>\n"
                                "\t\t<K>1</K>\n"
                                "\t\t<V>0x13020</V>\n"
                                "\t</GVHashTableEntry>\n"
                                "</GVHashTable></memoryPool><bytesInEachObject>16</bytesInEachObject>"
                                "<theMutexHandle>0</theMutexHandle><useMutexHandle>0</useMutexHandle></GVMemoryPool>"
                                "</GVSmartPointer>");
}

TEST_F(DumpAtFixedAddresses, ofABlockIsOneLine) {
    Peer::nextToken() = 0;
    setPlaces({firstBlockAddress, firstBytesAddress});
    const GVMemoryPoolObject* const block = new GVMemoryPoolObject(16);
    std::ostringstream stream;
    stream << *block;
    EXPECT_EQ(stream.str(), "<GVMemoryPoolObject><theBytes>" + textOf(0x13048, block->getBytes()) +
                                "</theBytes><theLength>16</theLength><theToken>0</theToken></GVMemoryPoolObject>");
    delete block;
}

} // namespace Gilvane
