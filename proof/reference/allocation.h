/// @file
/// The reference's memory: it has none, but asks a meter for every raw block that the library must ask for, in the same
/// order. The number of a request stands for the block's address.
#ifndef GILVANE_PROOF_REFERENCE_ALLOCATION_H
#define GILVANE_PROOF_REFERENCE_ALLOCATION_H

#include <cstddef>
#include <string>
#include <utility>

namespace Gilvane::reference {

/// The number of a request, from 1 in order; 0 stands for null.
using Id = int;

/// What a raw block is for. Those that are arrays come with a number of units.
enum class What {
    pool,
    otherObject,
    block,
    bytesOfBlock,  // units: bytes
    arrayOfPool,   // the slots of a pool's table; units: entries
    arrayOfTable,  // of any other table; units: entries
    tokens,        // units: tokens
    marksOfTokens, // a bit for each token; units: words
    keyNode,
    countCell,
    flagCell,
    handle,
    text, // units: characters, the zero at the end included
};

/// What a refused request may lose: nothing refers to it any more, and it is not released.
enum class Loss {
    countCell,
    flagCell,
    handleOfFailedPool,
    blockOfFailedPool,
    bytesOfFailedPool,
    arrayOfFailedTableCopy,
    arrayOfFailedPoolCopy,
    poolOfFailedDeepCopy,
    arrayOfFailedDeepCopy,
    freeListOfFailedDeepCopy,
};

/// What else can be seen from outside. All but the factory's come with the number of a handle.
enum class Event { factoryMade, factoryDestroyed, createdByFactory, createdByFunction, locked, unlocked, deleted };

class Meter;
/// The one in use; null where nobody cares what is still released.
inline Meter* meter = nullptr;

/// Grants every request and counts. A proof that refuses requests, or looks at their order, derives from it.
class Meter {
  public:
    Meter() = default;
    Meter(const Meter&) = delete;
    Meter& operator=(const Meter&) = delete;
    virtual ~Meter() { meter = meter == this ? nullptr : meter; }

    /// @returns 0 when refused
    Id request(What what, std::size_t units) {
        const bool granted = grants(what, units);
        ++theRequestCount;
        theLiveCount += granted ? 1 : 0;
        return granted ? theRequestCount : 0;
    }
    void release(Id id) {
        --theLiveCount;
        released(id);
    }
    virtual void happened(Event, int) {}
    virtual void lost(Loss, Id) {}

    int requestCount() const { return theRequestCount; }
    std::size_t liveCount() const { return theLiveCount; } ///< granted and not released

  protected:
    virtual bool grants(What, std::size_t) { return true; }
    virtual void released(Id) {}

  private:
    Id theRequestCount = 0;
    std::size_t theLiveCount = 0;
};

/// What a refused request throws where the library throws std::bad_alloc.
struct BadAlloc {};

inline Id requestOrThrow(What what, std::size_t units = 1) {
    const Id id = meter->request(what, units);
    if (id == 0) {
        throw BadAlloc();
    }
    return id;
}

inline void release(Id id) {
    if (id != 0 && meter != nullptr) {
        meter->release(id);
    }
}

inline void lose(Loss loss, Id id) {
    if (id != 0) {
        meter->lost(loss, id);
    }
}

/// Owns a raw block, or none.
class RawBlock {
  public:
    RawBlock() = default;
    explicit RawBlock(What what, std::size_t units = 1) : theId(requestOrThrow(what, units)) {}
    explicit RawBlock(Id id) : theId(id) {}
    RawBlock(RawBlock&& other) noexcept : theId(other.leave()) {}
    RawBlock& operator=(RawBlock&& other) noexcept {
        release(std::exchange(theId, other.leave()));
        return *this;
    }
    ~RawBlock() { release(theId); }

    Id id() const { return theId; }
    /// Nobody's from now on.
    Id leave() { return std::exchange(theId, 0); }

  private:
    Id theId = 0;
};

/// The memory of a text in an exception: none while the text fits in the string object.
inline RawBlock memoryOfText(const std::string& text) {
    return text.size() <= std::string().capacity() ? RawBlock() : RawBlock(What::text, text.size() + 1);
}

/// A GVException.
struct Exception {
    std::string text; // kind, code, file and message
    RawBlock messageMemory;
    RawBlock fileMemory;
};

[[noreturn]] inline void throwException(int kind, const std::string& message, const std::string& file) {
    throw Exception{"GVException " + std::to_string(kind) + " 0 " + file + ": " + message, memoryOfText(message),
                    memoryOfText(file)};
}

} // namespace Gilvane::reference

#endif
