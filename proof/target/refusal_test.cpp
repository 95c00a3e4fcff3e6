// The kernel refuses memory, and the pools do what the guide says (docs/guide/out-of-memory.md, What each operation
// leaves). It refuses in two ways: by the process's limit of addresses, and by the machine's limit of promised memory.
// For the latter the program changes settings of the machine, as root.
#include <gilvane/base/gvallocationbudget.h>
#include <gilvane/base/gvexception.h>
#include <gilvane/utilities/gvmemorypool.h>
#include <gilvane/utilities/gvsharedpool.h>

#include <gtest/gtest.h>

#include <malloc.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <fstream>
#include <new>
#include <optional>
#include <string>
#include <vector>

namespace Gilvane {

namespace {

constexpr std::size_t mebibyte = std::size_t{1} << 20;

enum class Way { addresses, promises };

std::string nameOf(const ::testing::TestParamInfo<Way>& way) {
    return way.param == Way::addresses ? "byTheLimitOfAddresses" : "byTheLimitOfPromises";
}

void set(const char* name, std::size_t number) {
    std::ofstream file(std::string("/proc/sys/vm/") + name);
    file << number << std::flush;
    ASSERT_TRUE(file.good()) << name;
}

std::size_t promisedKibibytes() {
    std::ifstream lines("/proc/meminfo");
    std::string word;
    std::size_t kibibytes = 0;
    while (lines >> word) {
        if (word == "Committed_AS:") {
            lines >> kibibytes;
        }
    }
    return kibibytes;
}

std::size_t bytesOfAddresses() {
    std::size_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    return pages * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

// While it lives, the kernel grants this process about so many bytes more. Of promised memory it keeps back a 32nd of
// the process and counts for each processor by itself, so that it may be a mebibyte less.
class Limit {
  public:
    Limit(Way way, std::size_t bytes) : theWay(way) {
        malloc_trim(0); // what was freed is the kernel's again
        if (theWay == Way::addresses) {
            setAddresses(bytesOfAddresses() + bytes);
        } else {
            set("overcommit_kbytes", promisedKibibytes() + bytes / 1024);
            set("overcommit_memory", 2);
        }
    }
    Limit(const Limit&) = delete;
    Limit& operator=(const Limit&) = delete;
    ~Limit() {
        if (theWay == Way::addresses) {
            setAddresses(RLIM_INFINITY);
        } else {
            set("overcommit_memory", 0);
        }
    }

  private:
    static void setAddresses(rlim_t bytes) {
        const rlimit limit{bytes, RLIM_INFINITY};
        EXPECT_EQ(setrlimit(RLIMIT_AS, &limit), 0);
    }

    Way theWay;
};

enum class Outcome { done, outOfMemory, badAlloc };

template <typename Operation>
Outcome outcomeOf(Operation operation) {
    try {
        operation();
    } catch (const GVException& failure) {
        EXPECT_EQ(failure.getKind(), gvoutofmemory);
        return Outcome::outOfMemory;
    } catch (const std::bad_alloc&) {
        return Outcome::badAlloc;
    }
    return Outcome::done;
}

// Enough for malloc to ask the kernel for each block by itself. All bytes are touched: the kernel has to have each that
// it granted.
constexpr unsigned int bytesInBlock = 256U << 10U;

void stamp(GVMemoryPool& pool, unsigned int token) {
    std::memset(pool.getMemoryForToken(token), static_cast<int>(token % 251), bytesInBlock);
}

bool isStamped(GVMemoryPool& pool, unsigned int token) {
    const auto* const bytes = static_cast<const unsigned char*>(pool.getMemoryForToken(token));
    return bytes[0] == token % 251 && std::memcmp(bytes, bytes + 1, bytesInBlock - 1) == 0;
}

} // namespace

class RefusedMemory : public ::testing::TestWithParam<Way> {
  protected:
    // However many such blocks were freed before.
    static void SetUpTestSuite() { mallopt(M_MMAP_THRESHOLD, 128 << 10); }
};

TEST_P(RefusedMemory, isTheKernelsDoing) {
    const auto isGranted = [] {
        void* const bytes = mmap(nullptr, 24 * mebibyte, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        const bool isRefused = bytes == MAP_FAILED;
        EXPECT_TRUE(!isRefused || errno == ENOMEM);
        return !isRefused && munmap(bytes, 24 * mebibyte) == 0;
    };
    EXPECT_TRUE(isGranted());
    {
        const Limit limit(GetParam(), 16 * mebibyte);
        EXPECT_FALSE(isGranted());
    }
    EXPECT_TRUE(isGranted());
}

TEST_P(RefusedMemory, leavesAPoolThatHasGrownWhatItHas) {
    GVMemoryPool pool(1, bytesInBlock, true);
    std::vector<unsigned int> lent;
    lent.reserve(1000);
    const auto borrow = [&pool, &lent] {
        return outcomeOf([&] {
            lent.push_back(pool.getTokenForFreeMemoryObject());
            stamp(pool, lent.back());
        });
    };
    {
        const Limit limit(GetParam(), 16 * mebibyte);
        // A growth that is refused leaves the blocks that it has built: only the second refusal in a row says that
        // there is nothing more.
        int refusals = 0;
        for (int inARow = 0; inARow < 2 && lent.size() < 1000;) {
            const bool isRefused = borrow() != Outcome::done;
            refusals += isRefused ? 1 : 0;
            inARow = isRefused ? inARow + 1 : 0;
        }
        EXPECT_GE(refusals, 2);
        EXPECT_GE(lent.size(), 13 * mebibyte / bytesInBlock);
        EXPECT_LE(lent.size(), 17 * mebibyte / bytesInBlock);
        EXPECT_EQ(pool.numberOfObjectsInPoolInUse(), lent.size());

        // What needs no memory goes on.
        for (const unsigned int token : lent) {
            ASSERT_TRUE(isStamped(pool, token)) << token;
        }
        const unsigned int last = lent.back();
        lent.pop_back();
        pool.releaseObject(last);
        EXPECT_EQ(borrow(), Outcome::done);
        EXPECT_EQ(lent.back(), last);
    }
    // Refused blocks have used up no token.
    const unsigned int next = *std::max_element(lent.begin(), lent.end()) + 1;
    pool.resizePool(static_cast<unsigned int>(lent.size()) + 1);
    EXPECT_EQ(borrow(), Outcome::done);
    EXPECT_EQ(lent.back(), next);
    EXPECT_EQ(borrow(), Outcome::done);
    EXPECT_EQ(pool.numberOfObjectsInPoolInUse(), lent.size());
    for (const unsigned int token : lent) {
        EXPECT_TRUE(isStamped(pool, token)) << token;
        pool.releaseObject(token);
    }
    EXPECT_EQ(pool.numberOfObjectsInPoolInUse(), 0U);
}

// The table doubles to 12 mebibytes with its 349 526th block.
TEST_P(RefusedMemory, forATableLeavesABlockThatIsNeverLent) {
    GVMemoryPool pool(0, 1, true);
    pool.resizePool(349'000);
    {
        const Limit limit(GetParam(), 6 * mebibyte);
        EXPECT_EQ(outcomeOf([&pool] { pool.resizePool(350'000); }), Outcome::outOfMemory);
        EXPECT_EQ(pool.numberOfObjectsInPoolInUse(), 1U);
        const unsigned int token = pool.getTokenForFreeMemoryObject();
        EXPECT_NE(pool.getMemoryForToken(token), nullptr);
        EXPECT_EQ(pool.numberOfObjectsInPoolInUse(), 2U);
        pool.releaseObject(token);
    }
    EXPECT_EQ(outcomeOf([&pool] { pool.resizePool(350'000); }), Outcome::done);
    EXPECT_EQ(pool.numberOfObjectsInPoolInUse(), 1U);
}

TEST_P(RefusedMemory, forASharedPoolLeavesNothing) {
    const GVAllocationBudget budget; // counts alone
    std::optional<GVSharedPool> pool;
    {
        const Limit limit(GetParam(), 8 * mebibyte);
        EXPECT_NE(outcomeOf([&pool] { pool.emplace(200U, bytesInBlock); }), Outcome::done);
        EXPECT_GT(GVAllocationBudget::GetRefusedCount(), 0U);
        EXPECT_EQ(GVAllocationBudget::GetLiveCount(), 0U);
        EXPECT_EQ(outcomeOf([&pool] { pool.emplace(20U, bytesInBlock); }), Outcome::done);
        EXPECT_TRUE(pool->tryBorrow().has_value());
    }
    EXPECT_EQ(outcomeOf([&pool] { pool.emplace(200U, bytesInBlock); }), Outcome::done);
}

INSTANTIATE_TEST_SUITE_P(Kernel, RefusedMemory, ::testing::Values(Way::addresses, Way::promises), nameOf);

} // namespace Gilvane
