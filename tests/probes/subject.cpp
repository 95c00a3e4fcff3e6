// Passes every probe, and writes after each step what the probes have told: the probe's name and its arguments.
#include <gilvane/base/gvprobes.h>
#include <gilvane/utilities/gvtokencache.h>

#include "../support/testclock.h"

#include <chrono>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <initializer_list>
#include <stdexcept>
#include <thread>

namespace {

using namespace Gilvane;

void told(const char* probe, const void* pool, std::initializer_list<unsigned int> others) {
    std::printf("%s %" PRIuPTR, probe, reinterpret_cast<std::uintptr_t>(pool));
    for (const unsigned int argument : others) {
        std::printf(" %u", argument);
    }
    std::printf("\n");
}

// Does something whenever it is asked for the time, which a borrower does while it waits.
struct BusyClock : TestClock<BusyClock, std::chrono::nanoseconds> {
    static time_point now() {
        theWork();
        return time_point();
    }
    static inline std::function<void()> theWork;
};

constexpr BusyClock::time_point theFuture{std::chrono::hours(1)};

void usePool() {
    GVMemoryPool pool(2, 16, false);
    told("grow", &pool, {0, 2});
    pool.resizePool(2);
    static_cast<void>(pool.getTokenForFreeMemoryObject());
    static_cast<void>(pool.getTokenForFreeMemoryObject());
    static_cast<void>(pool.getTokenForFreeMemoryObject());
    told("grow", &pool, {2, 2});
    pool.resizePool(3);
    told("shrink", &pool, {4, 1});
}

void useSharedPool() {
    GVSharedPool pool(4, 16);
    told("grow", &detail::GVSharedPoolAccess::innerPool(pool), {0, 4});
    GVTokenCache cache(pool, 4);
    cache.flush();
    static_cast<void>(cache.tryBorrow());
    told("refill", &pool, {2, 2});
    static_cast<void>(pool.tryBorrow());
    static_cast<void>(pool.tryBorrow());
    static_cast<void>(pool.tryBorrow());
    told("dry", &pool, {1, 0});
    unsigned int tokens[3] = {};
    static_cast<void>(cache.tryBorrowMany(tokens, 3)); // one of them lies in the cache
    told("dry", &pool, {2, 0});
    cache.releaseObject(tokens[0]);
    cache.flush();
    told("spill", &pool, {1, 1});
    unsigned int token = pool.tryBorrow().value();

    static_cast<void>(pool.borrowFor(std::chrono::seconds(0)));
    told("dry", &pool, {1, 0});
    told("wait_begin", &pool, {1});
    told("wait_end", &pool, {1, 1});
    BusyClock::theWork = [&] { pool.releaseObject(token); };
    token = pool.borrowUntil(theFuture).value();
    told("dry", &pool, {1, 0});
    told("wait_begin", &pool, {2});
    told("wait_end", &pool, {2, 0});
    BusyClock::theWork = [&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(2)); // then the block is handed to whoever waits
        pool.releaseObject(token);
    };
    static_cast<void>(pool.borrowUntil(theFuture));
    told("dry", &pool, {1, 0});
    told("wait_begin", &pool, {3});
    told("wait_end", &pool, {3, 0});
    BusyClock::theWork = [] { throw std::runtime_error("no time"); };
    try {
        static_cast<void>(pool.borrowUntil(theFuture));
    } catch (const std::runtime_error&) {
    }
    told("dry", &pool, {1, 0});
    told("wait_begin", &pool, {4});
    told("wait_end", &pool, {4, 3});
    BusyClock::theWork = [&] { pool.close(); };
    static_cast<void>(pool.borrowUntil(theFuture));
    told("dry", &pool, {1, 0});
    told("wait_begin", &pool, {5});
    told("closed", &pool, {4});
    told("wait_end", &pool, {5, 2});
    pool.close();
    static_cast<void>(pool.tryBorrow());
    static_cast<void>(cache.tryBorrow());
}

} // namespace

int main() {
    usePool();
    useSharedPool();
}
