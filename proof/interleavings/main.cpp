// Runs listed programs under every order of their threads' steps, or under many, and compares the library with the
// reference at each step.
//
//   interleavings [--short] [FIGURES SIGHTS]
//
// FIGURES is a file for "key: value" lines, SIGHTS one for "sight|schedules|where it is described" lines.
//
// A thread is two coroutines: one calls the library, the other the reference, and both stop where a thread may lose its
// turn (switchpoints.h). Under one schedule the two must come to the same steps, results and states; whatever the
// reference's algorithms allow is so allowed to the library, and nothing else. A step that is not defined is the end of
// a schedule. Exit status 1: they differ; 2: wrong arguments; 3: something that must be seen was not.
#include "library.h"
#include "programs.h"
#include "reference.h"
#include "scheduler.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <unordered_set>
#include <vector>

namespace Gilvane {
namespace Interleavings {

namespace {

constexpr std::size_t mostThreads = 8;

using Places = std::array<unsigned int, 4>;

struct Thread {
    std::unique_ptr<Coroutine> library;
    std::unique_ptr<Coroutine> reference;
    Event next;
    Sequence<unsigned int> libraryResults;
    Sequence<unsigned int> referenceResults;
    Places tokens;                // the reference's
    std::array<bool, 4> pointers; // whether the reference's share
};

struct TraceEntry {
    int thread;
    Event event;
};

const Program* theProgram = nullptr;
std::array<Thread, mostThreads> theThreads;
std::vector<TraceEntry> theTrace; // what the threads did, in order

Thread& threadOf(int number) { return theThreads[static_cast<std::size_t>(number)]; }

void setThread(int number) {
    Reference::world().thread = number;
    Library::setThread(number);
}

void giveUpShareIn(bool& place) {
    if (place) {
        Reference::world().giveUpShare();
    }
    place = false;
}

// One operation of the reference, as Library::perform does it for the library.
unsigned int performInReference(const Operation& operation, int thread) {
    Reference& world = Reference::world();
    Places& tokens = threadOf(thread).tokens;
    auto& pointers = threadOf(thread).pointers;
    const unsigned int first = operation.first;
    const unsigned int second = operation.second;
    switch (operation.what) {
    case Do::borrow:
        return tokens[second] = world.borrow(first);
    case Do::give:
        world.give(first, tokens[second]);
        return 0;
    case Do::use:
        return world.use(first, tokens[second], static_cast<unsigned char>(thread));
    case Do::count:
        return world.inUse(first);
    case Do::resize:
        world.resize(first, second);
        return 0;
    case Do::rebuild:
        world.rebuild(first, second);
        return 0;
    case Do::setSize:
        return world.setSize(first, second) ? 1 : 0;
    case Do::copy:
    case Do::assign: {
        const bool shares = pointers[first];
        if (shares) {
            world.addShare();
        }
        giveUpShareIn(pointers[second]);
        pointers[second] = shares;
        return 0;
    }
    case Do::move:
        giveUpShareIn(pointers[second]);
        pointers[second] = pointers[first];
        pointers[first] = false;
        return 0;
    case Do::drop:
        giveUpShareIn(pointers[first]);
        return 0;
    case Do::refs:
        return pointers[first] ? world.sharers() : 0;
    case Do::print:
        return world.sharers();
    case Do::pause:
        at(Step::touch);
        return 0;
    }
    std::abort();
}

void makeThreads() {
    for (int number = 0; number < static_cast<int>(mostThreads); ++number) {
        Thread& thread = threadOf(number);
        thread.library = std::make_unique<Coroutine>([number] {
            for (const Operation& operation : theProgram->threads[static_cast<std::size_t>(number)]) {
                threadOf(number).libraryResults.append(Library::perform(operation, number));
            }
        });
        thread.reference = std::make_unique<Coroutine>([number] {
            for (const Operation& operation : theProgram->threads[static_cast<std::size_t>(number)]) {
                threadOf(number).referenceResults.append(performInReference(operation, number));
            }
        });
    }
}

std::string textOf(const Event& event) {
    constexpr std::array<const char*, 13> texts{"lock ",
                                                "unlock ",
                                                "read the number of blocks",
                                                "write the block size",
                                                "read the token counter",
                                                "write the token counter",
                                                "remove a block",
                                                "touch a block",
                                                "take a token",
                                                "look a token up",
                                                "delete lock ",
                                                "(cut)",
                                                "(end)"};
    const std::string text = texts.at(static_cast<std::size_t>(event.step));
    return text.back() == ' ' ? text + std::to_string(event.subject) : text;
}

void printTrace(const std::vector<TraceEntry>& trace) {
    for (const TraceEntry& entry : trace) {
        std::printf("      %*sthread %d: %s\n", entry.thread * 4, "", entry.thread + 1, textOf(entry.event).c_str());
    }
}

[[noreturn]] void differ(const std::string& what) {
    std::printf("program '%s': the library differs from the reference: %s; after\n", theProgram->name, what.c_str());
    printTrace(theTrace);
    std::exit(1);
}

enum class Outcome { complete, cut };

// Lets a thread take its step and go on to its next switch point; the states are compared unless they are known from an
// earlier schedule. False when the reference is cut.
bool step(int number, bool known) {
    Thread& thread = threadOf(number);
    setThread(number);
    do {
        theTrace.push_back({number, thread.next});
        thread.next = thread.reference->resume();
        if (thread.next.step == Step::cut) {
            return false;
        }
        const Event event = thread.library->resume();
        if (event.step != thread.next.step || event.subject != thread.next.subject) {
            differ("thread " + std::to_string(number + 1) + " is about to " + textOf(event) + ", not to " +
                   textOf(thread.next));
        }
    } while (thread.next.step == Step::pop || thread.next.step == Step::lookUp ||
             thread.next.step == Step::deleteHandle);
    if (known) {
        return true;
    }
    if (thread.libraryResults.size != thread.referenceResults.size ||
        !std::equal(thread.libraryResults.begin(), thread.libraryResults.end(), thread.referenceResults.begin())) {
        differ("the result of an operation");
    }
    const std::string difference = Library::differenceTo(Reference::world());
    if (!difference.empty()) {
        differ(difference);
    }
    return true;
}

// The library and the reference as the program finds them, each thread before its first step.
void prepare() {
    Reference& world = Reference::world();
    world.reset();
    Library::reset();
    theTrace.clear();
    for (std::size_t number = 0; number < theProgram->pools.size(); ++number) {
        const PoolAtStart& pool = theProgram->pools[number];
        world.makePool(static_cast<unsigned int>(number), pool.blocks, pool.bytes, pool.later);
    }
    world.shareHandle = static_cast<unsigned int>(theProgram->pools.size());
    world.refCount = theProgram->shared ? static_cast<unsigned int>(theProgram->threads.size()) : 0;
    Library::prepare(*theProgram);
    for (std::size_t number = 0; number < theProgram->threads.size(); ++number) {
        Thread& thread = theThreads[number];
        thread.libraryResults.size = 0;
        thread.referenceResults.size = 0;
        thread.pointers.fill(false);
        thread.pointers[0] = theProgram->shared;
        thread.library->restart();
        thread.reference->restart();
    }
    for (const Operation& operation : theProgram->before) {
        if (performInReference(operation, 0) != Library::perform(operation, 0)) {
            differ("what comes before the threads");
        }
    }
    world.sights.reset();
    for (std::size_t number = 0; number < theProgram->threads.size(); ++number) {
        setThread(static_cast<int>(number));
        theThreads[number].next = theThreads[number].reference->resume();
        const Event event = theThreads[number].library->resume();
        if (event.step != theThreads[number].next.step || event.subject != theThreads[number].next.subject) {
            differ("the first step of a thread");
        }
    }
}

Outcome runSchedule(Chooser& chooser) {
    prepare();
    chooser.beginSchedule();
    const int threadCount = static_cast<int>(theProgram->threads.size());
    int current = -1;
    std::vector<int> enabled;
    for (;;) {
        enabled.clear();
        bool allFinished = true;
        for (int number = 0; number < threadCount; ++number) {
            const Event& next = threadOf(number).next;
            allFinished = allFinished && next.step == Step::finished;
            if (next.step != Step::finished &&
                (next.step != Step::lock || Reference::world().holders[next.subject] == nobody)) {
                enabled.push_back(number);
            }
        }
        if (allFinished) {
            break;
        }
        if (enabled.empty()) {
            differ("every thread waits for a lock");
        }
        current = enabled.size() == 1 ? enabled.front() : chooser.choose(enabled, current);
        if (!step(current, chooser.repeats())) {
            return Outcome::cut;
        }
    }
    setThread(outsideThreads);
    return Outcome::complete;
}

// Equal outcomes have equal numbers.
std::uint64_t outcomeNumber() {
    std::uint64_t number = 0xcbf29ce484222325U;
    const auto add = [&number](std::uint64_t value) { number = (number ^ value) * 0x100000001b3U; };
    Reference& world = Reference::world();
    for (std::size_t thread = 0; thread < theProgram->threads.size(); ++thread) {
        add(theThreads[thread].referenceResults.size);
        for (const unsigned int result : theThreads[thread].referenceResults) {
            add(result);
        }
    }
    for (ReferencePool& pool : world.pools) {
        if (pool.exists) {
            add(pool.bytes);
            add(pool.table.size);
            for (const ReferencePool::Entry& entry : pool.table) {
                add(entry.token);
                add(world.blocks.items[entry.block].length);
            }
            add(pool.freeTokens.size);
            for (const unsigned int token : pool.freeTokens) {
                add(token);
            }
        }
    }
    add(world.counter);
    add(world.refCount);
    add(world.sights.to_ullong() >> nothingToTake);
    return number;
}

std::string textOfEnding() {
    Reference& world = Reference::world();
    std::string text = "ends with";
    for (ReferencePool& pool : world.pools) {
        if (pool.exists) {
            text += " the blocks";
            for (const ReferencePool::Entry& entry : pool.table) {
                text += " " + std::to_string(entry.token);
            }
            text += pool.freeTokens.size != 0 ? " and the free tokens" : " and no free token";
            for (const unsigned int token : pool.freeTokens) {
                text += " " + std::to_string(token);
            }
            text += ";";
        }
    }
    return text;
}

struct Totals {
    unsigned long schedules = 0;
    unsigned long cut = 0;
    unsigned long outcomes = 0;
    std::array<unsigned long, numberOfSights> seen{};
    // The plainest schedule with each sight: complete rather than cut, with little else to see, short.
    struct Example {
        std::string program;
        std::vector<TraceEntry> trace;
        std::string ending;
        std::array<std::size_t, 3> burden;
    };
    std::array<Example, numberOfSights> examples;
};

std::chrono::steady_clock::time_point theLastWord = std::chrono::steady_clock::now();

// Explores one program; `afterEach` is called after each schedule.
template <typename AfterEach>
void explore(const Program& program, Chooser& chooser, Totals& totals, AfterEach afterEach) {
    theProgram = &program;
    Reference& world = Reference::world();
    std::unordered_set<std::uint64_t> outcomes;
    unsigned long schedules = 0;
    unsigned long cut = 0;
    do {
        ++schedules;
        const Outcome outcome = runSchedule(chooser);
        outcomes.insert(outcomeNumber());
        const std::array<std::size_t, 3> burden{outcome == Outcome::cut ? 1U : 0U, world.sights.count(),
                                                theTrace.size()};
        for (std::size_t sight = 0; sight < numberOfSights; ++sight) {
            if (world.sights[sight] && (totals.seen[sight]++ == 0 || burden < totals.examples[sight].burden)) {
                totals.examples[sight] = {program.name, theTrace, textOfEnding(), burden};
            }
        }
        if (outcome == Outcome::cut) {
            ++cut;
        } else {
            const std::string wrong = Library::tearDown(program, world);
            if (!wrong.empty()) {
                differ(wrong);
            }
        }
        afterEach();
        if (schedules % 1024 == 0 && std::chrono::steady_clock::now() - theLastWord > std::chrono::seconds(20)) {
            theLastWord = std::chrono::steady_clock::now();
            std::printf("   ... %lu schedules of '%s'\n", schedules, program.name);
            std::fflush(stdout);
        }
    } while (chooser.next());
    std::printf("   %9lu schedules, %8lu cut, %5zu outcomes: %s\n", schedules, cut, outcomes.size(), program.name);
    std::fflush(stdout);
    totals.schedules += schedules;
    totals.cut += cut;
    totals.outcomes += outcomes.size();
}

// Threads that do nothing but stop have as many schedules as there are ways to shuffle their steps together.
void requireShuffles(std::size_t threads, std::size_t stops, unsigned int bound, unsigned long expected) {
    const Program program{"stops alone", {}, false, {}, {threads, std::vector<Operation>(stops, {Do::pause})}};
    theProgram = &program;
    DepthFirst chooser(bound);
    unsigned long schedules = 0;
    do {
        runSchedule(chooser);
        ++schedules;
    } while (chooser.next());
    if (schedules != expected) {
        std::printf("%zu threads of %zu stops have %lu schedules, and %lu were explored\n", threads, stops, expected,
                    schedules);
        std::exit(3);
    }
}

int run(bool brief, const char* figuresFile, const char* sightsFile) {
    makeThreads();
    // 12! / 6!^2 and 9! / 3!^3; and with two threads: no preemption; one, after any but the last of a thread's steps.
    requireShuffles(2, 6, DepthFirst::unbounded, 924);
    requireShuffles(3, 3, DepthFirst::unbounded, 1680);
    requireShuffles(2, 6, 0, 2);
    requireShuffles(2, 6, 1, 2 + 2 * 5);

    Totals totals;
    std::printf("== two threads of six operations, %s\n", brief ? "at most 4 preemptions" : "every schedule");
    const auto nothing = [] {};
    std::size_t number = 0;
    for (const Program& program : exhaustivePrograms()) {
        DepthFirst chooser(brief ? 4 : DepthFirst::unbounded);
        explore(program, chooser, totals, nothing);
        ++number;
    }
    const unsigned long exhaustive = totals.schedules;

    std::puts("== three threads of three operations, by preemptions");
    std::array<unsigned long, 6> byPreemptions{};
    for (const Program& program : boundedPrograms()) {
        DepthFirst chooser(brief ? 2 : 5);
        explore(program, chooser, totals, [&] { ++byPreemptions.at(chooser.preemptions()); });
        ++number;
    }
    const unsigned long bounded = totals.schedules - exhaustive;
    unsigned long upToBound = 0;
    for (std::size_t bound = 0; bound < byPreemptions.size() && (!brief || bound <= 2); ++bound) {
        upToBound += byPreemptions[bound];
        std::printf("   at most %zu preemptions: %lu schedules\n", bound, upToBound);
    }

    std::puts("== random priorities, seeds 1 to 4");
    for (const Program& program : randomPrograms()) {
        for (unsigned int seed = 1; seed <= 4; ++seed) {
            RandomPriorities chooser(seed, static_cast<int>(program.threads.size()), brief ? 2500 : 250000);
            explore(program, chooser, totals, nothing);
        }
        ++number;
    }
    const unsigned long random = totals.schedules - exhaustive - bounded;

    std::puts("== what was seen, in how many schedules");
    std::size_t seen = 0;
    for (std::size_t sight = 0; sight < numberOfSights; ++sight) {
        std::printf("   %9lu  %s\n", totals.seen[sight], describe(static_cast<Sight>(sight)).text);
        seen += totals.seen[sight] != 0 ? 1 : 0;
    }
    for (const Sight sight :
         {secondGrowthDidNothing, secondGrowthDoubledAgain, staleNumberShrank, secondRebuildingDestroyedALentBlock}) {
        if (!brief && totals.seen[sight] != 0) {
            std::printf("== for example, in '%s': %s\n", totals.examples[sight].program.c_str(), describe(sight).text);
            printTrace(totals.examples[sight].trace);
            std::printf("      %s\n", totals.examples[sight].ending.c_str());
        }
    }
    if (seen != std::size_t{numberOfSights}) {
        std::puts("not everything that can happen was seen");
        return 3;
    }
    if (figuresFile != nullptr) {
        std::ofstream figures(figuresFile);
        figures << "programs: " << number << "\n"
                << "schedules of 2 threads x 6 operations" << (brief ? ", at most 4 preemptions: " : ", all of them: ")
                << exhaustive << "\n"
                << "schedules of 3 threads x 3 operations, at most " << (brief ? 2 : 5) << " preemptions: " << bounded
                << "\n"
                << "schedules of random priorities: " << random << "\n"
                << "schedules: " << totals.schedules << "\n"
                << "schedules that end at an undefined step: " << totals.cut << "\n"
                << "outcomes: " << totals.outcomes << "\n"
                << "kinds of described behaviour seen: " << seen << " of " << std::size_t{numberOfSights} << "\n";
        std::ofstream sights(sightsFile);
        for (std::size_t sight = 0; sight < numberOfSights; ++sight) {
            const Description description = describe(static_cast<Sight>(sight));
            sights << description.text << "|" << totals.seen[sight] << "|" << description.describedIn << "\n";
        }
    }
    return 0;
}

} // namespace

} // namespace Interleavings
} // namespace Gilvane

int main(int argumentCount, char** arguments) {
    const bool brief = argumentCount > 1 && std::strcmp(arguments[1], "--short") == 0;
    const int rest = brief ? 2 : 1;
    const bool writes = argumentCount == rest + 2;
    if (!writes && argumentCount != rest) {
        std::fputs("usage: interleavings [--short] [FIGURES SIGHTS]\n", stderr);
        return 2;
    }
    return Gilvane::Interleavings::run(brief, writes ? arguments[rest] : nullptr,
                                       writes ? arguments[rest + 1] : nullptr);
}
