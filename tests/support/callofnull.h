/// @file
/// For tests that a function is called though it is null.
#ifndef GILVANE_TESTS_SUPPORT_CALLOFNULL_H
#define GILVANE_TESTS_SUPPORT_CALLOFNULL_H

#include <csignal>
#include <unistd.h>

namespace Gilvane {

/// From now on a call of null ends the process with status 0, and any other access that is refused with status 2.
inline void endAtACallOfNull() {
    struct sigaction action = {};
    action.sa_flags = SA_SIGINFO;
    action.sa_sigaction = [](int, siginfo_t* information, void*) { _exit(information->si_addr == nullptr ? 0 : 2); };
    sigaction(SIGSEGV, &action, nullptr);
}

} // namespace Gilvane

#endif
