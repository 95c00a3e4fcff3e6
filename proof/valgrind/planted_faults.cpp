// One fault in the use of a pool's memory, chosen by the argument, for memcheck to find; none for "nothing".

#include <gilvane/utilities/gvmemorypool.h>

#include <cstdlib>
#include <string>

using Gilvane::GVMemoryPool;

namespace {

constexpr unsigned int blockBytes = 24;

unsigned char* borrow(GVMemoryPool& pool) {
    return static_cast<unsigned char*>(pool.getMemoryForToken(pool.getTokenForFreeMemoryObject()));
}

} // namespace

int main(int argc, char** argv) {
    const std::string fault = argc > 1 ? argv[1] : "";
    GVMemoryPool pool(2, blockBytes, true);
    volatile unsigned char* const bytes = borrow(pool);
    if (fault == "uninitialised") {
        return bytes[0] == 1 ? 3 : 0;
    }
    if (fault == "overrun") {
        bytes[blockBytes] = 1;
        return 0;
    }
    if (fault == "removed") {
        pool.resizePool(0);
        return bytes[0] == 1 ? 3 : 0;
    }
    if (fault == "leak") {
        new GVMemoryPool(2, blockBytes, true);
        return 0;
    }
    return fault == "nothing" ? 0 : 4;
}
