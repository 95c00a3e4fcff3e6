// Runs listed programs of threads over a shared pool, with caches and without, under every order of their steps, or
// under every one with few preemptions.
//
//   sharing [--short] [FIGURES]
//
// A step is an access to an atomic word, a lock taken or released, sleep and wake-up; each is done at one moment for all
// threads. Orders of steps that do not touch the same thing come to the same, and one of them is enough: two schedules
// that gave each shared thing the same history are in the same state, and what follows is explored once.
//
// No token may be lent to two, none may be lost, none lent after the pool was closed, none refused while a block was
// free all the time; no thread may sleep while a block is free. All threads may sleep only for blocks that nobody gives
// back, or that lie in caches of threads that have ended. Exit status 1: one of these is broken.
#include "../interleavings/scheduler.h"
#include "programs.h"
#include "sharedworld.h"

#include <gilvane/base/gvexception.h>
#include <gilvane/utilities/gvsharedpool.h>
#include <gilvane/utilities/gvtokencache.h>

#include <gvtestpeer.h>
#include <testclock.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <optional>
#include <set>
#include <unordered_set>
#include <vector>

namespace Gilvane::Sharing {

using Interleavings::Coroutine;
using Interleavings::DepthFirst;
using Interleavings::Event;
using Interleavings::Step;

namespace {

constexpr int outside = 3; // in the place of a thread: what comes before and after them
constexpr std::size_t mostThreads = outside;
constexpr unsigned int mostShared = 32;      // things that a thread makes
constexpr unsigned int mostClockAnswers = 1; // that a time is not over yet, in one operation

std::uint64_t mixed(std::uint64_t one, std::uint64_t other) {
    std::uint64_t sum = one * 0x9e3779b97f4a7c15U + other + 0x632be59bd9b4e019U;
    sum = (sum ^ (sum >> 30U)) * 0xbf58476d1ce4e5b9U;
    sum = (sum ^ (sum >> 27U)) * 0x94d049bb133111ebU;
    return sum ^ (sum >> 31U);
}

// Memory of one schedule: it is all given back at once, since threads may be given up in the middle.
class Arena {
  public:
    static void* allocate(unsigned int bytes) {
        const std::size_t rounded =
            (bytes + 2 * sizeof(std::max_align_t) - 1) / sizeof(std::max_align_t) * sizeof(std::max_align_t);
        if (theUsed + rounded > sizeof theBytes) {
            return nullptr;
        }
        void* const found = theBytes + theUsed + alignof(std::max_align_t) - sizeof(void*); // behind a header word
        theUsed += rounded;
        return found;
    }
    static void release(void*) {}
    static void reset() { theUsed = 0; }

