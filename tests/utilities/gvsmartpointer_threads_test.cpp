#include <gilvane/utilities/gvmemorypool.h>
#include <gilvane/utilities/gvsmartpointer.h>

#include "hookledger.h"
#include "sharedobject.h"
#include "threadsupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstddef>
#include <sstream>
#include <utility>
#include <vector>

namespace Gilvane {

namespace {

constexpr unsigned int numberOfThreads = 4;
constexpr int rounds = 3000;

} // namespace

TEST(SmartPointerThreads, countEverySharerWhileTheyCopyAndAssignAndMove) {
    int deletions = 0;
    const HookLedger ledger;
    {
        const GVSmartPointer<SharedObject> pointer(new SharedObject(deletions), true, true);
        std::vector<GVSmartPointer<SharedObject>> shares(numberOfThreads, pointer);
        runTogether(numberOfThreads, [&shares](unsigned int number) {
            const GVSmartPointer<SharedObject>& share = shares[number];
            GVSmartPointer<SharedObject> assigned;
            for (int round = 0; round < rounds; ++round) {
                GVSmartPointer<SharedObject> copy(share);
                assigned = copy;
                GVSmartPointer<SharedObject> moved(std::move(copy));
                if (round % 3 == 0) {
                    assigned = GVSmartPointer<SharedObject>();
                }
            }
        });
        EXPECT_EQ(pointer.getRefCount(), 1U + numberOfThreads);
        EXPECT_EQ(deletions, 0);
    }
    EXPECT_EQ(deletions, 1);
    EXPECT_TRUE(ledger.liveBlocks().empty());
}

TEST(SmartPointerThreads, deleteTheObjectOnceWhenTheLastSharesGoTogether) {
    for (int round = 0; round < 200; ++round) {
        int deletions = 0;
        const HookLedger ledger;
        std::vector<GVSmartPointer<SharedObject>> shares;
        {
            const GVSmartPointer<SharedObject> pointer(new SharedObject(deletions), true, true);
            shares.assign(numberOfThreads, pointer);
        }
        runTogether(numberOfThreads,
                    [&shares](unsigned int number) { shares[number] = GVSmartPointer<SharedObject>(); });
        ASSERT_EQ(deletions, 1);
        ASSERT_TRUE(ledger.liveBlocks().empty());
    }
}

TEST(SmartPointerThreads, readTheCountAndTheDumpBesideSharersThatComeAndGo) {
    const GVSmartPointer<GVMemoryPool> pool = GVMemoryPool::initWithNumberOfObjectsAndSize(2, 16, true);
    std::vector<GVSmartPointer<GVMemoryPool>> shares(numberOfThreads, pool);
    std::atomic<int> wrongCounts{0};
    std::atomic<int> wrongDumps{0};
    runTogether(numberOfThreads, [&](unsigned int number) {
        const GVSmartPointer<GVMemoryPool>& share = shares[number];
        for (int round = 0; round < rounds / 10; ++round) {
            const GVSmartPointer<GVMemoryPool> copy(share);
            const unsigned int count = copy.getRefCount();
            wrongCounts += count < 2U + numberOfThreads || count > 1U + 2 * numberOfThreads ? 1 : 0;
            std::ostringstream stream;
            copy.print(stream);
            wrongDumps += stream.str().find("</GVMemoryPool></GVSmartPointer>") == std::string::npos ? 1 : 0;
        }
    });
    EXPECT_EQ(wrongCounts.load(), 0);
    EXPECT_EQ(wrongDumps.load(), 0);
    EXPECT_EQ(pool.getRefCount(), 1U + numberOfThreads);
}

} // namespace Gilvane
