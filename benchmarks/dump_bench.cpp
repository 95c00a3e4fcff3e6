// Writing a table as text, against a loop that does nothing but the same insertions into the same kind of stream.
#include "harness.h"

#include <gilvane/datastructures/gvhashtable.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace {

using Table = Gilvane::GVHashTable<unsigned int, void*>;

void fill(Table& table, unsigned int numberOfEntries) {
    for (unsigned int key = 0; key < numberOfEntries; ++key) {
        table.insert(key, &table);
    }
}

// What the table writes, from an array of the same entries in the same order.
void writeBare(std::ostream& stream, const std::vector<std::pair<unsigned int, void*>>& entries) {
    stream << "<GVHashTable>";
    for (const auto& [key, value] : entries) {
        stream << "\n";
        stream << "\t<GVHashTableEntry>\n";
        stream << "\t\t<K>";
        stream << static_cast<unsigned long>(key);
        stream << "</K>\n";
        stream << "\t\t<V>";
        stream << static_cast<const void*>(value);
        stream << "</V>\n";
        stream << "\t</GVHashTableEntry>\n";
    }
    stream << "</GVHashTable>";
}

std::vector<std::pair<unsigned int, void*>> entriesOf(const Table& table) {
    std::vector<std::pair<unsigned int, void*>> entries;
    for (auto position = table.begin(); position != table.end(); ++position) {
        entries.emplace_back(position.GetKey(), *position);
    }
    return entries;
}

// Ends the program when the two do not write the same text: then they are not to be compared.
void checkSameText() {
    Table table;
    fill(table, 1000);
    std::ostringstream ours;
    std::ostringstream bare;
    table.WriteTable(ours);
    writeBare(bare, entriesOf(table));
    if (ours.str() != bare.str()) {
        std::fprintf(stderr, "gilvane_bench: the bare loop does not write what the table writes\n");
        std::exit(1);
    }
}

template <typename Write>
void dump(benchmark::State& state, unsigned int numberOfEntries, Write write) {
    tidyHeap();
    for (auto _ : state) {
        std::ofstream stream("/dev/null");
        write(stream);
    }
    setOperationsPerIteration(state, numberOfEntries);
}

void dumpOurs(benchmark::State& state, unsigned int numberOfEntries) {
    Table table;
    fill(table, numberOfEntries);
    dump(state, numberOfEntries, [&](std::ostream& stream) { table.WriteTable(stream); });
}

void dumpBare(benchmark::State& state, unsigned int numberOfEntries) {
    Table table;
    fill(table, numberOfEntries);
    const auto entries = entriesOf(table);
    dump(state, numberOfEntries, [&](std::ostream& stream) { writeBare(stream, entries); });
}

} // namespace

void registerDumps(const Settings& settings) {
    checkSameText();
    const unsigned int size = std::min(1'000'000U, settings.largest);
    benchmark::RegisterBenchmark(benchmarkName("row/dump", "gilvane", size).c_str(), dumpOurs, size);
    benchmark::RegisterBenchmark(benchmarkName("row/dump", "bare loop", size).c_str(), dumpBare, size);
}
