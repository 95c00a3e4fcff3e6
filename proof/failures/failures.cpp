// Every allocation fails once: for each operation and start state the first, second, third ... allocation is refused,
// alone and with all after it, until the operation completes. After each, everything is compared with a reference that
// carries out the operation step by step: outcome, order of requests, releases and locks, and the whole state. The
// operation is then repeated with memory at hand and everything compared again; at last both sides are torn down, and
// what is still live must be the accepted losses, to the byte.
//
// failures         visits every point; status 1 and the first difference if there is one
#include "ledger.h"
#include "sides.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace Proof {

namespace {

/// Something that both sides do in the same words.
struct Step {
    std::string name;
    std::function<void(Actors<Real>&)> real;
    std::function<void(Actors<Model>&)> model;
    std::size_t refused = Refusal::never; // while a state is built: the request that is refused
};

template <typename Function>
Step step(const std::string& name, Function function, std::size_t refused = Refusal::never) {
    return {name, function, function, refused};
}

/// The side whose actors a step was given.
template <typename ActorsReference>
using SideOf = typename std::decay_t<ActorsReference>::Side;

struct State {
    std::string name;
    std::vector<Step> steps;
};

struct Group {
    std::vector<State> states;
    std::vector<Step> operations;
};

std::string numbered(const std::string& text, unsigned long number) { return text + " " + std::to_string(number); }

// Pools

void addPoolStates(std::vector<State>& states, bool locked, unsigned int bytes) {
    const auto add = [&](const std::string& name, const std::vector<Step>& steps) {
        State state{name + (locked ? ", locked" : ", unlocked") + numbered(", bytes", bytes), {}};
        state.steps.push_back(step("make", [locked, bytes](auto& a) {
            using Side = SideOf<decltype(a)>;
            a.pool = Side::make(4U, locked);
            a.pool->setNumberOfBytesInPoolObject(bytes);
        }));
        state.steps.insert(state.steps.end(), steps.begin(), steps.end());
        states.push_back(state);
    };
    const auto make = [](unsigned int n) { return step("", [n](auto& a) { a.pool->makePool(n); }); };
    const auto resize = [](unsigned int n, std::size_t refused = Refusal::never) {
        return step(
            "", [n](auto& a) { a.pool->resizePool(n); }, refused);
    };
    const auto lend = [](unsigned int n) {
        return step("", [n](auto& a) {
            for (unsigned int i = 0; i < n; ++i) {
                a.lent.push_back(a.pool->getTokenForFreeMemoryObject());
            }
        });
    };
    const auto setToken = [](unsigned int next) {
        return step("", [next](auto& a) { SideOf<decltype(a)>::nextToken() = next; });
    };
    // A key of the sixth block that the table stores and cannot grow for. Its requests: storage, bytes, array.
    const std::size_t array = bytes == 0 ? 1 : 2;

    add("empty", {});
    add("one block", {make(1)});
    add("free list at its capacity", {make(4)});
    add("all lent", {make(4), lend(4)});
    add("some lent", {make(7), lend(3)});
    add("just below growth of the table", {make(5)});
    add("just below growth of the table, all lent", {make(5), lend(5)});
    add("just below growth of the free list", {make(8)});
    add("just below the second growth of the table", {make(21)});
    add("just below the second growth of the table, some lent", {make(21), lend(16)});
    add("deleted slots in the embedded array", {make(5), resize(2)});
    add("nothing but deleted slots in the embedded array", {make(5), resize(0)});
    add("deleted slots in a heap array", {make(12), lend(2), resize(4)});
    add("one block and deleted slots just below growth", {make(21), resize(1)});
    add("nothing but deleted slots just below growth", {make(21), resize(0)});
    add("rebuilt", {make(4), make(4)});
    add("rebuilt smaller from a heap array", {make(9), lend(9), make(3)});
    add("rebuilt to nothing", {make(9), make(0)});
    add("the table's growth was refused", {make(5), resize(6, array)});
    add("the free list's growth was refused", {make(4), resize(5, array)});
    add("the first block was refused", {make(4), lend(4), resize(8, 0)});
    add("tokens wrap", {setToken(4294967293U), make(5)});
    // 0, 57 and 8 stand in slots 0, 1 and 6; without 57, 8 is hidden behind a deleted slot.
    const std::vector<Step> hidden = {setToken(0), make(1), setToken(57), resize(2), setToken(8), resize(3)};
    add("a token about to be hidden", hidden);
    std::vector<Step> hiddenAndFull = hidden;
    hiddenAndFull.insert(hiddenAndFull.end(), {setToken(98), resize(5), setToken(100), resize(6, array)});
    add("a token about to be hidden in a table that could not grow", hiddenAndFull);
    std::vector<Step> hiddenNow = hidden;
    hiddenNow.push_back(step("", [](auto& a) {
        a.pool->resizePool(2);
        a.pool->removeTokenFromAvailableList(8);
    }));
    add("a token was hidden and stored again", hiddenNow);
    add("beside another pool", {make(3),
                                step("",
                                     [locked](auto& a) {
                                         using Side = SideOf<decltype(a)>;
                                         a.other = Side::make(3U, 8U, !locked);
                                     }),
                                resize(5), step("", [](auto& a) { a.other->resizePool(7); })});
}

std::vector<Step> poolOperations() {
    std::vector<Step> steps;
    for (const unsigned int n : {0U, 1U, 7U, 22U}) {
        steps.push_back(step(numbered("makePool", n), [n](auto& a) { a.pool->makePool(n); }));
    }
    for (const unsigned int n : {0U, 1U, 2U, 4U, 5U, 6U, 9U, 24U}) {
        steps.push_back(step(numbered("resizePool", n), [n](auto& a) { a.pool->resizePool(n); }));
    }
    for (const unsigned int n : {0U, 24U}) {
        steps.push_back(step(numbered("setNumberOfBytesInPoolObject", n),
                             [n](auto& a) { a.pool->setNumberOfBytesInPoolObject(n); }));
    }
    steps.push_back(
        step("numberOfObjectsInPoolInUse", [](auto& a) { a.result = a.pool->numberOfObjectsInPoolInUse(); }));
    steps.push_back(step("removeTokenFromAvailableList", [](auto& a) {
        const auto tokens = SideOf<decltype(a)>::freeTokens(*a.pool);
        a.pool->removeTokenFromAvailableList(tokens.empty() ? 4711 : tokens[tokens.size() / 2]);
    }));
    steps.push_back(step("getTokenForFreeMemoryObject", [](auto& a) {
        a.lent.push_back(a.pool->getTokenForFreeMemoryObject());
        a.result = a.lent.back();
    }));
    steps.push_back(step("getTokenForFreeMemoryObject until it grows", [](auto& a) {
        for (std::size_t left = SideOf<decltype(a)>::freeTokens(*a.pool).size() + 1; left > 0; --left) {
            a.lent.push_back(a.pool->getTokenForFreeMemoryObject());
        }
    }));
    steps.push_back(step("getMemoryForToken", [](auto& a) {
        using Side = SideOf<decltype(a)>;
        for (const unsigned int token : Side::freeTokens(*a.pool)) {
            if (Side::hasBlock(*a.pool, token)) {
                a.result += Side::hasMemory(*a.pool, token) ? 2 : 1;
            }
        }
    }));
    steps.push_back(step("releaseObject", [](auto& a) {
        const unsigned int token = a.lent.empty() ? 4711 : a.lent.back();
        a.pool->releaseObject(token);
        if (!a.lent.empty()) {
            a.lent.pop_back();
        }
    }));
    steps.push_back(step("releaseObject of nine tokens", [](auto& a) {
        for (unsigned int token = 4700; token < 4709; ++token) {
            a.pool->releaseObject(token);
        }
    }));
    steps.push_back(step("operator== with a copy of the pool", [](auto& a) {
        using Side = SideOf<decltype(a)>;
        a.dropCopies();
        a.copy = Side::make(*a.pool);
        a.result = *a.copy == *a.pool ? 1 : 0;
    }));
    steps.push_back(step("print", [](auto& a) { SideOf<decltype(a)>::print(*a.pool); }));
    steps.push_back(step("delete", [](auto& a) {
        SideOf<decltype(a)>::destroy(a.pool);
        a.pool = nullptr;
    }));
    for (const bool owned : {false, true}) {
        for (const bool locked : {false, true}) {
            const std::string name = std::string("a pointer, ") + (owned ? "owning" : "not owning") +
                                     (locked ? ", with a lock" : ", without a lock");
            steps.push_back(step(name, [owned, locked](auto& a) {
                if (a.pool == nullptr) { // it was given to the pointer before
                    return;
                }
                a.pointer.emplace(a.pool, owned, locked);
                a.pool = owned ? nullptr : a.pool;
            }));
        }
    }
    return steps;
}

// Pools at construction

std::vector<Step> constructions() {
    std::vector<Step> steps;
    for (const bool locked : {false, true}) {
        const std::string how = locked ? ", locked" : ", unlocked";
        steps.push_back(step("constructor" + how, [locked](auto& a) {
            using Side = SideOf<decltype(a)>;
            Side::destroy(a.pool);
            a.pool = nullptr;
            a.pool = Side::make(locked);
        }));
        steps.push_back(step("init" + how, [locked](auto& a) {
            a.pointer.reset();
            a.pointer.emplace(SideOf<decltype(a)>::init(locked));
        }));
        steps.push_back(step("constructor with a number" + how, [locked](auto& a) {
            using Side = SideOf<decltype(a)>;
            Side::destroy(a.pool);
            a.pool = nullptr;
            a.pool = Side::make(9U, locked);
        }));
        steps.push_back(step("initWithNumberOfObjects" + how, [locked](auto& a) {
            a.pointer.reset();
            a.pointer.emplace(SideOf<decltype(a)>::init(9U, locked));
        }));
        for (const unsigned int bytes : {0U, 16U, 100U}) {
            for (const unsigned int n : {0U, 1U, 3U, 5U, 6U, 9U, 23U}) {
                const std::string what = numbered(how + ", bytes", bytes) + numbered(", blocks", n);
                steps.push_back(step("constructor with number and size" + what, [=](auto& a) {
                    using Side = SideOf<decltype(a)>;
                    Side::destroy(a.pool);
                    a.pool = nullptr;
                    a.pool = Side::make(n, bytes, locked);
                }));
                steps.push_back(step("initWithNumberOfObjectsAndSize" + what, [=](auto& a) {
                    a.pointer.reset();
                    a.pointer.emplace(SideOf<decltype(a)>::init(n, bytes, locked));
                }));
            }
        }
    }
    return steps;
}

// Smart pointers

std::vector<State> pointerStates() {
    std::vector<State> states;
    for (const bool locked : {false, true}) {
        const std::string how = locked ? ", pool locked" : ", pool unlocked";
        for (const unsigned int n : {0U, 2U, 6U, 23U}) {
            const Step made =
                step("make", [=](auto& a) { a.pointer.emplace(SideOf<decltype(a)>::init(n, 16U, locked)); });
            const Step lend = step("lend", [](auto& a) { a.pointer->get()->getTokenForFreeMemoryObject(); });
            const Step share = step("share", [](auto& a) { a.sharer.emplace(*a.pointer); });
            const Step shrink = step("shrink", [=](auto& a) { a.pointer->get()->resizePool(n / 2); });
            const Step lendAll = step("lend all", [=](auto& a) {
                for (unsigned int i = 0; i < n; ++i) {
                    a.pointer->get()->getTokenForFreeMemoryObject();
                }
            });
            states.push_back({numbered("a pointer to a pool of", n) + how, {made}});
            if (n == 0) { // it has nothing to lend
                continue;
            }
            states.push_back({numbered("a shared pointer to a pool, one lent, of", n) + how, {made, lend, share}});
            states.push_back({numbered("a pointer to a pool, all lent, of", n) + how, {made, lendAll}});
            states.push_back({numbered("a pointer to a pool shrunk from", n) + how, {made, shrink}});
        }
        states.push_back({"a pointer that neither owns nor locks" + how, {step("make", [locked](auto& a) {
                              using Side = SideOf<decltype(a)>;
                              a.pool = Side::make(7U, 8U, locked);
                              a.pointer.emplace(a.pool, false, false);
                          })}});
    }
    return states;
}

std::vector<Step> pointerOperations() {
    return {
        step("deepCopy",
             [](auto& a) {
                 a.dropCopies();
                 a.deep.emplace(SideOf<decltype(a)>::deepCopy(*a.pointer));
             }),
        step("copy constructor of the pool",
             [](auto& a) {
                 a.dropCopies();
                 a.copy = SideOf<decltype(a)>::make(*a.pointer->get());
             }),
        step("copy", [](auto& a) { a.sharer.emplace(*a.pointer); }),
        step("assignment",
             [](auto& a) {
                 using Side = SideOf<decltype(a)>;
                 a.sharer.reset();
                 a.sharer.emplace(Side::init(true));
                 *a.sharer = *a.pointer;
             }),
        step("getRefCount", [](auto& a) { a.result = a.pointer->getRefCount(); }),
        step("print", [](auto& a) { SideOf<decltype(a)>::print(*a.pointer); }),
        step("an empty pointer",
             [](auto& a) {
                 using Side = SideOf<decltype(a)>;
                 a.sharer.emplace(static_cast<typename Side::Pool*>(nullptr), true, true);
             }),
        step("the last share given up",
             [](auto& a) {
                 a.sharer.reset();
                 a.pointer.reset();
                 a.pointer.emplace();
             }),
        step("a pool that grows through its pointer",
             [](auto& a) { a.pointer->get()->resizePool(2 * a.pointer->get()->numberOfObjectsInPoolInUse() + 8); }),
    };
}

// Tables alone

std::vector<State> tableStates() {
    std::vector<State> states;
    const auto add = [&states](const std::string& name, const std::vector<unsigned int>& keys,
                               const std::vector<unsigned int>& removed = {}, const std::vector<Step>& last = {}) {
        State state{name, {step("insert", [keys, removed](auto& a) {
                        a.table.emplace();
                        for (const unsigned int key : keys) {
                            a.table->insert(key, static_cast<int>(key) + 1000);
                        }
                        for (const unsigned int key : removed) {
                            a.table->remove(key);
                        }
                    })}};
        state.steps.insert(state.steps.end(), last.begin(), last.end());
        states.push_back(state);
    };
    std::vector<unsigned int> many;
    for (unsigned int key = 0; key < 21; ++key) {
        many.push_back(key * 8);
    }
    std::vector<unsigned int> more = many;
    more.insert(more.end(), {500, 501, 502});
    const Step refused = step(
        "", [](auto& a) { a.table->insert(77, 77); }, 0);
    add("an empty table", {});
    add("three colliding keys", {0, 8, 16});
    add("just below growth", {1, 2, 3, 4, 5});
    add("just below growth, keys colliding", {0, 8, 16, 24, 32});
    add("deleted slots", {1, 2, 3, 4, 5}, {2, 5});
    add("one key and deleted slots just below growth", {1, 2, 3, 4, 5}, {2, 3, 4, 5});
    add("nothing but deleted slots", {1, 2, 3, 4, 5}, {1, 2, 3, 4, 5});
    add("a heap array", {1, 2, 3, 4, 5, 6, 7});
    add("a heap array of nothing but deleted slots", {1, 2, 3, 4, 5, 6}, {1, 2, 3, 4, 5, 6});
    add("just below the second growth", many);
    add("just below the second growth, one key left", many, {many.begin() + 1, many.end()});
    add("just below the second growth, none left", many, many);
    add("grown twice", more);
    add("cleared", {1, 2, 3, 4, 5, 6}, {}, {step("", [](auto& a) { a.table->clear(); })});
    add("growth was refused", {1, 2, 3, 4, 5}, {}, {refused});
    add("growth was refused twice", {1, 2, 3, 4, 5}, {},
        {refused, step(
                      "", [](auto& a) { a.table->insert(78, 78); }, 0)});
    add("growth was refused, then keys removed", {1, 2, 3, 4, 5}, {}, {refused, step("", [](auto& a) {
                                                                           a.table->remove(1);
                                                                           a.table->remove(2);
                                                                           a.table->remove(3);
                                                                           a.table->remove(4);
                                                                           a.table->remove(77);
                                                                       })});
    add("back in the embedded array", {1, 2, 3, 4, 5, 6}, {5, 6}, {step("", [](auto& a) { a.table->resize(7); })});
    return states;
}

std::vector<Step> tableOperations() {
    std::vector<Step> steps = {
        step("insert of a new key", [](auto& a) { a.result = static_cast<unsigned long>(a.table->insert(40, 1)); }),
        step("insert of a colliding key",
             [](auto& a) { a.result = static_cast<unsigned long>(a.table->insert(4096, 1)); }),
        step("insert of a key that is there", [](auto& a) { a.table->insert(1, 2); }),
        step("insert of forty keys",
             [](auto& a) {
                 for (unsigned int key = 100; key < 140; ++key) {
                     a.table->insert(key * 3, 3);
                 }
             }),
        step("operator[] of an absent key", [](auto& a) { (*a.table)[41] += 4; }),
        step("operator[] of a key", [](auto& a) { (*a.table)[5] += 4; }),
        step("clear", [](auto& a) { a.table->clear(); }),
        step("remove", [](auto& a) { a.result = a.table->remove(5) ? 1 : 0; }),
        step("get", [](auto& a) { a.result = SideOf<decltype(a)>::has(*a.table, 5) ? 1 : 0; }),
        step("get_keys", [](auto& a) { a.result = SideOf<decltype(a)>::keys(*a.table); }),
        step("copy constructor", [](auto& a) { a.secondTable.emplace(*a.table); }),
        step("operator==",
             [](auto& a) {
                 a.secondTable.emplace(*a.table);
                 a.result = *a.secondTable == *a.table ? 1 : 0;
             }),
    };
    for (const unsigned int minUsed : {0U, 7U, 8U, 31U, 100U, 2147483648U}) {
        steps.push_back(step(numbered("resize", minUsed), [minUsed](auto& a) {
            // Only to an array in which the keys leave a slot free: the search would not end otherwise
            if (a.table->getUsedCount() < std::max(minUsed, 7U)) {
                a.result = static_cast<unsigned long>(a.table->resize(minUsed));
            }
        }));
    }
    const std::pair<Misuse, const char*> misuses[] = {
        {Misuse::derefAtEnd, "operator* at the end"}, {Misuse::derefNotReady, "operator* of no table"},
        {Misuse::stepAtEnd, "operator++ at the end"}, {Misuse::stepNotReady, "operator++ of no table"},
        {Misuse::keyAtEnd, "GetKey at the end"},      {Misuse::keyNotReady, "GetKey of no table"},
        {Misuse::valueAtEnd, "GetValue at the end"},  {Misuse::valueNotReady, "GetValue of no table"},
    };
    for (const auto& [misuse, name] : misuses) {
        const Misuse which = misuse;
        steps.push_back(step(name, [which](auto& a) { SideOf<decltype(a)>::misuse(*a.table, which); }));
    }
    return steps;
}

// What needs no state

std::vector<Step> otherOperations() {
    std::vector<Step> steps;
    for (const unsigned int bytes : {0U, 24U}) {
        for (const bool mayThrow : {false, true}) {
            steps.push_back(step(numbered(mayThrow ? "new block of" : "new (nothrow) block of", bytes),
                                 [=](auto& a) { a.result = SideOf<decltype(a)>::makeBlock(bytes, mayThrow) ? 1 : 0; }));
        }
    }
    steps.push_back(step("new array of entries", [](auto& a) { SideOf<decltype(a)>::makeEntries(9); }));
    steps.push_back(step("a vector of tokens", [](auto& a) {
        using Side = SideOf<decltype(a)>;
        if (!a.tokens) {
            a.tokens.emplace();
        }
        for (unsigned int token = 0; token < 9; ++token) {
            Side::append(*a.tokens, token);
        }
    }));
    steps.push_back(step("an exception and its copy", [](auto& a) {
        SideOf<decltype(a)>::makeAndCopyException("a text that is too long for the string object itself");
    }));
    steps.push_back(
        step("an exception with a short text", [](auto& a) { SideOf<decltype(a)>::makeAndCopyException("short"); }));
    steps.push_back(step("one hook alone", [](auto& a) { SideOf<decltype(a)>::refuseOneHook(); }));
    steps.push_back(
        step("deepCopy of what cannot be copied", [](auto& a) { SideOf<decltype(a)>::copyTheUncopyable(); }));
    steps.push_back(step("deepCopy of an object that is no pool", [](auto& a) {
        using Side = SideOf<decltype(a)>;
        if (a.plain == nullptr && !a.plainPointer) {
            a.plain = Side::makePlain();
        }
        if (!a.plainPointer) {
            a.plainPointer.emplace(a.plain, true, true);
            a.plain = nullptr;
        }
        a.plainCopy.reset();
        a.plainCopy.emplace(Side::deepCopy(*a.plainPointer));
    }));
    return steps;
}

// The proof

struct Totals {
    std::size_t states = 0;
    std::size_t pairs = 0;
    std::size_t pointsOnce = 0;
    std::size_t pointsFromThereOn = 0;
    std::map<Loss, std::size_t> losses;
};

/// One operation in one state with one refusal.
class Point {
  public:
    Point(const State& state, const Step& operation, Refusal refusal)
        : theState(state), theOperation(operation), theRefusal(refusal) {
        Model::forget();
        Gilvane::ThreadsLog::clear();
        Gilvane::ThreadsLog::observer() = [](const std::string& event) { RealMemory::books().events.push_back(event); };
        Real::nextToken() = 0;
    }

