// Compresses a file with several threads into a gzip file that any gunzip restores.
//
//     parallel_gzip INPUT OUTPUT [--dump] [--threads N]
//
// The file is read into blocks of one shared pool and compressed into blocks of another. The threads hand each other the
// loans, and the blocks bound the memory. parallel_gzip/pipeline.h tells how.
#include "parallel_gzip/files.h"
#include "parallel_gzip/pipeline.h"
#include "parallel_gzip/progress.h"

#include <gilvane/base/gvexception.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <iostream>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace ParallelGzip {

namespace {

constexpr const char* usage = "usage: parallel_gzip INPUT OUTPUT [--dump] [--threads N]";
constexpr unsigned int mostThreads = 256;

struct Options {
    std::string input;
    std::string output;
    bool dump = false;
    bool help = false;
    unsigned int threads = std::clamp(std::thread::hardware_concurrency(), 1U, mostThreads);
};

[[noreturn]] void refuse(const std::string& reason) { throw std::invalid_argument(reason + "; " + usage); }

unsigned int parseThreads(std::string_view text) {
    unsigned int number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size() || number < 1 || number > mostThreads) {
        refuse("--threads takes a number from 1 to " + std::to_string(mostThreads));
    }
    return number;
}

// A lone "--" ends the options, for files whose names begin with a dash.
Options parse(const std::vector<std::string>& arguments) {
    Options options;
    std::vector<std::string> files;
    bool optionsEnded = false;
    for (auto argument = arguments.begin(); argument != arguments.end(); ++argument) {
        if (optionsEnded || argument->empty() || argument->front() != '-') {
            files.push_back(*argument);
        } else if (*argument == "--") {
            optionsEnded = true;
        } else if (*argument == "--help") {
            options.help = true;
        } else if (*argument == "--dump") {
            options.dump = true;
        } else if (*argument == "--threads") {
            options.threads = parseThreads(++argument != arguments.end() ? *argument : "");
        } else {
            refuse("unknown option " + *argument);
        }
    }
    if (options.help) {
        return options;
    }
    if (files.size() != 2) {
        refuse("needs one input and one output file");
    }
    options.input = files[0];
    options.output = files[1];
    return options;
}

std::string readable(std::uint64_t bytes) {
    constexpr std::uint64_t megabyte = 1000000;
    std::array<char, 40> text{};
    if (bytes < megabyte) {
        std::snprintf(text.data(), text.size(), "%llu byte%s", static_cast<unsigned long long>(bytes),
                      bytes == 1 ? "" : "s");
    } else {
        std::snprintf(text.data(), text.size(), "%.1f MB", static_cast<double>(bytes) / megabyte);
    }
    return text.data();
}

void tell(const Figures& figures, double seconds, unsigned int threads) {
    const auto bytesRead = static_cast<double>(figures.bytesRead);
    std::fprintf(stderr,
                 "parallel_gzip: %s -> %s, ratio %.2f, %.2f s, %.1f MB/s, threads: %u, chunks: %llu, "
                 "blocks used: %u of %u for input and %u of %u for output (%s)\n",
                 readable(figures.bytesRead).c_str(), readable(figures.bytesWritten).c_str(),
                 bytesRead / static_cast<double>(figures.bytesWritten), seconds, bytesRead / 1e6 / seconds, threads,
                 static_cast<unsigned long long>(figures.chunkCount), figures.mostInputBlocksInUse,
                 figures.blocksPerPool, figures.mostOutputBlocksInUse, figures.blocksPerPool,
                 readable(figures.bytesInBlocks).c_str());
}

// The dump comes before the file gets its name, so that a dump that cannot be written fails like the rest.
void compressFile(const Options& options) {
    const auto start = std::chrono::steady_clock::now();
    InputFile input(options.input);
    OutputFile output(options.output, input);
    std::optional<Progress> progress(input.getSize());
    Pipeline pipeline(input, output, *progress, options.threads);
    const Figures figures = pipeline.run();
    progress.reset();
    if (options.dump) {
        pipeline.dump(std::cout);
        if (!std::cout.flush()) {
            throw std::runtime_error("cannot write the dump to standard output");
        }
    }
    output.finish();
    tell(figures, std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(), options.threads);
}

int run(const std::vector<std::string>& arguments) {
    // A reader that has gone, or a limit on file sizes, is then an error of write like any other.
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
    const Options options = parse(arguments);
    if (options.help) {
        std::puts(usage);
    } else {
        compressFile(options);
    }
    return 0;
}

} // namespace

} // namespace ParallelGzip

int main(int argumentCount, char** arguments) {
    try {
        return ParallelGzip::run({arguments + 1, arguments + argumentCount});
    } catch (const std::bad_alloc&) {
        std::fprintf(stderr, "parallel_gzip: not enough memory\n");
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "parallel_gzip: %s\n", failure.what());
    } catch (const Gilvane::GVException& failure) {
        std::fprintf(stderr, "parallel_gzip: %s\n", failure.getMessage());
    }
    return 1;
}
