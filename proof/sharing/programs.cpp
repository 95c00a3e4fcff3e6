#include "programs.h"

#include <random>

namespace Gilvane::Sharing {

const std::vector<Program>& programsOfTwo() {
    static const std::vector<Program> thePrograms{
        {"one block, waited for in turns", 1, {{0, "brbr"}, {0, "brbr"}}},
        {"one block, with caches of one", 1, {{1, "brbr"}, {1, "brbr"}}},
        {"one block, one cache", 1, {{1, "brbr"}, {0, "brbr"}}},
        {"two blocks, with caches of two", 2, {{2, "bbrr"}, {2, "brbr"}}},
        {"a cache that sends back what another waits for", 1, {{1, "brsr"}, {0, "bsrs"}}},
        {"flushes before idling", 2, {{2, "bbrl"}, {2, "brlb"}}},
        {"times that end", 1, {{0, "frfr"}, {0, "brbr"}}},
        {"times that end, with a cache", 1, {{1, "frfr"}, {0, "brbr"}}},
        {"asking without waiting", 1, {{1, "trtr"}, {0, "tbrt"}}},
        {"closing while one waits", 1, {{0, "bbrb"}, {0, "tcrs"}}},
        {"closing beside caches", 2, {{2, "brcb"}, {1, "brbr"}}},
        {"returns past the cache", 1, {{1, "bpbp"}, {1, "brbp"}}},
    };
    return thePrograms;
}

const std::vector<Program>& programsOfThree() {
    static const std::vector<Program> thePrograms{
        {"one block for three", 1, {{0, "brb"}, {0, "brb"}, {0, "brb"}}},
        {"one block for three with caches", 1, {{1, "brl"}, {1, "brl"}, {1, "brl"}}},
        {"two blocks, two that wait", 2, {{2, "bbr"}, {0, "brb"}, {0, "brb"}}},
        {"two returns for two that wait", 2, {{0, "bbr"}, {1, "brl"}, {0, "brs"}}},
        {"a time that ends beside one that waits", 1, {{0, "frf"}, {0, "brb"}, {1, "brl"}}},
        {"closing among three", 1, {{0, "brb"}, {0, "fbr"}, {1, "tcr"}}},
    };
    return thePrograms;
}

Program randomProgram(unsigned int seed, bool ofThree) {
    std::minstd_rand random(seed);
    const auto upTo = [&random](unsigned int limit) { return static_cast<unsigned int>(random() >> 4) % limit; };
    Program program{"by chance, seed " + std::to_string(seed), 1 + upTo(2), {}};
    // Mostly loans and returns, or little would happen.
    const std::string letters = "bbbbrrrrrffttplsc";
    for (unsigned int thread = 0; thread < (ofThree ? 3U : 2U); ++thread) {
        Thread made{upTo(3), ""};
        while (made.operations.size() < (ofThree ? 3U : 4U)) {
            made.operations += letters[upTo(static_cast<unsigned int>(letters.size()))];
        }
        program.threads.push_back(made);
    }
    return program;
}

} // namespace Gilvane::Sharing
