/// @file
/// Coroutines in the place of threads, and the orders in which to run them.
#ifndef GILVANE_PROOF_INTERLEAVINGS_SCHEDULER_H
#define GILVANE_PROOF_INTERLEAVINGS_SCHEDULER_H

#include "switchpoints.h"

#include <csetjmp>
#include <cstddef>
#include <functional>
#include <random>
#include <vector>

namespace Gilvane {
namespace Interleavings {

struct Event {
    Step step;
    unsigned int subject;
};

/// A function that can be stopped at any call of at() and gone on with later. It may be given up where it stands; its
/// objects are then not destroyed. Each has its own exceptions in flight, as a thread has.
class Coroutine {
  public:
    explicit Coroutine(std::function<void()> body);
    Coroutine(const Coroutine&) = delete;
    Coroutine& operator=(const Coroutine&) = delete;

    /// Back to the beginning, whatever it was doing.
    void restart() { theResumePoint = &theBeginning; }
    /// Runs until the next call of at() or the end; returns what it is about to do then.
    Event resume();

  private:
    friend void at(Step step, unsigned int subject);

    static void enter();
    void leave(std::jmp_buf& here);

    std::function<void()> theBody;
    std::vector<char> theStack;
    std::jmp_buf theBeginning;
    std::jmp_buf thePause;
    std::jmp_buf* theResumePoint; // one of the two above
    std::jmp_buf theScheduler;
    Event theEvent;
    void* theExceptions[2]; // what the C++ runtime keeps for each thread
};

/// Decides who runs next, schedule after schedule.
class Chooser {
  public:
    virtual ~Chooser() = default;
    virtual void beginSchedule() = 0;
    /// @param enabled   threads that can go on, ascending; at least two
    /// @param current   the thread that ran last; -1 at first
    virtual int choose(const std::vector<int>& enabled, int current) = 0;
    /// Whether the schedule has so far been that of an earlier one.
    virtual bool repeats() const = 0;
    /// Called at the end of each schedule.
    /// @returns whether there is another one
    virtual bool next() = 0;
};

/// Every schedule with at most so many preemptions: switches away from a thread that could have gone on.
class DepthFirst : public Chooser {
  public:
    static constexpr unsigned int unbounded = ~0U;

    explicit DepthFirst(unsigned int bound = unbounded) : theBound(bound) {}
    void beginSchedule() override;
    int choose(const std::vector<int>& enabled, int current) override;
    bool repeats() const override { return theDepth < thePath.size(); }
    bool next() override;
    /// One of so many options that are no threads.
    unsigned int pick(unsigned int options);
    /// In the schedule that has just run.
    unsigned int preemptions() const { return thePreemptions; }

  private:
    struct Choice {
        unsigned int options;
        unsigned int taken;
    };
    unsigned int theBound;
    unsigned int thePreemptions = 0;
    std::vector<Choice> thePath; // choices with more than one option
    std::size_t theDepth = 0;
};

/// Schedules by random priorities: the thread of the highest priority that can go on runs, and at a few random moments
/// the running one gets the lowest. Each seed gives one series.
class RandomPriorities : public Chooser {
  public:
    RandomPriorities(unsigned int seed, int threads, unsigned long schedules)
        : theRandom(seed), theThreads(threads), theRemaining(schedules) {}
    void beginSchedule() override;
    int choose(const std::vector<int>& enabled, int current) override;
    bool repeats() const override { return false; }
    bool next() override { return --theRemaining > 0; }

  private:
    std::minstd_rand theRandom;
    int theThreads;
    unsigned long theRemaining;
    std::vector<int> thePriorities; // of each thread; all different
    std::vector<unsigned int> theChanges;
    unsigned int theChoices = 0;
    unsigned int theLength = 20; // choices in the longest schedule so far
    int theLowest = 0;
};

} // namespace Interleavings
} // namespace Gilvane

#endif
