// Assignment to a pointer whose former object, as it ends, uses that very pointer.

#include <gilvane/utilities/gvsmartpointer.h>

#include "endingobject.h"
#include "gvtestpeer.h"
#include "hookledger.h"
#include "sharedobject.h"

#include <gtest/gtest.h>

#include <utility>

namespace Gilvane {

namespace {

using Pointer = GVSmartPointer<EndingObject>;

/// How an assignment is made, and with which pointers.
struct Way {
    Pointer make(const char* name) { return Pointer(new EndingObject(name, theEnds), true, withLock); }
    void assign(Pointer& target, Pointer& source) const {
        if (byMove) {
            target = std::move(source);
        } else {
            target = source;
        }
    }
    /// Assigns from a pointer that holds no share afterwards.
    void put(Pointer& target, Pointer source) const { assign(target, source); }

    bool byMove;
    bool withLock;
    Ends theEnds;
};

/// Runs a test by copy and by move, with a lock and without. Every object ends, and every block goes back.
template <typename Test>
void inEachWay(Test test) {
    for (const bool byMove : {false, true}) {
        for (const bool withLock : {false, true}) {
            SCOPED_TRACE(testing::Message() << (byMove ? "by move" : "by copy") << (withLock ? ", locked" : ""));
            HookLedger ledger;
            Way way{byMove, withLock, {}};
            test(way);
            EXPECT_GT(ledger.releaseCount(), 0U);
            EXPECT_TRUE(ledger.liveBlocks().empty());
        }
    }
}

} // namespace

TEST(SmartPointerRefilling, isFollowedByWhatTheDestructorPutIn) {
    inEachWay([](Way& way) {
        Pointer slot = way.make("former");
        EndingObject* seen = nullptr;
        EndingObject* last = nullptr;
        slot->theLastAct = [&] {
            seen = slot.get();
            Pointer source = way.make("last");
            last = source.get();
            way.assign(slot, source);
        };
        {
            Pointer next = way.make("next");
            EndingObject* const nextObject = next.get();
            way.assign(slot, next);
            EXPECT_EQ(seen, nextObject);
        }
        EXPECT_EQ(slot.get(), last);
        EXPECT_EQ(slot.getRefCount(), 1U);
        EXPECT_EQ(way.theEnds, (Ends{"former", "next"}));
        slot = Pointer();
        EXPECT_EQ(way.theEnds, (Ends{"former", "next", "last"}));
    });
}

TEST(SmartPointerRefilling, mayLeaveThePointerEmpty) {
    inEachWay([](Way& way) {
        Pointer slot = way.make("former");
        slot->theLastAct = [&] { way.put(slot, Pointer()); };
        way.put(slot, way.make("next"));
        EXPECT_EQ(fieldsOf(slot), noFields<EndingObject>());
        EXPECT_EQ(way.theEnds, (Ends{"former", "next"}));
    });
}

TEST(SmartPointerRefilling, mayBeDoneByEachObjectThatIsPutIn) {
    inEachWay([](Way& way) {
        Pointer slot = way.make("first");
        Ends seen;
        slot->theLastAct = [&] {
            seen.push_back(slot->theName);
            Pointer second = way.make("second");
            second->theLastAct = [&] {
                seen.push_back(slot->theName);
                way.put(slot, way.make("third"));
            };
            way.put(slot, std::move(second));
        };
        way.put(slot, way.make("a"));
        EXPECT_EQ(slot->theName, "second");
        way.put(slot, way.make("b"));
        EXPECT_EQ(slot->theName, "third");
        EXPECT_EQ(slot.getRefCount(), 1U);
        EXPECT_EQ(seen, (Ends{"a", "b"}));
        EXPECT_EQ(way.theEnds, (Ends{"first", "a", "second", "b"}));
    });
}

TEST(SmartPointerRefilling, mayBeDoneByAnObjectThatIsReplacedMeanwhile) {
    inEachWay([](Way& way) {
        Pointer slot = way.make("first");
        Pointer second = way.make("second");
        Pointer third = way.make("third");
        Pointer fourth = way.make("fourth");
        Ends seen;
        const auto whenItEndsPut = [&](EndingObject& object, Pointer& next) {
            object.theLastAct = [&] {
                seen.push_back(slot->theName);
                way.assign(slot, next);
                next = Pointer();
            };
        };
        whenItEndsPut(*slot, third);
        whenItEndsPut(*second, fourth);
        way.assign(slot, second);
        second = Pointer();
        EXPECT_EQ(slot->theName, "fourth");
        EXPECT_EQ(slot.getRefCount(), 1U);
        EXPECT_EQ(seen, (Ends{"second", "third"}));
        EXPECT_EQ(way.theEnds, (Ends{"first", "second", "third"}));
    });
}

TEST(SmartPointerRefilling, withWhatIsThereAlreadyChangesNothing) {
    inEachWay([](Way& way) {
        Pointer slot = way.make("former");
        slot->theLastAct = [&] {
            Pointer same(slot);
            way.assign(slot, same);
            Pointer& itself = slot;
            way.assign(slot, itself);
        };
        way.put(slot, way.make("next"));
        EXPECT_EQ(slot->theName, "next");
        EXPECT_EQ(slot.getRefCount(), 1U);
        EXPECT_EQ(way.theEnds, Ends{"former"});
    });
}

TEST(SmartPointerRefilling, doesNotComeAboutWhileTheObjectIsStillHeld) {
    inEachWay([](Way& way) {
        Pointer slot = way.make("only");
        slot->theLastAct = [&] { way.theEnds.push_back("and refilled"); };
        Pointer second(slot);
        way.assign(slot, second);
        Pointer& itself = slot;
        way.assign(slot, itself);
        EXPECT_EQ(slot->theName, "only");
        EXPECT_TRUE(way.theEnds.empty());
    });
}

TEST(SmartPointerRefilling, mayTakeFromAPointerInsideTheObjectThatGoes) {
    inEachWay([](Way& way) {
        Pointer slot = way.make("former");
        EndingObject& former = *slot;
        former.theHeld = way.make("held");
        former.theLastAct = [&] { way.assign(slot, former.theHeld); };
        way.put(slot, way.make("next"));
        EXPECT_EQ(slot->theName, "held");
        EXPECT_EQ(slot.getRefCount(), 1U);
        EXPECT_EQ(way.theEnds, (Ends{"former", "next"}));
    });
}

TEST(SmartPointerRefilling, mayHappenWhileTheObjectThatGoesHeldTheSource) {
    inEachWay([](Way& way) {
        Pointer slot = way.make("former");
        slot->theHeld = way.make("held");
        Ends seen;
        slot->theLastAct = [&] {
            seen.push_back(slot->theName);
            way.put(slot, way.make("last"));
        };
        way.assign(slot, slot->theHeld);
        EXPECT_EQ(seen, Ends{"held"});
        EXPECT_EQ(slot->theName, "last");
        EXPECT_EQ(slot.getRefCount(), 1U);
        EXPECT_EQ(way.theEnds, (Ends{"former", "held"}));
    });
}

} // namespace Gilvane
