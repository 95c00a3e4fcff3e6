#include "files.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <stdexcept>
#include <system_error>

namespace ParallelGzip {

namespace {

[[noreturn]] void fail(const char* action, const std::string& path, int error) {
    throw std::system_error(error, std::generic_category(),
                            std::string(action) + " " + (path.empty() ? "a file without a name" : path));
}

// Waits until a descriptor can be read or written, which a regular file always can.
// @returns false when cancelled meanwhile
bool waitUntilReady(int descriptor, short event, const std::atomic<bool>& cancelled) {
    constexpr int millisecondsBetweenLooks = 100;
    pollfd polled{descriptor, event, 0};
    while (!cancelled) {
        if (::poll(&polled, 1, millisecondsBetweenLooks) > 0) {
            return true; // if only to be told of an error
        }
    }
    return false;
}

// The signals that end the process and that leave time to tidy up.
constexpr int endingSignals[] = {SIGINT, SIGTERM, SIGHUP};

// What a signal shall remove, or null.
std::atomic<const char*> unfinishedFile(nullptr);
static_assert(std::atomic<const char*>::is_always_lock_free, "a signal handler reads it");

// Takes the unfinished file away and lets the signal do then what it always does.
extern "C" void removeUnfinishedFile(int signal) {
    const int error = errno;
    if (const char* const path = unfinishedFile.load()) {
        ::unlink(path);
    }
    ::raise(signal);
    errno = error;
}

// Holds the ending signals back for as long as it lives.
class SignalsHeldBack {
  public:
    SignalsHeldBack() {
        sigset_t set;
        sigemptyset(&set);
        for (const int signal : endingSignals) {
            sigaddset(&set, signal);
        }
        pthread_sigmask(SIG_BLOCK, &set, &before);
    }
    SignalsHeldBack(const SignalsHeldBack&) = delete;
    SignalsHeldBack& operator=(const SignalsHeldBack&) = delete;
    ~SignalsHeldBack() { pthread_sigmask(SIG_SETMASK, &before, nullptr); }

  private:
    sigset_t before;
};

// A signal that the process was started to ignore, as under nohup, stays ignored.
void removeUnfinishedFileOnSignals() {
    for (const int signal : endingSignals) {
        struct sigaction action {};
        if (sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_DFL) {
            action.sa_handler = removeUnfinishedFile;
            action.sa_flags = static_cast<int>(SA_RESETHAND);
            sigaction(signal, &action, nullptr);
        }
    }
}

} // namespace

InputFile::InputFile(const std::string& inputPath)
    : path(inputPath), descriptor(::open(inputPath.c_str(), O_RDONLY | O_CLOEXEC)), status() {
    if (descriptor < 0) {
        fail("cannot open", path, errno);
    }
    const int error = ::fstat(descriptor, &status) != 0 ? errno : S_ISDIR(status.st_mode) ? EISDIR : 0;
    if (error != 0) {
        ::close(descriptor);
        fail("cannot read", path, error);
    }
}

InputFile::~InputFile() { ::close(descriptor); }

std::size_t InputFile::read(void* bytes, std::size_t byteCount) {
    std::size_t count = 0;
    while (count < byteCount && waitUntilReady(descriptor, POLLIN, cancelled)) {
        const ssize_t got = ::read(descriptor, static_cast<char*>(bytes) + count, byteCount - count);
        if (got == 0) {
            break;
        }
        if (got > 0) {
            count += static_cast<std::size_t>(got);
        } else if (errno != EINTR) {
            fail("cannot read", path, errno);
        }
    }
    return count;
}

std::uint64_t InputFile::getSize() const noexcept {
    return S_ISREG(status.st_mode) ? static_cast<std::uint64_t>(status.st_size) : 0;
}

OutputFile::OutputFile(const std::string& outputPath, const InputFile& input) : path(outputPath), target(outputPath) {
    if (path.empty()) {
        fail("cannot create", path, ENOENT);
    }
    struct stat present {};
    const bool exists = ::stat(path.c_str(), &present) == 0;
    if (!exists && errno != ENOENT) {
        fail("cannot create", path, errno);
    }
    if (exists) {
        if (present.st_dev == input.getStatus().st_dev && present.st_ino == input.getStatus().st_ino) {
            throw std::runtime_error("input and output are the same file: " + path);
        }
        if (S_ISDIR(present.st_mode)) {
            fail("cannot write", path, EISDIR);
        }
        if (!S_ISREG(present.st_mode)) {
            descriptor = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
            if (descriptor < 0) {
                fail("cannot open", path, errno);
            }
            // A pipe that is full shall not hold write up where cancel cannot reach it. Not said to open, which would
            // then refuse a pipe that nobody reads yet.
            ::fcntl(descriptor, F_SETFL, O_NONBLOCK);
            return;
        }
        // Renaming would replace a file that may not be written.
        if (::access(path.c_str(), W_OK) != 0) {
            fail("cannot write", path, errno);
        }
        target = std::filesystem::canonical(path).string();
    }
    createUnfinished(input.getStatus().st_mode & 0666);
}

OutputFile::~OutputFile() {
    if (descriptor >= 0) {
        ::close(descriptor);
    }
    if (!unfinished.empty()) {
        ::unlink(unfinished.c_str());
        unfinishedFile = nullptr;
    }
}

void OutputFile::write(const void* bytes, std::size_t byteCount) {
    std::size_t count = 0;
    while (count < byteCount && waitUntilReady(descriptor, POLLOUT, cancelled)) {
        const ssize_t put = ::write(descriptor, static_cast<const char*>(bytes) + count, byteCount - count);
        if (put >= 0) {
            count += static_cast<std::size_t>(put);
        } else if (errno != EINTR && errno != EAGAIN) {
            fail("cannot write", path, errno);
        }
    }
}

void OutputFile::finish() {
    const int closing = descriptor;
    descriptor = -1; // closed, whatever close says
    if (::close(closing) != 0) {
        fail("cannot write", path, errno);
    }
    if (unfinished.empty()) {
        return;
    }
    if (std::rename(unfinished.c_str(), target.c_str()) != 0) {
        fail("cannot create", path, errno);
    }
    unfinishedFile = nullptr;
    unfinished.clear();
}

// Signals are held back from the moment the file exists until they know of it. A name that is taken, by a process that
// was killed and had the same number, gets a number more.
void OutputFile::createUnfinished(mode_t permissions) {
    constexpr unsigned int attempts = 100;
    const std::string name = target + ".part-" + std::to_string(::getpid());
    const SignalsHeldBack heldBack;
    for (unsigned int attempt = 0; descriptor < 0; ++attempt) {
        unfinished = attempt == 0 ? name : name + "-" + std::to_string(attempt);
        descriptor = ::open(unfinished.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, permissions);
        if (descriptor < 0 && (errno != EEXIST || attempt == attempts)) {
            fail("cannot create", path, errno);
        }
    }
    unfinishedFile = unfinished.c_str();
    removeUnfinishedFileOnSignals();
}

} // namespace ParallelGzip
