// The first process of the machine that ./prove target starts: does what a plan says, tells of it on the console, and
// switches the machine off.
//
// The plan is the file /plan. Each line is a verb and its words, parted by blanks:
//
//   module PATH           loads a module of the kernel
//   write PATH TEXT       writes a text into a file, such as a setting of the kernel
//   folder PATH           makes a folder
//   show NAME PATH        shows a file
//   cores on|off          whether the kernel writes a core for a program that follows: /out/NAME.core
//   processors COUNT      on how many processors the programs that follow may run
//   run NAME SECONDS [VARIABLE=VALUE...] COMMAND [ARGUMENT...]
//   carry DEVICE          writes what lies in /out to a block device, as a tar archive
//
// What is said here is in lines that begin with "target: ". What a program or a file says stands between two of them:
//
//   target: begin NAME
//   target: end NAME: status 0, 1234 ms, processor time in ticks: 30 28 31 25
//
// The status is an exit code, a signal with a minus, or "none" where the time limit ended the program.
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/reboot.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using Words = std::vector<std::string>;

[[noreturn]] void fail(const std::string& what) { throw std::runtime_error(what + ": " + std::strerror(errno)); }

void must(bool succeeded, const std::string& what) {
    if (!succeeded) {
        fail(what);
    }
}

void say(const std::string& text) {
    std::printf("\ntarget: %s\n", text.c_str());
    std::fflush(stdout);
}

std::string contentsOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    must(file.good(), path);
    return {std::istreambuf_iterator<char>(file), {}};
}

void write(const std::string& path, const std::string& text) {
    std::ofstream file(path, std::ios::binary);
    file << text << std::flush;
    must(file.good(), "write " + path);
}

// --- the machine -----------------------------------------------------------------------------------------------------

void mountAll() {
    const char* const systems[][2] = {{"proc", "/proc"}, {"sysfs", "/sys"}, {"devtmpfs", "/dev"}};
    for (const auto& [system, folder] : systems) {
        mkdir(folder, 0755);
        must(mount(system, folder, system, 0, nullptr) == 0, std::string("mount ") + folder);
    }
    mkdir("/tmp", 0777); // there are files in it, if the project lies there; all of them are in memory anyway
    must(mkdir("/out", 0755) == 0, "mkdir /out");
}

// The kernel has had no console to give to this process before there was /dev.
void takeConsole() {
    const int console = open("/dev/console", O_RDWR);
    for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        dup2(console, descriptor);
    }
    if (console > STDERR_FILENO) {
        close(console);
    }
}

void loadModule(const std::string& path) {
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    must(file >= 0 && syscall(SYS_finit_module, file, "", 0) == 0, "module " + path);
    close(file);
}

// How long each processor has worked, in ticks, for programs and in the kernel.
std::vector<long> processorTimes() {
    std::istringstream lines(contentsOf("/proc/stat"));
    std::vector<long> times;
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string name;
        long user = 0;
        long nice = 0;
        long system = 0;
        words >> name >> user >> nice >> system;
        if (name.rfind("cpu", 0) == 0 && name != "cpu") {
            times.push_back(user + nice + system);
        }
    }
    return times;
}

// --- programs --------------------------------------------------------------------------------------------------------

// What holds for the programs that follow.
struct Manner {
    bool theyLeaveCores = false;
    int processorCount = 0; // all of them, if 0
};

// In the process that is to become the program.
[[noreturn]] void become(const Manner& manner, const Words& words) {
    const rlim_t bytes = manner.theyLeaveCores ? RLIM_INFINITY : 0;
    const rlimit cores{bytes, bytes};
    cpu_set_t processors;
    CPU_ZERO(&processors);
    for (int processor = 0; processor < manner.processorCount; ++processor) {
        CPU_SET(processor, &processors);
    }
    bool isReady = setrlimit(RLIMIT_CORE, &cores) == 0;
    if (manner.processorCount > 0) {
        isReady = isReady && sched_setaffinity(0, sizeof processors, &processors) == 0;
    }
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    dup2(open("/dev/null", O_RDONLY), STDIN_FILENO);

    std::vector<char*> arguments;
    for (const std::string& word : words) {
        if (arguments.empty() && word.find('=') != std::string::npos) {
            putenv(const_cast<char*>(word.c_str()));
        } else {
            arguments.push_back(const_cast<char*>(word.c_str()));
        }
    }
    arguments.push_back(nullptr);
    if (isReady) {
        execv(arguments[0], arguments.data());
    }
    std::perror("target: cannot become the program");
    _exit(127);
}

// Waits for a process, and takes leave of all others that end meanwhile. Returns its status as it is said.
std::string waitFor(pid_t process, Clock::time_point end) {
    sigset_t child;
    sigemptyset(&child);
    sigaddset(&child, SIGCHLD);
    for (;;) {
        int status = 0;
        for (pid_t ended = 0; (ended = waitpid(-1, &status, WNOHANG)) > 0;) {
            if (ended == process) {
                return std::to_string(WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status));
            }
        }
        if (Clock::now() >= end) {
            return "none";
        }
        const timespec pause{0, 100'000'000}; // a signal may have come before this begins
        sigtimedwait(&child, nullptr, &pause);
    }
}

