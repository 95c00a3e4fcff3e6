/// @file
/// Everything that a thread does to a filled shared pool, at random, and without memory or system calls of its own.
#ifndef GILVANE_TESTS_REALTIME_WORKLOAD_H
#define GILVANE_TESTS_REALTIME_WORKLOAD_H

#include <gilvane/utilities/gvsharedpool.h>
#include <gilvane/utilities/gvsharedtokenlease.h>
#include <gilvane/utilities/gvtokencache.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <optional>
#include <random>

namespace Gilvane {

/// One thread's use of a pool, or of one of its caches. The same seed makes the same sequence.
class Workload {
  public:
    static constexpr unsigned int mostTokens = 64;
    static constexpr unsigned int numberOfOperations = 13;

    /// @param cache  null to use the pool alone
    Workload(GVSharedPool& pool, GVTokenCache* cache, unsigned int seed)
        : thePool(pool), theCache(cache), theNumbers(seed) {}

    void run(unsigned long operations) {
        for (unsigned long operation = 0; operation < operations; ++operation) {
            // Now hardly a return, now no loan, so that pool and cache are dry and full in turn.
            const bool isTaking = operation / 500 % 2 == 0;
            const auto number = static_cast<unsigned int>(theNumbers() % numberOfOperations);
            step(isTaking && isReturn(number) ? number - 4 : !isTaking && number < 4 ? number + 4 : number);
        }
    }

    /// Returns what it still has.
    void end() {
        while (theHeldCount != 0) {
            thePool.releaseObject(theHeld.at(--theHeldCount));
        }
        if (theCache != nullptr) {
            theCache->flush();
        }
    }

    /// How often each operation was done, and how often a loan found nothing.
    const std::array<unsigned long, numberOfOperations>& doneCounts() const { return theDoneCounts; }
    unsigned long vainCount() const { return theVainCount; }

  private:
    static bool isReturn(unsigned int number) { return number > 4 && number < 8; } // of 4 to 7, three
    void step(unsigned int number) {
        ++theDoneCounts.at(number);
        switch (number) {
        case 0:
            return keep(theCache != nullptr ? theCache->tryBorrow() : thePool.tryBorrow());
        case 1:
            return keep(thePool.tryBorrow());
        case 2:
            return keep(theCache != nullptr ? theCache->borrowFor(std::chrono::seconds(0))
                                            : thePool.borrowFor(std::chrono::seconds(0)));
        case 3:
            return borrowMany();
        case 4:
        case 5:
            return give();
        case 6:
            return giveToPool();
        case 7:
            return giveMany();
        case 8:
            return write();
        case 9:
            return flush();
        case 10:
            return lease();
        case 11:
            return adopt();
        default:
            return look();
        }
    }

    void keep(std::optional<unsigned int> token) {
        if (!token.has_value()) {
            ++theVainCount;
        } else if (theHeldCount < mostTokens) {
            theHeld.at(theHeldCount++) = *token;
        } else {
            thePool.releaseObject(*token);
        }
    }
    void borrowMany() {
        const unsigned int room = mostTokens - theHeldCount;
        if (theCache != nullptr) {
            theHeldCount += theCache->tryBorrowMany(theHeld.data() + theHeldCount, room < 5 ? room : 5);
        } else if (thePool.getStatistics().theFreeCount != 0) {
            keep(thePool.borrow()); // no other thread uses the pool, or each has fewer than its share
        }
    }
    unsigned int takeHeld() {
        const auto index = static_cast<std::size_t>(theNumbers() % theHeldCount);
        const unsigned int token = theHeld.at(index);
        theHeld.at(index) = theHeld.at(--theHeldCount);
        return token;
    }
    void give() {
        if (theHeldCount == 0) {
            return;
        }
        if (theCache != nullptr) {
            theCache->releaseObject(takeHeld());
        } else {
            thePool.releaseObject(takeHeld());
        }
    }
    void giveToPool() {
        if (theHeldCount != 0) {
            thePool.releaseObject(takeHeld());
        }
    }
    void giveMany() {
        const unsigned int count = theHeldCount < 5 ? theHeldCount : 5;
        theHeldCount -= count;
        if (theCache != nullptr) {
            theCache->releaseMany(theHeld.data() + theHeldCount, count);
            return;
        }
        for (unsigned int token = 0; token < count; ++token) {
            thePool.releaseObject(theHeld.at(theHeldCount + token));
        }
    }
    void write() {
        for (unsigned int token = 0; token < theHeldCount; ++token) {
            void* const bytes = theCache != nullptr ? theCache->getMemoryForToken(theHeld.at(token))
                                                    : thePool.getMemoryForToken(theHeld.at(token));
            std::memset(bytes, static_cast<int>(token), thePool.getBytesInEachObject());
        }
    }
    void flush() {
        if (theCache != nullptr) {
            theCache->flush();
        }
    }
    void lease() {
        const GVSharedTokenLease lease =
            theCache != nullptr ? GVSharedTokenLease(*theCache) : GVSharedTokenLease(thePool);
        if (!lease) {
            ++theVainCount;
        }
    }
    void adopt() {
        if (theHeldCount != 0) {
            const GVSharedTokenLease lease(thePool, takeHeld(), gvadoptedloan);
        }
    }
    void look() {
        if (thePool.isClosed() || thePool.getStatistics().theNumberOfObjects != thePool.getNumberOfObjects()) {
            ++theVainCount;
        }
        thePool.resetHighestLentCount();
    }

    GVSharedPool& thePool;
    GVTokenCache* theCache;
    std::minstd_rand theNumbers;
    std::array<unsigned int, mostTokens> theHeld = {};
    unsigned int theHeldCount = 0;
    std::array<unsigned long, numberOfOperations> theDoneCounts = {};
    unsigned long theVainCount = 0;
};

} // namespace Gilvane

#endif
