// Borrowing, looking up and returning.
#include "harness.h"
#include "subjects.h"

#include <algorithm>
#include <mutex>

namespace {

constexpr unsigned int blocksOfSmallPool = 1024;

// From here on a benchmark is given its number of iterations: finding it out would build the pool again and again.
constexpr unsigned int manyBlocks = 100'000;
constexpr unsigned int operationsOnManyBlocks = 2'000'000;

// --- one block at a time ----------------------------------------------------------------------------------------------

template <typename Subject>
void borrowAndReturn(Subject* subject) {
    escape(subject);
    auto loan = subject->borrow();
    escapeRegister(loan);
    subject->giveBack(loan);
}

template <typename Subject>
void borrowTouchAndReturn(Subject* subject) {
    escape(subject);
    auto loan = subject->borrow();
    escapeRegister(loan);
    touch(subject->address(loan));
    subject->giveBack(loan);
}

// With one pool for all threads of a benchmark.
template <typename Subject, void (*Operation)(Subject*)>
void repeat(benchmark::State& state) {
    for (auto _ : state) {
        Operation(&Common<Subject, blocksOfSmallPool>::get());
    }
}

// The locking alone, which no pool that locks once for each operation can do without.
template <int Pairs>
void lockAndUnlock(benchmark::State& state) {
    static std::mutex mutex;
    for (auto _ : state) {
        for (int pair = 0; pair < Pairs; ++pair) {
            escape(&mutex);
            mutex.lock();
            benchmark::ClobberMemory();
            mutex.unlock();
        }
    }
}

// Adds a benchmark whose name begins with `kindAndId`, on that many threads.
benchmark::internal::Benchmark* addOnThreads(const std::string& kindAndId, const char* subject, int threads,
                                             void (*function)(benchmark::State&)) {
    auto* const added =
        benchmark::RegisterBenchmark(benchmarkName(kindAndId, subject, blocksOfSmallPool).c_str(), function);
    if (threads > 0) {
        added->Threads(threads);
    }
    if (threads > 1) {
        added->UseRealTime();
    }
    return added;
}

// `prefix`: what stands before borrow_return and borrow_touch_return in the names. `threads` is 0 where the name is not
// to tell their number, which is one.
template <typename Subject>
void registerOnThreads(const std::string& prefix, int threads) {
    using Pool = Common<Subject, blocksOfSmallPool>;
    const auto add = [&](const std::string& id, void (*function)(benchmark::State&)) {
        addOnThreads(prefix + id, Subject::name, threads, function)->Setup(Pool::make)->Teardown(Pool::tearDown);
    };
    add("borrow_return", repeat<Subject, borrowAndReturn<Subject>>);
    add("borrow_touch_return", repeat<Subject, borrowTouchAndReturn<Subject>>);
}

template <typename Subject>
void registerUnlocked() {
    registerOnThreads<Subject>("row/", 0);
}

void registerAllLocked(const std::string& prefix, int threads) {
    registerOnThreads<OurPool<true>>(prefix, threads);
    registerOnThreads<ByHand<std::mutex>>(prefix, threads);
    registerOnThreads<BarePool<true>>(prefix, threads);
    registerOnThreads<BoostSingletonPool<std::mutex>>(prefix, threads);
    registerOnThreads<StandardResource<std::pmr::synchronized_pool_resource>>(prefix, threads);
    registerOnThreads<Malloc>(prefix, threads);
    registerOnThreads<Mimalloc>(prefix, threads);
    addOnThreads(prefix + "borrow_return", "the locks alone", threads, lockAndUnlock<2>);
    addOnThreads(prefix + "borrow_touch_return", "the locks alone", threads, lockAndUnlock<3>);
}

// --- the address of a random token ------------------------------------------------------------------------------------

template <typename Subject>
void addressOfRandomToken(benchmark::State& state, unsigned int numberOfBlocks) {
    tidyHeap();
    Subject subject(numberOfBlocks);
    std::vector<typename Subject::Loan> loans(numberOfBlocks);
    for (auto& loan : loans) {
        loan = subject.borrow();
    }
    // What is read in the loop is a plain array in the order of the visits. Small pools are visited several times over,
    // so that starting again at the array's front is rare in all of them.
    constexpr unsigned int fewestVisits = 4096;
    std::vector<typename Subject::Loan> visits;
    const std::vector<unsigned int> order = randomOrder(numberOfBlocks);
    do {
        for (const unsigned int index : order) {
            visits.push_back(loans[index]);
        }
    } while (visits.size() < fewestVisits);

    std::size_t next = 0;
    for (auto _ : state) {
        Subject* const escaped = &subject;
        escape(escaped);
        void* address = escaped->address(visits[next]);
        escapeRegister(address);
        if (++next == visits.size()) {
            next = 0;
        }
    }
}

template <typename Subject>
void registerAddress(const std::string& kind, unsigned int numberOfBlocks) {
    auto* const added =
        benchmark::RegisterBenchmark(benchmarkName(kind + "/address", Subject::name, numberOfBlocks).c_str(),
                                     addressOfRandomToken<Subject>, numberOfBlocks);
    if (numberOfBlocks >= manyBlocks) {
        added->Iterations(operationsOnManyBlocks);
    }
}

// --- all blocks at once -----------------------------------------------------------------------------------------------

template <typename Subject>
void borrowAllReturnAtRandom(benchmark::State& state, unsigned int numberOfBlocks) {
    tidyHeap();
    Subject subject(numberOfBlocks);
    std::vector<typename Subject::Loan> loans(numberOfBlocks);
    const std::vector<unsigned int> order = randomOrder(numberOfBlocks);
    const auto once = [&](Subject* escaped) {
        escape(escaped);
        for (auto& loan : loans) {
            loan = escaped->borrow();
        }
        for (const auto& loan : loans) {
            touch(escaped->address(loan));
        }
        for (const unsigned int index : order) {
            escaped->giveBack(loans[index]);
        }
    };
    once(&subject); // from now on blocks are lent in a random order
    for (auto _ : state) {
        once(&subject);
    }
    setOperationsPerIteration(state, numberOfBlocks);
}

template <typename Subject>
void registerBorrowAll(const std::string& kind, unsigned int numberOfBlocks) {
    auto* const added =
        benchmark::RegisterBenchmark(benchmarkName(kind + "/borrow_all", Subject::name, numberOfBlocks).c_str(),
                                     borrowAllReturnAtRandom<Subject>, numberOfBlocks);
    if (numberOfBlocks >= manyBlocks) {
        added->Iterations(std::max(1U, operationsOnManyBlocks / numberOfBlocks));
    }
}

} // namespace

