/// @file
/// The same programs as libFuzzer finds them, kept small for speed. Each input says itself where everything is compared.
/// At its end it says how many operations the programs made.
#include "driver.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>

namespace {

/// Programs by the number of operations that were made.
struct Depths {
    std::array<unsigned long long, 65> programs = {}; // at the last place, those that made as many or more
    unsigned long long operations = 0;
    std::size_t deepest = 0;

    void add(std::size_t made) {
        ++programs[std::min(made, programs.size() - 1)];
        operations += made;
        deepest = std::max(deepest, made);
    }

    void print() const {
        unsigned long long total = 0;
        for (const unsigned long long number : programs) {
            total += number;
        }
        unsigned long long shallower = 0;
        std::size_t median = 0;
        while (median + 1 < programs.size() && (shallower + programs[median]) * 2 < total) {
            shallower += programs[median++];
        }
        std::printf("programs: %llu\noperations: %llu\nmedian program: %zu operations\n"
                    "deepest program: %zu operations\n",
                    total, operations, median, deepest);
        constexpr std::size_t step = 8;
        for (std::size_t from = 0; from < programs.size(); from += step) {
            unsigned long long number = 0;
            for (std::size_t made = from; made < std::min(from + step, programs.size()); ++made) {
                number += programs[made];
            }
            if (from + step < programs.size()) {
                std::printf("programs of %zu to %zu operations: %llu\n", from, from + step - 1, number);
            } else {
                std::printf("programs of %zu operations or more: %llu\n", from, number);
            }
        }
        std::fflush(stdout);
    }
};

Depths depths;

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    Gilvane::reference::limits.slots = 512;
    Gilvane::reference::limits.blocks = 48;
    return std::atexit([] { depths.print(); });
}

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* bytes, std::size_t count) {
    using namespace Gilvane::driver;
    depths.add(run(Bytes(bytes, bytes + count), Comparison::whereChosen).made);
    return 0;
}
