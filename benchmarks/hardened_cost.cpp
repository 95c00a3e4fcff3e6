// What valgrind's callgrind counts the instructions of, once with the default library and once with the hardened one:
// tools/renewal/hardened-cost builds and runs it.
#include <gilvane/utilities/gvmemorypool.h>

#include <string>
#include <vector>

#include <valgrind/callgrind.h>

namespace {

using Gilvane::GVMemoryPool;

constexpr unsigned int repetitions = 512;

// Keeps the compiler from knowing what a value is, or that nobody needs it.
template <typename T>
void escape(T& value) {
    asm volatile("" : "+m"(value) : : "memory");
}

// Has callgrind count some operations under a name that says how many, and then twice as many, so that the difference
// is free of whatever surrounds the loop.
template <typename Operation>
void count(const std::string& name, Operation operation) {
    unsigned int index = 0;
    for (const unsigned int number : {repetitions, 2 * repetitions}) {
        const std::string label = name + " " + std::to_string(number);
        CALLGRIND_ZERO_STATS;
        CALLGRIND_START_INSTRUMENTATION;
        for (unsigned int done = 0; done < number; ++done) {
            operation(index++);
        }
        CALLGRIND_STOP_INSTRUMENTATION;
        CALLGRIND_DUMP_STATS_AT(label.c_str());
    }
}

void countWithFreeTokens(unsigned int freeTokens) {
    GVMemoryPool made(freeTokens + 1, 64, false);
    GVMemoryPool* pool = &made;
    count("pair_" + std::to_string(freeTokens), [&](unsigned int) {
        escape(pool);
        unsigned int token = pool->getTokenForFreeMemoryObject();
        escape(token);
        pool->releaseObject(token);
    });
}

} // namespace

int main() {
    GVMemoryPool made(3 * repetitions, 64, false);
    GVMemoryPool* pool = &made;
    std::vector<unsigned int> tokens(3 * repetitions);
    count("borrow", [&](unsigned int index) {
        escape(pool);
        tokens[index] = pool->getTokenForFreeMemoryObject();
    });
    count("address", [&](unsigned int index) {
        escape(pool);
        void* address = pool->getMemoryForToken(tokens[index]);
        escape(address);
    });
    for (const unsigned int freeTokens : {0U, 10U, 100U, 1000U, 10000U}) {
        countWithFreeTokens(freeTokens);
    }
}
