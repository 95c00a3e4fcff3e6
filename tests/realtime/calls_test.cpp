// A filled shared pool allocates nothing, and calls the system only to wait, to wake, under contention, and when its
// descriptor's readiness changes. Each count is taken in a process of its own, which may not call the system.
#include "workload.h"

#include <gilvane/base/gvobject.h>
#include <gilvane/utilities/gvmemorypool.h>
#include <gilvane/utilities/gvsharedpool.h>
#include <gilvane/utilities/gvtokencache.h>

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <new>
#include <thread>
#include <vector>

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// Whether allocations and refused system calls of this process are counted. malloc is called before main already.
std::atomic<bool> isCounting{false};
std::atomic<unsigned long> theAllocationCount{0};

void countAllocation() {
    if (isCounting.load(std::memory_order_relaxed)) {
        theAllocationCount.fetch_add(1, std::memory_order_relaxed);
    }
}

} // namespace

// In place of the C library's, whose own are called so. operator new and the default allocation hook end here, too.
extern "C" {
// NOLINTBEGIN(bugprone-reserved-identifier,readability-inconsistent-declaration-parameter-name)
void* __libc_malloc(std::size_t bytes);
void* __libc_calloc(std::size_t count, std::size_t bytes);
void* __libc_realloc(void* start, std::size_t bytes);
void* __libc_memalign(std::size_t alignment, std::size_t bytes);
void __libc_free(void* start);

void* malloc(std::size_t bytes) {
    countAllocation();
    return __libc_malloc(bytes);
}
void* calloc(std::size_t count, std::size_t bytes) {
    countAllocation();
    return __libc_calloc(count, bytes);
}
void* realloc(void* start, std::size_t bytes) {
    countAllocation();
    return __libc_realloc(start, bytes);
}
void* memalign(std::size_t alignment, std::size_t bytes) {
    countAllocation();
    return __libc_memalign(alignment, bytes);
}
void* aligned_alloc(std::size_t alignment, std::size_t bytes) {
    countAllocation();
    return __libc_memalign(alignment, bytes);
}
int posix_memalign(void** start, std::size_t alignment, std::size_t bytes) {
    countAllocation();
    *start = __libc_memalign(alignment, bytes);
    return *start != nullptr ? 0 : ENOMEM;
}
void free(void* start) {
    if (start != nullptr) {
        countAllocation();
    }
    __libc_free(start);
}
// NOLINTEND(bugprone-reserved-identifier,readability-inconsistent-declaration-parameter-name)
}

namespace Gilvane {

namespace {

constexpr unsigned long operationCount = 1000000;
constexpr unsigned int numberOfBlocks = 32;

// What a child process tells its parent, in memory that they share.
struct Report {
    static constexpr unsigned int mostCalls = 512;

    bool isFiltered; // whether the system takes a filter of system calls
    bool hasEnded;
    unsigned long allocations;                   // and releases
    std::atomic<unsigned long> calls[mostCalls]; // refused ones, by their number, the last one for all above
    std::array<unsigned long, Workload::numberOfOperations> done;
    unsigned long vain;

    unsigned long callsOf(unsigned int number) const { return calls[number].load(); }
    unsigned long allCalls() const {
        unsigned long sum = 0;
        for (const std::atomic<unsigned long>& count : calls) {
            sum += count.load();
        }
        return sum;
    }
};

Report* theReport = nullptr; // the child's

// The refused call returns something; whoever made it goes on.
void noteCall(int, siginfo_t* information, void*) {
    const auto number = static_cast<unsigned int>(information->si_syscall);
    if (!isCounting) {
        return;
    }
    ++theReport->calls[number < Report::mostCalls ? number : Report::mostCalls - 1];
}

// From here on the calling thread's system calls are refused and counted, but for those in the list.
bool refuseSystemCalls(std::vector<unsigned int> allowed) {
    struct sigaction action = {};
    action.sa_sigaction = &noteCall;
    action.sa_flags = SA_SIGINFO | SA_NODEFER;
    sigaction(SIGSYS, &action, nullptr);
    allowed.push_back(SYS_rt_sigreturn);
    allowed.push_back(SYS_exit_group);
    allowed.push_back(SYS_clock_gettime); // no call of the system's but where its clock cannot be read without one
    std::vector<sock_filter> filter;
    filter.push_back(BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)));
    for (const unsigned int number : allowed) {
        filter.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, number, 0, 1));
        filter.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
    }
    filter.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_TRAP));
    const sock_fprog program = {static_cast<unsigned short>(filter.size()), filter.data()};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

