#include "mimalloc.h"

#include <gilvane/base/gvobject.h>

#include <cstdio>
#include <cstdlib>

#include <dlfcn.h>

void* (*MimallocLibrary::theMalloc)(std::size_t) = nullptr;
void (*MimallocLibrary::theFree)(void*) = nullptr;

namespace {

constexpr std::size_t padding = alignof(std::max_align_t) - sizeof(void*);

void* allocateBlock(unsigned int bytes) {
    void* const memory = MimallocLibrary::allocate(padding + bytes);
    return memory == nullptr ? nullptr : static_cast<char*>(memory) + padding;
}

void releaseBlock(void* block) { MimallocLibrary::release(static_cast<char*>(block) - padding); }

} // namespace

void MimallocLibrary::load() {
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

void MimallocLibrary::hook() { Gilvane::GVObject::SetAllocationHooks(&allocateBlock, &releaseBlock); }
