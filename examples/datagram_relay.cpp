// Receives UDP datagrams, inverts every bit of them, and sends them on, until SIGINT or SIGTERM.
//
//     datagram_relay FROM TO [--blocks N] [--workers N] [--cache N]
//
// FROM and TO are an IPv4 address and a port each, as in 127.0.0.1:9000. With port 0 in FROM the system chooses one: the
// first line of the output says which.
//
//     socket ---> receiving thread --- tokens of blocks ---> workers: invert, send
//                       ^                                       |
//                       +------------- free blocks -------------+
//
// The blocks bound the memory. When all of them are on their way, the relay stops reading until the pool's descriptor
// says that one is free. What comes meanwhile waits in the socket, whose buffer is bounded as well: the kernel drops what
// it has no room for, and counts it.
#include <gilvane/base/gvexception.h>
#include <gilvane/utilities/gvsharedpool.h>
#include <gilvane/utilities/gvsharedtokenlease.h>
#include <gilvane/utilities/gvtokencache.h>

#include <blockingconcurrentqueue.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <fstream>
#include <iterator>
#include <new>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <vector>

using Gilvane::GVSharedPool;
using Gilvane::GVSharedPoolStatistics;
using Gilvane::GVSharedTokenLease;
using Gilvane::GVTokenCache;

namespace {

constexpr const char* usage = "usage: datagram_relay FROM TO [--blocks N] [--workers N] [--cache N]";

// --- options ---------------------------------------------------------------------------------------------------------

struct Options {
    sockaddr_in from{};
    sockaddr_in to{};
    unsigned int blocks = 64;
    unsigned int workers = std::clamp(std::thread::hardware_concurrency(), 1U, 256U);
    unsigned int cache = 8; // tokens in the cache of each thread
};

[[noreturn]] void refuse(const std::string& reason) { throw std::invalid_argument(reason + "; " + usage); }

unsigned int parseNumber(std::string_view text, const std::string& name, unsigned int least, unsigned int most) {
    unsigned int number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size() || number < least || number > most) {
        refuse(name + " takes a number from " + std::to_string(least) + " to " + std::to_string(most));
    }
    return number;
}

sockaddr_in parseAddress(const std::string& text, unsigned int leastPort) {
    const std::size_t colon = std::min(text.find(':'), text.size());
    sockaddr_in address{};
    address.sin_family = AF_INET;
    if (::inet_pton(AF_INET, text.substr(0, colon).c_str(), &address.sin_addr) != 1 || colon == text.size()) {
        refuse("not an IPv4 address and a port: " + text);
    }
    address.sin_port = htons(static_cast<std::uint16_t>(parseNumber(text.substr(colon + 1), text, leastPort, 65535)));
    return address;
}

Options parse(const std::vector<std::string>& arguments) {
    if (arguments.size() < 2 || arguments.size() % 2 != 0) {
        refuse("needs two addresses, and a number with each option");
    }
    Options options;
    options.from = parseAddress(arguments[0], 0);
    options.to = parseAddress(arguments[1], 1);
    for (std::size_t argument = 2; argument < arguments.size(); argument += 2) {
        const std::string& name = arguments[argument];
        const std::string& number = arguments[argument + 1];
        if (name == "--blocks") {
            options.blocks = parseNumber(number, name, 1, 65536);
        } else if (name == "--workers") {
            options.workers = parseNumber(number, name, 1, 256);
        } else if (name == "--cache") {
            options.cache = parseNumber(number, name, 1, 65536);
        } else {
            refuse("unknown option " + name);
        }
    }
    return options;
}

// --- descriptors -----------------------------------------------------------------------------------------------------

[[noreturn]] void fail(const char* action) {
    throw std::system_error(errno, std::generic_category(), std::string("cannot ") + action);
}

// A descriptor that closes itself. Made of what a system call returned.
class Descriptor {
  public:
    Descriptor(int descriptor, const char* action) : number(descriptor) {
        if (number < 0) {
            fail(action);
        }
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() { ::close(number); }

    int get() const noexcept { return number; }

  private:
    int number;
};

// Blocks the signals that end the relay, also in the threads that are started later.
sigset_t blockEndingSignals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    return set;
}

