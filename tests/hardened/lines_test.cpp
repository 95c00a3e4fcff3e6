// The guide shows the lines that end a hardened program; here they are made.
#include "gvtestpeer.h"
#include "poolsupport.h"

#include <gilvane/threads/gvmutex.h>
#include <gilvane/utilities/gvmemorypool.h>
#include <gilvane/utilities/gvsharedpool.h>
#include <gilvane/utilities/gvsharedtokenlease.h>
#include <gilvane/utilities/gvtokencache.h>

#include <gtest/gtest.h>

#include <csignal>
#include <fstream>
#include <functional>
#include <optional>
#include <regex>
#include <sstream>
#include <string>
#include <utility>

#include <sys/wait.h>
#include <unistd.h>

namespace Gilvane {

namespace {

// The first line that a process of its own writes on standard error when it does this; every address, thread and time in
// it the same.
std::string lineOf(const std::function<void()>& deed, bool isMistake) {
    int ends[2];
    if (pipe(ends) != 0) {
        return "no pipe";
    }
    const pid_t child = fork();
    if (child == 0) {
        dup2(ends[1], STDERR_FILENO);
        deed();
        _exit(0);
    }
    close(ends[1]);
    std::string text;
    char buffer[256];
    for (ssize_t count = read(ends[0], buffer, sizeof(buffer)); count > 0;
         count = read(ends[0], buffer, sizeof(buffer))) {
        text.append(buffer, static_cast<std::size_t>(count));
    }
    close(ends[0]);
    int status = 0;
    waitpid(child, &status, 0);
    if ((WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT) != isMistake) {
        return (isMistake ? "did not abort: " : "did abort: ") + text;
    }
    std::string line = text.substr(0, text.find('\n'));
    line = std::regex_replace(line, std::regex("0x[0-9a-f]+"), "0x7ffd8a3b2c10");
    return std::regex_replace(line, std::regex("thread [0-9]+, [0-9]+ ms"), "thread 4711, 250 ms");
}

std::string fileOfTests(const std::string& name) {
    std::ifstream file(GILVANE_SOURCE_DIR "/tests/hardened/" + name);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

TEST(HardenedLines, areThoseOfTheGuide) {
    GVTestPeer::nextToken() = 14;
    GVMemoryPool pool(4, 64, false); // tokens 14 to 17
    GVMemoryPool other(1, 64, false);
    const std::function<void()> mistakes[] = {
        [&] {
            pool.releaseObject(pool.getTokenForFreeMemoryObject());
            pool.releaseObject(17);
        },
        [&] { pool.releaseObject(other.getTokenForFreeMemoryObject()); },
        [&] { pool.getMemoryForToken(99); },
        [&] {
            //  slot    0   1   2   3   4   5   6   7
            //  token   0   -   .   .   .   .   8   .      8 is searched for in slot 0, then in slot 1
            GVMemoryPool shrunk(0, 64, false);
            buildBlocks(shrunk, {0, 17, 8});
            shrunk.resizePool(2);
            shrunk.getMemoryForToken(8);
        },
        [&] { GVMemoryPool(0, false).getTokenForFreeMemoryObject(); },
        [&] { GVMemoryPool(1, 4294967295U, false); },
        [&] { GVMemoryPoolObject(4294967295U); },
        [&] { GVMutex().setHandle(nullptr); },
        [&] {
            GVMemoryPool shared(1, 64, true);
            GVMutex guard;
            guard.setHandle(GVTestPeer::mutexHandle(shared));
            guard.setHandle(GVTestPeer::mutexHandle(shared));
        },
        [&] {
            GVSharedPool shared(1, 64); // token 19
            const GVSharedTokenLease lease(shared);
            shared.releaseObject(lease.getToken());
        },
        [&] {
            std::optional<GVSharedPool> shared(std::in_place, 1U, 64U);
            const GVTokenCache cache(*shared);
            shared.reset();
        },
    };
    std::string lines;
    for (const auto& mistake : mistakes) {
        lines += lineOf(mistake, true) + "\n";
    }
    EXPECT_EQ(lines, fileOfTests("lines.txt"));
}

TEST(HardenedLines, ofAPoolThatGoesWithBlocksStillLentAreThoseOfTheGuide) {
    GVTestPeer::nextToken() = 14;
    const auto leaveTwo = [] {
        GVSharedPool pool(4, 64);
        *pool.tryBorrow();
        *pool.tryBorrow();
    };
    EXPECT_EQ(lineOf(leaveTwo, false) + "\n", fileOfTests("report.txt"));
}

} // namespace

} // namespace Gilvane