  private:
    alignas(std::max_align_t) static inline char theBytes[1U << 16U];
    static inline std::size_t theUsed = 0;
};

// What a thread of the program is at.
struct Runner {
    std::unique_ptr<Coroutine> coroutine;
    Event next{};
    std::uint64_t history = 0; // of what it did, and of what that met
    std::vector<unsigned int> held;
    GVTokenCache* cache = nullptr;
    bool isInOperation = false;
    bool isBetweenOperations = false; // has ended one, and has not done anything since
    bool isAwake = true;              // nobody has to wake it
    std::uint32_t mark = 0;           // by which it is woken
    std::uint32_t marksToWake = 0;    // it is on its way to wake these
    unsigned int mostBusy = 0;        // blocks that may have been out of reach at a time during the operation
    bool wasClosedBefore = false;     // the operation
    unsigned int clockAnswers = 0;
    unsigned int sharedMade = 0;
    unsigned int operationsDone = 0;
    bool hasWorkedForNobody = false;                  // the cache, though a thread waited
    std::array<unsigned int, mostThreads> sleepers{}; // when the operation began: of each thread asleep, the operation
};

const Program* theProgram = nullptr;
std::array<Runner, mostThreads + 1> theRunners;
// Of each shared thing: a word's value; what was done under a lock up to its last release.
std::array<std::uint64_t, (mostThreads + 1) * mostShared> theContents;
std::uint64_t theSum = 0;                                   // of all contents
std::array<int, (mostThreads + 1) * mostShared> theHolders; // of each lock; -1: nobody
int theCurrent = outside;
unsigned int thePicked = 0;
GVSharedPool* thePool = nullptr;
bool isClosing = false; // a thread has begun to close the pool
bool wasClosed = false; // and has ended it
struct TraceEntry {
    int thread;
    Event event;
    unsigned int picked;
};
std::vector<TraceEntry> theTrace;

Runner& runner(int number) { return theRunners[static_cast<std::size_t>(number)]; }

void setContent(unsigned int number, std::uint64_t content) {
    theSum += mixed(number + 1, content) - mixed(number + 1, theContents[number]);
    theContents[number] = content;
}

// Adds to what the thread that runs has met.
void note(std::uint64_t what) { runner(theCurrent).history = mixed(runner(theCurrent).history, what); }

std::string textOf(const TraceEntry& entry) {
    const std::string subject = std::to_string(entry.event.subject);
    switch (entry.event.step) {
    case Step::lock:
        return "takes lock " + subject;
    case Step::unlock:
        return "releases lock " + subject;
    case Step::read:
        return "reads word " + subject;
    case Step::write:
        return "writes word " + subject;
    case Step::sleep:
        return "wakes up at word " + subject;
    case Step::doze:
        return "wakes up, perhaps by itself, at word " + subject;
    case Step::wake:
        return "wakes who sleeps at word " + subject;
    case Step::choose:
        return "goes on in way " + std::to_string(entry.picked) + " of " + subject;
    default:
        return "ends";
    }
}

[[noreturn]] void wrong(const std::string& what) {
    std::printf("program '%s': wrong: %s; after\n", theProgram->name.c_str(), what.c_str());
    for (const TraceEntry& entry : theTrace) {
        std::printf("      %*sthread %d %s\n", 4 * entry.thread, "", entry.thread + 1, textOf(entry).c_str());
    }
    std::fflush(stdout);
    std::_Exit(1); // perhaps from a thread of the program, whose stack a destructor would take away
}

// --- what the threads do ----------------------------------------------------------------------------------------------

// The clock of borrowUntil: the explorer decides whether the time is over, and it stays so.
struct Clock : TestClock<Clock, std::chrono::seconds> {
    static time_point now() noexcept {
        Runner& self = runner(theCurrent);
        if (self.clockAnswers < mostClockAnswers && choose(2) == 0) {
            ++self.clockAnswers;
            return time_point(duration(0));
        }
        runner(theCurrent).clockAnswers = mostClockAnswers;
        return time_point(duration(2));
    }
};

// Blocks that others may have, or may be about to have or to give back.
unsigned int busyBeside(int number) {
    unsigned int busy = 0;
    for (int other = 0; other < static_cast<int>(theProgram->threads.size()); ++other) {
        const Runner& thread = runner(other);
        busy += static_cast<unsigned int>(thread.held.size());
        if (other != number) {
            busy += (thread.isInOperation ? 1 : 0) + theProgram->threads[static_cast<std::size_t>(other)].capacity;
        }
    }
    return busy;
}

void noteBusy() {
    for (int number = 0; number < static_cast<int>(theProgram->threads.size()); ++number) {
        Runner& thread = runner(number);
        if (thread.isInOperation) {
            thread.mostBusy = std::max(thread.mostBusy, busyBeside(number));
        }
    }
}

void take(int number, std::optional<unsigned int> token, bool waited) {
    Runner& self = runner(number);
    if (!token) {
        if (!isClosing && !waited && self.mostBusy < theProgram->blocks) {
            wrong("a loan finds nothing, though a block was free all the time");
        }
        return;
    }
    if (self.wasClosedBefore) {
        wrong("a closed pool lends");
    }
    for (const Runner& other : theRunners) {
        if (std::find(other.held.begin(), other.held.end(), *token) != other.held.end()) {
            wrong("a token is lent to two");
        }
    }
    if (thePool->getMemoryForToken(*token) == nullptr) {
        wrong("a block has no address");
    }
    self.held.push_back(*token);
}

void checkStatistics() {
    const GVSharedPoolStatistics statistics = thePool->getStatistics();
    if (statistics.theLentCount + statistics.theCachedCount + statistics.theFreeCount != theProgram->blocks ||
        statistics.theFreeCount > theProgram->blocks || statistics.theCachedCount > theProgram->blocks) {
        wrong("the statistics do not add up");
    }
}

template <typename Lender>
void lendBy(Lender& lender, Do what, int number) {
    const Clock::time_point deadline(Clock::duration(1));
    switch (what) {
    case tryBorrow:
        take(number, lender.tryBorrow(), false);
        break;
    case borrow:
        take(number, lender.borrow(), true);
        if (runner(number).held.empty() && !isClosing) {
            wrong("a loan that waits ends without a block");
        }
        break;
    default:
        take(number, lender.borrowUntil(deadline), runner(number).clockAnswers != 0);
        break;
    }
}

void perform(Do what, int number) {
    Runner& self = runner(number);
    switch (what) {
    case tryBorrow:
    case borrow:
    case borrowFor:
        if (self.cache != nullptr) {
            lendBy(*self.cache, what, number);
        } else {
            lendBy(*thePool, what, number);
        }
        break;
    case giveBack:
    case giveToPool:
        if (!self.held.empty()) {
            const unsigned int token = self.held.back();
            self.held.pop_back();
            if (self.cache != nullptr && what == giveBack) {
                self.cache->releaseObject(token);
            } else {
                thePool->releaseObject(token);
            }
        }
        break;
    case flush:
        if (self.cache != nullptr) {
            self.cache->flush();
        }
        break;
    case close:
        isClosing = true;
        thePool->close();
        wasClosed = true;
        break;
    case readStatistics:
        checkStatistics();
        break;
    }
}

// Between two operations all that is left of what a thread met is what it and its cache have.
void forgetHistory(Runner& self) {
    self.history = ++self.operationsDone;
    for (const unsigned int token : self.held) {
        self.history = mixed(self.history, token + 1);
    }
    self.isBetweenOperations = true;
}

// Who sleeps for a block, and in which of its operations; from 1 on. Whom another thread is about to wake has been seen to
// already.
unsigned int asleepIn(const Runner& thread) {
    const bool isSeenTo = std::any_of(theRunners.begin(), theRunners.end(), [&thread](const Runner& other) {
        return (other.marksToWake & thread.mark) != 0;
    });
    return !thread.isAwake && !isSeenTo && thread.isInOperation ? thread.operationsDone + 1 : 0;
}

void noteSleepers(Runner& self) {
    for (std::size_t number = 0; number < mostThreads; ++number) {
        self.sleepers[number] = asleepIn(theRunners[number]);
    }
}

// Whether a thread has slept for a block since before this one's operation began.
bool isAwaited(const Runner& self) {
    for (std::size_t number = 0; number < mostThreads; ++number) {
        if (self.sleepers[number] != 0 && self.sleepers[number] == asleepIn(theRunners[number])) {
            return true;
        }
    }
    return false;
}

// The cache's part, which only the explorer may look at without being asked for another turn.
void lookAtCache(Runner& self) {
    self.isBetweenOperations = false;
    if (self.cache == nullptr) {
        return;
    }
    const std::vector<unsigned int> tokens = GVTestPeer::tokensIn(*self.cache);
    for (const unsigned int token : tokens) {
        self.history = mixed(self.history, ~std::uint64_t{token});
    }
    if (!tokens.empty() && self.hasWorkedForNobody) {
        wrong("a cache keeps blocks for which a thread has waited since before it worked");
    }
}

void runThread(int number) {
    Runner& self = runner(number);
    for (const char what : theProgram->threads[static_cast<std::size_t>(number)].operations) {
        self.wasClosedBefore = wasClosed;
        self.clockAnswers = 0;
        self.mostBusy = busyBeside(number);
        self.isInOperation = true;
        noteBusy();
        noteSleepers(self);
        const bool worksOnCache =
            what == giveBack ? !self.held.empty() : what != giveToPool && what != readStatistics && what != close;
        perform(static_cast<Do>(what), number);
        self.isInOperation = false;
        noteBusy();
        self.hasWorkedForNobody = worksOnCache && isAwaited(self);
        forgetHistory(self);
    }
}

// --- schedules --------------------------------------------------------------------------------------------------------

void prepare() {
    Arena::reset();
    theTrace.clear();
    theContents.fill(0);
    theSum = 0;
    theHolders.fill(-1);
    isClosing = false;
    wasClosed = false;
    for (Runner& each : theRunners) {
        each.history = 0;
        each.held.clear();
        each.cache = nullptr;
        each.isInOperation = false;
        each.isBetweenOperations = false;
        each.isAwake = true;
        each.marksToWake = 0;
        each.sharedMade = 0;
        each.operationsDone = 0;
    }
    theCurrent = outside;
    GVTestPeer::nextToken() = 0;
    thePool = new GVSharedPool(theProgram->blocks, 1);
    for (int number = 0; number < static_cast<int>(theProgram->threads.size()); ++number) {
        const unsigned int capacity = theProgram->threads[static_cast<std::size_t>(number)].capacity;
        runner(number).cache = capacity != 0 ? new GVTokenCache(*thePool, capacity) : nullptr;
        runner(number).history = mixed(static_cast<std::uint64_t>(number) + 1, 0);
    }
    for (int number = 0; number < static_cast<int>(theProgram->threads.size()); ++number) {
        theCurrent = number;
        runner(number).coroutine->restart();
        runner(number).next = runner(number).coroutine->resume();
    }
}

bool isEnabled(const Runner& thread) {
    switch (thread.next.step) {
    case Step::finished:
        return false;
    case Step::lock:
        return theHolders[thread.next.subject] < 0;
    case Step::sleep:
        return thread.isAwake;
    default:
        return true;
    }
}

// A thread takes its step, and goes on to its next one.
void step(int number, DepthFirst& chooser) {
    Runner& thread = runner(number);
    theCurrent = number;
    if (thread.next.step == Step::choose) {
        thePicked = chooser.pick(thread.next.subject);
    }
    theTrace.push_back({number, thread.next, thePicked});
    note(static_cast<std::uint64_t>(thread.next.step));
    thread.next = thread.coroutine->resume();
    if (thread.isBetweenOperations) {
        lookAtCache(thread);
    }
}

// Two states are the same when every thread has met the same since its operation began, and will meet the same: what it
// read, what it found under the lock, what is in each word now, who is awake.
std::uint64_t stateNumber(unsigned int preemptions, int current, bool isBounded) {
    std::uint64_t state = isBounded ? mixed(preemptions, static_cast<unsigned int>(current + 1)) : 0;
    state = mixed(state, (isClosing ? 2U : 0U) + (wasClosed ? 1U : 0U));
    for (const Runner& thread : theRunners) {
        state = mixed(mixed(state, thread.history), thread.isAwake ? 1 : 0);
        // What an operation will be judged by.
        if (thread.isInOperation) {
            state = mixed(mixed(state, thread.mostBusy), thread.wasClosedBefore ? 1 : 0);
            for (const unsigned int sleeper : thread.sleepers) {
                state = mixed(state, sleeper);
            }
        }
    }
    return mixed(state, theSum);
}

// All threads have ended: what is not held is free again, once the caches are gone.
void checkEnd() {
    theCurrent = outside;
    unsigned int held = 0;
    for (Runner& thread : theRunners) {
        held += static_cast<unsigned int>(thread.held.size());
        delete thread.cache;
    }
    const GVSharedPoolStatistics statistics = thePool->getStatistics();
    if (statistics.theFreeCount != theProgram->blocks - held || statistics.theLentCount != held) {
        wrong("a block is lost, or there is one too many");
    }
    std::set<unsigned int> tokens;
    for (const Runner& thread : theRunners) {
        tokens.insert(thread.held.begin(), thread.held.end());
    }
    while (const std::optional<unsigned int> token = thePool->tryBorrow()) {
        tokens.insert(*token);
    }
    if (!isClosing && tokens.size() != theProgram->blocks) {
        wrong("a block is lost, or lies in the free list twice");
    }
    delete thePool;
}

// No thread can go on.
void checkSleep() {
    theCurrent = outside;
    for (const int holder : theHolders) {
        if (holder >= 0) {
            wrong("a thread sleeps or has ended, and holds a lock");
        }
    }
    if (isClosing) {
        wrong("a thread sleeps though the pool was closed");
    }
    if (thePool->getStatistics().theFreeCount != 0) {
        wrong("a thread sleeps though a block is free");
    }
}

enum class Outcome { complete, asleep, known };

Outcome runSchedule(DepthFirst& chooser, std::unordered_set<std::uint64_t>& states, bool isBounded) {
    prepare();
    chooser.beginSchedule();
    int current = -1;
    std::vector<int> enabled;
    for (;;) {
        enabled.clear();
        bool allFinished = true;
        for (int number = 0; number < static_cast<int>(theProgram->threads.size()); ++number) {
            allFinished = allFinished && runner(number).next.step == Step::finished;
            if (isEnabled(runner(number))) {
                enabled.push_back(number);
            }
        }
        if (allFinished) {
            checkEnd();
            return Outcome::complete;
        }
        if (enabled.empty()) {
            checkSleep();
            return Outcome::asleep;
        }
        if (!chooser.repeats() && !states.insert(stateNumber(chooser.preemptions(), current, isBounded)).second) {
            return Outcome::known;
        }
        current = enabled.size() == 1 ? enabled.front() : chooser.choose(enabled, current);
        step(current, chooser);
    }
}

struct Totals {
    unsigned long programs = 0;
    unsigned long schedules = 0;
    unsigned long asleep = 0;
    unsigned long states = 0;
};

void explore(const Program& program, unsigned int bound, Totals& totals, bool isNamed) {
    theProgram = &program;
    DepthFirst chooser(bound);
    std::unordered_set<std::uint64_t> states;
    unsigned long schedules = 0;
    unsigned long asleep = 0;
    do {
        asleep += runSchedule(chooser, states, bound != DepthFirst::unbounded) == Outcome::asleep ? 1 : 0;
        ++schedules;
    } while (chooser.next());
    ++totals.programs;
    totals.schedules += schedules;
    totals.asleep += asleep;
    totals.states += states.size();
    if (isNamed) {
        std::printf("   %9zu states, %9lu schedules, %6lu end asleep: %s\n", states.size(), schedules, asleep,
                    program.name.c_str());
        std::fflush(stdout);
    }
}

int run(bool brief, const char* figuresFile) {
    GVObject::SetAllocationHooks(&Arena::allocate, &Arena::release);
    for (int number = 0; number < static_cast<int>(mostThreads); ++number) {
        runner(number).coroutine = std::make_unique<Coroutine>([number] { runThread(number); });
    }
    Totals two;
    Totals three;
    std::puts("== two threads of four operations, every schedule");
    for (const Program& program : programsOfTwo()) {
        explore(program, DepthFirst::unbounded, two, true);
    }
    const unsigned int mostPreemptions = brief ? 2 : 4;
    std::printf("== three threads of three operations, at most %u preemptions\n", mostPreemptions);
    for (const Program& program : programsOfThree()) {
        explore(program, mostPreemptions, three, true);
    }
    const unsigned int byChance = brief ? 20 : 500;
    std::printf("== %u programs of two threads by chance, and as many of three\n", byChance);
    for (unsigned int seed = 1; seed <= byChance; ++seed) {
        explore(randomProgram(seed, false), DepthFirst::unbounded, two, false);
        explore(randomProgram(seed, true), brief ? 1 : 3, three, false);
    }
    if (two.asleep == 0 || three.asleep == 0) {
        std::puts("no schedule ended asleep: the programs do not reach what they are to reach");
        return 3;
    }
    if (figuresFile != nullptr) {
        std::ofstream(figuresFile) << "programs of 2 threads x 4 operations, every schedule: " << two.programs << "\n"
                                   << "states of these: " << two.states << "\n"
                                   << "programs of 3 threads x 3 operations, few preemptions: " << three.programs
                                   << "\n"
                                   << "states of these: " << three.states << "\n"
                                   << "schedules: " << two.schedules + three.schedules << "\n"
                                   << "schedules that end asleep, as they may: " << two.asleep + three.asleep << "\n";
    }
    return 0;
}

} // namespace

// --- what the library's copy calls ------------------------------------------------------------------------------------

Shared::Shared() noexcept
    : theNumber(static_cast<unsigned int>(theCurrent) * mostShared + runner(theCurrent).sharedMade++ % mostShared) {
    if (runner(theCurrent).sharedMade > mostShared) {
        wrong("the explorer has no room for so many shared things");
    }
}

Word::Word(std::uint32_t value) noexcept : theValue(value) { setContent(theIdentity.number(), value); }

std::uint32_t Word::load(std::memory_order) const noexcept {
    Interleavings::at(Step::read, theIdentity.number());
    note(theValue);
    return theValue;
}

void Word::store(std::uint32_t value, std::memory_order) noexcept {
    Interleavings::at(Step::write, theIdentity.number());
    theValue = value;
    setContent(theIdentity.number(), value);
}

bool Word::compare_exchange_strong(std::uint32_t& expected, std::uint32_t desired, std::memory_order) noexcept {
    Interleavings::at(Step::write, theIdentity.number());
    note(theValue);
    if (theValue != expected) {
        expected = theValue;
        return false;
    }
    theValue = desired;
    setContent(theIdentity.number(), desired);
    return true;
}

void Word::sleepAt(std::uint32_t value, std::uint32_t mark, bool isTimed) noexcept {
    // The kernel looks at the word, and lets the thread sleep, at one moment.
    Interleavings::at(Step::read, theIdentity.number());
    note(theValue);
    if (theValue == value) {
        runner(theCurrent).isAwake = false;
        runner(theCurrent).mark = mark;
        Interleavings::at(isTimed ? Step::doze : Step::sleep, theIdentity.number());
        runner(theCurrent).isAwake = true;
    }
}

void Word::wake(std::uint32_t marks) const noexcept {
    const unsigned int number = theIdentity.number();
    runner(theCurrent).marksToWake = marks;
    Interleavings::at(Step::wake, number);
    runner(theCurrent).marksToWake = 0;
    for (Runner& thread : theRunners) {
        if (!thread.isAwake && thread.next.subject == number && (thread.mark & marks) != 0) {
            thread.isAwake = true;
        }
    }
}

namespace {

// What the lock guards. While threads wait, all that led there stands for it.
std::uint64_t contentUnderLock() {
    const GVTestPeer::SharedPoolState state = GVTestPeer::stateOf(*thePool);
    if (state.hasWaiters) {
        return mixed(1, runner(theCurrent).history);
    }
    std::uint64_t content = mixed(state.flags, state.idleCachedCount);
    for (const unsigned int token : GVTestPeer::freeTokens(GVTestPeer::innerPool(*thePool))) {
        content = mixed(content, token + 1);
    }
    return content;
}

} // namespace

void Lock::lock() noexcept {
    const unsigned int number = theIdentity.number();
    Interleavings::at(Step::lock, number);
    if (theHolders[number] >= 0) {
        wrong("a lock is taken that is not free");
    }
    theHolders[number] = theCurrent;
    note(theContents[number]);
}

void Lock::unlock() noexcept {
    const unsigned int number = theIdentity.number();
    Interleavings::at(Step::unlock, number);
    theHolders[number] = -1;
    setContent(number, contentUnderLock());
}

unsigned int choose(unsigned int options) noexcept {
    thePicked = 0;
    Interleavings::at(Step::choose, options);
    note(thePicked);
    return thePicked;
}

} // namespace Gilvane::Sharing

int main(int argumentCount, char** arguments) {
    const bool brief = argumentCount > 1 && std::strcmp(arguments[1], "--short") == 0;
    const int rest = brief ? 2 : 1;
    return Gilvane::Sharing::run(brief, argumentCount > rest ? arguments[rest] : nullptr);
}