    /// Whether both sides agreed at every stage; says where they did not.
    bool visit() {
        RealMemory::useHooks(hooksOfTheState);
        for (const Step& step : theState.steps) {
            refuse({step.refused, false});
            if (theRefusal.at == 0 && !theRefusal.stays) {
                if (!agreeOn(step, "building the state")) {
                    return false;
                }
            } else { // built in the same way, and compared, for the first point
                outcome(step, theModel);
                outcome(step, theReal);
            }
        }
        forgetEvents();
        RealMemory::useHooks(hooksOfTheOperation);
        Model::ledger().books.hooks = hooksOfTheOperation;
        refuse(theRefusal);
        if (!agreeOn(theOperation, "the operation")) {
            return false;
        }
        theRefusals = Model::ledger().books.refused;
        refuse(Refusal());
        if (!agreeOn(theOperation, "the operation once more, with memory")) {
            return false;
        }
        if (!agreeOn(step("end", [](auto& a) { a.end(); }), "tearing down") || !lossesAreAccepted()) {
            return false;
        }
        RealMemory::useHooks(0);
        const Lines wrong = RealMemory::forget();
        return wrong.empty() || report("the end", wrong.front(), "");
    }

    bool wasRefused() const { return theRefusals > 0; }

  private:
    static void refuse(Refusal refusal) {
        RealMemory::books().refuse(refusal);
        Model::ledger().books.refuse(refusal);
    }

