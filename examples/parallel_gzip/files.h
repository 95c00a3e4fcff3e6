/// @file
/// The file that is read and the file that is written.
#ifndef PARALLEL_GZIP_FILES_H
#define PARALLEL_GZIP_FILES_H

#include <sys/stat.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

namespace ParallelGzip {

/// A file opened for reading from its beginning to its end.
///
/// @par Thread safety
///   One thread at a time, except for cancel.
/// @par Ownership
///   Owns its descriptor.
class InputFile {
  public:
    /// @throws std::system_error the file is missing, unreadable or a directory
    explicit InputFile(const std::string& path);
    InputFile(const InputFile&) = delete;
    InputFile& operator=(const InputFile&) = delete;
    ~InputFile();

    /// Reads on until `byteCount` bytes have come or the file ends.
    /// @returns bytes read; fewer than asked for at the end of the file, or when cancelled
    /// @throws std::system_error reading failed
    std::size_t read(void* bytes, std::size_t byteCount);

    /// Ends reading, soon, even while it waits for a pipe or a terminal; from any thread.
    void cancel() noexcept { cancelled = true; }

    const std::string& getPath() const noexcept { return path; }
    /// What the system knows of the file.
    const struct stat& getStatus() const noexcept { return status; }
    /// Bytes in the file, or 0 if that is not known beforehand, as of a pipe.
    std::uint64_t getSize() const noexcept;

  private:
    const std::string path;
    int descriptor;
    struct stat status;
    std::atomic<bool> cancelled{false};
};

/// A file that appears whole or not at all.
///
/// The bytes go to a file beside it, named like it with ".part-" and the process number added, which takes the file's
/// place at the end. Until then whatever was there before is untouched; and when things end otherwise, by an exception
/// or by SIGINT, SIGTERM or SIGHUP, the unfinished file is removed. What is no regular file, such as a device or a
/// pipe, is written to directly.
///
/// @par Thread safety
///   One thread at a time, except for cancel. Construction, finish and destruction: only while the process has no other
///   thread, which could receive a signal in between.
/// @par Ownership
///   Owns its descriptor and the unfinished file. One at a time in a process, because signals know of one.
class OutputFile {
  public:
    /// @param input  the file that is read, which must be another one, and whose permissions the new file gets as far
    ///               as the process's umask allows
    /// @throws std::system_error  the file cannot be created or is a directory
    /// @throws std::runtime_error it is the file that is read
    OutputFile(const std::string& path, const InputFile& input);
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;
    ~OutputFile();

    /// Writes all the bytes, unless cancelled.
    /// @throws std::system_error the bytes cannot all be written
    void write(const void* bytes, std::size_t byteCount);

    /// Ends writing, soon, even while it waits for a pipe or a terminal; from any thread. The file is not to be
    /// finished then.
    void cancel() noexcept { cancelled = true; }

    /// Gives the file its name.
    /// @throws std::system_error closing or renaming failed; the destructor removes the unfinished file
    void finish();

  private:
    void createUnfinished(mode_t permissions);

    const std::string path;
    std::string target;     // where the file goes; `path`, unless that is a symbolic link to a file
    std::string unfinished; // where it grows until then; empty when written directly, and after finish
    int descriptor = -1;    // -1 once closed
    std::atomic<bool> cancelled{false};
};

} // namespace ParallelGzip

#endif
