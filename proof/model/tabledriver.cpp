#include "tabledriver.h"

#include "arena.h"

#include <gvtestpeer.h>

#include <array>
#include <sstream>
#include <utility>

namespace Gilvane::driver {

namespace {

constexpr const char* callNames[] = {"insert", "index",       "indexWrite", "store",      "remove",    "clear",
                                     "resize", "copyToOther", "lookup",     "insertMany", "removeMany"};
static_assert(std::size(callNames) == static_cast<std::size_t>(TableCall::numberOfCalls));

unsigned int identity(unsigned int key) { return key; }
unsigned int constant(unsigned int) { return 0x9e3779b9; }
unsigned int fewBits(unsigned int key) { return key & 0x40000003; }

template <unsigned int (*function)(unsigned int)>
struct HashBy {
    unsigned int operator()(unsigned int key) const { return function(key); }
};

constexpr unsigned int firstOfMany = 1000;

template <unsigned int (*function)(unsigned int)>
class TableDriver : public Driver {
  public:
    TableDriver() {
        for (auto& table : theTables) {
            table = std::make_unique<Holder>();
        }
    }

    bool make(Operation operation) override {
        const Call call = decode(operation);
        State next = theState;
        unsigned int expected = 0;
        try {
            expected = makeOnModel(next, call);
        } catch (const model::NotDriven&) {
            return false;
        }
        theCalls.push_back(call);
        const unsigned int manyBefore = theState.firstMany;
        const unsigned int manyEndBefore = theState.endMany;
        theState = std::move(next);
        same("what is returned", makeOnLibrary(call, manyBefore, manyEndBefore), expected);
        compareFields();
        return true;
    }

    void compareViews() override {
        for (unsigned int number = 0; number < 2; ++number) {
            compareWalk(theState.tables[number], *theTables[number]->table);
            compareSearches(theState.tables[number], *theTables[number]->table);
            for (unsigned int other = 0; other < 2; ++other) {
                compareEquality(number, other);
            }
        }
    }

    void finish() override {
        for (auto& holder : theTables) {
            holder.reset();
        }
        same<std::size_t>("live raw blocks at the end", arena::liveCount(), 0);
    }

    std::string calls() const override {
        std::string text;
        for (const Call& call : theCalls) {
            text += std::string("  ") + callNames[static_cast<unsigned int>(call.what)] + " table " +
                    std::to_string(call.table) + ", key " + std::to_string(call.key) + ", number " +
                    std::to_string(call.number) + "\n";
        }
        return text;
    }

  private:
    using Table = GVHashTable<unsigned int, unsigned int, HashBy<function>>;
    using ModelTable = model::Table<unsigned int>;
    using Iterator = typename Table::Iterator;

    struct Call {
        TableCall what;
        unsigned int table;
        unsigned int key;
        unsigned int number; // a value, a hash, or how many
    };

    struct State {
        std::array<ModelTable, 2> tables = {ModelTable(function), ModelTable(function)};
        unsigned int firstMany = firstOfMany; // keys of insertMany: from here
        unsigned int endMany = firstOfMany;   // up to here
    };

    struct Holder {
        Holder() : table(new Table) {}
        explicit Holder(const Table& other) : table(new Table(other)) {}
        Holder(const Holder&) = delete;
        Holder& operator=(const Holder&) = delete;
        ~Holder() { delete table; }
        Table* table;
    };

    static Call decode(Operation operation) {
        Call call{static_cast<TableCall>(operation.code % static_cast<unsigned int>(TableCall::numberOfCalls)),
                  operation.a / 128U, tableKeys[operation.a & 15], operation.b};
        if (call.what == TableCall::resize && operation.b == 255) {
            call.number = 0x80000000U;
        } else if (call.what == TableCall::lookup) {
            call.number = operation.b * 0x01000001U;
        } else if (call.what == TableCall::insertMany || call.what == TableCall::removeMany) {
            call.table = 0;
            call.number = operation.a * 256U + operation.b;
        }
        return call;
    }

