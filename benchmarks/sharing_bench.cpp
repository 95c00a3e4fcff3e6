// Blocks that threads share: who borrows, touches and returns them, hands them over, waits for them.
//
//     gilvane_sharing [Google Benchmark's options]
//
// With GILVANE_BENCH_MALLOC=NAME in the environment, the program runs on another malloc, which was loaded before it. Then
// it has the benchmarks of malloc alone, under that name.
#include "harness.h"
#include "sharingsubjects.h"

#include <boost/lockfree/spsc_queue.hpp>

#include <rte_eal.h>
#include <rte_errno.h>
#include <rte_mempool.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <numeric>
#include <thread>

#include <sched.h>

// --- subjects ---------------------------------------------------------------------------------------------------------

WaitingByHand::WaitingByHand(unsigned int numberOfBlocks)
    : theBytes(std::make_unique<char[]>(std::size_t{numberOfBlocks} * blockBytes)), theFree(numberOfBlocks) {
    std::iota(theFree.rbegin(), theFree.rend(), 0U);
}

void DpdkPool::load() {
    cpu_set_t processors;
    sched_getaffinity(0, sizeof processors, &processors);
    char arguments[][32] = {"gilvane_sharing",
                            "--no-huge",
                            "--no-pci",
                            "--no-telemetry",
                            "--no-shconf",
                            "--log-level=error",
                            "-m",
                            "256",
                            "-l",
                            "0"};
    std::vector<char*> list(std::begin(arguments), std::end(arguments));
    if (rte_eal_init(static_cast<int>(list.size()), list.data()) < 0) {
        std::fprintf(stderr, "gilvane_sharing: DPDK: %s\n", rte_strerror(rte_errno));
        std::exit(1);
    }
    sched_setaffinity(0, sizeof processors, &processors); // it bound this thread to one processor
}

DpdkPool::DpdkPool(unsigned int numberOfBlocks)
    : thePool(rte_mempool_create("blocks", numberOfBlocks, blockBytes, 0, 0, nullptr, nullptr, nullptr, nullptr,
                                 SOCKET_ID_ANY, 0)) {
    if (thePool == nullptr) {
        std::fprintf(stderr, "gilvane_sharing: DPDK: %s\n", rte_strerror(rte_errno));
        std::exit(1);
    }
}

DpdkPool::~DpdkPool() { rte_mempool_free(thePool); }

DpdkPool::Seat::Seat(DpdkPool& subject)
    : thePool(subject.thePool), theCache(rte_mempool_cache_create(64, SOCKET_ID_ANY)) {}

DpdkPool::Seat::~Seat() {
    rte_mempool_cache_flush(theCache, thePool);
    rte_mempool_cache_free(theCache);
}

inline DpdkPool::Loan DpdkPool::Seat::borrow() {
    void* block = nullptr;
    while (rte_mempool_generic_get(thePool, &block, 1, theCache) != 0) {
        sched_yield();
    }
    return block;
}

inline void DpdkPool::Seat::giveBack(Loan loan) { rte_mempool_generic_put(thePool, &loan, 1, theCache); }

