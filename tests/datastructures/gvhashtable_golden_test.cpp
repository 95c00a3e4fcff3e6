// Hashes, probing and growth are arithmetic of 32 bits and come out alike on every target: what one table of cases
// gives is compared with golden_tables.txt, to the letter. The keys' types hash alike whatever the word size.
//
// With GILVANE_RENEW_GOLDEN_FILES set in the environment the file is written instead, and the test is skipped.
#include "gvtestpeer.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <sstream>
#include <string>
#include <vector>

namespace Gilvane {
namespace {

constexpr const char* goldenFile = GILVANE_SOURCE_DIR "/tests/datastructures/golden_tables.txt";

enum class Colour : short { infrared = -1, red = 1, blue = 300 };

template <typename K>
void describeHashes(std::ostream& out, const char* type, const std::vector<K>& keys) {
    out << "hashes of " << type << ":";
    const GVGenericHashFunction<K> hash;
    for (const K& key : keys) {
        out << ' ' << hash(key);
    }
    out << '\n';
}

// The state of a table: size, counts and, slot by slot, what was ever written.
template <typename Table>
void describeTable(std::ostream& out, const char* name, Table& table) {
    const unsigned int size = GVTestPeer::mask(table) + 1;
    out << name << ": size " << size << " used " << GVTestPeer::usedCount(table) << " fill "
        << GVTestPeer::fillCount(table) << '\n';
    for (unsigned int slot = 0; slot <= size; ++slot) {
        const auto& entry = GVTestPeer::slots(table)[slot];
        if (entry.theState != gvemptyentry) {
            out << "  " << slot << (entry.theState == gvdeletedentry ? " deleted" : "") << " key " << entry.theKey
                << " hash " << entry.theHash << '\n';
        }
    }
    out << "  order:";
    for (auto position = table.begin(); position != table.end(); ++position) {
        out << ' ' << position.GetKey();
    }
    out << '\n';
}

// Sizes as keys come in, and the slots at the end.
template <typename Table, typename NextKey>
void fill(std::ostream& out, const char* name, Table& table, unsigned int count, NextKey nextKey) {
    out << name << ": grows";
    unsigned int mask = GVTestPeer::mask(table);
    for (unsigned int inserted = 1; inserted <= count; ++inserted) {
        table.insert(nextKey(), inserted);
        if (GVTestPeer::mask(table) != mask) {
            mask = GVTestPeer::mask(table);
            out << " at " << inserted << " to " << mask + 1;
        }
    }
    out << '\n';
}

// A fixed sequence that touches all 32 bits.
class Scattered {
  public:
    unsigned int operator()() { return theState = theState * 1664525U + 1013904223U; }

  private:
    unsigned int theState = 12345;
};

// A sum over the slots of a table too large to be written out.
template <typename Table>
std::uint32_t sumOfSlots(Table& table) {
    std::uint32_t sum = 0;
    for (unsigned int slot = 0; slot <= GVTestPeer::mask(table); ++slot) {
        const auto& entry = GVTestPeer::slots(table)[slot];
        if (entry.theState == gvoccupiedentry) {
            sum = sum * 31 + (slot ^ static_cast<std::uint32_t>(entry.theKey));
        }
    }
    return sum;
}

std::string describeAll() {
    std::ostringstream out;
    describeHashes<unsigned int>(out, "unsigned int", {0U, 1U, 0x80000000U, 0xffffffffU});
    describeHashes<int>(out, "int", {0, 1, -1, -2, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()});
    describeHashes<short>(out, "short", {short(-1), short(-300), short(300)});
    describeHashes<unsigned short>(out, "unsigned short", {0xffff, 1});
    describeHashes<signed char>(out, "signed char", {-128, -1, 127});
    describeHashes<unsigned char>(out, "unsigned char", {255, 128});
    describeHashes<long long>(out, "long long", {-1LL, -5000000000LL, 5000000000LL});
    describeHashes<unsigned long long>(out, "unsigned long long", {0xffffffffffffffffULL, 0x123456789abcdef0ULL});
    describeHashes<Colour>(out, "enumeration", {Colour::infrared, Colour::red, Colour::blue});

    using Table = GVHashTable<unsigned int, unsigned int>;
    {
        Table table;
        unsigned int key = 0;
        fill(out, "one home slot", table, 5, [&key] { return 8 * key++; });
        describeTable(out, "one home slot", table);
    }
    {
        Table table;
        unsigned int key = 0;
        fill(out, "high bits alone", table, 21, [&key] { return key++ << 27; });
        describeTable(out, "high bits alone", table);
    }
    {
        Table table;
        fill(out, "scattered keys", table, 60, Scattered());
        describeTable(out, "scattered keys", table);
        Scattered again;
        for (int removed = 0; removed < 20; ++removed) {
            again();
            table.remove(again());
        }
        describeTable(out, "scattered keys, some removed", table);
        Table copy(table);
        describeTable(out, "their copy", copy);
        table.resize(60);
        describeTable(out, "resized", table);
    }
    {
        Table table;
        Scattered scattered;
        fill(out, "few home slots", table, 40, [&scattered] { return scattered() & 0xf000000fU; });
        describeTable(out, "few home slots", table);
    }
    {
        Table table;
        unsigned int key = 0xffff8000U;
        fill(out, "sequential keys past the wrap", table, 100000, [&key] { return key++; });
        out << "  size " << GVTestPeer::mask(table) + 1 << " sum of slots " << sumOfSlots(table) << '\n';
    }
    {
        Table table;
        fill(out, "many scattered keys", table, 100000, Scattered());
        out << "  size " << GVTestPeer::mask(table) + 1 << " sum of slots " << sumOfSlots(table) << '\n';
    }
    {
        GVHashTable<int, unsigned int> table;
        int key = -4;
        fill(out, "negative keys", table, 5, [&key] { return key -= 7; });
        describeTable(out, "negative keys", table);
    }
    return out.str();
}

TEST(HashTableArithmetic, givesTheGoldenTablesOnEveryTarget) {
    const std::string described = describeAll();
    if (std::getenv("GILVANE_RENEW_GOLDEN_FILES") != nullptr) {
        std::ofstream(goldenFile) << described;
        GTEST_SKIP() << "wrote " << goldenFile;
    }
    std::ifstream file(goldenFile);
    std::ostringstream golden;
    golden << file.rdbuf();
    EXPECT_EQ(described, golden.str());
}

} // namespace
} // namespace Gilvane
