// Threads that use locked pools and shared pointers in every way that is defined, for ThreadSanitizer to watch. Among
// them stand the few accesses that take no lock on purpose: here they happen often, and beside writers.
//
//   stress ROUNDS
//
// The program links locks of its own, which now and then rest after an unlock: this widens the gaps between the locked
// sections of one operation, in which another thread must act for a race to show.
//
// Pools run dry and are rebuilt here under other threads, which is defined only as long as nobody touches a block that
// may be gone and nobody takes a token that may not be there. Each scenario says why that holds.
#include <gilvane/threads/gvthreadsfactory.h>
#include <gilvane/utilities/gvmemorypool.h>
#include <gilvane/utilities/gvsmartpointer.h>

#include <pthread.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <sstream>
#include <thread>
#include <vector>

namespace Gilvane {

namespace {

class RestingHandle final : public GVMutexHandle {
  public:
    ~RestingHandle() override { pthread_mutex_destroy(&theMutex); }

    bool tryLock() override { return pthread_mutex_trylock(&theMutex) == 0; }
    void lock() override { pthread_mutex_lock(&theMutex); }
    void unlock() override {
        pthread_mutex_unlock(&theMutex);
        thread_local std::minstd_rand random(++theSeed);
        switch (random() % 8) {
        case 0:
        case 1:
            std::this_thread::sleep_for(std::chrono::microseconds(random() % 20));
            break;
        case 2:
            std::this_thread::yield();
            break;
        default:
            break;
        }
    }

  private:
    static std::atomic<unsigned int> theSeed;

    pthread_mutex_t theMutex = PTHREAD_MUTEX_INITIALIZER;
};

std::atomic<unsigned int> RestingHandle::theSeed{0};

} // namespace

GVThreadsFactory::GVThreadsFactory() = default;
GVThreadsFactory::~GVThreadsFactory() = default;
GVMutexHandle* GVThreadsFactory::CreateUnnamedHandle(_gvmutex, bool) { return new RestingHandle; }
GVMutexHandle* CreateUnnamedMutexHandle(_gvmutex, bool) { return new RestingHandle; }

namespace {

// Runs both in threads of their own that begin together.
template <typename First, typename Second>
void together(First first, Second second) {
    std::atomic<int> missing{2};
    const auto meet = [&missing] {
        --missing;
        while (missing.load() > 0) {
            std::this_thread::yield();
        }
    };
    std::thread one([&] {
        meet();
        first();
    });
    std::thread other([&] {
        meet();
        second();
    });
    one.join();
    other.join();
}

// The token counter: pools of different locks build at the same time. A pool may so come to one token twice and lose a
// block under it; only the number of blocks suffers.
void buildInTwoPools() {
    GVMemoryPool first(2, 8, true);
    GVMemoryPool second(2, true);
    together([&first] { first.resizePool(12); },
             [&second] {
                 second.makePool(6);
                 second.resizePool(12);
             });
}

// The number of blocks read before growth: a pool runs dry while another thread resizes it. The borrower holds the four
// lowest tokens and there are never fewer than five blocks once it has grown, so there is one to take.
void runDryBesideGrowth() {
    GVMemoryPool pool(4, 8, true);
    std::array<unsigned int, 4> held{};
    for (unsigned int& token : held) {
        token = pool.getTokenForFreeMemoryObject();
    }
    together([&pool] { pool.releaseObject(pool.getTokenForFreeMemoryObject()); },
             [&pool] {
                 for (unsigned int blocks = 5; blocks <= 7; ++blocks) {
                     pool.resizePool(blocks);
                 }
             });
    for (const unsigned int token : held) {
        std::memset(pool.getMemoryForToken(token), 1, 8);
        pool.releaseObject(token);
    }
}

// The same with two borrowers, each of which makes the pool at least twice as large as it was: there is one for each.
void runDryTogether() {
    GVMemoryPool pool(2, 8, true);
    pool.getTokenForFreeMemoryObject();
    pool.getTokenForFreeMemoryObject();
    const auto borrow = [&pool] {
        const unsigned int token = pool.getTokenForFreeMemoryObject();
        std::memset(pool.getMemoryForToken(token), 2, 8);
        pool.releaseObject(token);
    };
    together(borrow, borrow);
}

// The same from a pool without blocks. The later may rebuild the pool or shrink it to two, so that no block is touched;
// but it leaves at least two tokens in the list.
void beginTogether() {
    GVMemoryPool pool(4, true);
    const auto borrow = [&pool] { pool.getTokenForFreeMemoryObject(); };
    together(borrow, borrow);
}

// The size written and the number of blocks read by setNumberOfBytesInPoolObject, beside growth. Nothing is lent.
void changeTheSizeBesideGrowth() {
    GVMemoryPool pool(2, 8, true);
    together([&pool] { pool.setNumberOfBytesInPoolObject(16); },
             [&pool] {
                 for (unsigned int blocks = 3; blocks <= 9; ++blocks) {
                     pool.resizePool(blocks);
                 }
             });
}

// What is locked throughout: loans from a pool that is large enough, counts of what is in use.
void lendAndCount() {
    GVMemoryPool pool(4, 8, true);
    const auto work = [&pool] {
        for (int loan = 0; loan < 4; ++loan) {
            const unsigned int token = pool.getTokenForFreeMemoryObject();
            std::memset(pool.getMemoryForToken(token), loan, 8);
            if (pool.numberOfObjectsInPoolInUse() > 2) {
                std::abort();
            }
            pool.releaseObject(token);
        }
    };
    together(work, work);
}

// Pointers that share one pool, each pointer of one thread: copied, assigned, moved, counted, printed and destroyed.
void share() {
    std::vector<GVSmartPointer<GVMemoryPool>> shares(2, GVMemoryPool::initWithNumberOfObjectsAndSize(2, 8, true));
    const auto work = [&shares](std::size_t number) {
        const GVSmartPointer<GVMemoryPool> copy(shares[number]);
        GVSmartPointer<GVMemoryPool> assigned;
        assigned = copy;
        if (assigned.getRefCount() < 3) {
            std::abort();
        }
        std::ostringstream text;
        text << assigned;
        shares[number] = GVSmartPointer<GVMemoryPool>();
    };
    together([&work] { work(0); }, [&work] { work(1); });
}

} // namespace

} // namespace Gilvane

int main(int argumentCount, char** arguments) {
    const long rounds = argumentCount == 2 ? std::strtol(arguments[1], nullptr, 10) : 0;
    if (rounds <= 0) {
        std::fputs("usage: stress ROUNDS\n", stderr);
        return 2;
    }
    auto told = std::chrono::steady_clock::now();
    for (long round = 0; round < rounds; ++round) {
        Gilvane::buildInTwoPools();
        Gilvane::runDryBesideGrowth();
        Gilvane::runDryTogether();
        Gilvane::beginTogether();
        Gilvane::changeTheSizeBesideGrowth();
        Gilvane::lendAndCount();
        Gilvane::share();
        if (std::chrono::steady_clock::now() - told > std::chrono::seconds(20)) {
            told = std::chrono::steady_clock::now();
            std::printf("   round %ld of %ld\n", round, rounds);
            std::fflush(stdout);
        }
    }
    return 0;
}