void run(const Manner& manner, const std::string& name, int seconds, const Words& words) {
    if (manner.theyLeaveCores) {
        write("/proc/sys/kernel/core_pattern", "/out/" + name + ".core");
    }
    say("begin " + name);
    const std::vector<long> before = processorTimes();
    const Clock::time_point begun = Clock::now();
    const pid_t process = fork();
    must(process >= 0, "fork");
    if (process == 0) {
        become(manner, words);
    }
    const std::string status = waitFor(process, begun + std::chrono::seconds(seconds));
    kill(-1, SIGKILL); // the program, if it still runs, and what it has left behind
    while (waitpid(-1, nullptr, 0) > 0) {
    }

    std::ostringstream text;
    text << "end " << name << ": status " << status << ", "
         << std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begun).count()
         << " ms, processor time in ticks:";
    const std::vector<long> after = processorTimes();
    for (std::size_t processor = 0; processor < after.size(); ++processor) {
        text << " " << after[processor] - before[processor];
    }
    say(text.str());
}

// --- what is carried out of the machine ------------------------------------------------------------------------------

constexpr std::size_t tarBlock = 512;

std::string padded(std::string text) {
    text.resize((text.size() + tarBlock - 1) / tarBlock * tarBlock);
    return text;
}

// A member's header, as POSIX has it: texts and octal numbers at fixed places.
std::string tarHeader(const std::string& name, std::size_t bytes) {
    std::string header(tarBlock, '\0');
    const auto put = [&header](std::size_t place, const std::string& text) {
        header.replace(place, text.size(), text);
    };
    const auto octal = [](std::size_t number, int digits) {
        char text[16];
        std::snprintf(text, sizeof text, "%0*zo", digits, number);
        return std::string(text);
    };
    put(0, name.substr(0, 99));
    put(100, octal(0644, 7));
    put(124, octal(bytes, 11));
    put(148, std::string(8, ' ')); // the sum is taken with blanks in its place
    put(156, "0");
    put(257, "ustar");
    put(263, "00");
    std::size_t sum = 0;
    for (const char byte : header) {
        sum += static_cast<unsigned char>(byte);
    }
    put(148, octal(sum, 6) + '\0');
    return header;
}

void carry(const std::string& device) {
    for (int tenths = 0; !std::filesystem::exists(device) && tenths < 100; ++tenths) {
        usleep(100'000);
    }
    std::ofstream archive(device, std::ios::binary);
    for (const auto& entry : std::filesystem::recursive_directory_iterator("/out")) {
        if (entry.is_regular_file()) {
            const std::string contents = contentsOf(entry.path());
            archive << tarHeader(entry.path().lexically_relative("/out"), contents.size()) << padded(contents);
        }
    }
    archive << std::string(2 * tarBlock, '\0') << std::flush;
    must(archive.good(), "carry to " + device);
    sync();
}

// --- the plan --------------------------------------------------------------------------------------------------------

void follow(const std::string& plan) {
    Manner manner;
    std::istringstream lines(plan);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream rest(line);
        std::string verb;
        rest >> verb;
        Words words{std::istream_iterator<std::string>(rest), {}};
        if (verb == "module") {
            loadModule(words.at(0));
        } else if (verb == "write") {
            write(words.at(0), words.at(1));
        } else if (verb == "folder") {
            must(mkdir(words.at(0).c_str(), 0755) == 0, "folder " + words.at(0));
        } else if (verb == "show") {
            say("begin " + words.at(0));
            std::fputs(contentsOf(words.at(1)).c_str(), stdout);
            say("end " + words.at(0) + ": shown");
        } else if (verb == "cores") {
            manner.theyLeaveCores = words.at(0) == "on";
        } else if (verb == "processors") {
            manner.processorCount = std::stoi(words.at(0));
        } else if (verb == "run") {
            run(manner, words.at(0), std::stoi(words.at(1)), Words(words.begin() + 2, words.end()));
        } else if (verb == "carry") {
            carry(words.at(0));
        } else {
            throw std::runtime_error("not a line of a plan: " + line);
        }
    }
    say("done");
}

} // namespace

int main() {
    try {
        mountAll();
        takeConsole();
        unsetenv("TERM"); // programs are not to write in colours
        sigset_t child;
        sigemptyset(&child);
        sigaddset(&child, SIGCHLD);
        sigprocmask(SIG_BLOCK, &child, nullptr);
        say("up");
        follow(contentsOf("/plan"));
    } catch (const std::exception& why) {
        say(std::string("failed: ") + why.what());
    }
    tcdrain(STDOUT_FILENO);
    reboot(RB_POWER_OFF);
}
