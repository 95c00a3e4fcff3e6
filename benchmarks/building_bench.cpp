// Building, tearing down and shrinking.
#include "harness.h"
#include "subjects.h"

#include <cstdio>
#include <map>

namespace {

// --- build and tear down ----------------------------------------------------------------------------------------------

// What keeps no blocks of its own gives them back one by one in its constructor; so do all that lend addresses.
template <typename Subject>
void buildAndTearDown(benchmark::State& state, unsigned int numberOfBlocks) {
    tidyHeap();
    for (auto _ : state) {
        Subject subject(numberOfBlocks);
        escape(&subject);
    }
    setOperationsPerIteration(state, numberOfBlocks);
}

template <typename Subject>
void registerBuildAndTearDown(unsigned int numberOfBlocks) {
    benchmark::RegisterBenchmark(benchmarkName("row/build_tear_down", Subject::name, numberOfBlocks).c_str(),
                                 buildAndTearDown<Subject>, numberOfBlocks);
}

// --- build alone ------------------------------------------------------------------------------------------------------

template <typename Subject>
void build(benchmark::State& state, unsigned int numberOfBlocks) {
    tidyHeap();
    for (auto _ : state) {
        const double start = processorSeconds();
        Subject subject(numberOfBlocks);
        escape(&subject);
        state.SetIterationTime(processorSeconds() - start);
    }
    setOperationsPerIteration(state, numberOfBlocks);
}

template <typename Subject>
void registerBuild(unsigned int numberOfBlocks) {
    auto* const added = benchmark::RegisterBenchmark(benchmarkName("row/build", Subject::name, numberOfBlocks).c_str(),
                                                     build<Subject>, numberOfBlocks);
    added->UseManualTime();
    if (numberOfBlocks >= 1'000'000) {
        added->Iterations(1);
    }
}

// --- shrink -----------------------------------------------------------------------------------------------------------

enum class FreeTokens { asBuilt, atRandom };

// Seconds in which a pool of that many free blocks is shrunk to half.
double secondsToShrink(unsigned int numberOfBlocks, FreeTokens order) {
    OurPool<false> subject(numberOfBlocks);
    if (order == FreeTokens::atRandom) {
        std::vector<unsigned int> tokens(numberOfBlocks);
        for (unsigned int& token : tokens) {
            token = subject.borrow();
        }
        for (const unsigned int index : randomOrder(numberOfBlocks)) {
            subject.giveBack(tokens[index]);
        }
    }
    const double start = processorSeconds();
    subject.pool().resizePool(numberOfBlocks / 2);
    return processorSeconds() - start;
}

// What the next larger pool takes if the cost goes on growing as it did between the two sizes before.
double predictedSeconds(unsigned int numberOfBlocks, FreeTokens order) {
    static std::map<std::pair<unsigned int, FreeTokens>, double> predictions;
    const auto known = predictions.find({numberOfBlocks, order});
    if (known != predictions.end()) {
        return known->second;
    }
    const double smaller = secondsToShrink(numberOfBlocks / 100, order);
    const double small = secondsToShrink(numberOfBlocks / 10, order);
    return predictions[{numberOfBlocks, order}] = small * (small / smaller);
}

void shrinkToHalf(benchmark::State& state, unsigned int numberOfBlocks, FreeTokens order, double mostSeconds) {
    tidyHeap();
    if (numberOfBlocks >= 100'000) {
        const double predicted = predictedSeconds(numberOfBlocks, order);
        if (predicted > mostSeconds) {
            char message[100];
            std::snprintf(message, sizeof message, "left out: would take %.0f s, going by the smaller pools",
                          predicted);
            state.SkipWithError(message);
            return;
        }
    }
    for (auto _ : state) {
        state.SetIterationTime(secondsToShrink(numberOfBlocks, order));
    }
    setOperationsPerIteration(state, numberOfBlocks / 2);
}

} // namespace

void registerBuilding(const Settings& settings) {
    for (const unsigned int size : {1'000U, 1'000'000U}) {
        if (size <= settings.largest) {
            registerBuildAndTearDown<OurPool<false>>(size);
            registerBuildAndTearDown<ByHand<NoMutex>>(size);
            registerBuildAndTearDown<ByHandReserved>(size);
            registerBuildAndTearDown<BarePool<false>>(size);
            registerBuildAndTearDown<OurPoolOnMimalloc>(size);
            registerBuildAndTearDown<BoostPool>(size);
            registerBuildAndTearDown<StandardResource<std::pmr::unsynchronized_pool_resource>>(size);
            registerBuildAndTearDown<Malloc>(size);
            registerBuildAndTearDown<Mimalloc>(size);
        }
    }
    for (const unsigned int size : {10'000U, 10'000'000U}) {
        if (size <= settings.largest) {
            registerBuild<OurPool<false>>(size);
            registerBuild<ByHand<NoMutex>>(size);
            registerBuild<BarePool<false>>(size);
        }
    }
    for (const unsigned int size : {1'000U, 10'000U, 100'000U, 1'000'000U}) {
        if (size <= settings.largest) {
            const auto add = [&](const char* id, FreeTokens order) {
                auto* const added =
                    benchmark::RegisterBenchmark(benchmarkName(id, OurPool<false>::name, size).c_str(), shrinkToHalf,
                                                 size, order, settings.secondsForOneShrink);
                added->UseManualTime();
                if (size >= 100'000) {
                    added->Iterations(1);
                }
            };
            add("row/shrink", FreeTokens::asBuilt);
            add("row/shrink_shuffled", FreeTokens::atRandom);
        }
    }
}
