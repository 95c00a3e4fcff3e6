// What valgrind's callgrind counts the instructions of: tools/bench/count-instructions runs it.
//
// With GILVANE_COUNT_TWICE=NAME in the environment the operation of that name, or each one if NAME is "all", is done
// twice where it should be done once: who counts must notice.
#include "callgrind.h"

#include <gilvane/datastructures/gvhashtable.h>
#include <gilvane/utilities/gvmemorypool.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include <gnu/libc-version.h>

namespace {

using Gilvane::GVHashTable;
using Gilvane::GVMemoryPool;

constexpr unsigned int repetitions = 4096;

unsigned int timesPerRepetition(const char* name) {
    const char* const twice = std::getenv("GILVANE_COUNT_TWICE");
    return twice != nullptr && (std::strcmp(twice, name) == 0 || std::strcmp(twice, "all") == 0) ? 2 : 1;
}

template <typename Operation>
void count(const std::string& name, unsigned int number, Operation operation) {
    const unsigned int times = timesPerRepetition(name.c_str());
    const std::string label = countedLabel(name, number);
    beginCounting();
    for (unsigned int index = 0; index < number; ++index) {
        for (unsigned int time = 0; time < times; ++time) {
            operation(index);
        }
    }
    endCounting(label);
}

// A pool with every token borrowed, and its tokens in the order of the loans.
struct LentPool {
    explicit LentPool(bool useMutex) : pool(4 * repetitions, 64, useMutex) {
        for (unsigned int lent = 0; lent < 4 * repetitions; ++lent) {
            tokens.push_back(pool.getTokenForFreeMemoryObject());
        }
    }
    void returnAll() {
        for (const unsigned int token : tokens) {
            pool.releaseObject(token);
        }
    }

    GVMemoryPool pool;
    std::vector<unsigned int> tokens;
};

void countPool(const std::string& suffix, bool useMutex, unsigned int number) {
    LentPool lent(useMutex);
    GVMemoryPool* pool = &lent.pool;
    lent.returnAll();
    count("borrow_" + suffix, number, [&](unsigned int) {
        escape(pool);
        unsigned int token = pool->getTokenForFreeMemoryObject();
        escape(token);
    });

    LentPool whole(useMutex);
    pool = &whole.pool;
    count("address_" + suffix, number, [&](unsigned int index) {
        escape(pool);
        void* address = pool->getMemoryForToken(whole.tokens[index]);
        escape(address);
    });
    whole.returnAll(); // the free list has now the room that the returns below need
    for (unsigned int& token : whole.tokens) {
        token = pool->getTokenForFreeMemoryObject();
    }
    count("return_" + suffix, number, [&](unsigned int index) {
        escape(pool);
        pool->releaseObject(whole.tokens[index]);
    });
}

void countTable(const std::string& suffix, const std::vector<unsigned int>& keys, unsigned int number) {
    GVHashTable<unsigned int, void*> filled;
    GVHashTable<unsigned int, void*>* table = &filled;
    count("insert_" + suffix, number, [&](unsigned int index) {
        escape(table);
        table->insert(keys[index], table);
    });
    for (const unsigned int key : keys) {
        table->insert(key, table);
    }
    count("find_" + suffix, number, [&](unsigned int index) {
        escape(table);
        void* value = table->get(keys[index])->theValue;
        escape(value);
    });
}

} // namespace

int main() {
    std::printf("compiler g++ %s\n", __VERSION__);
    std::printf("c_library glibc %s\n", gnu_get_libc_version());

    std::vector<unsigned int> sequential;
    std::vector<unsigned int> random;
    std::mt19937 generator(2024);
    for (unsigned int key = 0; key < 2 * repetitions; ++key) {
        sequential.push_back(key);
        random.push_back(static_cast<unsigned int>(generator()));
    }
    for (const unsigned int number : {repetitions, 2 * repetitions}) {
        countPool("unlocked", false, number);
        countPool("locked", true, number);
        countTable("sequential", sequential, number);
        countTable("random", random, number);
    }
}
