#include "tabledriver.h"

#include <array>
#include <sstream>

namespace Gilvane::driver {

namespace {

constexpr const char* callNames[] = {"insert", "index",       "indexWrite", "store",      "remove",    "clear",
                                     "resize", "copyToOther", "lookup",     "insertMany", "removeMany"};
static_assert(std::size(callNames) == static_cast<std::size_t>(TableCall::numberOfCalls));

using reference::identity;
unsigned int constant(unsigned int) { return 0x9e3779b9; }
unsigned int fewBits(unsigned int key) { return key & 0x40000003; }

template <unsigned int (*function)(unsigned int)>
struct HashBy {
    unsigned int operator()(unsigned int key) const { return function(key); }
};

/// A table with the raw block of the object itself, which is had before it and released after it.
template <unsigned int (*function)(unsigned int)>
struct StoredTable : private reference::RawBlock, public reference::Table {
    StoredTable() : RawBlock(reference::What::otherObject), Table(function) {}
    StoredTable(const StoredTable& other) : RawBlock(reference::What::otherObject), Table(other) {}
    StoredTable& operator=(const StoredTable&) = delete;
    ~StoredTable() = default;
};

/// Two tables of one side.
template <typename Table>
struct Tables {
    std::array<std::unique_ptr<Table>, 2> tables = {std::make_unique<Table>(), std::make_unique<Table>()};
};

/// What either side's lookup returns, as the number of a slot.
template <typename Table>
unsigned int slotOf(Table&, unsigned int slot) {
    return slot;
}
template <typename Table>
unsigned int slotOf(Table& table, const typename Table::Entry* entry) {
    return static_cast<unsigned int>(entry - GVTestPeer::slots(table));
}

struct Call {
    TableCall what;
    unsigned int table;
    unsigned int key;    // of many, the first
    unsigned int number; // a value, a hash, or how many

    template <typename Table>
    Outcome make(Tables<Table>& side) const;

    std::string text() const {
        return std::string(callNames[static_cast<unsigned int>(what)]) + " table " + std::to_string(table) + ", key " +
               std::to_string(key) + ", number " + std::to_string(number);
    }
};

template <typename Table>
Outcome Call::make(Tables<Table>& side) const {
    Table& target = *side.tables[table];
    const auto value = static_cast<int>(number);
    unsigned int result = 0;
    switch (what) {
    case TableCall::insert:
        return {static_cast<unsigned int>(target.insert(key, value))};
    case TableCall::index:
        return {static_cast<unsigned int>(target[key])};
    case TableCall::indexWrite:
        return {static_cast<unsigned int>(target[key] = value)};
    case TableCall::store:
        return {static_cast<unsigned int>(target.insert_helper(key, value))};
    case TableCall::remove:
        return {target.remove(key) ? 1U : 0U};
    case TableCall::clear:
        target.clear();
        break;
    case TableCall::resize:
        return {static_cast<unsigned int>(target.resize(number))};
    case TableCall::copyToOther:
        side.tables[1 - table] = std::make_unique<Table>(target);
        break;
    case TableCall::lookup:
        return {slotOf(target, target.lookup(key, number))};
    case TableCall::insertMany:
        for (unsigned int made = 0; made < number; ++made) {
            target.insert(key + made, static_cast<int>(made));
        }
        break;
    default:
        for (unsigned int tried = 0; tried < number; ++tried) {
            result += target.remove(key + tried) ? 1 : 0;
        }
        return {result};
    }
    return {};
}

template <unsigned int (*function)(unsigned int)>
using LibraryTable = GVHashTable<unsigned int, int, HashBy<function>>;

template <unsigned int (*function)(unsigned int)>
using TableDriverBase = DriverOf<Call, Tables<LibraryTable<function>>, Tables<StoredTable<function>>>;

template <unsigned int (*function)(unsigned int)>
class TableDriver : public TableDriverBase<function> {
  public:
    TableDriver() : TableDriverBase<function>(0) {}

