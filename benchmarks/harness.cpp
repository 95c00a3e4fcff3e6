#include "harness.h"
#include "subjects.h"

#include <algorithm>
#include <ctime>
#include <numeric>
#include <random>

#include <malloc.h>

int runBenchmarks(int argc, char** argv, const std::function<void()>& registerAll) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::AddCustomContext("block_bytes", std::to_string(blockBytes));
    registerAll();
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}

std::vector<unsigned int> randomOrder(unsigned int size) {
    std::vector<unsigned int> order(size);
    std::iota(order.begin(), order.end(), 0U);
    std::shuffle(order.begin(), order.end(), std::mt19937(12345));
    return order;
}

void tidyHeap() { malloc_trim(0); }

double processorSeconds() {
    timespec used;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
    return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) * 1e-9;
}