namespace {

using Clock = std::chrono::steady_clock;

// malloc's name, and whether it is another one than the C library's.
const char* const theOtherMalloc = std::getenv("GILVANE_BENCH_MALLOC");

constexpr unsigned int blocksOfPool = 8192; // enough for all caches of every row
constexpr unsigned int blocksOfDryPool = 4;

template <typename Subject>
const char* nameOf() {
    return Subject::name;
}
template <>
const char* nameOf<Shared<Malloc>>() {
    return theOtherMalloc != nullptr ? theOtherMalloc : Malloc::name;
}

// Names the number of threads as Google Benchmark does.
template <typename Subject, unsigned int NumberOfBlocks, typename Function>
benchmark::internal::Benchmark* add(const std::string& kindAndId, int threads, Function function) {
    using Owner = Common<Subject, NumberOfBlocks>;
    const std::string name =
        benchmarkName(kindAndId, nameOf<Subject>(), NumberOfBlocks) + "/threads:" + std::to_string(threads);
    return benchmark::RegisterBenchmark(name.c_str(), function)->Setup(Owner::make)->Teardown(Owner::tearDown);
}

// Seconds from the moment when all of so many threads have their seats until the last of them has ended its `work`. With
// more threads than processors, this is the time that counts: Google Benchmark adds up that of each thread, from when it
// is first given a processor.
template <typename Subject, unsigned int NumberOfBlocks, typename Work>
double secondsOfThreads(int number, Work work) {
    std::mutex mutex;
    std::condition_variable gate;
    int seated = 0;
    bool isOpen = false;
    std::vector<std::thread> threads;
    for (int thread = 0; thread < number; ++thread) {
        threads.emplace_back([&, thread] {
            typename Subject::Seat seat(Common<Subject, NumberOfBlocks>::get());
            {
                std::unique_lock<std::mutex> guard(mutex);
                ++seated;
                gate.notify_all();
                gate.wait(guard, [&] { return isOpen; });
            }
            work(seat, thread);
        });
    }
    Clock::time_point begin;
    {
        std::unique_lock<std::mutex> guard(mutex);
        gate.wait(guard, [&] { return seated == number; });
        begin = Clock::now();
        isOpen = true;
    }
    gate.notify_all();
    for (std::thread& thread : threads) {
        thread.join();
    }
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

// --- a turn: borrow, address, touch, return ---------------------------------------------------------------------------

constexpr unsigned int turnsOfAllThreads = 4'000'000;

template <typename Subject>
void turn(typename Subject::Seat* seat) {
    escape(seat);
    auto loan = seat->borrow();
    escapeRegister(loan);
    touch(seat->address(loan));
    seat->giveBack(loan);
}

template <typename Subject>
void turnsOfOneThread(benchmark::State& state) {
    typename Subject::Seat seat(Common<Subject, blocksOfPool>::get());
    for (auto _ : state) {
        turn<Subject>(&seat);
    }
}

template <typename Subject>
void turnsOfThreads(benchmark::State& state, int threads) {
    const unsigned int turnsOfEach = turnsOfAllThreads / static_cast<unsigned int>(threads);
    for (auto _ : state) {
        state.SetIterationTime(secondsOfThreads<Subject, blocksOfPool>(threads, [=](auto& seat, int) {
            for (unsigned int done = 0; done < turnsOfEach; ++done) {
                turn<Subject>(&seat);
            }
        }));
    }
    setOperationsPerIteration(state, double{1} * turnsOfEach * threads);
}

template <typename Subject>
void registerTurns(const std::string& kindAndId, int threads) {
    if (threads == 1) {
        add<Subject, blocksOfPool>(kindAndId, threads, turnsOfOneThread<Subject>);
    } else {
        add<Subject, blocksOfPool>(kindAndId, threads,
                                   [threads](benchmark::State& state) { turnsOfThreads<Subject>(state, threads); })
            ->UseManualTime()
            ->Iterations(1);
    }
}

// --- handing over -----------------------------------------------------------------------------------------------------

constexpr std::size_t placesInQueue = 1024;
constexpr unsigned int handOvers = 1'000'000;

// A fixed array, of which each block is used in turn: what is left is the queue.
class StaticArray {
  public:
    using Loan = unsigned int;
    static constexpr const char* name = "the queue alone";
    explicit StaticArray(unsigned int numberOfBlocks)
        : theBytes(std::make_unique<char[]>(std::size_t{numberOfBlocks} * blockBytes)), theNumber(numberOfBlocks) {}
    class Seat {
      public:
        explicit Seat(StaticArray& subject) : theArray(subject) {}
        Loan borrow() { return theNext++ % theArray.theNumber; }
        void* address(Loan loan) { return theArray.theBytes.get() + std::size_t{loan} * blockBytes; }
        void giveBack(Loan) {}

      private:
        StaticArray& theArray;
        unsigned int theNext = 0;
    };

  private:
    std::unique_ptr<char[]> theBytes;
    unsigned int theNumber;
};

template <typename Subject>
void handOver(benchmark::State& state) {
    using Loan = typename Subject::Loan;
    Subject& subject = Common<Subject, blocksOfPool>::get();
    for (auto _ : state) {
        boost::lockfree::spsc_queue<Loan, boost::lockfree::capacity<placesInQueue>> queue;
        std::atomic<bool> isReady(false);
        unsigned int sum = 0;
        std::thread reader([&] {
            typename Subject::Seat seat(subject);
            isReady = true;
            for (unsigned int taken = 0; taken < handOvers; ++taken) {
                Loan loan;
                while (!queue.pop(loan)) {
                }
                sum += *static_cast<volatile unsigned int*>(seat.address(loan));
                seat.giveBack(loan);
            }
        });
        Clock::time_point begin;
        {
            typename Subject::Seat seat(subject);
            while (!isReady) {
            }
            begin = Clock::now();
            for (unsigned int given = 0; given < handOvers; ++given) {
                const Loan loan = seat.borrow();
                *static_cast<volatile unsigned int*>(seat.address(loan)) = given;
                while (!queue.push(loan)) {
                }
            }
            reader.join();
        }
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - begin).count());
        if (sum != static_cast<unsigned int>(std::uint64_t{handOvers} * (handOvers - 1) / 2)) {
            state.SkipWithError("a block was handed over with other bytes");
        }
    }
    setOperationsPerIteration(state, handOvers);
}

