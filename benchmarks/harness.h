/// @file
/// What the benchmarks share: how they are named and registered, and small helpers.
#ifndef GILVANE_BENCHMARKS_HARNESS_H
#define GILVANE_BENCHMARKS_HARNESS_H

#include <benchmark/benchmark.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

/// What the command line asks for.
struct Settings {
    unsigned int largest = 10'000'000; // blocks or keys: no benchmark goes above
    double secondsForOneShrink = 20;   // a shrink that is predicted to take longer is left out
};

/// @name Registration
/// Each names its benchmarks "row/ID/SUBJECT/SIZE" or "curve/ID/SUBJECT/SIZE", which the report takes apart: a row has
/// goals, a curve becomes a plot. SIZE is the number of blocks or keys. The rows are described in goals.json.
/// @{
void registerLending(const Settings& settings);
void registerBuilding(const Settings& settings);
void registerTables(const Settings& settings);
void registerDumps(const Settings& settings);
void registerResources();
/// @}

/// Google Benchmark's main function around what registers the benchmarks.
/// @return  the program's status
int runBenchmarks(int argc, char** argv, const std::function<void()>& registerAll);

/// The name under which the report looks for a benchmark.
inline std::string benchmarkName(const std::string& kindAndId, const char* subject, unsigned int size) {
    return kindAndId + "/" + subject + "/" + std::to_string(size);
}

/// Says that one iteration of the benchmark is that many operations; without it, the report takes it for one.
inline void setOperationsPerIteration(benchmark::State& state, double operations) {
    state.counters["operations"] = operations;
}

/// 0 to `size` - 1 in a random order that is the same at each call.
std::vector<unsigned int> randomOrder(unsigned int size);

/// Gives back to the system what malloc keeps for later, so that what ran before leaves no mark on what comes.
void tidyHeap();

/// One subject for all threads of a benchmark. It is made before the first of them begins, and is torn down after the last
/// has been joined: a thread's exit may still work on it, as it does where a pool keeps something for each thread.
template <typename Subject, unsigned int NumberOfBlocks>
class Common {
  public:
    static void make(const benchmark::State&) {
        tidyHeap();
        theSubject = std::make_unique<Subject>(NumberOfBlocks);
    }
    static void tearDown(const benchmark::State&) { theSubject.reset(); }
    static Subject& get() { return *theSubject; }

  private:
    inline static std::unique_ptr<Subject> theSubject;
};

/// Makes the compiler take it that anything may have happened to the object, so that none of it stays in registers.
template <typename T>
void escape(T* object) {
    benchmark::DoNotOptimize(object);
    benchmark::ClobberMemory();
}

/// Has a value that fits in a register be there, whatever became of it before: what is said to be anywhere may stay in
/// memory, not even read.
template <typename T>
void escapeRegister(T& value) {
    asm volatile("" : "+r"(value) : : "memory");
}

/// Writes to a block's first byte.
inline void touch(void* block) { *static_cast<volatile char*>(block) = 1; }

/// Seconds of the processor that this thread has used so far.
double processorSeconds();

#endif
