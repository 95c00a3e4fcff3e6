// When an assignment gives the former share up, and on which pointer: GVSmartPointer itself, and classes derived from
// it.
#include "sharedobject.h"

#include <gtest/gtest.h>

#include <functional>
#include <ostream>
#include <utility>

namespace Gilvane {

namespace {

using Pointer = GVSmartPointer<SharedObject>;

// Calls a function when it is destroyed.
struct LastWords : GVObject {
    explicit LastWords(std::function<void()> words) : theWords(std::move(words)) {}
    LastWords(const LastWords&) = default;
    ~LastWords() override { theWords(); }

    std::function<void()> theWords;
};

const std::function<void()> nothing = [] {};

enum class Way { copy, move };

// For the names of tests.
[[maybe_unused]] void PrintTo(Way way, std::ostream* stream) { *stream << (way == Way::copy ? "byCopy" : "byMove"); }

// Assigns, and leaves `source` as the way leaves it.
template <typename P>
void assign(Way way, P& target, P& source) {
    if (way == Way::copy) {
        target = source;
    } else {
        target = std::move(source);
    }
}

class SmartPointerReplacement : public ::testing::TestWithParam<Way> {};
INSTANTIATE_TEST_SUITE_P(EachWay, SmartPointerReplacement, ::testing::Values(Way::copy, Way::move));

TEST_P(SmartPointerReplacement, letsTheFormerObjectSeeThePointerWithTheNewOne) {
    GVSmartPointer<LastWords> pointer;
    const LastWords* seen = nullptr;
    unsigned int sharers = 0;
    pointer = GVSmartPointer<LastWords>(new LastWords([&] {
                                            seen = pointer.get();
                                            sharers = pointer.getRefCount();
                                        }),
                                        true, true);
    GVSmartPointer<LastWords> next(new LastWords(nothing), true, true);
    const LastWords* const object = next.get();
    assign(GetParam(), pointer, next);
    EXPECT_EQ(seen, object);
    EXPECT_EQ(sharers, GetParam() == Way::copy ? 2U : 1U);
    EXPECT_EQ(pointer.get(), object);
}

TEST_P(SmartPointerReplacement, letsTheFormerObjectAssignToThePointerAgain) {
    GVSmartPointer<LastWords> pointer;
    const GVSmartPointer<LastWords> last(new LastWords(nothing), true, false);
    pointer = GVSmartPointer<LastWords>(new LastWords([&] { pointer = last; }), true, false);
    int deletions = 0;
    GVSmartPointer<LastWords> next(new LastWords([&] { ++deletions; }), true, false);
    assign(GetParam(), pointer, next);
    EXPECT_EQ(pointer.get(), last.get());
    EXPECT_EQ(last.getRefCount(), 2U);
    next = GVSmartPointer<LastWords>();
    EXPECT_EQ(deletions, 1);
}

// Notes what it holds when deleteData is called.
struct WatchfulPointer : Pointer {
    using Pointer::Pointer;
    void deleteData() override {
        ++theCalls;
        theObject = get();
        Pointer::deleteData();
    }

    int theCalls = 0;
    const SharedObject* theObject = nullptr;
};

TEST_P(SmartPointerReplacement, inADerivedClassCallsTheOverrideWhileItHoldsTheFormerObject) {
    int deletions = 0;
    int nextDeletions = 0;
    WatchfulPointer pointer(new SharedObject(deletions), true, true);
    const SharedObject* const former = pointer.get();
    Pointer next(new SharedObject(nextDeletions), true, true);
    const auto fields = fieldsOf(next);
    assign<Pointer>(GetParam(), pointer, next);
    EXPECT_EQ(pointer.theCalls, 1);
    EXPECT_EQ(pointer.theObject, former);
    EXPECT_EQ(deletions, 1);
    EXPECT_EQ(fieldsOf<SharedObject>(pointer), fields);
    EXPECT_EQ(pointer.getRefCount(), GetParam() == Way::copy ? 2U : 1U);
    EXPECT_EQ(next.get() == nullptr, GetParam() == Way::move);
    EXPECT_EQ(nextDeletions, 0);
}

TEST(SmartPointerClass, differsBothWaysFromThatOfAPointerOfADerivedClass) {
    const Pointer pointer;
    const Pointer another;
    const WatchfulPointer derived;
    EXPECT_TRUE(detail::haveSameVirtualTable(pointer, another));
    EXPECT_FALSE(detail::haveSameVirtualTable(pointer, derived));
    EXPECT_FALSE(detail::haveSameVirtualTable(derived, pointer));
}

TEST_P(SmartPointerReplacement, inADerivedClassLeavesTheFormerObjectToItsOtherSharers) {
    int deletions = 0;
    int nextDeletions = 0;
    WatchfulPointer pointer(new SharedObject(deletions), true, true);
    Pointer other(pointer);
    Pointer next(new SharedObject(nextDeletions), true, true);
    assign<Pointer>(GetParam(), pointer, next);
    EXPECT_EQ(pointer.theCalls, 0);
    EXPECT_EQ(other.getRefCount(), 1U);
    EXPECT_EQ(deletions, 0);
}

} // namespace

} // namespace Gilvane