template <typename Subject>
void registerHandOver() {
    add<Subject, blocksOfPool>("row/hand_over", 2, handOver<Subject>)->UseManualTime()->Iterations(1);
}

// --- the address of a random token, looked up by two threads ----------------------------------------------------------

// What a look-up costs at least.
class PlainArray {
  public:
    using Loan = unsigned int;
    static constexpr const char* name = "plain array";
    explicit PlainArray(unsigned int numberOfBlocks) : theAddresses(numberOfBlocks) {
        std::transform(theAddresses.begin(), theAddresses.end(), theAddresses.begin(),
                       [](void*) { return std::malloc(blockBytes); });
    }
    PlainArray(const PlainArray&) = delete;
    PlainArray& operator=(const PlainArray&) = delete;
    ~PlainArray() { std::for_each(theAddresses.begin(), theAddresses.end(), std::free); }
    class Seat {
      public:
        explicit Seat(PlainArray& array) : theAddresses(array.theAddresses.data()) {}
        Loan borrow() { return theNext++; }
        void* address(Loan loan) { return theAddresses[loan]; }
        void giveBack(Loan) {}

      private:
        void** theAddresses;
        unsigned int theNext = 0;
    };

  private:
    std::vector<void*> theAddresses;
};

// As much memory for each block as an address and a state beside it.
class WideArray {
  public:
    using Loan = unsigned int;
    static constexpr const char* name = "array of 16-byte entries";
    explicit WideArray(unsigned int numberOfBlocks) : theEntries(numberOfBlocks) {
        for (Entry& entry : theEntries) {
            entry.theAddress = std::malloc(blockBytes);
        }
    }
    WideArray(const WideArray&) = delete;
    WideArray& operator=(const WideArray&) = delete;
    ~WideArray() {
        for (const Entry& entry : theEntries) {
            std::free(entry.theAddress);
        }
    }
    struct Entry {
        void* theAddress;
        std::uint64_t theRest;
    };
    class Seat {
      public:
        explicit Seat(WideArray& array) : theEntries(array.theEntries.data()), theNumber(array.theEntries.size()) {}
        Loan borrow() { return theNext++; }
        void* address(Loan loan) { return theEntries[loan].theAddress; }
        void giveBack(Loan) {}

      protected:
        Entry* theEntries;
        std::size_t theNumber;
        unsigned int theNext = 0;
    };

  private:
    std::vector<Entry> theEntries;
};

// The same, and it refuses what is no token: the least that a look-up must do which checks its tokens, of which the
// first may be any.
class CheckedArray : public WideArray {
  public:
    static constexpr const char* name = "the design alone";
    using WideArray::WideArray;
    class Seat : public WideArray::Seat {
      public:
        using WideArray::Seat::Seat;
        void* address(Loan loan) {
            const unsigned int index = loan - theFirst;
            if (index >= theNumber) {
                std::abort();
            }
            return theEntries[index].theAddress;
        }

      private:
        unsigned int theFirst = 0;
    };
};

constexpr int lookingThreads = 2;
std::vector<unsigned int> theLoans; // of the subject whose addresses are looked up, in a random order

template <typename Subject, unsigned int NumberOfBlocks>
void makeLent(const benchmark::State& state) {
    Common<Subject, NumberOfBlocks>::make(state);
    typename Subject::Seat seat(Common<Subject, NumberOfBlocks>::get());
    std::vector<unsigned int> loans(NumberOfBlocks);
    std::generate(loans.begin(), loans.end(), [&] { return seat.borrow(); });
    constexpr unsigned int fewestVisits = 4096; // beginning again is rare then
    theLoans.clear();
    do {
        for (const unsigned int index : randomOrder(NumberOfBlocks)) {
            theLoans.push_back(loans[index]);
        }
    } while (theLoans.size() < fewestVisits);
}

