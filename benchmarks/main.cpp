// The benchmark program: Google Benchmark's main function with two options of its own.
//
//     gilvane_bench [--largest=N] [--shrink_seconds=S] [Google Benchmark's options]
#include "harness.h"
#include "subjects.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <numeric>
#include <random>

#include <dlfcn.h>
#include <gnu/libc-version.h>
#include <malloc.h>

void* (*Mimalloc::theMalloc)(std::size_t) = nullptr;
void (*Mimalloc::theFree)(void*) = nullptr;

void Mimalloc::load() {
    void* const library = dlopen(GILVANE_BENCH_MIMALLOC, RTLD_NOW | RTLD_LOCAL);
    if (library != nullptr) {
        theMalloc = reinterpret_cast<void* (*)(std::size_t)>(dlsym(library, "mi_malloc"));
        theFree = reinterpret_cast<void (*)(void*)>(dlsym(library, "mi_free"));
    }
    if (theMalloc == nullptr || theFree == nullptr) {
        std::fprintf(stderr, "gilvane_bench: %s\n", dlerror());
        std::exit(1);
    }
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

namespace {

// Takes this program's own options out of the command line.
Settings takeSettings(int& argc, char** argv) {
    constexpr const char* largest = "--largest=";
    constexpr const char* shrinkSeconds = "--shrink_seconds=";
    Settings settings;
    int kept = 1;
    for (int given = 1; given < argc; ++given) {
        if (std::strncmp(argv[given], largest, std::strlen(largest)) == 0) {
            settings.largest = static_cast<unsigned int>(std::atof(argv[given] + std::strlen(largest)));
        } else if (std::strncmp(argv[given], shrinkSeconds, std::strlen(shrinkSeconds)) == 0) {
            settings.secondsForOneShrink = std::atof(argv[given] + std::strlen(shrinkSeconds));
        } else {
            argv[kept++] = argv[given];
        }
    }
    argc = kept;
    return settings;
}

} // namespace

int main(int argc, char** argv) {
    const Settings settings = takeSettings(argc, argv);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::AddCustomContext("compiler", "g++ " __VERSION__);
    benchmark::AddCustomContext("c_library", std::string("glibc ") + gnu_get_libc_version());
    benchmark::AddCustomContext("block_bytes", std::to_string(blockBytes));
    benchmark::AddCustomContext("largest", std::to_string(settings.largest));
    Mimalloc::load();
    registerLending(settings);
    registerBuilding(settings);
    registerTables(settings);
    registerDumps(settings);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
}