// Datagrams that the kernel dropped because a socket's buffer was full, as the kernel's list of sockets says.
std::string countDropped(const Descriptor& socket) {
    constexpr std::size_t inode = 9; // columns of the list, counted from 0
    constexpr std::size_t drops = 12;
    struct stat status {};
    if (::fstat(socket.get(), &status) == 0) {
        std::ifstream list("/proc/net/udp");
        for (std::string line; std::getline(list, line);) {
            std::istringstream words(line);
            const std::vector<std::string> columns{std::istream_iterator<std::string>(words), {}};
            if (columns.size() > drops && columns[inode] == std::to_string(status.st_ino)) {
                return columns[drops];
            }
        }
    }
    return "unknown";
}

// --- the relay -------------------------------------------------------------------------------------------------------

// What a block holds.
struct Datagram {
    std::size_t byteCount;
    std::array<unsigned char, 65507> bytes; // the longest that UDP over IPv4 carries
};

// The threads and what they share. One thread makes it, runs it and receives.
class Relay {
  public:
    explicit Relay(const Options& options);
    Relay(const Relay&) = delete;
    Relay& operator=(const Relay&) = delete;
    ~Relay() { endWorkers(); }

    // Relays until a signal comes and all that was received is sent.
    void run();
    void printStatistics() const;

  private:
    void watch(int descriptor, bool wanted);
    void receive();
    void pause(bool paused);
    void handOver(std::optional<unsigned int> token);
    void work();
    void endWorkers();

    const Options options;
    GVSharedPool pool;
    GVTokenCache cache; // the receiving thread's
    const Descriptor source;
    const Descriptor destination;
    const Descriptor signals;
    const Descriptor events;

    // Tokens of blocks that hold a datagram. An empty one ends the worker that takes it.
    moodycamel::BlockingConcurrentQueue<std::optional<unsigned int>> queue;
    std::vector<std::thread> workers;

    std::uint64_t receivedCount = 0; // datagrams, as all that follow
    std::uint64_t pauseCount = 0;    // times that reading stopped for want of a block
    std::atomic<std::uint64_t> sentCount{0};
    std::atomic<std::uint64_t> refusedCount{0}; // could not be sent
};

Relay::Relay(const Options& given)
    : options(given), pool(options.blocks, sizeof(Datagram)), cache(pool, options.cache),
      source(::socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0), "make a socket"),
      destination(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0), "make a socket"),
      signals([set = blockEndingSignals()] { return ::signalfd(-1, &set, SFD_CLOEXEC); }(), "wait for signals"),
      events(::epoll_create1(EPOLL_CLOEXEC), "wait for events") {
    if (::bind(source.get(), reinterpret_cast<const sockaddr*>(&options.from), sizeof(options.from)) != 0) {
        fail("receive at this address");
    }
    if (::connect(destination.get(), reinterpret_cast<const sockaddr*>(&options.to), sizeof(options.to)) != 0) {
        fail("send to this address");
    }
    for (const int descriptor : {source.get(), signals.get(), pool.getDescriptor()}) {
        epoll_event event{};
        event.data.fd = descriptor;
        if (::epoll_ctl(events.get(), EPOLL_CTL_ADD, descriptor, &event) != 0) {
            fail("wait for events");
        }
    }
}

void Relay::run() {
    for (unsigned int worker = 0; worker < options.workers; ++worker) {
        workers.emplace_back([this] { work(); });
    }
    sockaddr_in bound{};
    socklen_t length = sizeof(bound);
    if (::getsockname(source.get(), reinterpret_cast<sockaddr*>(&bound), &length) != 0) {
        fail("tell the port");
    }
    std::printf("receiving at port %u\n", static_cast<unsigned int>(ntohs(bound.sin_port)));
    std::fflush(stdout);

    watch(signals.get(), true);
    watch(source.get(), true);
    for (epoll_event event{}; event.data.fd != signals.get();) {
        if (::epoll_wait(events.get(), &event, 1, -1) < 0) {
            if (errno != EINTR) {
                fail("wait for events");
            }
        } else if (event.data.fd == source.get()) {
            receive();
        } else if (event.data.fd == pool.getDescriptor()) {
            pause(false);
        }
    }
    endWorkers();
}

