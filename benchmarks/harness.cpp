#include "harness.h"
#include "subjects.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <numeric>
#include <random>

#include <dlfcn.h>
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
        std::fprintf(stderr, "benchmarks: %s\n", dlerror());
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
