/// @file
/// mimalloc, for what is measured on it.
#ifndef GILVANE_BENCHMARKS_MIMALLOC_H
#define GILVANE_BENCHMARKS_MIMALLOC_H

#include <cstddef>

/// mimalloc's own functions. Its library also replaces `malloc` in a program that is linked with it, and then all else
/// would be measured on top of it; so it is loaded at run time, for itself alone.
class MimallocLibrary {
  public:
    /// To be called once, before the others. Ends the program when the library cannot be loaded.
    static void load();

    static void* allocate(std::size_t bytes) { return theMalloc(bytes); }
    static void release(void* memory) { theFree(memory); }

    /// Has the allocation hooks stand on it. They align as the default ones do.
    static void hook();

  private:
    static void* (*theMalloc)(std::size_t);
    static void (*theFree)(void*);
};

#endif