// Whether events of a descriptor are wanted at present.
void Relay::watch(int descriptor, bool wanted) {
    epoll_event event{};
    event.events = wanted ? static_cast<std::uint32_t>(EPOLLIN) : 0;
    event.data.fd = descriptor;
    if (::epoll_ctl(events.get(), EPOLL_CTL_MOD, descriptor, &event) != 0) {
        fail("wait for events");
    }
}

// Reads what there is. Under a steady stream of datagrams it looks for signals from time to time.
void Relay::receive() {
    constexpr unsigned int mostAtOnce = 64;
    for (unsigned int count = 0; count < mostAtOnce; ++count) {
        GVSharedTokenLease lease(cache);
        if (!lease) {
            ++pauseCount;
            pause(true);
            return;
        }
        auto& datagram = lease.as<Datagram>();
        const ssize_t length = ::recv(source.get(), datagram.bytes.data(), datagram.bytes.size(), 0);
        if (length < 0) {
            if (errno != EAGAIN && errno != EINTR) {
                fail("receive");
            }
            return; // the lease returns the block
        }
        datagram.byteCount = static_cast<std::size_t>(length);
        ++receivedCount;
        handOver(lease.release());
    }
}

// Waits for a free block in place of a datagram, or the other way round.
void Relay::pause(bool paused) {
    watch(source.get(), !paused);
    watch(pool.getDescriptor(), paused);
}

void Relay::handOver(std::optional<unsigned int> token) {
    if (!queue.enqueue(token)) {
        throw std::bad_alloc();
    }
}

void Relay::work() {
    GVTokenCache mine(pool, options.cache);
    for (;;) {
        std::optional<unsigned int> token;
        if (!queue.try_dequeue(token)) {
            // Nobody reaches what lies in the cache of a thread that waits.
            mine.flush();
            queue.wait_dequeue(token);
        }
        if (!token.has_value()) {
            return;
        }
        auto& datagram = *static_cast<Datagram*>(mine.getMemoryForToken(*token));
        unsigned char* const bytes = datagram.bytes.data();
        std::transform(bytes, bytes + datagram.byteCount, bytes,
                       [](unsigned char byte) { return static_cast<unsigned char>(~byte); });
        if (::send(destination.get(), bytes, datagram.byteCount, 0) < 0) {
            ++refusedCount; // nobody is there, for one
        } else {
            ++sentCount;
        }
        mine.releaseObject(*token);
    }
}

// The marks of the end are behind all tokens in the queue: what was received is sent.
void Relay::endWorkers() {
    for (std::size_t worker = 0; worker < workers.size(); ++worker) {
        handOver(std::nullopt);
    }
    for (std::thread& worker : workers) {
        worker.join();
    }
    workers.clear();
}

void Relay::printStatistics() const {
    const GVSharedPoolStatistics statistics = pool.getStatistics();
    std::printf("received: %llu\n", static_cast<unsigned long long>(receivedCount));
    std::printf("dropped by the kernel, unread: %s\n", countDropped(source).c_str());
    std::printf("sent: %llu\n", static_cast<unsigned long long>(sentCount.load()));
    std::printf("could not be sent: %llu\n", static_cast<unsigned long long>(refusedCount.load()));
    std::printf("pauses for want of a block: %llu\n", static_cast<unsigned long long>(pauseCount));
    std::printf("blocks: %u\n", statistics.theNumberOfObjects);
    std::printf("most lent or in caches: %u\n", statistics.theHighestLentCount);
    std::printf("still lent: %u\n", statistics.theLentCount);
}

} // namespace

int main(int argumentCount, char** arguments) {
    try {
        Relay relay(parse({arguments + 1, arguments + argumentCount}));
        relay.run();
        relay.printStatistics();
        return 0;
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "datagram_relay: %s\n", failure.what());
    } catch (const Gilvane::GVException& failure) {
        std::fprintf(stderr, "datagram_relay: %s\n", failure.getMessage());
    }
    return 1;
}
