// The sequence of slots that a search walks.

#include "tablesupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <vector>

namespace Gilvane {

namespace {

using Table = GVHashTable<unsigned int, int>;
using Slots = std::vector<unsigned int>;

/// The first `count` slots of a hash's search, worked out in 64 bits and reduced by hand: the home slot; then five
/// times the index and one and the whole hash; from then on the hash shifted right by five bits more at each step. The
/// index is carried on with its high bits.
Slots searchOf(std::uint64_t hash, unsigned int size, unsigned int count) {
    constexpr std::uint64_t twoToThe32nd = 4294967296U;
    Slots slots{static_cast<unsigned int>(hash % size)};
    std::uint64_t index = hash % size;
    std::uint64_t rest = hash;
    while (slots.size() < count) {
        index = (5 * index + 1 + rest) % twoToThe32nd;
        slots.push_back(static_cast<unsigned int>(index % size));
        rest /= 32;
    }
    return slots;
}

/// The slots in the order in which a search first meets them.
Slots withoutRepeats(const Slots& slots) {
    Slots result;
    for (const unsigned int slot : slots) {
        if (std::find(result.begin(), result.end(), slot) == result.end()) {
            result.push_back(slot);
        }
    }
    return result;
}

/// The slots that lookup stops at for an absent key, each taken by another key before the next search; all slots but
/// the last, since a full table has no end to a search.
Slots stopsOf(unsigned int hash, unsigned int size) {
    Table table;
    if (size > 8) {
        table.resize(size - 1);
    }
    EXPECT_EQ(GVTestPeer::mask(table), size - 1);
    Slots stops;
    for (unsigned int taken = 0; taken < size; ++taken) {
        Table::Entry* const entry = table.lookup(hash, hash);
        EXPECT_EQ(entry->theState, gvemptyentry);
        stops.push_back(slotOf(table, entry));
        entry->theState = gvoccupiedentry;
        entry->theKey = ~hash;
        entry->theHash = hash; // the key alone must tell them apart
        if (taken + 2 == size) {
            break;
        }
    }
    return stops;
}

/// The expected stops: every slot but the one met last.
Slots expectedStopsOf(unsigned int hash, unsigned int size) {
    Slots slots = withoutRepeats(searchOf(hash, size, 8 * size + 64));
    EXPECT_EQ(slots.size(), size) << "a search meets every slot";
    slots.pop_back();
    return slots;
}

} // namespace

TEST(HashTableProbing, followsTheKnownSequenceOfASmallHash) {
    //  hash 0 at 8 slots: 0, then 5 * 0 + 1 + 0, then 5 * 1 + 1 + 0, …
    EXPECT_EQ(stopsOf(0, 8), Slots({0, 1, 6, 7, 4, 5, 2}));
    //  hash 8: the whole hash at the first step, nothing of it after the first shift
    EXPECT_EQ(stopsOf(8, 8), Slots({0, 1, 6, 7, 4, 5, 2}));
    //  hash 9: 1, then 5 * 1 + 1 + 9
    EXPECT_EQ(stopsOf(9, 8), Slots({1, 7, 4, 5, 2, 3, 0}));
}

TEST(HashTableProbing, followsTheKnownSequenceOfALargeHash) {
    //  1000000007 at 8 slots: 7 3 0 3 5 3 5 2 3 0 1 6, repeats left out
    EXPECT_EQ(stopsOf(1000000007, 8), Slots({7, 3, 0, 5, 2, 1, 6}));
    //  4294967295 at 8 slots: 7 3 7 3 7 3 7 7 4 5 2 3 0 1 6
    EXPECT_EQ(stopsOf(4294967295U, 8), Slots({7, 3, 4, 5, 2, 0, 1}));
    //  3735928559 at 32 slots: 15 27 31 11 19 10 2 14 7 4 21 10 …
    const Slots stops = stopsOf(3735928559U, 32);
    EXPECT_EQ(Slots(stops.begin(), stops.begin() + 11), Slots({15, 27, 31, 11, 19, 10, 2, 14, 7, 4, 21}));
}

TEST(HashTableProbing, followsTheSequenceAtEverySize) {
    for (const unsigned int hash : {96U, 4000000000U, 2147483649U, 4277009102U}) {
        for (const unsigned int size : {8U, 16U, 32U, 128U, 512U}) {
            EXPECT_EQ(stopsOf(hash, size), expectedStopsOf(hash, size)) << "hash " << hash << ", " << size << " slots";
        }
    }
}

TEST(HashTableProbing, followsTheSequenceForAnyHash) {
    std::uint32_t hash = 1;
    for (int round = 0; round < 200; ++round) {
        hash = hash * 1664525U + 1013904223U;
        EXPECT_EQ(stopsOf(hash, 8), expectedStopsOf(hash, 8)) << "hash " << hash;
        EXPECT_EQ(stopsOf(hash, 32), expectedStopsOf(hash, 32)) << "hash " << hash;
    }
}

TEST(HashTableProbing, findsAKeyAtEveryStepOfItsSearch) {
    constexpr unsigned int hash = 3735928559U;
    constexpr unsigned int size = 32;
    const Slots slots = expectedStopsOf(hash, size);
    for (const unsigned int place : slots) {
        Table table;
        table.resize(size - 1);
        for (unsigned int slot = 0; slot < size; ++slot) {
            Table::Entry& entry = GVTestPeer::slots(table)[slot];
            entry.theState = gvoccupiedentry;
            entry.theKey = slot == place ? hash : slot;
            entry.theHash = hash;
        }
        EXPECT_EQ(slotOf(table, table.lookup(hash, hash)), place);
    }
}

TEST(HashTableProbing, neverReachesTheEndSlot) {
    Table table;
    GVTestPeer::smallSlots(table)[8].theState = gvoccupiedentry;
    GVTestPeer::smallSlots(table)[8].theKey = 8;
    GVTestPeer::smallSlots(table)[8].theHash = 8;
    EXPECT_EQ(table.get(8), nullptr);
    EXPECT_EQ(slotOf(table, table.lookup(8, 8)), 0U);
}

} // namespace Gilvane