void registerLending(const Settings& settings) {
    registerUnlocked<OurPool<false>>();
    registerUnlocked<ByHand<NoMutex>>();
    registerUnlocked<BarePool<false>>();
    registerUnlocked<BoostPool>();
    registerUnlocked<BoostSingletonPool<Unlocked>>();
    registerUnlocked<StandardResource<std::pmr::unsynchronized_pool_resource>>();
    registerUnlocked<Malloc>();
    registerUnlocked<Mimalloc>();

    registerAllLocked("row/locked_", 1);
    registerAllLocked("row/locked_", 2);
    for (int threads = 1; threads <= 4; ++threads) {
        registerAllLocked("curve/locked_", threads);
    }

    const auto registerSizes = [&](const std::string& kind, std::initializer_list<unsigned int> forAddress,
                                   std::initializer_list<unsigned int> forBorrowAll) {
        for (const unsigned int size : forAddress) {
            if (size <= settings.largest) {
                registerAddress<OurPool<false>>(kind, size);
                registerAddress<ByHand<NoMutex>>(kind, size);
                registerAddress<BarePool<false>>(kind, size);
            }
        }
        for (const unsigned int size : forBorrowAll) {
            if (size <= settings.largest) {
                registerBorrowAll<OurPool<false>>(kind, size);
                registerBorrowAll<ByHand<NoMutex>>(kind, size);
                registerBorrowAll<BarePool<false>>(kind, size);
                registerBorrowAll<BoostPool>(kind, size);
                registerBorrowAll<BoostSingletonPool<Unlocked>>(kind, size);
                registerBorrowAll<StandardResource<std::pmr::unsynchronized_pool_resource>>(kind, size);
                registerBorrowAll<Malloc>(kind, size);
                registerBorrowAll<Mimalloc>(kind, size);
            }
        }
    };
    registerSizes("row", {1'000, 100'000, 1'000'000}, {1'000, 1'000'000});
    registerSizes("curve", {10, 100, 1'000, 10'000, 100'000, 1'000'000, 10'000'000},
                  {10, 100, 1'000, 10'000, 100'000, 1'000'000, 10'000'000});
}