template <typename Subject, unsigned int NumberOfBlocks>
void addresses(benchmark::State& state) {
    constexpr unsigned int lookUpsOfEach = 4'000'000;
    for (auto _ : state) {
        state.SetIterationTime(secondsOfThreads<Subject, NumberOfBlocks>(lookingThreads, [](auto& seat, int thread) {
            auto* const escaped = &seat;
            const std::size_t visits = theLoans.size();
            std::size_t next = visits / lookingThreads * static_cast<std::size_t>(thread);
            for (unsigned int done = 0; done < lookUpsOfEach; ++done) {
                escape(escaped);
                void* address = escaped->address(theLoans[next]);
                escapeRegister(address);
                if (++next == visits) {
                    next = 0;
                }
            }
        }));
    }
    setOperationsPerIteration(state, double{lookUpsOfEach} * lookingThreads);
}

template <typename Subject, unsigned int NumberOfBlocks>
void registerAddressesOf() {
    add<Subject, NumberOfBlocks>("row/shared_address", lookingThreads, addresses<Subject, NumberOfBlocks>)
        ->Setup(makeLent<Subject, NumberOfBlocks>)
        ->UseManualTime()
        ->Iterations(1);
}

template <typename Subject>
void registerAddresses() {
    registerAddressesOf<Subject, 1'000>();
    registerAddressesOf<Subject, 100'000>();
    registerAddressesOf<Subject, 1'000'000>();
}

// --- waiting ----------------------------------------------------------------------------------------------------------

constexpr int waitingThreads = 8;
constexpr unsigned int turnsOfWaiters = 20'000; // of each thread

// Everybody yields the processor while he holds a block, so that four hold one and the others wait.
template <typename Subject>
void takeTurn(Subject& subject, std::vector<Clock::duration>* waits) {
    const Clock::time_point begin = waits != nullptr ? Clock::now() : Clock::time_point();
    const auto loan = subject.borrow();
    if (waits != nullptr) {
        waits->push_back(Clock::now() - begin);
    }
    touch(subject.address(loan));
    sched_yield();
    subject.giveBack(loan);
}

template <typename Subject>
void mostlyWaiting(benchmark::State& state) {
    for (auto _ : state) {
        state.SetIterationTime(secondsOfThreads<Subject, blocksOfDryPool>(waitingThreads, [](auto& seat, int) {
            for (unsigned int done = 0; done < turnsOfWaiters; ++done) {
                takeTurn(seat, nullptr);
            }
        }));
    }
    setOperationsPerIteration(state, double{turnsOfWaiters} * waitingThreads);
}

// The wait that one of a thousand exceeds.
template <typename Subject>
void longWaits(benchmark::State& state) {
    for (auto _ : state) {
        std::vector<std::vector<Clock::duration>> waits(waitingThreads);
        secondsOfThreads<Subject, blocksOfDryPool>(waitingThreads, [&](auto& seat, int thread) {
            auto& own = waits[static_cast<std::size_t>(thread)];
            own.reserve(turnsOfWaiters);
            for (unsigned int done = 0; done < turnsOfWaiters; ++done) {
                takeTurn(seat, &own);
            }
        });
        std::vector<Clock::duration> all;
        for (const auto& own : waits) {
            all.insert(all.end(), own.begin(), own.end());
        }
        const auto at = all.begin() + static_cast<std::ptrdiff_t>(all.size() * 999 / 1000);
        std::nth_element(all.begin(), at, all.end());
        state.SetIterationTime(std::chrono::duration<double>(*at).count());
    }
}

template <typename Subject>
void registerWaiting() {
    add<Subject, blocksOfDryPool>("row/mostly_waiting", waitingThreads, mostlyWaiting<Subject>)
        ->UseManualTime()
        ->Iterations(1);
    add<Subject, blocksOfDryPool>("row/long_waits", waitingThreads, longWaits<Subject>)->UseManualTime()->Iterations(1);
}

// --- waking up --------------------------------------------------------------------------------------------------------

