/// @file
/// What the programs share whose instructions valgrind's callgrind counts, for tools/bench/callgrind.py: each operation
/// alone, some number of times and then twice that number, so that the difference is free of whatever surrounds the loop.
#ifndef GILVANE_BENCHMARKS_CALLGRIND_H
#define GILVANE_BENCHMARKS_CALLGRIND_H

#include <string>

#include <valgrind/callgrind.h>

/// Keeps the compiler from knowing what a value is, or that nobody needs it.
template <typename T>
void escape(T& value) {
    asm volatile("" : "+m"(value) : : "memory");
}

/// The label of what is counted: the operation's name, and how often it is done. It is compiled into its caller, whose
/// code a traced loan unwinds through, and costs the more the more there is of it.
[[gnu::always_inline]] inline std::string countedLabel(const std::string& name, unsigned int number) {
    return name + " " + std::to_string(number);
}

/// Has callgrind count the instructions from here to endCounting.
inline void beginCounting() {
    CALLGRIND_ZERO_STATS;
    CALLGRIND_START_INSTRUMENTATION;
}

inline void endCounting(const std::string& label) {
    CALLGRIND_STOP_INSTRUMENTATION;
    CALLGRIND_DUMP_STATS_AT(label.c_str());
}

#endif
