#include "callofnull.h"
#include "hookledger.h"

#include <gilvane/base/gvobject.h>
#include <gilvane/base/gvrawblock.h>

#include <gtest/gtest.h>

#include <cstddef>
#include <limits>
#include <new>
#include <stdexcept>
#include <type_traits>
#include <vector>

#include <unistd.h>

namespace Gilvane {

namespace {

// Writes down the lives and deaths of its objects; the one with number failAt does not come to life.
class Witness : public GVObject {
  public:
    Witness() {
        if (made == failAt) {
            throw std::runtime_error("not made");
        }
        ++made;
    }
    Witness(const Witness&) = default;
    Witness& operator=(const Witness&) = default;
    ~Witness() override { ++destroyed; }

    static void reset() {
        made = 0;
        destroyed = 0;
        failAt = -1;
    }

    static int made;
    static int destroyed;
    static int failAt; // -1: none

    unsigned int bytes[7] = {};
};

int Witness::made = 0;
int Witness::destroyed = 0;
int Witness::failAt = -1;

constexpr unsigned int most = std::numeric_limits<unsigned int>::max();

// Sizes that the hook's 32 bits cannot carry together with the header word; the compiler does not see their values.
std::vector<std::size_t> tooLargeSizes() {
    std::vector<std::size_t> sizes{most - detail::rawBlockHeaderBytes + 1, most,
                                   std::numeric_limits<std::size_t>::max()};
    if (sizeof(std::size_t) > sizeof(unsigned int)) {
        sizes.push_back(std::size_t{most} + 1);
        sizes.push_back(std::size_t{most} + 65);
    }
    return sizes;
}

} // namespace

TEST(ObjectStorage, anObjectIsOneRawBlock) {
    const HookLedger ledger;
    Witness::reset();
    Witness* const object = new Witness;
    EXPECT_EQ(ledger.requests(), std::vector<unsigned int>{sizeof(Witness) + detail::rawBlockHeaderBytes});
    EXPECT_EQ(static_cast<void*>(object),
              static_cast<char*>(ledger.liveBlocks().at(0).start) + detail::rawBlockHeaderBytes);
    EXPECT_EQ(detail::rawBlockDeallocator(object), &HookLedger::release);
    delete object;
    EXPECT_EQ(ledger.releaseCount(), 1U);
}

TEST(ObjectStorage, anArrayIsOneRawBlock) {
    const HookLedger ledger;
    Witness::reset();
    Witness* const array = new Witness[5];
    EXPECT_EQ(ledger.allocationCount(), 1U);
    EXPECT_GE(ledger.requests().at(0), 5 * sizeof(Witness) + detail::rawBlockHeaderBytes);
    delete[] array;
    EXPECT_EQ(ledger.releaseCount(), 1U);
}

TEST(ObjectStorage, everyFormHandsOutTheAddressPastTheHeaderWord) {
    const HookLedger ledger;
    const std::vector<void*> storage{GVObject::operator new(12), GVObject::operator new(12, std::nothrow),
                                     GVObject::operator new[](12), GVObject::operator new[](12, std::nothrow)};
    const std::vector<HookLedger::Block> blocks = ledger.liveBlocks();
    ASSERT_EQ(blocks.size(), 4U);
    for (std::size_t number = 0; number < 4; ++number) {
        EXPECT_EQ(storage[number], static_cast<char*>(blocks[number].start) + detail::rawBlockHeaderBytes);
        EXPECT_EQ(blocks[number].bytes, 12 + detail::rawBlockHeaderBytes);
        EXPECT_EQ(detail::rawBlockDeallocator(storage[number]), &HookLedger::release);
    }

    GVObject::operator delete(storage[0]);
    GVObject::operator delete(storage[1], std::nothrow);
    GVObject::operator delete[](storage[2]);
    GVObject::operator delete[](storage[3], std::nothrow);
    EXPECT_EQ(ledger.releases(),
              (std::vector<void*>{blocks[0].start, blocks[1].start, blocks[2].start, blocks[3].start}));
}

TEST(ObjectStorage, ordinaryFormsThrowBadAllocWhenMemoryIsRefused) {
    HookLedger ledger;
    ledger.refuseFrom(0);
    Witness::reset();
    EXPECT_THROW(delete new Witness, std::bad_alloc);
    EXPECT_THROW(delete[] new Witness[2], std::bad_alloc);
    EXPECT_EQ(Witness::made, 0);
    EXPECT_EQ(ledger.refusedCount(), 2U);
}

TEST(ObjectStorage, nothrowFormsReturnNullWhenMemoryIsRefused) {
    HookLedger ledger;
    ledger.refuseFrom(0);
    Witness::reset();
    EXPECT_EQ(new (std::nothrow) Witness, nullptr);
    EXPECT_EQ(new (std::nothrow) Witness[2], nullptr);
    EXPECT_EQ(Witness::made, 0);
    EXPECT_EQ(ledger.refusedCount(), 2U);
}

TEST(ObjectStorage, nothrowFormsGiveStorageLikeTheOrdinaryOnes) {
    const HookLedger ledger;
    Witness::reset();
    Witness* const object = new (std::nothrow) Witness;
    ASSERT_NE(object, nullptr);
    Witness* const array = new (std::nothrow) Witness[2];
    ASSERT_NE(array, nullptr);
    EXPECT_EQ(ledger.allocationCount(), 2U);
    EXPECT_EQ(ledger.requests().at(0), sizeof(Witness) + detail::rawBlockHeaderBytes);
    delete object;
    delete[] array;
    EXPECT_EQ(Witness::destroyed, 3);
    EXPECT_EQ(ledger.releaseCount(), 2U);
}

TEST(ObjectStorage, onlyOrdinaryFormsMayThrow) {
    EXPECT_FALSE(noexcept(GVObject::operator new(1)));
    EXPECT_FALSE(noexcept(GVObject::operator new[](1)));
    EXPECT_TRUE(noexcept(GVObject::operator new(1, std::nothrow)));
    EXPECT_TRUE(noexcept(GVObject::operator new[](1, std::nothrow)));
}

TEST(ObjectStorage, aSizeBeyond32BitsIsExhaustion) {
    const HookLedger ledger;
    for (const std::size_t size : tooLargeSizes()) {
        EXPECT_THROW(GVObject::operator new(size), std::bad_alloc) << size;
        EXPECT_THROW(GVObject::operator new[](size), std::bad_alloc) << size;
        EXPECT_EQ(GVObject::operator new(size, std::nothrow), nullptr) << size;
        EXPECT_EQ(GVObject::operator new[](size, std::nothrow), nullptr) << size;
    }
    EXPECT_EQ(ledger.allocationCount(), 0U);
}

TEST(ObjectStorage, theLargestSizeThatFitsIsAskedOfTheHook) {
    HookLedger ledger;
    ledger.refuseFrom(0);
    const volatile std::size_t size = most - detail::rawBlockHeaderBytes;
    EXPECT_EQ(GVObject::operator new(size, std::nothrow), nullptr);
    EXPECT_EQ(GVObject::operator new[](size, std::nothrow), nullptr);
    EXPECT_EQ(ledger.requests(), (std::vector<unsigned int>{most, most}));
}

TEST(ObjectStorage, placementFormsBuildInPlaceWithoutTheHooks) {
    const HookLedger ledger;
    Witness::reset();
    alignas(Witness) unsigned char place[sizeof(Witness)];

    Witness* const object = new (static_cast<void*>(place)) Witness;

    EXPECT_EQ(static_cast<void*>(object), static_cast<void*>(place));
    EXPECT_EQ(GVObject::operator new[](sizeof place, static_cast<void*>(place)), static_cast<void*>(place));
    object->~Witness();
    EXPECT_EQ(Witness::destroyed, 1);
    EXPECT_EQ(ledger.allocationCount(), 0U);
    EXPECT_EQ(ledger.releaseCount(), 0U);
}

TEST(ObjectStorage, isReleasedWhenTheConstructorThrows) {
    const HookLedger ledger;
    Witness::reset();
    Witness::failAt = 0;
    EXPECT_THROW(delete new Witness, std::runtime_error);
    EXPECT_THROW(delete new (std::nothrow) Witness, std::runtime_error);
    EXPECT_EQ(ledger.allocationCount(), 2U);
    EXPECT_EQ(ledger.releaseCount(), 2U);
}

TEST(ObjectStorage, ofAnArrayIsReleasedWhenAnElementsConstructorThrows) {
    const HookLedger ledger;
    Witness::reset();
    Witness::failAt = 2;
    EXPECT_THROW(delete[] new Witness[4], std::runtime_error);
    EXPECT_EQ(Witness::destroyed, 2);
    Witness::reset();
    Witness::failAt = 2;
    EXPECT_THROW(delete[] new (std::nothrow) Witness[4], std::runtime_error);
    EXPECT_EQ(Witness::destroyed, 2);
    EXPECT_EQ(ledger.allocationCount(), 2U);
    EXPECT_EQ(ledger.releaseCount(), 2U);
}

TEST(ObjectStorage, givenForPlacementIsNotReleasedWhenTheConstructorThrows) {
    const HookLedger ledger;
    void* const place = detail::allocateRawBlock(4 * sizeof(Witness));
    Witness::reset();
    Witness::failAt = 0;

    EXPECT_THROW(new (place) Witness, std::runtime_error);
    EXPECT_THROW(new (place) Witness[2], std::runtime_error);

    EXPECT_EQ(ledger.releaseCount(), 0U);
    detail::releaseRawBlock(place);
}

TEST(ObjectStorage, deletingNullDoesNothing) {
    const HookLedger ledger;
    GVObject::operator delete(nullptr);
    GVObject::operator delete(nullptr, std::nothrow);
    GVObject::operator delete[](nullptr);
    GVObject::operator delete[](nullptr, std::nothrow);
    EXPECT_EQ(ledger.releaseCount(), 0U);
}

TEST(ObjectStorage, isReleasedByTheFunctionInItsHeaderWord) {
    // Objects and raw blocks have one format: what one gives out, the other can take back.
    const HookLedger ledger;
    void* const storage = detail::allocateRawBlock(sizeof(Witness));
    GVObject::operator delete(storage);
    void* const arrayStorage = detail::allocateRawBlock(sizeof(Witness));
    GVObject::operator delete[](arrayStorage);
    EXPECT_EQ(ledger.releaseCount(), 2U);
}

TEST(ObjectStorage, callsEvenANullDeallocationFunction) {
#if defined(GILVANE_TEST_SANITIZED)
    GTEST_SKIP() << "a sanitizer reports the call first";
#else
    EXPECT_EXIT(
        {
            void* const storage = GVObject::operator new(8);
            *reinterpret_cast<GVDeallocatorFunction*>(detail::rawBlockStart(storage)) = nullptr;
            endAtACallOfNull();
            GVObject::operator delete(storage);
            _exit(1);
        },
        ::testing::ExitedWithCode(0), "");
#endif
}

TEST(Object, isDestroyedWhollyThroughItsRoot) {
    const HookLedger ledger;
    Witness::reset();
    GVObject* const object = new Witness;
    void* const start = ledger.liveBlocks().at(0).start;

    delete object;

    EXPECT_EQ(Witness::destroyed, 1);
    EXPECT_EQ(ledger.releases(), std::vector<void*>{start});
}

TEST(Object, holdsNothingButItsDispatchPointer) {
    EXPECT_TRUE(std::is_polymorphic_v<GVObject>);
    EXPECT_EQ(sizeof(GVObject), sizeof(void*));
}

TEST(Object, isCopiedWithoutTheHooks) {
    const HookLedger ledger;
    const GVObject original;
    GVObject copy(original);
    copy = original;
    EXPECT_TRUE(std::is_copy_constructible_v<GVObject>);
    EXPECT_EQ(ledger.allocationCount(), 0U);
}

} // namespace Gilvane
