// Takes the usual path of borrow, address and return, and the longest ones: tools/renewal/embedded counts the
// instructions of each call, and this program says afterwards which call was which, a line for each, in their order:
// pool, operation, and what was the case.
#include "operations.h"

#include <gilvane/utilities/gvmemorypoolinspector.h>

#include <chrono>
#include <cstddef>
#include <cstdio>
#include <map>
#include <string>
#include <thread>
#include <vector>

using Gilvane::GVMemoryPool;
using Gilvane::GVMemoryPoolInspector;
using Gilvane::GVSharedPool;
using Gilvane::GVTokenCache;

namespace {

constexpr unsigned int blocks = 64;
constexpr unsigned int bytes = 64;
// What depends on another thread is done several times: usually that thread sleeps until the call is over.
constexpr unsigned int waits = 7;

struct Call {
    const char* pool;
    const char* operation;
    std::string what;
};

std::vector<Call> calls;

void note(const char* pool, const char* operation, const std::string& what) {
    calls.push_back({pool, operation, what});
}

void takePathsOfPool(const char* name, bool locks) {
    // Tokens lie apart where another pool builds blocks meanwhile, and then searches meet each other.
    GVMemoryPool pool(1, bytes, locks);
    GVMemoryPool other(1, bytes, locks);
    for (unsigned int block = 2; block <= blocks; ++block) {
        other.resizePool(11 * block + block * block % 7);
        pool.resizePool(block);
    }
    std::map<unsigned int, unsigned int> probes; // of a token: slots that are looked at for it
    const GVMemoryPoolInspector inspector(pool);
    inspector.visitBlocks([&](const auto& block) { probes[block.theToken] = block.theProbeCount; });
    const unsigned int most = inspector.getLongestProbe();

    std::vector<unsigned int> lent;
    lent.reserve(std::size_t{2} * blocks);
    for (unsigned int block = 0; block < blocks; ++block) {
        lent.push_back(GVMemoryPool__getTokenForFreeMemoryObject(pool));
        note(name, "borrow", "");
    }
    const std::string searched = "the search looks at " + std::to_string(most) + " slots";
    for (const unsigned int token : lent) {
        if (probes[token] == 1 || probes[token] == most) {
            GVMemoryPool__getMemoryForToken(pool, token);
            note(name, "address", probes[token] == 1 ? "" : searched);
        }
    }
    lent.push_back(GVMemoryPool__getTokenForFreeMemoryObject(pool));
    note(name, "borrow", "64 blocks become 128");
    // The free list has room for a token of each block that there was before.
    const std::size_t before = GVMemoryPoolInspector(pool).getBytesOfFreeList();
    bool hasGrown = false;
    for (const unsigned int token : lent) {
        GVMemoryPool__releaseObject(pool, token);
        const bool grows = !hasGrown && GVMemoryPoolInspector(pool).getBytesOfFreeList() != before;
        note(name, "return", grows ? "the free list becomes longer" : "");
        hasGrown = hasGrown || grows;
    }
}

void waitUntilSomebodyWaits(const GVSharedPool& pool, unsigned int waits) {
    while (pool.getStatistics().theWaitCount != waits) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    // From a millisecond on, the next block is handed over.
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
}

void takePathsOfSharedPool() {
    GVSharedPool pool(blocks, bytes);
    std::vector<unsigned int> lent(blocks);
    for (unsigned int& token : lent) {
        GVSharedPool__tryBorrow(pool, token);
        note("shared pool", "borrow", "");
    }
    for (const unsigned int token : lent) {
        GVSharedPool__getMemoryForToken(pool, token);
        note("shared pool", "address", "");
    }
    unsigned int none = 0;
    GVSharedPool__tryBorrow(pool, none);
    note("shared pool", "borrow", "none is free");

    for (unsigned int wait = 1; wait <= waits; ++wait) {
        std::thread waiter([&] { lent.back() = pool.borrow().value(); });
        waitUntilSomebodyWaits(pool, wait);
        GVSharedPool__releaseObject(pool, lent.back());
        note("shared pool", "return", "a thread that waits is woken");
        waiter.join();
    }
    for (const unsigned int token : lent) {
        GVSharedPool__releaseObject(pool, token);
        note("shared pool", "return", "");
    }
}

void takePathsOfCache() {
    GVSharedPool pool(3 * blocks, bytes);
    GVTokenCache cache(pool, blocks);
    std::vector<unsigned int> lent(std::size_t{2} * blocks);
    unsigned int cached = 0;
    for (unsigned int& token : lent) {
        const bool isEmpty = cached == 0;
        cached = isEmpty ? blocks / 2 : cached;
        GVTokenCache__tryBorrow(cache, token);
        note("cache", "borrow", isEmpty ? "the cache is filled with 32 tokens" : "");
        --cached;
    }
    for (const unsigned int token : lent) {
        GVTokenCache__getMemoryForToken(cache, token);
        note("cache", "address", "");
    }
    for (const unsigned int token : lent) {
        const bool isFull = cached == blocks;
        GVTokenCache__releaseObject(cache, token);
        note("cache", "return", isFull ? "32 of the cache's 64 tokens go back" : "");
        cached = isFull ? blocks / 2 + 1 : cached + 1;
    }

    // Somebody waits while the cache is nearly full, and nothing is free elsewhere.
    cache.flush();
    for (unsigned int block = 0; block < 2 * blocks; ++block) {
        static_cast<void>(pool.tryBorrow());
    }
    for (unsigned int wait = 1; wait <= waits; ++wait) {
        for (unsigned int block = 0; block < blocks; ++block) {
            lent[block] = cache.tryBorrow().value();
        }
        for (unsigned int block = 1; block < blocks; ++block) {
            cache.releaseObject(lent[block]);
        }
        std::thread waiter([&pool] { pool.releaseObject(pool.borrow().value()); });
        waitUntilSomebodyWaits(pool, wait);
        GVTokenCache__releaseObject(cache, lent.front());
        note("cache", "return", "a thread waits: all 64 tokens go back");
        waiter.join();
    }
}

} // namespace

int main() {
    takePathsOfPool("pool without a lock", false);
    takePathsOfPool("pool with a lock", true);
    takePathsOfSharedPool();
    takePathsOfCache();
    for (const Call& call : calls) {
        std::printf("%s|%s|%s\n", call.pool, call.operation, call.what.c_str());
    }
}