    static unsigned int makeOnModel(State& state, const Call& call) {
        ModelTable& table = state.tables[call.table];
        switch (call.what) {
        case TableCall::insert:
            table.insert(call.key, call.number);
            return 2;
        case TableCall::index:
        case TableCall::indexWrite: {
            const unsigned int found = table.at(call.key); // before the slots are asked for: they may become others
            model::Slot<unsigned int>& slot = table.slots()[found];
            if (call.what == TableCall::indexWrite) {
                slot.value = call.number;
            }
            return *slot.value;
        }
        case TableCall::store:
            table.store(call.key, call.number);
            return 2;
        case TableCall::remove:
            return table.remove(call.key) ? 1 : 0;
        case TableCall::clear:
            table.clear();
            return 0;
        case TableCall::resize:
            return table.resize(call.number);
        case TableCall::copyToOther:
            state.tables[1 - call.table] = table.copy();
            return 0;
        case TableCall::lookup:
            return table.lookup(call.key, call.number);
        case TableCall::insertMany: {
            // Searches that pass many keys one by one would take too long.
            const unsigned int most = function == identity ? model::limits.slots : 200;
            if (state.endMany + call.number - firstOfMany > most) {
                throw model::NotDriven{"more keys than the driver wants"};
            }
            for (unsigned int made = 0; made < call.number; ++made) {
                table.insert(state.endMany++, made);
            }
            return 0;
        }
        default: {
            unsigned int removed = 0;
            for (unsigned int tried = 0; tried < call.number && state.firstMany < state.endMany; ++tried) {
                removed += table.remove(state.firstMany++) ? 1 : 0;
            }
            return removed;
        }
        }
    }

    unsigned int makeOnLibrary(const Call& call, unsigned int firstMany, unsigned int endMany) {
        Table& table = *theTables[call.table]->table;
        switch (call.what) {
        case TableCall::insert:
            return static_cast<unsigned int>(table.insert(call.key, call.number));
        case TableCall::index:
            return table[call.key];
        case TableCall::indexWrite:
            return table[call.key] = call.number;
        case TableCall::store:
            return static_cast<unsigned int>(table.insert_helper(call.key, call.number));
        case TableCall::remove:
            return table.remove(call.key) ? 1 : 0;
        case TableCall::clear:
            table.clear();
            return 0;
        case TableCall::resize:
            return static_cast<unsigned int>(table.resize(call.number));
        case TableCall::copyToOther:
            theTables[1 - call.table] = std::make_unique<Holder>(table);
            return 0;
        case TableCall::lookup:
            return static_cast<unsigned int>(table.lookup(call.key, call.number) - GVTestPeer::slots(table));
        case TableCall::insertMany:
            for (unsigned int made = 0; made < call.number; ++made) {
                table.insert(endMany + made, made);
            }
            return 0;
        default: {
            unsigned int removed = 0;
            for (unsigned int tried = 0; tried < call.number && firstMany < endMany; ++tried) {
                removed += table.remove(firstMany++) ? 1 : 0;
            }
            return removed;
        }
        }
    }

    void compareFields() {
        std::size_t rawBlocks = 0;
        for (unsigned int number = 0; number < 2; ++number) {
            const ModelTable& expected = theState.tables[number];
            Table& table = *theTables[number]->table;
            same("occupied slots", GVTestPeer::usedCount(table), expected.used);
            same("occupied slots as told", table.getUsedCount(), expected.used);
            same("occupied and deleted slots", GVTestPeer::fillCount(table), expected.fill);
            same("the mask", GVTestPeer::mask(table), expected.size - 1);
            same("whether the slots are embedded", GVTestPeer::slots(table) == GVTestPeer::smallSlots(table),
                 expected.size == 8);
            compareSlots(expected.embedded, GVTestPeer::smallSlots(table));
            compareSlots(expected.heap, GVTestPeer::slots(table));
            rawBlocks += expected.size > 8 ? 2 : 1;
        }
        same("live raw blocks", arena::liveCount(), rawBlocks);
    }

    static void compareSlots(const std::vector<model::Slot<unsigned int>>& slots,
                             const typename Table::Entry* library) {
        for (const model::Slot<unsigned int>& slot : slots) {
            same("a slot's state", library->theState, slot.state);
            same("a slot's key", slot.key ? library->theKey : 0, slot.key.value_or(0));
            same("a slot's hash", slot.hash ? library->theHash : 0, slot.hash.value_or(0));
            same("a slot's value", slot.value ? library->theValue : 0, slot.value.value_or(0));
            ++library;
        }
    }

