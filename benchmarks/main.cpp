// The benchmark program: Google Benchmark's main function with two options of its own.
//
//     gilvane_bench [--largest=N] [--shrink_seconds=S] [Google Benchmark's options]
#include "harness.h"
#include "subjects.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <gnu/libc-version.h>

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
    registerResources();
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
}
