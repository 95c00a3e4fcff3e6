/// @file
/// Programs of bytes, run on the library and on the reference side by side.
///
/// The first byte of a program says what it drives: pools and smart pointers, or tables with one of three hash
/// functions. The second sets the scene, and each three bytes after it are one operation. Every string of bytes is a
/// program: what the reference says has no defined outcome is passed over.
#ifndef GILVANE_PROOF_MODEL_DRIVER_H
#define GILVANE_PROOF_MODEL_DRIVER_H

#include "arena.h"

#include "reference/pointer.h"

#include <gvtestpeer.h>

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

namespace Gilvane::driver {

using Bytes = std::vector<unsigned char>;

/// The first byte of a program, modulo 4.
enum Subject : unsigned char { pools, tablesByIdentity, tablesByConstant, tablesByFewBits };

/// One operation of a program; its fields mean what the subject makes of them.
struct Operation {
    unsigned char code;
    unsigned char a;
    unsigned char b;
};

/// What one run of a program did.
struct Run {
    std::size_t made = 0;       // operations that were made
    bool lastMade = false;      // whether its last operation was among them
    std::size_t passedOver = 0; // operations that have no defined outcome, or one larger than the driver wants
};

/// When the whole state is compared: its fields, and its views, which are searches, walks, comparisons and texts. After
/// every operation what it returns, the number of requests for memory and that of live raw blocks are compared.
enum class Comparison {
    afterEach,      // fields and views after each operation
    viewsAfterLast, // fields after each operation, views after the last
    whereChosen // fields at the end and after operations with the bits `chosen` in `a`; views at the end, if the sum
                // of the program's bytes is a multiple of `programsPerView`
};
inline constexpr unsigned char chosen = 0x70;
inline constexpr unsigned int programsPerView = 256; // a fuzzer would prefer programs that ask for views themselves

/// Runs a program. Where the library differs from the model, which is the reference, it says so on the standard error, with the calls that
/// led there, and aborts.
Run run(const Bytes& program, Comparison comparison);

/// Thrown by same().
struct Difference {
    std::string text;
};

template <typename T>
std::string textOf(const T& value) {
    if constexpr (std::is_arithmetic_v<T>) {
        return std::to_string(value);
    } else if constexpr (std::is_convertible_v<const T&, const void*>) {
        return value == nullptr ? "null" : "the user's address of request " + std::to_string(arena::requestOf(value));
    } else {
        return '"' + std::string(value) + '"';
    }
}

[[noreturn]] void throwDifference(const char* what, const std::string& library, const std::string& model);

/// Compares what the library has with what the reference has.
template <typename T>
void same(const char* what, const T& library, const T& model) {
    if (!(library == model)) {
        throwDifference(what, textOf(library), textOf(model));
    }
}

/// Compares an address with the number of a request.
inline void sameBlock(const char* what, const void* library, reference::Id model) {
    same<const void*>(what, library, arena::userBytes(model));
}

/// Compares the fields of tables.
/// @param sameValue  compares a value of the library's with one of the reference's
template <typename Table, typename SameValue>
void compareTable(Table& library, const reference::Table& expected, SameValue sameValue) {
    same("occupied slots", GVTestPeer::usedCount(library), expected.used);
    same("occupied slots as told", library.getUsedCount(), expected.used);
    same("occupied and deleted slots", GVTestPeer::fillCount(library), expected.fill);
    same("the mask", GVTestPeer::mask(library), expected.size - 1);
    same("whether the slots are embedded", GVTestPeer::slots(library) == GVTestPeer::smallSlots(library),
         expected.size == reference::Table::smallSize);
    const auto compareSlots = [&sameValue](const typename Table::Entry* entry,
                                           const std::vector<reference::Slot>& slots) {
        for (const reference::Slot& slot : slots) {
            same("a slot's state", entry->theState, slot.state);
            same("a slot's key", slot.key ? entry->theKey : 0, slot.key.value_or(0));
            same("a slot's hash", slot.hash ? entry->theHash : 0, slot.hash.value_or(0));
            if (slot.value) {
                sameValue(entry->theValue, *slot.value);
            }
            ++entry;
        }
    };
    compareSlots(GVTestPeer::smallSlots(library), expected.small);
    compareSlots(GVTestPeer::slots(library), expected.large);
}

/// Compares the list of a table's keys, and where searches end.
/// @param searched  keys to search; those that are there as well, unless there are very many
template <typename Table>
void compareSearches(Table& library, const reference::Table& expected, std::vector<unsigned int> searched) {
    if (expected.used < 5000) { // the list takes a raw block for each key, and the arena is not endless
        const std::vector<unsigned int> keys = expected.keys();
        const auto listed = library.get_keys();
        same("the keys of a table", std::vector<unsigned int>(listed.begin(), listed.end()) == keys, true);
        searched.insert(searched.end(), keys.begin(), keys.end());
    }
    for (const unsigned int key : searched) {
        std::optional<unsigned int> index;
        try {
            index = expected.find(key);
        } catch (const reference::NotDriven&) {
            continue; // a table without an empty slot
        }
        const auto* const entry = library.get(key);
        same("whether a key is found", entry != nullptr, index.has_value());
        if (index) {
            same<std::ptrdiff_t>("where a key is found", entry - GVTestPeer::slots(library), *index);
        }
    }
}

/// What one call does, apart from changing the state.
struct Outcome {
    std::optional<unsigned int> number = {}; // what it returns
    std::string refusal = {};                // the exception that it throws
};

/// The driver that a run sees.
class Driver {
  public:
    virtual ~Driver() = default;
    /// @returns whether the operation was made
    virtual bool make(Operation operation) = 0;
    virtual void compareFields() = 0;
    virtual void compareViews() = 0;
    /// Takes everything down that may be, and compares fields after each step unless they are compared where chosen.
    virtual void finish(Comparison comparison) = 0;
    /// The calls made so far, as text.
    virtual std::string calls() const = 0;
};

/// What the two kinds of driver share: a call is made on the reference first, and on the library only when the
/// reference has an outcome for it.
/// @tparam Call       has `make`, which makes it on either side, and `text`
/// @tparam Library    the library's side
/// @tparam Reference  the reference's, which is made anew when a call has no outcome
template <typename Call, typename Library, typename Reference>
class DriverOf : public Driver {
  public:
    explicit DriverOf(unsigned int firstToken) : theFirstToken(firstToken) {
        GVTestPeer::nextToken() = firstToken;
        theLibrary = std::make_unique<Library>();
        beginReference();
        GVMemoryPool::defaultNumberOfObjects = reference::Pool::defaultNumberOfObjects;
    }

