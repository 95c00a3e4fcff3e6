// What valgrind's callgrind counts the instructions of, once with the default library and once with the hardened one:
// tools/renewal/hardened-cost builds and runs it. It writes the bytes that a block of a shared pool takes.
#include "callgrind.h"

#include <gilvane/base/gvallocationbudget.h>
#include <gilvane/utilities/gvmemorypool.h>
#include <gilvane/utilities/gvsharedpool.h>
#include <gilvane/utilities/gvtokencache.h>

#include <cstddef>
#include <iostream>
#include <string>
#include <vector>

namespace {

using Gilvane::GVAllocationBudget;
using Gilvane::GVMemoryPool;
using Gilvane::GVSharedPool;
using Gilvane::GVTokenCache;

constexpr unsigned int repetitions = 512;

// The second time goes on behind the first one's indexes.
template <typename Operation>
void count(const std::string& name, Operation operation) {
    unsigned int index = 0;
    for (const unsigned int number : {repetitions, 2 * repetitions}) {
        const std::string label = countedLabel(name, number);
        beginCounting();
        for (unsigned int done = 0; done < number; ++done) {
            operation(index++);
        }
        endCounting(label);
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

template <typename Lender>
void countLoansOf(const std::string& name, Lender& made) {
    Lender* lender = &made;
    count(name, [&](unsigned int) {
        escape(lender);
        unsigned int token = *lender->tryBorrow();
        escape(token);
        lender->releaseObject(token);
    });
}

void countSharedPools() {
    GVSharedPool pool(64, 64);
    countLoansOf("shared", pool);
    {
        GVTokenCache cache(pool, 16);
        countLoansOf("cache", cache);
    }
    pool.setLoanTraceInterval(1);
    countLoansOf("traced", pool);
}

// The header words of blocks that the library asks for are counted in.
std::size_t bytesOfSharedPool(unsigned int numberOfBlocks) {
    const GVAllocationBudget budget;
    const GVSharedPool pool(numberOfBlocks, 64);
    return GVAllocationBudget::GetLiveBytes();
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
    countSharedPools();
    // Both have tables of 8192 slots.
    std::cout << (bytesOfSharedPool(3600) - bytesOfSharedPool(3500)) / 100 << "\n";
}
