#include "progress.h"

#include <unistd.h>

#include <cstdio>

namespace ParallelGzip {

namespace {

constexpr std::chrono::milliseconds betweenLines(100);
constexpr const char* eraseLine = "\r\033[K";

} // namespace

Progress::Progress(std::uint64_t total)
    : totalBytes(total), onTerminal(::isatty(STDERR_FILENO) != 0), started(Clock::now()),
      nextLine(started + betweenLines) {}

Progress::~Progress() {
    if (lineShown) {
        std::fputs(eraseLine, stderr);
    }
}

void Progress::show(std::uint64_t doneBytes) {
    if (!onTerminal || Clock::now() < nextLine) {
        return;
    }
    nextLine = Clock::now() + betweenLines;
    lineShown = true;
    const double seconds = std::chrono::duration<double>(Clock::now() - started).count();
    const double megabytes = static_cast<double>(doneBytes) / 1e6;
    if (totalBytes >= doneBytes && totalBytes > 0) {
        const double percent = 100.0 * static_cast<double>(doneBytes) / static_cast<double>(totalBytes);
        std::fprintf(stderr, "%s%3.0f %%  %.1f MB  %.1f MB/s", eraseLine, percent, megabytes, megabytes / seconds);
    } else {
        std::fprintf(stderr, "%s%.1f MB  %.1f MB/s", eraseLine, megabytes, megabytes / seconds);
    }
}

} // namespace ParallelGzip