    std::string calls() const override {
        std::string text;
        for (const Call& call : theCalls) {
            text += "  " + call.text() + "\n";
        }
        return text;
    }

  protected:
    /// @returns whether the call has an outcome
    bool commit(const Call& call) {
        Outcome expected;
        try {
            expected = call.make(*theReference);
        } catch (const reference::NotDriven&) {
            beginReference();
            for (const Call& former : theCalls) {
                former.make(*theReference);
            }
            return false;
        }
        theCalls.push_back(call);
        theLast = call.make(*theLibrary);
        same("the exception", theLast.refusal, expected.refusal);
        same("whether something is returned", theLast.number.has_value(), expected.number.has_value());
        same("what is returned", theLast.number.value_or(0), expected.number.value_or(0));
        same("requests for memory", arena::requestCount(), theMeter->requestCount());
        same("live raw blocks", arena::liveCount(), theMeter->liveCount());
        return true;
    }

    std::unique_ptr<Library> theLibrary;
    std::unique_ptr<Reference> theReference;
    std::vector<Call> theCalls;
    Outcome theLast; // of the last call

  private:
    void beginReference() {
        theReference.reset();
        theMeter.emplace();
        reference::begin(*theMeter, theFirstToken);
        theReference = std::make_unique<Reference>();
    }

    unsigned int theFirstToken;
    std::optional<reference::Meter> theMeter;
};

} // namespace Gilvane::driver

#endif
