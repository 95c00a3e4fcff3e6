// The benchmark program: Google Benchmark's main function with two options of its own.
//
//     gilvane_bench [--largest=N] [--shrink_seconds=S] [Google Benchmark's options]
#include "harness.h"
#include "mimalloc.h"

#include <cstdlib>
#include <cstring>

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
    return runBenchmarks(argc, argv, [&] {
        MimallocLibrary::load();
        registerLending(settings);
        registerBuilding(settings);
        registerTables(settings);
        registerDumps(settings);
        registerResources();
    });
}
