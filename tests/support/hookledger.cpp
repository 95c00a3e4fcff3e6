#include "hookledger.h"

#include <gilvane/base/gvobject.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <mutex>

namespace Gilvane {

namespace {

constexpr std::size_t never = std::numeric_limits<std::size_t>::max();
// As with the default hooks, the byte after the header word gets malloc's full alignment.
constexpr std::size_t padding = alignof(std::max_align_t) - sizeof(void*);

struct Books {
    std::mutex mutex;
    bool open = false;
    std::vector<HookLedger::Block> live;
    std::vector<unsigned int> requests;
    std::vector<void*> releases;
    std::size_t refuseAt = never;
    bool refuseOn = false;
    std::size_t refused = 0;
};

Books& books() {
    static Books theBooks;
    return theBooks;
}

void freeMemory(const HookLedger::Block& block) {
    std::memset(block.start, 0xdd, block.bytes);
    std::free(static_cast<char*>(block.start) - padding);
}

} // namespace

HookLedger::HookLedger() {
    {
        const std::lock_guard<std::mutex> guard(books().mutex);
        EXPECT_FALSE(books().open) << "only one ledger may live at a time";
        books().open = true;
        books().live.clear();
        books().requests.clear();
        books().releases.clear();
        books().refuseAt = never;
        books().refuseOn = false;
        books().refused = 0;
    }
    GVObject::SetAllocationHooks(&HookLedger::allocate, &HookLedger::release);
}

HookLedger::~HookLedger() {
    GVObject::SetAllocationHooks(nullptr, nullptr);
    for (const Block& block : liveBlocks()) {
        ADD_FAILURE() << "a block of " << block.bytes << " bytes was not released";
    }
    reclaimLiveBlocks();
    const std::lock_guard<std::mutex> guard(books().mutex);
    books().open = false;
}

void HookLedger::refuseOnce(std::size_t allocationsBefore) {
    const std::lock_guard<std::mutex> guard(books().mutex);
    books().refuseAt = books().requests.size() + allocationsBefore;
    books().refuseOn = false;
}

void HookLedger::refuseFrom(std::size_t allocationsBefore) {
    const std::lock_guard<std::mutex> guard(books().mutex);
    books().refuseAt = books().requests.size() + allocationsBefore;
    books().refuseOn = true;
}

void HookLedger::refuseNothing() {
    const std::lock_guard<std::mutex> guard(books().mutex);
    books().refuseAt = never;
}

std::size_t HookLedger::refusedCount() const {
    const std::lock_guard<std::mutex> guard(books().mutex);
    return books().refused;
}

std::size_t HookLedger::allocationCount() const {
    const std::lock_guard<std::mutex> guard(books().mutex);
    return books().requests.size();
}

std::size_t HookLedger::releaseCount() const {
    const std::lock_guard<std::mutex> guard(books().mutex);
    return books().releases.size();
}

std::vector<unsigned int> HookLedger::requests() const {
    const std::lock_guard<std::mutex> guard(books().mutex);
    return books().requests;
}

std::vector<void*> HookLedger::releases() const {
    const std::lock_guard<std::mutex> guard(books().mutex);
    return books().releases;
}

std::vector<HookLedger::Block> HookLedger::liveBlocks() const {
    const std::lock_guard<std::mutex> guard(books().mutex);
    return books().live;
}

std::size_t HookLedger::liveBytes() const {
    std::size_t bytes = 0;
    for (const Block& block : liveBlocks()) {
        bytes += block.bytes;
    }
    return bytes;
}

std::size_t HookLedger::reclaimLiveBlocks() {
    const std::lock_guard<std::mutex> guard(books().mutex);
    const std::size_t count = books().live.size();
    std::for_each(books().live.begin(), books().live.end(), freeMemory);
    books().live.clear();
    return count;
}

void* HookLedger::allocate(unsigned int numberOfBytes) {
    const std::lock_guard<std::mutex> guard(books().mutex);
    const std::size_t number = books().requests.size();
    books().requests.push_back(numberOfBytes);
    if (number == books().refuseAt || (books().refuseOn && number > books().refuseAt)) {
        ++books().refused;
        return nullptr;
    }
    void* const memory = std::malloc(padding + numberOfBytes);
    if (memory == nullptr) {
        return nullptr;
    }
    void* const start = static_cast<char*>(memory) + padding;
    std::memset(start, 0xa5, numberOfBytes);
    books().live.push_back({start, numberOfBytes});
    return start;
}

void HookLedger::release(void* block) {
    const std::lock_guard<std::mutex> guard(books().mutex);
    const auto position =
        std::find_if(books().live.rbegin(), books().live.rend(), [block](const Block& b) { return b.start == block; });
    if (position == books().live.rend()) {
        ADD_FAILURE() << "a block that is not live was released";
        return;
    }
    books().releases.push_back(block);
    freeMemory(*position);
    books().live.erase(std::next(position).base());
}

std::vector<unsigned int> bytesOf(const std::vector<HookLedger::Block>& blocks) {
    std::vector<unsigned int> bytes;
    for (const HookLedger::Block& block : blocks) {
        bytes.push_back(block.bytes);
    }
    return bytes;
}

} // namespace Gilvane
