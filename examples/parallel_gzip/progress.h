/// @file
/// The line on the terminal that shows how far the work has come.
#ifndef PARALLEL_GZIP_PROGRESS_H
#define PARALLEL_GZIP_PROGRESS_H

#include <chrono>
#include <cstdint>

namespace ParallelGzip {

/// Shows progress on standard error when that is a terminal, and takes the line away at the end; otherwise silent.
///
/// @par Thread safety
///   None: one thread at a time.
class Progress {
  public:
    /// @param totalBytes  bytes of input to come, 0 if not known
    explicit Progress(std::uint64_t totalBytes);
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;
    ~Progress();

    /// Shows that `doneBytes` of the input are dealt with; writes at most ten times a second.
    void show(std::uint64_t doneBytes);

  private:
    using Clock = std::chrono::steady_clock;

    const std::uint64_t totalBytes;
    const bool onTerminal;
    const Clock::time_point started;
    Clock::time_point nextLine;
    bool lineShown = false;
};

} // namespace ParallelGzip

#endif
