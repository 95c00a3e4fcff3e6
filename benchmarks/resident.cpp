// How much memory a pool takes, and whether writing it as text takes any. Each figure is that of a process of its own:
//
//     gilvane_resident gilvane|hand-written N     of a pool of N blocks
//     gilvane_resident gilvane-on-mimalloc N      likewise, with the hooks on mimalloc
//     gilvane_resident dump N                     of writing a pool of N blocks to /dev/null
//
// The output is JSON: bytes of resident memory, and for pools what malloc's live chunks amount to, by size.
#include "handwrittenpool.h"
#include "mimalloc.h"

#include <gilvane/utilities/gvmemorypool.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

#include <malloc.h>

// --- malloc, watched --------------------------------------------------------------------------------------------------

extern "C" void* __libc_malloc(std::size_t);
extern "C" void __libc_free(void*);

namespace {

constexpr std::size_t chunkStep = 16;           // what sizes of chunks are multiples of
constexpr std::size_t largestSmallChunk = 1024; // larger ones are counted together

struct Chunks {
    long count;
    long bytes;          // chunk heads included
    std::size_t request; // the last one that such a chunk was made for
};

Chunks smallChunks[largestSmallChunk / chunkStep + 1];
Chunks largeChunks;

void countChunk(void* block, long change, std::size_t request) {
    const std::size_t chunk = malloc_usable_size(block) + sizeof(std::size_t);
    Chunks& chunks = chunk <= largestSmallChunk ? smallChunks[chunk / chunkStep] : largeChunks;
    chunks.count += change;
    chunks.bytes += change * static_cast<long>(chunk);
    if (request != 0) {
        chunks.request = request;
    }
}

} // namespace

extern "C" void* malloc(std::size_t size) {
    void* const block = __libc_malloc(size);
    if (block != nullptr) {
        countChunk(block, 1, size);
    }
    return block;
}

extern "C" void free(void* block) {
    if (block != nullptr) {
        countChunk(block, -1, 0);
    }
    __libc_free(block);
}

// --- the system's figures ---------------------------------------------------------------------------------------------

namespace {

constexpr unsigned int blockBytes = 64;

// A line such as "Rss:   1234 kB" in a file under /proc, in bytes. Ends the program if there is none.
long bytesFrom(const char* file, const std::string& field) {
    std::ifstream stream(file);
    std::string word;
    long kilobytes = 0;
    while (stream >> word) {
        if (word == field && stream >> kilobytes) {
            return kilobytes * 1024;
        }
    }
    std::fprintf(stderr, "gilvane_resident: no %s in %s\n", field.c_str(), file);
    std::exit(1);
}

long residentBytes() { return bytesFrom("/proc/self/smaps_rollup", "Rss:"); }

void printResident(const char* subject, unsigned int numberOfBlocks, long bytes) {
    std::printf(R"({"subject": "%s", "blocks": %u, "bytes": %ld)", subject, numberOfBlocks, bytes);
}

void printChunks() {
    std::printf(R"(, "chunks": [)");
    const char* separator = "";
    for (const Chunks& chunks : smallChunks) {
        if (chunks.count > 0) {
            std::printf(R"(%s{"count": %ld, "request": %zu, "bytes": %ld})", separator, chunks.count, chunks.request,
                        chunks.bytes);
            separator = ", ";
        }
    }
    std::printf(R"(], "large": {"count": %ld, "bytes": %ld})", largeChunks.count, largeChunks.bytes);
}

template <typename Pool, typename... Arguments>
void measurePool(const char* subject, unsigned int numberOfBlocks, Arguments... arguments) {
    const long before = residentBytes();
    Pool* const pool = new Pool(numberOfBlocks, blockBytes, arguments...);
    const long after = residentBytes();
    printResident(subject, numberOfBlocks, after - before);
    printChunks();
    std::printf("}\n");
    delete pool;
}

// The most that was resident while writing, less what was resident before.
void measureDump(unsigned int numberOfBlocks) {
    const Gilvane::GVMemoryPool pool(numberOfBlocks, blockBytes, false);
    std::ofstream stream("/dev/null");
    const long before = residentBytes();
    std::ofstream("/proc/self/clear_refs") << "5"; // forgets the highest figure so far
    stream << pool;
    printResident("dump", numberOfBlocks, bytesFrom("/proc/self/status", "VmHWM:") - before);
    std::printf("}\n");
}

} // namespace

int main(int argc, char** argv) {
    const char* const what = argc == 3 ? argv[1] : "";
    const unsigned int numberOfBlocks = argc == 3 ? static_cast<unsigned int>(std::strtoul(argv[2], nullptr, 10)) : 0;
    if (std::strcmp(what, "gilvane") == 0) {
        measurePool<Gilvane::GVMemoryPool>(what, numberOfBlocks, false);
    } else if (std::strcmp(what, "gilvane-on-mimalloc") == 0) {
        MimallocLibrary::load();
        MimallocLibrary::hook();
        measurePool<Gilvane::GVMemoryPool>(what, numberOfBlocks, false);
    } else if (std::strcmp(what, "hand-written") == 0) {
        measurePool<HandWrittenPool<NoMutex>>(what, numberOfBlocks);
    } else if (std::strcmp(what, "dump") == 0) {
        measureDump(numberOfBlocks);
    } else {
        std::fprintf(stderr, "usage: gilvane_resident gilvane|gilvane-on-mimalloc|hand-written|dump N\n");
        return 2;
    }
}
