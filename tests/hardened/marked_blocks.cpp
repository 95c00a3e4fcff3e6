// One use of a block's bytes, chosen by the argument, for Valgrind to judge.
#include <gilvane/utilities/gvmemorypool.h>

#include <cstdio>
#include <cstring>

namespace {

constexpr unsigned int blockBytes = 24;

Gilvane::GVMemoryPool pool(2, blockBytes, true);

volatile unsigned char* addressOf(unsigned int token) {
    return static_cast<volatile unsigned char*>(pool.getMemoryForToken(token));
}

__attribute__((noinline)) void useAfterReturn(unsigned int token) {
    volatile unsigned char* const bytes = addressOf(token);
    pool.releaseObject(token);
    bytes[blockBytes - 1] = 1;
}

__attribute__((noinline)) unsigned char useWithoutLoan(unsigned int token) { return *addressOf(token); }

__attribute__((noinline)) void useWithoutValue(unsigned int token) {
    if (*addressOf(token) == 1) {
        std::puts("still there");
    }
}

} // namespace

int main(int argc, char** argv) {
    const char* const use = argc > 1 ? argv[1] : "";
    const unsigned int token = pool.getTokenForFreeMemoryObject();
    *addressOf(token) = 1;
    if (std::strcmp(use, "after-return") == 0) {
        useAfterReturn(token);
        return 0;
    }
    if (std::strcmp(use, "without-loan") == 0) {
        const unsigned int other = pool.getTokenForFreeMemoryObject();
        pool.releaseObject(other);
        return useWithoutLoan(other) == 1 ? 1 : 0;
    }
    if (std::strcmp(use, "without-value") == 0) {
        pool.releaseObject(token);
        useWithoutValue(pool.getTokenForFreeMemoryObject());
        return 0;
    }
    if (std::strcmp(use, "by-the-rules") == 0) {
        for (unsigned int round = 0; round < 100; ++round) {
            const unsigned int lent = pool.getTokenForFreeMemoryObject();
            std::memset(pool.getMemoryForToken(lent), 1, blockBytes);
            if (round % 3 == 0) {
                pool.releaseObject(lent);
            }
        }
        pool.resizePool(20);
        pool.makePool(3);
        return 0;
    }
    std::fprintf(stderr, "marked_blocks: no such use: %s\n", use);
    return 4;
}
