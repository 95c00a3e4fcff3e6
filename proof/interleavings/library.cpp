#include "library.h"

#include "gvtestpeer.h"
#include "switchpoints.h"

#include <gilvane/base/gvexception.h>
#include <gilvane/threads/gvthreadsfactory.h>
#include <gilvane/utilities/gvmemorypool.h>
#include <gilvane/utilities/gvsmartpointer.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <sstream>
#include <string>
#include <utility>

namespace Gilvane {
namespace Interleavings {

namespace {

using Pointer = GVSmartPointer<GVMemoryPool>;

constexpr std::size_t mostThreads = 8;
constexpr std::size_t placesOfAThread = 4;

// Storage in which a pointer is made and ended by hand, so that a thread given up in mid-operation ends none.
struct Place {
    alignas(Pointer) unsigned char storage[sizeof(Pointer)];

    Pointer& pointer() { return *std::launder(reinterpret_cast<Pointer*>(storage)); }
};

// All memory of one schedule: handed out in one direction and never again, so that a block given back stays
// recognisable.
struct Arena {
    struct alignas(std::max_align_t) Header {
        unsigned int bytes;
        bool live;
    };

    std::array<unsigned char, std::size_t{1} << 20> bytes;
    std::size_t used = 0;
    unsigned int live = 0;
    std::string fault;
};

alignas(std::max_align_t) Arena theArena;
int theThread = outsideThreads;
unsigned int theHandleCount = 0;

void* allocate(unsigned int bytes) {
    // As by default, the byte after the header word is the one that is aligned.
    constexpr std::size_t alignment = alignof(std::max_align_t);
    const std::size_t start = theArena.used + sizeof(Arena::Header) + alignment - sizeof(void*);
    if (start + bytes > theArena.bytes.size()) {
        std::fputs("the arena is too small\n", stderr);
        std::abort();
    }
    theArena.used = (start + bytes + alignment - 1) / alignment * alignment;
    ::new (&theArena.bytes[start - (alignment - sizeof(void*)) - sizeof(Arena::Header)]) Arena::Header{bytes, true};
    ++theArena.live;
    std::memset(&theArena.bytes[start], 0xa5, bytes);
    return &theArena.bytes[start];
}

Arena::Header& headerOf(void* block) {
    constexpr std::size_t distance = alignof(std::max_align_t) - sizeof(void*) + sizeof(Arena::Header);
    return *std::launder(reinterpret_cast<Arena::Header*>(static_cast<unsigned char*>(block) - distance));
}

void release(void* block) {
    Arena::Header& header = headerOf(block);
    if (!header.live) {
        theArena.fault = "a block of memory is released twice";
        return;
    }
    header.live = false;
    --theArena.live;
    std::memset(block, 0xdd, header.bytes);
}

bool isLive(GVMemoryPoolObject* block) {
    return headerOf(reinterpret_cast<unsigned char*>(block) - sizeof(void*)).live;
}

// A lock of which at() decides when it is taken and released.
class ControlledHandle final : public GVMutexHandle {
  public:
    ControlledHandle() : theNumber(theHandleCount++) {}
    ~ControlledHandle() override { at(Step::deleteHandle, theNumber); }

    bool tryLock() override { std::abort(); } // the library never does
    void lock() override {
        at(Step::lock, theNumber);
        theHolder = theThread;
    }
    void unlock() override {
        at(Step::unlock, theNumber);
        theHolder = nobody;
    }

    int holder() const { return theHolder; }

