// For which part of a block the default hooks ask the kernel for huge pages, wherever malloc puts the block.
#include <gilvane/base/gvobject.h>
#include <gilvane/base/gvrawblock.h>

#include <gtest/gtest.h>

#include <sys/mman.h>

#include <cstddef>
#include <ostream>
#include <vector>

namespace Gilvane {

namespace {

struct Advice {
    void* start;
    std::size_t bytes;
    int kind;
};

// While a test runs the hooks: where malloc puts the next block, and the advice that the kernel gets.
struct Stage {
    bool isSet;
    void* memory;
    std::vector<Advice> advice;
};

Stage theStage{};

constexpr std::ptrdiff_t hugePage = std::ptrdiff_t{1} << 21;

// What the default allocation function adds in front.
constexpr std::size_t padding = alignof(std::max_align_t) - detail::rawBlockHeaderBytes;

// Addresses around a huge page's start, which is 0 here.
struct Range {
    std::ptrdiff_t first;
    std::ptrdiff_t end;
    bool operator==(const Range& other) const { return first == other.first && end == other.end; }
};

[[maybe_unused]] std::ostream& operator<<(std::ostream& stream, const Range& range) {
    return stream << range.first << " to " << range.end;
}

using Ranges = std::vector<Range>;

// Addresses that nothing else uses, with a huge page's start among them. They are never read or written.
class Addresses {
  public:
    Addresses() : theAddresses(mmap(nullptr, theBytes, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0)) {
        EXPECT_NE(theAddresses, MAP_FAILED);
    }
    Addresses(const Addresses&) = delete;
    Addresses& operator=(const Addresses&) = delete;
    ~Addresses() { EXPECT_EQ(munmap(theAddresses, theBytes), 0); }

    // A huge page's start; more than a huge page lies before it.
    char* origin() const {
        char* const address = static_cast<char*>(theAddresses) + 2 * hugePage;
        return address - reinterpret_cast<std::uintptr_t>(address) % hugePage;
    }

  private:
    static constexpr std::size_t theBytes = 8 * hugePage;
    void* theAddresses;
};

// The advice for a block for which malloc gives these bytes at this place.
Ranges adviceFor(std::ptrdiff_t first, std::size_t bytes) {
    const Addresses addresses;
    theStage = {true, addresses.origin() + first, {}};
    EXPECT_EQ(GVObject::GetAllocator()(static_cast<unsigned int>(bytes - padding)),
              addresses.origin() + first + padding);
    EXPECT_FALSE(theStage.isSet);
    Ranges ranges;
    for (const Advice& advice : theStage.advice) {
        EXPECT_EQ(advice.kind, MADV_HUGEPAGE);
        const std::ptrdiff_t begin = static_cast<char*>(advice.start) - addresses.origin();
        ranges.push_back({begin, begin + static_cast<std::ptrdiff_t>(advice.bytes)});
    }
    return ranges;
}

} // namespace

} // namespace Gilvane

// The linker sends the library's calls of malloc and madvise here.
extern "C" {
// NOLINTBEGIN(bugprone-reserved-identifier)
void* __real_malloc(std::size_t bytes);
void* __wrap_malloc(std::size_t bytes);
int __real_madvise(void* start, std::size_t bytes, int kind);
int __wrap_madvise(void* start, std::size_t bytes, int kind);

void* __wrap_malloc(std::size_t bytes) {
    if (!Gilvane::theStage.isSet) {
        return __real_malloc(bytes);
    }
    Gilvane::theStage.isSet = false;
    return Gilvane::theStage.memory;
}

int __wrap_madvise(void* start, std::size_t bytes, int kind) {
    Gilvane::theStage.advice.push_back({start, bytes, kind});
    return __real_madvise(start, bytes, kind);
}
// NOLINTEND(bugprone-reserved-identifier)
}

namespace Gilvane {

TEST(HugePages, areAskedForAsSoonAsABlockHasTheBytesOfTwo) {
    EXPECT_EQ(adviceFor(0, 2 * hugePage - 1), Ranges{});
    EXPECT_EQ(adviceFor(0, 2 * hugePage), (Ranges{{0, 2 * hugePage}}));
}

TEST(HugePages, areAskedForFromTheFirstThatBeginsInTheBlock) {
    EXPECT_EQ(adviceFor(-16, 3 * hugePage), (Ranges{{0, 2 * hugePage}}));
    EXPECT_EQ(adviceFor(0, 3 * hugePage), (Ranges{{0, 3 * hugePage}}));
    EXPECT_EQ(adviceFor(16, 3 * hugePage), (Ranges{{hugePage, 3 * hugePage}}));
}

TEST(HugePages, areAskedForUpToTheLastThatEndsInTheBlock) {
    EXPECT_EQ(adviceFor(0, 3 * hugePage - 1), (Ranges{{0, 2 * hugePage}}));
    EXPECT_EQ(adviceFor(0, 3 * hugePage), (Ranges{{0, 3 * hugePage}}));
    EXPECT_EQ(adviceFor(0, 3 * hugePage + 1), (Ranges{{0, 3 * hugePage}}));
    EXPECT_EQ(adviceFor(-16, 3 * hugePage + 15), (Ranges{{0, 2 * hugePage}}));
    EXPECT_EQ(adviceFor(-16, 3 * hugePage + 16), (Ranges{{0, 3 * hugePage}}));
}

TEST(HugePages, areNotAskedForWhenMemoryIsExhausted) {
    theStage = {true, nullptr, {}};
    EXPECT_EQ(GVObject::GetAllocator()(static_cast<unsigned int>(4 * hugePage)), nullptr);
    EXPECT_FALSE(theStage.isSet);
    EXPECT_TRUE(theStage.advice.empty());
}

} // namespace Gilvane