// A bare condition variable, with one thing to wait for.
class BareCondition {
  public:
    static constexpr const char* name = "bare condition variable";
    using Loan = int;
    explicit BareCondition(unsigned int) {}
    class Seat {
      public:
        explicit Seat(BareCondition& condition) : theCondition(condition) {}
        Loan borrow() {
            std::unique_lock<std::mutex> guard(theCondition.theMutex);
            theCondition.theCondition.wait(guard, [this] { return theCondition.isThere; });
            theCondition.isThere = false;
            return 0;
        }
        void giveBack(Loan) {
            {
                const std::lock_guard<std::mutex> guard(theCondition.theMutex);
                theCondition.isThere = true;
            }
            theCondition.theCondition.notify_one();
        }

      private:
        BareCondition& theCondition;
    };

  private:
    std::mutex theMutex;
    std::condition_variable theCondition;
    bool isThere = true;
};

constexpr unsigned int wakings = 1000;

// The median of many: the thread that wakes is asleep for certain, and what it is woken for is returned once.
template <typename Subject>
void wakeUp(benchmark::State& state) {
    using Seat = typename Subject::Seat;
    for (auto _ : state) {
        Subject& subject = Common<Subject, 1>::get();
        Seat seat(subject);
        std::atomic<unsigned int> wokenRounds(0);
        std::atomic<unsigned int> asked(0);
        Clock::time_point woken;
        std::thread sleeper([&] {
            Seat own(subject);
            for (unsigned int round = 1; round <= wakings; ++round) {
                while (asked != round) {
                    sched_yield();
                }
                const auto loan = own.borrow();
                woken = Clock::now();
                own.giveBack(loan);
                wokenRounds = round;
            }
        });
        std::vector<Clock::duration> times;
        for (unsigned int round = 1; round <= wakings; ++round) {
            const auto loan = seat.borrow();
            asked = round;
            std::this_thread::sleep_for(std::chrono::microseconds(100)); // the sleeper falls asleep meanwhile
            const Clock::time_point begin = Clock::now();
            seat.giveBack(loan);
            while (wokenRounds != round) {
                sched_yield();
            }
            times.push_back(woken - begin);
        }
        sleeper.join();
        std::nth_element(times.begin(), times.begin() + wakings / 2, times.end());
        state.SetIterationTime(std::chrono::duration<double>(times[wakings / 2]).count());
    }
}

template <typename Subject>
void registerWakeUp() {
    add<Subject, 1>("row/wake_up", 2, wakeUp<Subject>)->UseManualTime()->Iterations(1);
}

// --- all of them ------------------------------------------------------------------------------------------------------

template <typename Subject>
void registerSharing(int crowd) {
    for (const int threads : {1, 2, 8}) {
        registerTurns<Subject>("row/shared_turn", threads);
    }
    registerTurns<Subject>("row/shared_turn", crowd);
    for (const int threads : {1, 2, 3, 4, 6, 8}) {
        registerTurns<Subject>("curve/shared_turn", threads);
    }
    registerHandOver<Subject>();
}

void registerAll() {
    const int crowd = 20 * static_cast<int>(std::max(1U, std::thread::hardware_concurrency()));
    registerSharing<Shared<Malloc>>(crowd);
    if (theOtherMalloc == nullptr) {
        MimallocLibrary::load();
        DpdkPool::load();
        registerSharing<SharedPoolCached>(crowd);
        registerSharing<Shared<LockedPool>>(crowd);
        registerSharing<Shared<WaitingByHand>>(crowd);
        registerSharing<Shared<BoostFreeList>>(crowd);
        registerSharing<Shared<Mimalloc>>(crowd);
        registerSharing<DpdkPool>(crowd);
        registerTurns<SharedPoolAlone>("row/uncached_turn", 1);
        registerTurns<Shared<LockedPool>>("row/uncached_turn", 1);
        registerHandOver<StaticArray>();
        registerAddresses<SharedPoolAlone>();
        registerAddresses<CheckedArray>();
        registerAddresses<PlainArray>();
        registerAddresses<WideArray>();
        registerWaiting<SharedPoolAlone>();
        registerWaiting<Shared<WaitingByHand>>();
        registerWakeUp<SharedPoolAlone>();
        registerWakeUp<BareCondition>();
    }
}

} // namespace

int main(int argc, char** argv) { return runBenchmarks(argc, argv, registerAll); }
