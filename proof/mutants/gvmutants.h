/// @file
/// The switch behind every mutation of the library's mutated copy, whose headers begin with this one.
///
/// The environment variable GILVANE_MUTANT holds the number of the one mutation that is in force; 0, or nothing, leaves
/// the library as it is. GILVANE_MUTANTS_SEEN names a file that gets the numbers of the mutations that the program, and
/// every process that it made, came by; also when they end with abort.
#ifndef GILVANE_PROOF_MUTANTS_GVMUTANTS_H
#define GILVANE_PROOF_MUTANTS_GVMUTANTS_H

#include <csignal>
#include <cstdio>
#include <cstdlib>

namespace GVMutants {

/// Reads the environment before the first of the program's own initialisers runs, and writes at its end.
struct Switch {
    static constexpr int most = 1 << 16;

    int active = 0;
    const char* seenFile = nullptr;
    bool seen[most] = {};

    Switch() : seenFile(std::getenv("GILVANE_MUTANTS_SEEN")) {
        const char* const number = std::getenv("GILVANE_MUTANT");
        active = number == nullptr ? 0 : std::atoi(number);
        if (seenFile != nullptr) {
            std::signal(SIGABRT, &writeAtAbort);
        }
    }

    ~Switch() { write(); }

    static void writeAtAbort(int);

    void write() const {
        std::FILE* const file = seenFile == nullptr ? nullptr : std::fopen(seenFile, "a");
        for (int mutant = 0; file != nullptr && mutant < most; ++mutant) {
            if (seen[mutant]) {
                std::fprintf(file, "%d\n", mutant);
            }
        }
        if (file != nullptr) {
            std::fclose(file);
        }
    }
};

inline Switch theSwitch __attribute__((init_priority(101)));

inline void Switch::writeAtAbort(int) { theSwitch.write(); }

/// Whether this mutation is in force.
inline bool on(int mutant) {
    if (theSwitch.seenFile != nullptr) {
        theSwitch.seen[mutant] = true;
    }
    return mutant == theSwitch.active;
}

} // namespace GVMutants

#endif
