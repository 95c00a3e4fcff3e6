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

/// Has callgrind count the instructions between its begin and its end, as those of an operation that is done `number`
/// times.
class Counted {
  public:
    Counted(const std::string& name, unsigned int number) : theLabel(name + " " + std::to_string(number)) {
        CALLGRIND_ZERO_STATS;
        CALLGRIND_START_INSTRUMENTATION;
    }
    ~Counted() {
        CALLGRIND_STOP_INSTRUMENTATION;
        CALLGRIND_DUMP_STATS_AT(theLabel.c_str());
    }
    Counted(const Counted&) = delete;
    Counted& operator=(const Counted&) = delete;

  private:
    std::string theLabel;
};

#endif
