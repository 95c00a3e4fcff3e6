/// @file
/// The same programs as libFuzzer finds them, kept small for speed. Each says itself where everything is compared. At the
/// end comes how many operations the programs made.
#include "driver.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <utility>

namespace {

/// Programs by the number of operations that were made.
struct Depths {
    std::array<unsigned long long, 65> programs = {}; // at the last place, those that made as many or more
    unsigned long long operations = 0;
    std::size_t deepest = 0;

    void add(std::size_t made) {
        ++programs[std::min(made, programs.size() - 1)];
        operations += made;
        deepest = std::max(deepest, made);
    }

    unsigned long long between(std::size_t from, std::size_t to) const {
        unsigned long long number = 0;
        for (std::size_t made = from; made < to && made < programs.size(); ++made) {
            number += programs[made];
        }
        return number;
    }

    void print() const {
        const unsigned long long total = between(0, programs.size());
        std::size_t median = 0;
        while (between(0, median + 1) * 2 < total) {
            ++median;
        }
        std::printf(
            "programs: %llu\noperations: %llu\nmedian program: %zu operations\ndeepest program: %zu operations\n",
            total, operations, median, deepest);
        constexpr std::size_t step = 8;
        for (std::size_t from = 0; from < programs.size(); from += step) {
            std::printf("programs of %zu operations and more: %llu\n", from, between(from, programs.size()));
        }
        std::fflush(stdout);
    }
};

Depths depths;

// What the driver and the reference allocate is not watched, for speed: it comes from lists of released pieces, one for
// each size. The library's memory is the arena's, which is.
constexpr std::size_t pieceStep = 32;
constexpr std::size_t numberOfLists = 32;

struct alignas(std::max_align_t) Piece {
    std::size_t list; // from numberOfLists on, released to malloc
    Piece* next;
};

Piece* lists[numberOfLists];

} // namespace

void* operator new(std::size_t bytes) {
    const std::size_t list = (bytes + pieceStep - 1) / pieceStep;
    if (list < numberOfLists && lists[list] != nullptr) {
        return std::exchange(lists[list], lists[list]->next) + 1;
    }
    void* const memory = std::malloc(sizeof(Piece) + list * pieceStep);
    if (memory == nullptr) {
        std::abort();
    }
    return ::new (memory) Piece{list, nullptr} + 1;
}

void* operator new(std::size_t bytes, const std::nothrow_t&) noexcept { return operator new(bytes); }

void operator delete(void* memory) noexcept {
    if (memory == nullptr) {
        return;
    }
    Piece* const piece = static_cast<Piece*>(memory) - 1;
    if (piece->list < numberOfLists) {
        piece->next = std::exchange(lists[piece->list], piece);
    } else {
        std::free(piece);
    }
}

void operator delete(void* memory, std::size_t) noexcept { operator delete(memory); }

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    Gilvane::reference::limits = {256, 40, 48};
    return std::atexit([] { depths.print(); });
}

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* bytes, std::size_t count) {
    using namespace Gilvane::driver;
    depths.add(run(Bytes(bytes, bytes + count), Comparison::whereChosen).made);
    return 0;
}