// Runs `work` in a process of its own, which ends with it.
template <typename Work>
class Child {
  public:
    explicit Child(Work work) {
        theMemory = mmap(nullptr, sizeof(Report), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        EXPECT_NE(theMemory, MAP_FAILED);
        theReport = ::new (theMemory) Report{};
        const pid_t child = fork();
        if (child == 0) {
            alarm(60); // ends what waits for ever
            work();
            theReport->hasEnded = true;
            _exit(0);
        }
        int status = -1;
        waitpid(child, &status, 0);
        EXPECT_EQ(status, 0);
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    ~Child() { munmap(theMemory, sizeof(Report)); }

    const Report& report() const { return *static_cast<const Report*>(theMemory); }

  private:
    void* theMemory;
};

// Counts what `operation` allocates and calls, after what may allocate and call has been done.
template <typename Operation>
void count(Operation operation, std::vector<unsigned int> allowed = {}) {
    theReport->isFiltered = refuseSystemCalls(std::move(allowed));
    if (!theReport->isFiltered) {
        return;
    }
    isCounting = true;
    operation();
    isCounting = false;
    theReport->allocations = theAllocationCount;
}

// The whole workload in one thread, and then a closed pool.
void useAlone(GVSharedPool& pool, GVTokenCache* cache) {
    Workload workload(pool, cache, 1);
    workload.run(operationCount);
    workload.end();
    pool.close();
    pool.close();
    theReport->vain = workload.vainCount() + (pool.tryBorrow().has_value() ? 0 : 1);
    theReport->done = workload.doneCounts();
}

void expectNothing(const Report& report) {
    EXPECT_TRUE(report.hasEnded);
    EXPECT_EQ(report.allocations, 0U);
    EXPECT_EQ(report.allCalls(), 0U);
}

} // namespace

#define SKIP_WITHOUT_FILTER(report)                                                                                    \
    if (!(report).isFiltered) {                                                                                        \
        GTEST_SKIP() << "the system takes no filter of system calls here (seccomp)";                                   \
    }

TEST(RealTimeCalls, ofAMillionOperationsOfAFilledPoolAreNone) {
    for (const GVMutexProtocol protocol : {gvnoprotocol, gvpriorityinheritance}) {
        const Child child([&] {
            GVSharedPool pool(numberOfBlocks, 64, protocol);
            count([&] { useAlone(pool, nullptr); });
        });
        SKIP_WITHOUT_FILTER(child.report());
        expectNothing(child.report());
        EXPECT_GT(child.report().vain, 1000U) << "the pool was dry at times";
        for (const unsigned long done : child.report().done) {
            EXPECT_GT(done, operationCount / 50);
        }
    }
}

TEST(RealTimeCalls, ofAMillionOperationsBehindACacheAreNone) {
    for (const unsigned int capacity : {1U, 8U, 64U}) {
        const Child child([&] {
            GVSharedPool pool(numberOfBlocks, 64);
            GVTokenCache cache(pool, capacity);
            count([&] { useAlone(pool, &cache); });
        });
        SKIP_WITHOUT_FILTER(child.report());
        expectNothing(child.report());
        EXPECT_GT(child.report().vain, 1000U) << "the cache and the pool were dry at times";
        for (const unsigned long done : child.report().done) {
            EXPECT_GT(done, operationCount / 50);
        }
    }
}

TEST(RealTimeCalls, ofThreadsThatShareAPoolAreForItsLockAndItsWaitsAlone) {
    constexpr unsigned int numberOfThreads = 3;
    for (const GVMutexProtocol protocol : {gvnoprotocol, gvpriorityinheritance}) {
        const Child child([&] {
            GVSharedPool pool(numberOfBlocks, 64, protocol);
            std::atomic<unsigned int> ready(0);
            std::atomic<unsigned int> ended(0);
            std::atomic<unsigned int> filtered(0);
            std::atomic<bool> isOver(false);
            std::vector<std::thread> threads;
            for (unsigned int self = 0; self < numberOfThreads; ++self) {
                threads.emplace_back([&, self] {
                    GVTokenCache cache(pool, 8);
                    Workload workload(pool, self == 0 ? nullptr : &cache, self + 1);
                    filtered += refuseSystemCalls({SYS_futex}) ? 1 : 0;
                    ++ready;
                    while (ready != numberOfThreads) {
                    }
                    isCounting = true;
                    workload.run(operationCount / numberOfThreads);
                    workload.end();
                    ++ended;
                    while (!isOver) { // the end of a thread calls the system
                    }
                });
            }
            while (ended != numberOfThreads) {
                std::this_thread::yield();
            }
            isCounting = false;
            theReport->allocations = theAllocationCount;
            theReport->isFiltered = filtered == numberOfThreads;
            theReport->hasEnded = true;
            _exit(0);
        });
        SKIP_WITHOUT_FILTER(child.report());
        expectNothing(child.report());
    }
}

TEST(RealTimeCalls, ofADescriptorAreOneForEachChangeOfItsReadiness) {
    constexpr unsigned long rounds = 1000;
    const Child child([] {
        GVSharedPool pool(2, 64);
        pool.getDescriptor();
        count([&] {
            for (unsigned long round = 0; round < rounds; ++round) {
                const unsigned int first = *pool.tryBorrow();
                const unsigned int second = *pool.tryBorrow(); // the last one
                pool.releaseObject(first);                     // the first one
                pool.releaseObject(second);
            }
        });
    });
    SKIP_WITHOUT_FILTER(child.report());
    EXPECT_TRUE(child.report().hasEnded);
    EXPECT_EQ(child.report().allocations, 0U);
    EXPECT_EQ(child.report().callsOf(SYS_read), rounds);
    EXPECT_EQ(child.report().callsOf(SYS_write), rounds);
    EXPECT_EQ(child.report().allCalls(), 2 * rounds);
}

// --- the counts can fail ---------------------------------------------------------------------------------------------

TEST(RealTimeCounts, seeAnAllocationOfEachKind) {
    const Child child([] {
        count([] {
            GVObject::operator delete(GVObject::operator new(8)); // by the default hooks
            ::operator delete(::operator new(8));
            std::free(std::malloc(8)); // NOLINT(cppcoreguidelines-no-malloc)
        });
    });
    SKIP_WITHOUT_FILTER(child.report());
    EXPECT_EQ(child.report().allocations, 6U);
}

TEST(RealTimeCounts, seeThatAPoolOfTheOtherKindGrows) {
    const Child child([] {
        GVMemoryPool pool(2, 16, false);
        count([&] {
            for (int loan = 0; loan < 3; ++loan) {
                pool.getTokenForFreeMemoryObject();
            }
        });
    });
    SKIP_WITHOUT_FILTER(child.report());
    EXPECT_GT(child.report().allocations, 0U);
}

TEST(RealTimeCounts, seeASystemCall) {
    const Child child([] {
        GVSharedPool pool(2, 16);
        count([&] {
            const unsigned int token = *pool.tryBorrow();
            syscall(SYS_getppid);
            pool.releaseObject(token);
        });
    });
    SKIP_WITHOUT_FILTER(child.report());
    EXPECT_EQ(child.report().callsOf(SYS_getppid), 1U);
    EXPECT_EQ(child.report().allCalls(), 1U);
}

TEST(RealTimeCounts, seeThatAWaiterIsWoken) {
    const Child child([] {
        GVSharedPool pool(1, 16);
        const unsigned int token = *pool.tryBorrow();
        std::thread waiter([&] { static_cast<void>(pool.borrow()); });
        while (pool.getStatistics().theWaitCount == 0) {
            std::this_thread::yield();
        }
        count([&] { pool.releaseObject(token); }); // nobody is woken: the call is refused
        theReport->hasEnded = true;
        _exit(0);
    });
    SKIP_WITHOUT_FILTER(child.report());
    EXPECT_EQ(child.report().callsOf(SYS_futex), 1U);
    EXPECT_EQ(child.report().allCalls(), 1U);
}

} // namespace Gilvane
