// The table template alone, against other tables.
#include "designalone.h"
#include "harness.h"

#include <gilvane/datastructures/gvhashtable.h>

#include <absl/container/flat_hash_map.h>

#include <random>
#include <unordered_map>
#include <unordered_set>

// Boost has it since 1.81; whoever has an older one measures without.
#if __has_include(<boost/unordered/unordered_flat_map.hpp>)
#include <boost/unordered/unordered_flat_map.hpp>
#define GILVANE_BENCH_BOOST_FLAT_MAP 1
#else
#define GILVANE_BENCH_BOOST_FLAT_MAP 0
#endif

namespace {

using Key = unsigned int;
using Value = void*;

class OurTable {
  public:
    static constexpr const char* name = "gilvane";
    void store(Key key, Value value) { theTable.insert(key, value); }
    Value find(Key key) const { return theTable.get(key)->theValue; }

  private:
    Gilvane::GVHashTable<Key, Value> theTable;
};

template <typename Map>
class OtherTable {
  public:
    void store(Key key, Value value) { theMap.insert_or_assign(key, value); }
    Value find(Key key) const { return theMap.find(key)->second; }

  private:
    Map theMap;
};

struct StandardTable : OtherTable<std::unordered_map<Key, Value>> {
    static constexpr const char* name = "std::unordered_map";
};
struct AbseilTable : OtherTable<absl::flat_hash_map<Key, Value>> {
    static constexpr const char* name = "absl::flat_hash_map";
};
#if GILVANE_BENCH_BOOST_FLAT_MAP
struct BoostTable : OtherTable<boost::unordered_flat_map<Key, Value>> {
    static constexpr const char* name = "boost::unordered_flat_map";
};
#endif

enum class Keys { sequential, random };

// Keys in the order of their insertion; all different.
std::vector<Key> makeKeys(Keys kind, unsigned int numberOfKeys) {
    std::vector<Key> keys;
    keys.reserve(numberOfKeys);
    if (kind == Keys::sequential) {
        for (unsigned int key = 0; key < numberOfKeys; ++key) {
            keys.push_back(key);
        }
        return keys;
    }
    std::mt19937 random(2024);
    std::unordered_set<Key> seen;
    while (keys.size() < numberOfKeys) {
        const Key key = static_cast<Key>(random());
        if (seen.insert(key).second) {
            keys.push_back(key);
        }
    }
    return keys;
}

template <typename Table>
void find(benchmark::State& state, Keys kind, unsigned int numberOfKeys) {
    tidyHeap();
    const std::vector<Key> keys = makeKeys(kind, numberOfKeys);
    Table table;
    for (const Key& key : keys) {
        table.store(key, const_cast<Key*>(&key));
    }
    std::vector<Key> visits;
    for (const unsigned int index : randomOrder(numberOfKeys)) {
        visits.push_back(keys[index]);
    }
    std::size_t next = 0;
    for (auto _ : state) {
        Table* const escaped = &table;
        escape(escaped);
        Value found = escaped->find(visits[next]);
        escapeRegister(found);
        if (++next == visits.size()) {
            next = 0;
        }
    }
}

template <typename Table>
void insert(benchmark::State& state, Keys kind, unsigned int numberOfKeys) {
    tidyHeap();
    const std::vector<Key> keys = makeKeys(kind, numberOfKeys);
    for (auto _ : state) {
        const double start = processorSeconds();
        Table table;
        Table* const escaped = &table;
        for (const Key key : keys) {
            escape(escaped);
            escaped->store(key, nullptr);
        }
        state.SetIterationTime(processorSeconds() - start);
    }
    setOperationsPerIteration(state, numberOfKeys);
}

template <typename Table>
void registerTable(Keys kind, const std::string& suffix, unsigned int numberOfKeys) {
    benchmark::RegisterBenchmark(benchmarkName("row/find_" + suffix, Table::name, numberOfKeys).c_str(), find<Table>,
                                 kind, numberOfKeys);
    benchmark::RegisterBenchmark(benchmarkName("row/insert_" + suffix, Table::name, numberOfKeys).c_str(),
                                 insert<Table>, kind, numberOfKeys)
        ->UseManualTime();
}

} // namespace

void registerTables(const Settings& settings) {
    const auto registerAll = [](Keys kind, const std::string& suffix, unsigned int numberOfKeys) {
        registerTable<OurTable>(kind, suffix, numberOfKeys);
        registerTable<StandardTable>(kind, suffix, numberOfKeys);
        registerTable<AbseilTable>(kind, suffix, numberOfKeys);
#if GILVANE_BENCH_BOOST_FLAT_MAP
        registerTable<BoostTable>(kind, suffix, numberOfKeys);
#endif
        registerTable<BareTable>(kind, suffix, numberOfKeys);
    };
    for (const unsigned int size : {1'000U, 10'000U, 100'000U, 1'000'000U}) {
        if (size <= settings.largest) {
            registerAll(Keys::sequential, "sequential", size);
            registerAll(Keys::random, "random", size);
        }
    }
}