    template <typename Call>
    static std::string refusalOf(Call call) {
        try {
            call();
        } catch (const GVException& exception) {
            same("the exception's file", std::string(exception.getFile()),
                 std::string("libsrc/datastructures/gvhashtable"));
            same<int>("the exception's kind", exception.getKind(), 12);
            same("the exception's code", exception.getCode(), 0);
            return exception.getMessage();
        }
        return {};
    }

    // From begin to the end by the iterator, and every deleted slot by an iterator that stands there.
    static void compareWalk(const ModelTable& expected, Table& table) {
        const std::string invalid = "Iterator refers to invalid table entry.";
        const std::string atEnd = "Iterator at end.";
        const std::string none;
        Iterator position = table.begin();
        for (unsigned int index = 0; index < expected.size; ++index) {
            const model::Slot<unsigned int>& slot = expected.slots()[index];
            if (slot.state == model::occupied) {
                same("where a walk stands", GVTestPeer::index(position), index);
                same("the key of a walk", position.GetKey(), *slot.key);
                same("the value of a walk", position.GetValue(), *slot.value);
                same("what a walk points to", *position, *slot.value);
                position++;
            } else if (slot.state == model::deleted) {
                const Iterator there = GVTestPeer::iteratorOn(GVTestPeer::slots(table), expected.size + 1, index);
                same("a deleted slot's key", refusalOf([&there] { there.GetKey(); }), invalid);
                same("a deleted slot's value", refusalOf([&there] { there.GetValue(); }), invalid);
                same("what is left in a deleted slot", *there, *slot.value);
            }
        }
        same("where a walk ends", GVTestPeer::index(position), expected.size);
        same("how many entries a walk sees", GVTestPeer::capacity(position), expected.size + 1);
        same("whether a walk ends at the end", position == table.end(), true);
        same("a step past the end", refusalOf([&position] { position++; }), atEnd);
        same("the key at the end", refusalOf([&position] { position.GetKey(); }), invalid);
        same("the value at the end", refusalOf([&position] { position.GetValue(); }), invalid);
        same("what the end points to", refusalOf([&position] { *position; }), atEnd);
        same("where the refusals left the walk", GVTestPeer::index(position), expected.size);

        if (expected.used < 5000) { // the list takes a raw block for each key, and the arena is not endless
            const std::vector<unsigned int> keys = expected.keys();
            const auto listed = table.get_keys();
            same("the keys of a table", std::vector<unsigned int>(listed.begin(), listed.end()) == keys, true);
        }
        std::ostringstream text;
        table.WriteTable(text);
        same("the text of a table", text.str(),
             expected.dump([](unsigned int value) { return std::to_string(value); }));
    }

    static void compareSearches(const ModelTable& expected, Table& table) {
        for (const unsigned int key : tableKeys) {
            try {
                const std::optional<unsigned int> index = expected.get(key);
                const typename Table::Entry* const entry = table.get(key);
                same("whether a key is found", entry != nullptr, index.has_value());
                if (index) {
                    same<std::ptrdiff_t>("where a key is found", entry - GVTestPeer::slots(table), *index);
                }
            } catch (const model::NotDriven&) {
                continue; // a table without an empty slot
            }
        }
    }

    void compareEquality(unsigned int one, unsigned int other) {
        try {
            const bool equal = theState.tables[one].equals(theState.tables[other]);
            same("whether two tables are equal", *theTables[one]->table == *theTables[other]->table, equal);
            same("whether two tables are unequal", *theTables[one]->table != *theTables[other]->table, !equal);
        } catch (const model::NotDriven&) {
            return; // as above
        }
    }

    State theState;
    std::array<std::unique_ptr<Holder>, 2> theTables;
    std::vector<Call> theCalls;
};

} // namespace

std::unique_ptr<Driver> makeTableDriver(Subject subject) {
    switch (subject) {
    case tablesByConstant:
        return std::make_unique<TableDriver<constant>>();
    case tablesByFewBits:
        return std::make_unique<TableDriver<fewBits>>();
    default:
        return std::make_unique<TableDriver<identity>>();
    }
}

} // namespace Gilvane::driver