    static void forgetEvents() {
        Model::ledger().books.events.clear();
        RealMemory::books().events.clear();
    }

    static std::string outcome(const Step& step, Actors<Real>& actors) {
        actors.result = 0;
        try {
            step.real(actors);
        } catch (const std::bad_alloc&) {
            return "bad_alloc";
        } catch (const Gilvane::GVException& exception) {
            return "GVException " + std::to_string(exception.getKind()) + " " + std::to_string(exception.getCode()) +
                   " " + exception.getFile() + ": " + exception.getMessage();
        }
        return "done " + std::to_string(actors.result);
    }

    static std::string outcome(const Step& step, Actors<Model>& actors) {
        actors.result = 0;
        try {
            step.model(actors);
        } catch (const reference::BadAlloc&) {
            return "bad_alloc";
        } catch (const reference::Exception& exception) {
            return exception.text;
        } catch (const reference::NotDriven& notDriven) {
            Model::ledger().errors.emplace_back(notDriven.reason);
        }
        return "done " + std::to_string(actors.result);
    }

    bool agreeOn(const Step& step, const std::string& stage) {
        Lines expected = {outcome(step, theModel)};
        Lines seen = {outcome(step, theReal)};
        add(expected, Model::ledger().books.events);
        add(seen, RealMemory::books().events);
        add(expected, stateOf(theModel));
        add(seen, stateOf(theReal, theModel));
        forgetEvents();
        if (!Model::ledger().errors.empty()) {
            return report(stage, Model::ledger().errors.front(), "");
        }
        for (std::size_t line = 0; line < std::max(expected.size(), seen.size()); ++line) {
            const std::string wanted = line < expected.size() ? expected[line] : "nothing more";
            const std::string got = line < seen.size() ? seen[line] : "nothing more";
            if (wanted != got) {
                return report(stage, "expected: " + wanted, "seen:     " + got);
            }
        }
        return true;
    }

