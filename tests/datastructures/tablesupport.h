/// @file
/// What the tests of the table share: pictures of slots, sizes of slot arrays, expected exceptions, scripted types.
#ifndef GILVANE_TESTS_DATASTRUCTURES_TABLESUPPORT_H
#define GILVANE_TESTS_DATASTRUCTURES_TABLESUPPORT_H

#include "gvtestpeer.h"
#include "hookledger.h"
#include "throwsites.h"

#include <gilvane/datastructures/gvhashtable.h>

#include <sstream>
#include <string>
#include <vector>

namespace Gilvane {

/// The slots of a table in a row, the end slot left out: a live slot's key, "x" for a deleted slot, "." for an empty
/// one.
template <typename Table>
std::string slotsOf(const Table& table) {
    std::ostringstream picture;
    for (unsigned int slot = 0; slot <= GVTestPeer::mask(table); ++slot) {
        const auto& entry = GVTestPeer::slots(table)[slot];
        picture << (slot == 0 ? "" : " ");
        if (entry.theState == gvoccupiedentry) {
            picture << entry.theKey;
        } else {
            picture << (entry.theState == gvdeletedentry ? "x" : ".");
        }
    }
    return picture.str();
}

/// The live keys in the iterator's order.
template <typename Table>
std::string keysOf(const Table& table) {
    std::ostringstream keys;
    for (auto position = table.begin(); position != table.end(); ++position) {
        keys << (keys.tellp() > 0 ? " " : "") << position.GetKey();
    }
    return keys.str();
}

/// The index of an entry in the table's slot array.
template <typename Table>
unsigned int slotOf(const Table& table, const typename Table::Entry* entry) {
    return static_cast<unsigned int>(entry - GVTestPeer::slots(table));
}

/// Inserts first, first + 1, … as keys, each with itself as its value.
template <typename Table>
void insertKeys(Table& table, unsigned int first, unsigned int count) {
    for (unsigned int key = first; key < first + count; ++key) {
        table.insert(key, static_cast<decltype(Table::Entry::theValue)>(key));
    }
}

/// What the allocation function is asked for when an array of `slots` slots and the end slot is made, in bytes.
template <typename Table>
unsigned int slotArrayBytes(const HookLedger& ledger, unsigned int slots) {
    delete[] new typename Table::Entry[slots + 1];
    return ledger.requests().back();
}

/// Everything of a table that a refused operation must leave alone.
template <typename Table>
std::string stateOf(const Table& table) {
    std::ostringstream state;
    state << GVTestPeer::usedCount(table) << ' ' << GVTestPeer::fillCount(table) << ' ' << GVTestPeer::mask(table)
          << ' ' << static_cast<const void*>(GVTestPeer::slots(table)) << ':' << slotsOf(table);
    for (const auto& key : table.get_keys()) {
        const auto* const entry = table.get(key);
        state << ' ' << entry->theValue << '/' << entry->theHash;
    }
    return state.str();
}

/// expectGVException for the table's own file.
template <typename Operation>
void expectTableException(Operation operation, gvexceptiontype kind, const std::string& message, int occurrence = 1) {
    expectGVException(operation, kind, "libsrc/datastructures/gvhashtable", message, occurrence);
}

/// Hashes an unsigned key to itself, and writes down who was asked for what.
struct LoggingHash {
    static std::vector<std::string>& log() {
        static std::vector<std::string> theLog;
        return theLog;
    }

    unsigned int operator()(unsigned int key) const {
        log().push_back(theOwner + ":" + std::to_string(key));
        return key;
    }

    std::string theOwner;
};

using LoggedCalls = std::vector<std::string>;

} // namespace Gilvane

#endif
