#include "arena.h"

#include <gilvane/base/gvobject.h>
#include <gilvane/base/gvrawblock.h>

#include <algorithm>
#include <cstring>
#include <vector>

#if defined(__SANITIZE_ADDRESS__)
#define GILVANE_ARENA_POISONS 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define GILVANE_ARENA_POISONS 1
#endif
#endif
#ifdef GILVANE_ARENA_POISONS
#include <sanitizer/asan_interface.h>
#endif

namespace Gilvane::arena {

namespace {

//   one raw block
//   | margin | header word | bytes of the library's user ... | rest up to 16, margin |
//            ^ what the hook returns, 16-aligned after the header word
constexpr std::size_t alignment = 16;
constexpr std::size_t margin = 32;
constexpr std::size_t totalBytes = std::size_t{96} << 20;
constexpr unsigned char marginFill = 0xfa;
constexpr unsigned char newFill = 0xa5;
constexpr unsigned char releasedFill = 0xdd;

struct Record {
    unsigned char* start;
    std::size_t bytes;
    bool live;
};

alignas(alignment) unsigned char memory[totalBytes];
std::size_t usedBytes = 0;
std::size_t live = 0;
std::vector<Record> records;
std::vector<unsigned char*> numbered; // what the user got, by number - 1
bool isAside = false;
std::string wrong;

#ifdef GILVANE_ARENA_POISONS
constexpr bool poisons = true;
#else
constexpr bool poisons = false;
#endif

void poison([[maybe_unused]] void* start, [[maybe_unused]] std::size_t bytes) {
#ifdef GILVANE_ARENA_POISONS
    __asan_poison_memory_region(start, bytes);
#endif
}

void unpoison([[maybe_unused]] void* start, [[maybe_unused]] std::size_t bytes) {
#ifdef GILVANE_ARENA_POISONS
    __asan_unpoison_memory_region(start, bytes);
#endif
}

// Where a block of `bytes` bytes whose margin begins at `from` ends, its second margin included.
std::size_t endOf(std::size_t from, std::size_t bytes) {
    return from + margin + alignment + (bytes + alignment - 1) / alignment * alignment + margin;
}

void* allocate(unsigned int bytes) {
    const std::size_t from = usedBytes;
    if (endOf(from, bytes) > totalBytes) {
        return nullptr;
    }
    usedBytes = endOf(from, bytes);
    unsigned char* const start = memory + from + margin + alignment - sizeof(void*);
    if (poisons) {
        poison(memory + from, usedBytes - from);
        unpoison(start, bytes);
    } else {
        std::memset(memory + from, marginFill, usedBytes - from);
    }
    std::memset(start, newFill, bytes);
    records.push_back({start, bytes, true});
    if (!isAside) {
        numbered.push_back(start + detail::rawBlockHeaderBytes);
    }
    ++live;
    return start;
}

void release(void* block) {
    // Addresses ascend.
    const auto record = std::lower_bound(records.begin(), records.end(), block,
                                         [](const Record& one, const void* start) { return one.start < start; });
    if (record == records.end() || record->start != block) {
        wrong = "a raw block was released that never was given out";
        return;
    }
    if (!record->live) {
        wrong = "a raw block was released twice";
        return;
    }
    record->live = false;
    --live;
    if (poisons) {
        poison(block, record->bytes);
    } else {
        std::memset(block, releasedFill, record->bytes);
    }
}

bool holds(const unsigned char* from, const unsigned char* to, unsigned char fill) {
    return std::all_of(from, to, [fill](unsigned char byte) { return byte == fill; });
}

} // namespace

void begin() {
    unpoison(memory, usedBytes);
    usedBytes = 0;
    live = 0;
    records.clear();
    numbered.clear();
    wrong.clear();
    GVObject::SetAllocationHooks(&allocate, &release);
}

std::size_t liveCount() { return live; }

int requestCount() { return static_cast<int>(numbered.size()); }

void* userBytes(int request) {
    return request > 0 && request <= requestCount() ? numbered[static_cast<std::size_t>(request) - 1] : nullptr;
}

int requestOf(const void* userBytes) {
    if (userBytes == nullptr) {
        return 0;
    }
    const auto found = std::lower_bound(numbered.begin(), numbered.end(), userBytes);
    return found != numbered.end() && *found == userBytes ? static_cast<int>(found - numbered.begin()) + 1 : -1;
}

Aside::Aside() { isAside = true; }
Aside::~Aside() { isAside = false; }

std::string misuse() {
    if (!wrong.empty() || poisons) {
        return wrong;
    }
    unpoison(memory, usedBytes);
    const unsigned char* clean = memory; // everything before it has been looked at
    std::string result;
    for (const Record& record : records) {
        if (!holds(clean, record.start, marginFill)) {
            result = "bytes next to a raw block were written";
        }
        if (!record.live && !holds(record.start, record.start + record.bytes, releasedFill)) {
            result = "bytes of a released raw block were written";
        }
        clean = record.start + record.bytes;
    }
    if (!holds(clean, memory + usedBytes, marginFill)) {
        result = "bytes behind a raw block were written";
    }
    return result;
}

} // namespace Gilvane::arena