  private:
    unsigned int theNumber;
    int theHolder = nobody;
};

struct World {
    std::array<GVMemoryPool*, 2> pools;
    std::array<std::array<Place, placesOfAThread>, mostThreads> pointers;
    std::array<std::array<unsigned int, placesOfAThread>, mostThreads> tokens;
    std::array<GVMemoryPoolObject*, mostBlocks> blocks; // by the reference's numbers; null until first seen
    unsigned int* refCount;
    ControlledHandle* shareHandle;
};

World theWorld;

unsigned int sharersInText(const Pointer& pointer) {
    std::ostringstream stream;
    pointer.print(stream);
    const std::string text = stream.str();
    const std::string attribute = "refCount=\"";
    const std::size_t position = text.find(attribute);
    const bool whole = text.find("</GVMemoryPool></GVSmartPointer>") != std::string::npos;
    return position == std::string::npos || !whole
               ? ~0U
               : static_cast<unsigned int>(std::stoul(text.substr(position + attribute.size())));
}

} // namespace

void Library::reset() {
    GVObject::SetAllocationHooks(&allocate, &release);
    theArena.used = 0;
    theArena.live = 0;
    theArena.fault.clear();
    theHandleCount = 0;
    theThread = outsideThreads;
    GVTestPeer::nextToken() = 0;
    theWorld.pools.fill(nullptr);
    theWorld.blocks.fill(nullptr);
    theWorld.refCount = nullptr;
}

void Library::prepare(const Program& program) {
    for (std::size_t number = 0; number < program.pools.size(); ++number) {
        const PoolAtStart& pool = program.pools[number];
        theWorld.pools[number] =
            pool.later != 0 ? new GVMemoryPool(pool.later, true) : new GVMemoryPool(pool.blocks, pool.bytes, true);
    }
    for (std::size_t thread = 0; thread < program.threads.size(); ++thread) {
        for (Place& place : theWorld.pointers[thread]) {
            ::new (place.storage) Pointer;
        }
    }
    if (program.shared) {
        Pointer first(theWorld.pools[0], true, true);
        theWorld.refCount = GVTestPeer::refCount(first);
        theWorld.shareHandle = static_cast<ControlledHandle*>(GVTestPeer::lock(first));
        for (std::size_t thread = 0; thread < program.threads.size(); ++thread) {
            theWorld.pointers[thread][0].pointer() = first;
        }
    }
}

unsigned int Library::perform(const Operation& operation, int thread) {
    auto& tokens = theWorld.tokens[static_cast<std::size_t>(thread)];
    auto& places = theWorld.pointers[static_cast<std::size_t>(thread)];
    const auto pool = [&operation]() -> GVMemoryPool& { return *theWorld.pools[operation.first]; };
    switch (operation.what) {
    case Do::borrow:
        return tokens[operation.second] = pool().getTokenForFreeMemoryObject();
    case Do::give:
        pool().releaseObject(tokens[operation.second]);
        return 0;
    case Do::use: {
        auto* const bytes = static_cast<unsigned char*>(pool().getMemoryForToken(tokens[operation.second]));
        if (bytes == nullptr) {
            return 0;
        }
        at(Step::touch);
        const unsigned int content = *bytes;
        *bytes = static_cast<unsigned char>(thread);
        return content;
    }
    case Do::count:
        return pool().numberOfObjectsInPoolInUse();
    case Do::resize:
        pool().resizePool(operation.second);
        return 0;
    case Do::rebuild:
        pool().makePool(operation.second);
        return 0;
    case Do::setSize:
        try {
            pool().setNumberOfBytesInPoolObject(operation.second);
        } catch (const GVException& exception) {
            return exception.getKind() == gvinvalidstate ? 0 : 2;
        }
        return 1;
    case Do::copy:
        ::new (places[operation.second].storage) Pointer(places[operation.first].pointer());
        return 0;
    case Do::assign:
        places[operation.second].pointer() = places[operation.first].pointer();
        return 0;
    case Do::move:
        places[operation.second].pointer() = std::move(places[operation.first].pointer());
        return 0;
    case Do::drop:
        places[operation.first].pointer().~Pointer();
        ::new (places[operation.first].storage) Pointer;
        return 0;
    case Do::refs:
        return places[operation.first].pointer().getRefCount();
    case Do::print:
        return sharersInText(places[operation.first].pointer());
    case Do::pause:
        at(Step::touch);
        return 0;
    }
    std::abort();
}

void Library::setThread(int thread) { theThread = thread; }

std::string Library::differenceTo(Reference& reference) {
    if (!theArena.fault.empty()) {
        return theArena.fault;
    }
    if (GVTestPeer::nextToken() != reference.counter) {
        return "the token counter";
    }
    for (std::size_t number = 0; number < reference.pools.size(); ++number) {
        ReferencePool& expected = reference.pools[number];
        if (!expected.exists) {
            continue;
        }
        GVMemoryPool& pool = *theWorld.pools[number];
        TokenTable& table = GVTestPeer::table(pool);
        const auto& freeTokens = GVTestPeer::freeTokens(pool);
        if (static_cast<ControlledHandle*>(GVTestPeer::mutexHandle(pool))->holder() != reference.holders[number]) {
            return "who holds the lock";
        }
        if (table.getUsedCount() != expected.table.size) {
            return "the number of blocks";
        }
        if (!std::equal(freeTokens.begin(), freeTokens.end(), expected.freeTokens.begin(), expected.freeTokens.end())) {
            return "the free list";
        }
        if (GVTestPeer::bytesInEachObject(pool) != expected.bytes) {
            return "the block size";
        }
        for (const ReferencePool::Entry& entry : expected.table) {
            const auto* const slot = table.get(entry.token);
            GVMemoryPoolObject*& block = theWorld.blocks.at(entry.block);
            if (slot == nullptr || (block != nullptr && slot->theValue != block)) {
                return "the block of a token";
            }
            block = slot->theValue;
            if (isLive(block) && (block->getLength() != reference.blocks.items[entry.block].length ||
                                  block->getToken() != entry.token)) {
                return "what a block holds";
            }
        }
    }
    for (unsigned int number = 0; number < reference.blocks.size; ++number) {
        if (theWorld.blocks[number] != nullptr &&
            isLive(theWorld.blocks[number]) != reference.blocks.items[number].alive) {
            return "whether a block lives";
        }
    }
    if (reference.refCount != 0 && theWorld.refCount != nullptr) {
        if (*theWorld.refCount != reference.refCount) {
            return "the number of sharers";
        }
        if (theWorld.shareHandle->holder() != reference.holders[reference.shareHandle]) {
            return "who holds the sharers' lock";
        }
    }
    return {};
}

std::string Library::tearDown(const Program& program, Reference& reference) {
    if (program.shared) {
        for (std::size_t thread = 0; thread < program.threads.size(); ++thread) {
            for (Place& place : theWorld.pointers[thread]) {
                place.pointer().~Pointer();
            }
        }
    }
    for (std::size_t number = program.shared ? 1 : 0; number < program.pools.size(); ++number) {
        delete theWorld.pools[number];
    }
    if (!theArena.fault.empty()) {
        return theArena.fault;
    }
    unsigned int expected = 0;
    for (const ReferenceBlock& block : reference.blocks) {
        expected += !block.lost ? 0U : block.length != 0 ? 2U : 1U;
    }
    return theArena.live == expected ? std::string() : "memory left behind, or too little of it";
}

} // namespace Interleavings

GVThreadsFactory::GVThreadsFactory() = default;
GVThreadsFactory::~GVThreadsFactory() = default;
GVMutexHandle* GVThreadsFactory::CreateUnnamedHandle(_gvmutex, bool) { return new Interleavings::ControlledHandle; }
GVMutexHandle* CreateUnnamedMutexHandle(_gvmutex, bool) { return new Interleavings::ControlledHandle; }

} // namespace Gilvane