    bool make(Operation operation) override {
        const std::optional<Call> call = decode(operation);
        if (!call || !this->commit(*call)) {
            return false;
        }
        theEndOfMany += call->what == TableCall::insertMany ? call->number : 0;
        theFirstOfMany += call->what == TableCall::removeMany ? call->number : 0;
        return true;
    }

    void compareFields() override {
        for (std::size_t number = 0; number < 2; ++number) {
            compareTable(library(number), expected(number),
                         [](int value, int wanted) { same("a slot's value", value, wanted); });
        }
    }

    void compareViews() override {
        for (std::size_t number = 0; number < 2; ++number) {
            compareWalk(expected(number), library(number));
            compareSearches(library(number), expected(number), {std::begin(tableKeys), std::end(tableKeys)});
            for (std::size_t other = 0; other < 2; ++other) {
                compareEquality(number, other);
            }
        }
    }

    void finish(Comparison) override {
        for (std::size_t number = 0; number < 2; ++number) {
            this->theLibrary->tables[number].reset();
            this->theReference->tables[number].reset();
        }
        same<std::size_t>("live raw blocks at the end", arena::liveCount(), 0);
    }

  private:
    using Table = LibraryTable<function>;
    using Iterator = typename Table::Iterator;

    static constexpr unsigned int firstOfMany = 1000;

    Table& library(std::size_t number) { return *this->theLibrary->tables[number]; }
    const reference::Table& expected(std::size_t number) { return *this->theReference->tables[number]; }

    std::optional<Call> decode(Operation operation) const {
        Call call{static_cast<TableCall>(operation.code % static_cast<unsigned int>(TableCall::numberOfCalls)),
                  operation.a / 128U, tableKeys[operation.a & 15], operation.b};
        const unsigned int many = operation.a * 256U + operation.b;
        const unsigned int most = function == identity ? reference::limits.slots : reference::limits.crowdedKeys;
        switch (call.what) {
        case TableCall::resize:
            call.number = operation.b == 255 ? 0x80000000U : operation.b;
            return call;
        case TableCall::lookup:
            call.number = operation.b * 0x01000001U;
            return call;
        case TableCall::insertMany:
            call = {call.what, 0, theEndOfMany, many};
            return theEndOfMany + many - firstOfMany <= most ? std::optional<Call>(call) : std::nullopt;
        case TableCall::removeMany:
            return Call{call.what, 0, theFirstOfMany, std::min(many, theEndOfMany - theFirstOfMany)};
        default:
            return call;
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
    static void compareWalk(const reference::Table& expected, Table& table) {
        const std::string invalid = "Iterator refers to invalid table entry.";
        const std::string atEnd = "Iterator at end.";
        const std::string none;
        Iterator position = table.begin();
        for (unsigned int index = 0; index < expected.size; ++index) {
            const reference::Slot& slot = expected.slots()[index];
            if (slot.state == reference::occupied) {
                same("where a walk stands", GVTestPeer::index(position), index);
                same("the key of a walk", position.GetKey(), *slot.key);
                same("the value of a walk", position.GetValue(), *slot.value);
                same("what a walk points to", *position, *slot.value);
                position++;
            } else if (slot.state == reference::deleted) {
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

        std::ostringstream text;
        table.WriteTable(text);
        same("the text of a table", text.str(), expected.dump([](int value) { return std::to_string(value); }));
    }

    void compareEquality(std::size_t one, std::size_t other) {
        try {
            const bool equal = expected(one) == expected(other);
            same("whether two tables are equal", library(one) == library(other), equal);
            same("whether two tables are unequal", library(one) != library(other), !equal);
        } catch (const reference::NotDriven&) {
            return; // a table without an empty slot
        }
    }

    unsigned int theFirstOfMany = firstOfMany; // keys of insertMany: from here
    unsigned int theEndOfMany = firstOfMany;   // up to here
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