    // Both sides agree on what is live, so it is enough that the reference lost nothing but by a rule.
    bool lossesAreAccepted() {
        const Ledger& ledger = Model::ledger();
        for (std::size_t index = 0; index < ledger.books.blocks.size(); ++index) {
            const Id id = static_cast<Id>(index) + 1;
            if (ledger.books.blocks[index].live != (ledger.losses.count(id) != 0)) {
                return report("the end", "block #" + std::to_string(id) + " is lost, or not, against the rules", "");
            }
        }
        return true;
    }

    static void add(Lines& lines, const Lines& more) { lines.insert(lines.end(), more.begin(), more.end()); }

    bool report(const std::string& stage, const std::string& first, const std::string& second) const {
        std::printf("difference: %s, state: %s\n", theOperation.name.c_str(), theState.name.c_str());
        if (theRefusal.at == Refusal::never) {
            std::printf("    nothing refused");
        } else {
            std::printf("    allocation %zu refused, %s", theRefusal.at + 1,
                        theRefusal.stays ? "and all after it" : "alone");
        }
        std::printf("; after %s\n    %s\n    %s\n", stage.c_str(), first.c_str(), second.c_str());
        return false;
    }

    const State& theState;
    const Step& theOperation;
    Refusal theRefusal;
    std::size_t theRefusals = 0;
    Actors<Real> theReal;
    Actors<Model> theModel;
};

bool visitAll(const Group& group, Totals& totals) {
    for (const State& state : group.states) {
        ++totals.states;
        for (const Step& operation : group.operations) {
            ++totals.pairs;
            for (const bool stays : {false, true}) {
                for (std::size_t at = 0;; ++at) {
                    Point point(state, operation, {at, stays});
                    if (!point.visit()) {
                        return false;
                    }
                    if (!point.wasRefused()) {
                        break;
                    }
                    ++(stays ? totals.pointsFromThereOn : totals.pointsOnce);
                    for (const auto& loss : Model::ledger().losses) {
                        ++totals.losses[loss.second];
                    }
                }
            }
        }
    }
    return true;
}

int prove() {
    std::vector<State> poolStates;
    for (const bool locked : {false, true}) {
        for (const unsigned int bytes : {0U, 16U}) {
            addPoolStates(poolStates, locked, bytes);
        }
    }
    const std::vector<Group> groups = {
        {{{"none", {}}}, otherOperations()}, {{{"none", {}}}, constructions()}, {pointerStates(), pointerOperations()},
        {tableStates(), tableOperations()},  {poolStates, poolOperations()},
    };
    Totals totals;
    for (const Group& group : groups) {
        if (!visitAll(group, totals)) {
            return 1;
        }
    }
    if (::testing::UnitTest::GetInstance()->ad_hoc_test_result().Failed()) {
        std::printf("difference: a lock was used otherwise than locks may be\n");
        return 1;
    }
    std::printf("accepted losses, in bytes with the header word of %u bytes:\n", Gilvane::detail::rawBlockHeaderBytes);
    for (const AcceptedLoss& row : acceptedLosses) {
        const Size size = sizeOf(row.what);
        std::printf("    %7zu blocks of %3zu%s: %s\n", totals.losses[row.loss],
                    size.fixedBytes + Gilvane::detail::rawBlockHeaderBytes,
                    size.unitBytes == 0 ? "" : (" + n * " + std::to_string(size.unitBytes)).c_str(), row.when);
        if (totals.losses[row.loss] == 0) {
            std::printf("difference: this accepted loss was never seen\n");
            return 1;
        }
    }
    std::printf("states: %zu\n", totals.states);
    std::printf("operations in states: %zu\n", totals.pairs);
    std::printf("failure points, refused once: %zu\n", totals.pointsOnce);
    std::printf("failure points, refused from there on: %zu\n", totals.pointsFromThereOn);
    return 0;
}

} // namespace

} // namespace Proof

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    return Proof::prove();
}
