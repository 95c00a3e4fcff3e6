#include "scheduler.h"

#include <cxxabi.h>
#include <ucontext.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <numeric>
#include <utility>

namespace Gilvane {
namespace Interleavings {

namespace {

Coroutine* theRunning = nullptr;

void swapExceptions(void* (&kept)[2]) {
    auto* const current = reinterpret_cast<char*>(__cxxabiv1::__cxa_get_globals());
    char former[sizeof kept];
    std::memcpy(former, current, sizeof kept);
    std::memcpy(current, kept, sizeof kept);
    std::memcpy(kept, former, sizeof kept);
}

} // namespace

// makecontext puts the coroutine on its stack once; from there on setjmp and longjmp switch, which unlike swapcontext
// ask nothing of the kernel.
Coroutine::Coroutine(std::function<void()> body)
    : theBody(std::move(body)), theStack(std::size_t{256} * 1024),
      theResumePoint(&theBeginning), theEvent{Step::finished, 0}, theExceptions{nullptr, nullptr} {
    ucontext_t here;
    ucontext_t start;
    getcontext(&start);
    start.uc_stack.ss_sp = theStack.data();
    start.uc_stack.ss_size = theStack.size();
    start.uc_link = &here;
    makecontext(&start, &Coroutine::enter, 0);
    theRunning = this;
    if (_setjmp(theScheduler) == 0) {
        swapcontext(&here, &start);
    }
    theRunning = nullptr;
}

// The beginning is marked here, in a frame that lasts as long as the coroutine, so that one can come back to it.
void Coroutine::enter() {
    if (_setjmp(theRunning->theBeginning) == 0) {
        _longjmp(theRunning->theScheduler, 1);
    }
    theRunning->theBody();
    theRunning->theEvent = {Step::finished, 0};
    theRunning->leave(theRunning->thePause);
    std::abort(); // a finished one is not resumed
}

void Coroutine::leave(std::jmp_buf& here) {
    if (_setjmp(here) == 0) {
        _longjmp(theScheduler, 1);
    }
}

Event Coroutine::resume() {
    if (theResumePoint == &theBeginning) {
        theExceptions[0] = nullptr;
        theExceptions[1] = nullptr;
    }
    theRunning = this;
    swapExceptions(theExceptions);
    if (_setjmp(theScheduler) == 0) {
        _longjmp(*theResumePoint, 1);
    }
    swapExceptions(theExceptions);
    theRunning = nullptr;
    theResumePoint = &thePause;
    return theEvent;
}

void at(Step step, unsigned int subject) {
    if (theRunning != nullptr) {
        Coroutine* const self = theRunning;
        self->theEvent = {step, subject};
        self->leave(self->thePause);
    }
}

void DepthFirst::beginSchedule() {
    theDepth = 0;
    thePreemptions = 0;
}

int DepthFirst::choose(const std::vector<int>& enabled, int current) {
    const bool canGoOn = std::find(enabled.begin(), enabled.end(), current) != enabled.end();
    if (canGoOn && thePreemptions >= theBound) {
        return current;
    }
    const unsigned int taken = pick(static_cast<unsigned int>(enabled.size()));
    if (!canGoOn) {
        return enabled[taken];
    }
    // Going on is the first option.
    if (taken == 0) {
        return current;
    }
    ++thePreemptions;
    const int option = enabled[taken - 1];
    return option < current ? option : enabled[taken];
}

unsigned int DepthFirst::pick(unsigned int options) {
    if (theDepth == thePath.size()) {
        thePath.push_back({options, 0});
    }
    return thePath[theDepth++].taken;
}

bool DepthFirst::next() {
    while (!thePath.empty() && thePath.back().taken + 1 == thePath.back().options) {
        thePath.pop_back();
    }
    if (thePath.empty()) {
        return false;
    }
    ++thePath.back().taken;
    return true;
}

void RandomPriorities::beginSchedule() {
    theLength = std::max(theLength, theChoices);
    theChoices = 0;
    theLowest = 0;
    thePriorities.resize(static_cast<std::size_t>(theThreads));
    std::iota(thePriorities.begin(), thePriorities.end(), 1);
    std::shuffle(thePriorities.begin(), thePriorities.end(), theRandom);
    theChanges.resize(theRandom() % 6);
    for (unsigned int& change : theChanges) {
        change = static_cast<unsigned int>(theRandom() % theLength);
    }
}

int RandomPriorities::choose(const std::vector<int>& enabled, int current) {
    const auto priority = [this](int thread) -> int& { return thePriorities[static_cast<std::size_t>(thread)]; };
    if (current >= 0 && std::find(theChanges.begin(), theChanges.end(), theChoices) != theChanges.end()) {
        priority(current) = --theLowest;
    }
    ++theChoices;
    return *std::max_element(enabled.begin(), enabled.end(),
                             [&](int one, int other) { return priority(one) < priority(other); });
}

} // namespace Interleavings
} // namespace Gilvane
