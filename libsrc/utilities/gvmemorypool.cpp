#include <gilvane/utilities/gvmemorypool.h>

#include <gilvane/base/gvdumpvalue.h>
#include <gilvane/base/gvexception.h>
#include <gilvane/base/gvprobes.h>
#include <gilvane/base/gvrawblock.h>
#include <gilvane/threads/gvthreadsfactory.h>

#include <algorithm>
#include <iterator>
#include <memory>
#include <new>

namespace Gilvane {

// The library holds every operation of the token table and of the pool's smart pointer, whatever the optimiser inlines:
// programs may call each.
template class GVHashTableEntry<unsigned int, GVMemoryPoolObject*>;
template class GVHashTableEntry_Iterator<unsigned int, GVMemoryPoolObject*>;
template class GVGenericHashFunction<unsigned int>;
template class GVHashTable<unsigned int, GVMemoryPoolObject*, GVGenericHashFunction<unsigned int>>;
template class GVSmartPointer<GVMemoryPool>;

namespace {

// Programs compile these three operations into themselves. The library keeps a copy of each, for those that do not.
[[gnu::used]] constexpr auto theKeptLoan = &GVMemoryPool::getTokenForFreeMemoryObject;
[[gnu::used]] constexpr auto theKeptLookup = &GVMemoryPool::getMemoryForToken;
[[gnu::used]] constexpr auto theKeptReturn = &GVMemoryPool::releaseObject;

constexpr const char* theSourceFile = "libsrc/utilities/gvmemorypool";

// Wraps a new pool. Deletes it when the pointer cannot be made.
GVSmartPointer<GVMemoryPool> share(std::unique_ptr<GVMemoryPool> pool) {
    GVSmartPointer<GVMemoryPool> pointer(pool.get(), true, true);
    static_cast<void>(pool.release());
    return pointer;
}

// Deliberate: the number of blocks is read without the lock (docs/deliberate.md, Growth).
// Watched by TokenLending.readsTheNumberOfBlocksOutsideTheLock and
// PoolBlockSize.rebuildsAsManyBlocksAsThereAreAfterTheCheck.
template <typename Table>
GILVANE_UNGUARDED unsigned int countWithoutLock(const Table& table) {
    return table.getUsedCount();
}

// Deliberate: the block size is written without the lock (docs/deliberate.md, Rebuilding).
// Watched by PoolBlockSize.isWrittenBetweenTheLockedSteps.
GILVANE_UNGUARDED void setWithoutLock(unsigned int& bytesInEachObject, unsigned int bytes) {
    bytesInEachObject = bytes;
}

// The tokens that a shrink removes from a pool, the highest first.
//
// The first occurrence of each leaves the free list, too. A search for each alone would make the cost of a shrink grow
// with the square of the pool. So all of them leave in one pass, when the shrink ends, normally or by a throw. Only a
// deallocation hook could see the tokens still in the list.
class TokenRemoval {
  public:
    using Tokens = std::vector<unsigned int, GVStdAllocator<unsigned int>>;

    // Throws std::bad_alloc; nothing has changed then.
    template <typename Table>
    TokenRemoval(const Table& table, Tokens& freeTokens, unsigned int numberOfTokens)
        : theFreeTokens(freeTokens), theFoundMarks(numberOfTokens, false) {
        theTokens.reserve(table.getUsedCount());
        for (auto position = table.begin(); position != table.end(); ++position) {
            theTokens.push_back(position.GetKey());
        }
        std::sort(theTokens.begin(), theTokens.end());
        theTokens.erase(theTokens.begin(), theTokens.end() - numberOfTokens);
        theFirstGone = theTokens.size();
    }
    TokenRemoval(const TokenRemoval&) = delete;
    TokenRemoval& operator=(const TokenRemoval&) = delete;
    // A plain loop, since markFound must see the tokens in their order.
    ~TokenRemoval() {
        auto end = theFreeTokens.begin();
        for (const unsigned int token : theFreeTokens) {
            if (!markFound(token)) {
                *end++ = token;
            }
        }
        theFreeTokens.erase(end, theFreeTokens.end());
    }

    bool isComplete() const { return theFirstGone == 0; }
    unsigned int highestToken() const { return theTokens[theFirstGone - 1]; }
    void highestTokenIsGone() { --theFirstGone; }

  private:
    // Marks a token of the free list as found, and returns whether it is one of those that are gone. A table may hold a
    // key twice, see GVHashTable::lookup; then the token is twice among them, and this returns true twice.
    bool markFound(unsigned int token) {
        const unsigned int* const tokens = theTokens.data();
        const unsigned int* const end = tokens + theTokens.size();
        for (auto place = std::lower_bound(tokens + theFirstGone, end, token); place != end && *place == token;
             ++place) {
            auto mark = theFoundMarks.begin() + std::distance(tokens, place);
            if (!*mark) {
                *mark = true;
                return true;
            }
        }
        return false;
    }

    Tokens& theFreeTokens;
    std::vector<bool, GVStdAllocator<bool>> theFoundMarks; // for each, whether it was found in the free list
    Tokens theTokens;                                      // to remove, in ascending order
    std::size_t theFirstGone;                              // index of the lowest that is gone already
};

} // namespace

unsigned int GVMemoryPoolObject::theNextToken = 0;

GVMemoryPoolObject::GVMemoryPoolObject() : theBytes(nullptr), theLength(0), theToken(takeNextToken()) {}

// The token is taken last, so that a block that could not be built uses none up.
GVMemoryPoolObject::GVMemoryPoolObject(unsigned int length) {
    // Deliberate: length and header word may wrap (docs/deliberate.md, Allocation).
    // Watched by PoolObject.asksForItsLengthAndAHeaderWordModulo32Bits.
    if constexpr (detail::isHardened) {
        detail::requireOrReport(detail::fitsInRawBlock(length),
                                "GVMemoryPoolObject: a length that wraps with the header word");
    }
    void* const bytes = detail::allocateRawBlock(length);
    if (bytes == nullptr) {
        throw std::bad_alloc();
    }
    theBytes = bytes;
    theLength = length;
    theToken = takeNextToken();
}

GVMemoryPoolObject::~GVMemoryPoolObject() {
    // Deliberate: a block that starts at address 0 is not released (docs/deliberate.md, Allocation).
    // Watched by PoolObject.withBytesRightAfterAHeaderAtAddressZeroReleasesNothing.
    if (theBytes != nullptr && detail::rawBlockStart(theBytes) != 0) {
        if constexpr (detail::isHardened) {
            detail::markBytesUsable(theBytes, theLength);
        }
        detail::releaseRawBlock(theBytes);
    }
}

bool GVMemoryPoolObject::operator==(const GVMemoryPoolObject& other) const {
    return this == &other || (theBytes == other.theBytes && theLength == other.theLength && theToken == other.theToken);
}

std::ostream& GVMemoryPoolObject::print(std::ostream& stream) const {
    stream << "<GVMemoryPoolObject>";
    stream << "<theBytes>";
    detail::writeDumpValue(stream, theBytes);
    stream << "</theBytes>";
    stream << "<theLength>";
    detail::writeDumpValue(stream, theLength);
    stream << "</theLength>";
    stream << "<theToken>";
    detail::writeDumpValue(stream, theToken);
    stream << "</theToken>";
    stream << "</GVMemoryPoolObject>";
    return stream;
}

// Deliberate: no lock, no atomic counter, no check for a wrap (docs/deliberate.md, Tokens).
// Watched by PoolObject.tokensGoOnFromZeroAfterTheLastOne.
GILVANE_UNGUARDED unsigned int GVMemoryPoolObject::takeNextToken() { return theNextToken++; }

std::ostream& operator<<(std::ostream& stream, const GVMemoryPoolObject& block) { return block.print(stream); }

unsigned int GVMemoryPool::defaultNumberOfObjects = 4;

GVSmartPointer<GVMemoryPool> GVMemoryPool::init(bool useMutex) {
    return share(std::unique_ptr<GVMemoryPool>(new GVMemoryPool(useMutex)));
}

GVSmartPointer<GVMemoryPool> GVMemoryPool::initWithNumberOfObjects(unsigned int numberOfObjects, bool useMutex) {
    return share(std::unique_ptr<GVMemoryPool>(new GVMemoryPool(numberOfObjects, useMutex)));
}

GVSmartPointer<GVMemoryPool> GVMemoryPool::initWithNumberOfObjectsAndSize(unsigned int numberOfObjects,
                                                                          unsigned int bytesPerObject, bool useMutex) {
    return share(std::unique_ptr<GVMemoryPool>(new GVMemoryPool(numberOfObjects, bytesPerObject, useMutex)));
}

GVMemoryPool::GVMemoryPool(bool useMutex) : GVMemoryPool(defaultNumberOfObjects, useMutex) {}

GVMemoryPool::GVMemoryPool(unsigned int numberOfObjects, bool useMutex)
    : initialNumberOfObjects(numberOfObjects), bytesInEachObject(0), theMutexHandle(createHandleIf(useMutex)),
      useMutexHandle(useMutex) {}

// Deliberate: a failing makePool loses the handle and the blocks built so far (docs/deliberate.md, Failures). So this
// constructor must not delegate to another one, after which the destructor would run.
// Watched by PoolConstruction.losesHandleAndBlocksWhenABlockCannotBeBuilt.
GVMemoryPool::GVMemoryPool(unsigned int numberOfObjects, unsigned int bytesPerObject, bool useMutex)
    : initialNumberOfObjects(numberOfObjects), bytesInEachObject(bytesPerObject),
      theMutexHandle(createHandleIf(useMutex)), useMutexHandle(useMutex) {
    makePool(numberOfObjects);
}

// Deliberate: takes no lock, and the handle goes first (docs/deliberate.md, Locking).
// Watched by PoolLocking.destructionDeletesTheHandleBeforeAnyBlock.
GVMemoryPool::~GVMemoryPool() {
    delete theMutexHandle;
    deleteObjects();
}

// Deliberate: stale tokens stay in the free list (docs/deliberate.md, Rebuilding).
// Watched by PoolRebuilding.keepsTheStaleTokensInFront.
void GVMemoryPool::makePool(unsigned int numberOfObjects) {
    withLock([this, numberOfObjects] {
        deleteObjects();
        memoryPool.clear();
        buildObjects(numberOfObjects);
    });
}

void GVMemoryPool::resizePool(unsigned int numberOfObjects) {
    withLock([this, numberOfObjects] {
        const unsigned int count = memoryPool.getUsedCount();
        if (numberOfObjects >= count) {
            buildObjects(numberOfObjects - count);
        } else {
            removeObjects(count - numberOfObjects);
        }
    });
}

// Deliberate: check and rebuild lock separately, with a gap between them (docs/deliberate.md, Rebuilding).
// Watched by PoolBlockSize.locksTheCheckAndTheRebuildingSeparately.
void GVMemoryPool::setNumberOfBytesInPoolObject(unsigned int bytes) {
    if (numberOfObjectsInPoolInUse() != 0) {
        constexpr const char* message = "Cannot change size of pool object memory while objects are still in use.";
        throw GVException(message, theSourceFile, __LINE__, gvinvalidstate, 0);
    }
    setWithoutLock(bytesInEachObject, bytes);
    makePool(countWithoutLock(memoryPool));
}

unsigned int GVMemoryPool::numberOfObjectsInPoolInUse() {
    return withLock([this] {
        const unsigned int count = memoryPool.getUsedCount();
        // Deliberate: wraps when there are more tokens than blocks (docs/deliberate.md, Tokens).
        // Watched by PoolRebuilding.countsStaleTokensAsFree.
        return count == 0 ? 0 : count - static_cast<unsigned int>(availableTokens.size());
    });
}

// Deliberate: takes no lock (docs/deliberate.md, Locking).
// Watched by PoolLocking.removeTokenFromAvailableListDoesNotLock.
void GVMemoryPool::removeTokenFromAvailableList(unsigned int token) {
    const auto position = std::find(availableTokens.begin(), availableTokens.end(), token);
    if (position != availableTokens.end()) {
        availableTokens.erase(position);
        if constexpr (detail::isHardened) {
            markLent(token);
        }
    }
}

// For a loan that finds no free token. The caller holds the lock, if the pool has one, and holds it again afterwards;
// after a throw it does not.
void GVMemoryPool::growToLend() {
    // Growing takes the lock itself.
    // Deliberate: the number of blocks is read after the lock is released (docs/deliberate.md, Growth).
    // Watched by TokenLending.readsTheNumberOfBlocksOutsideTheLock.
    if (useMutexHandle) {
        theMutexHandle->unlock();
    }
    const unsigned int count = countWithoutLock(memoryPool);
    if (count != 0) {
        resizePool(count * 2);
    } else {
        makePool(initialNumberOfObjects);
    }
    if (useMutexHandle) {
        theMutexHandle->lock();
    }
}

bool GVMemoryPool::operator==(const GVMemoryPool& other) const {
    return this == &other || (memoryPool == other.memoryPool && bytesInEachObject == other.bytesInEachObject);
}

std::ostream& GVMemoryPool::print(std::ostream& stream) const {
    stream << "<GVMemoryPool>";
    stream << "<memoryPool>";
    memoryPool.WriteTable(stream);
    stream << "</memoryPool>";
    stream << "<bytesInEachObject>";
    detail::writeDumpValue(stream, bytesInEachObject);
    stream << "</bytesInEachObject>";
    stream << "<theMutexHandle>";
    detail::writeDumpValue(stream, theMutexHandle);
    stream << "</theMutexHandle>";
    stream << "<useMutexHandle>";
    detail::writeDumpValue(stream, useMutexHandle);
    stream << "</useMutexHandle>";
    stream << "</GVMemoryPool>";
    return stream;
}

// Deliberate: a factory is made even where no handle is wanted (docs/deliberate.md, Locking).
// Watched by PoolLocking.everyConstructorMakesAFactoryEvenWithoutLocking.
GVMutexHandle* GVMemoryPool::createHandleIf(bool useMutex) {
    GVThreadsFactory factory;
    return useMutex ? factory.CreateUnnamedHandle(gvexclusivemutex, false) : nullptr;
}

void GVMemoryPool::buildObjects(unsigned int numberOfObjects) {
    GILVANE_PROBE(if (numberOfObjects != 0) detail::probeGrow(this, memoryPool.getUsedCount(), numberOfObjects));
    for (unsigned int built = 0; built < numberOfObjects; ++built) {
        buildObject();
    }
}

// Deliberate: a block that cannot be stored is not deleted (docs/deliberate.md, Failures).
// Watched by PoolGrowth.losesTheBlockWhoseInsertionFails.
void GVMemoryPool::buildObject() {
    if constexpr (detail::isHardened) {
        checkBlockSize();
    }
    GVMemoryPoolObject* const block = bytesInEachObject != 0 ? new (std::nothrow) GVMemoryPoolObject(bytesInEachObject)
                                                             : new (std::nothrow) GVMemoryPoolObject;
    if (block == nullptr) {
        throw GVException("Unable to allocate memory for new pool object", theSourceFile, __LINE__, gvoutofmemory, 0);
    }
    memoryPool.insert(block->getToken(), block);
    availableTokens.push_back(block->getToken());
    if constexpr (detail::isHardened) {
        detail::markBytesUntouchable(block->getBytes(), block->getLength());
    }
}

void GVMemoryPool::deleteObjects() {
    for (GVMemoryPoolObject* const block : memoryPool) {
        delete block;
    }
}

// Removes the blocks with the highest tokens.
void GVMemoryPool::removeObjects(unsigned int numberOfObjects) {
    // The lists, which need memory, come first: a failure there leaves the pool unchanged.
    TokenRemoval removal(memoryPool, availableTokens, numberOfObjects);
    GILVANE_PROBE(detail::probeShrink(this, memoryPool.getUsedCount(), numberOfObjects));
    // Deliberate: lent blocks are removed, and a hidden token is stored again (docs/deliberate.md, Shrinking).
    // Watched by PoolShrinking.removesTheHighestTokensEvenIfLent and
    // PoolShrinking.keepsABlockWhoseTokenIsMissedPastADeletedSlot.
    for (; !removal.isComplete(); removal.highestTokenIsGone()) {
        const unsigned int token = removal.highestToken();
        delete memoryPool[token];
        memoryPool.remove(token);
    }
}

std::ostream& operator<<(std::ostream& stream, const GVMemoryPool& pool) { return pool.print(stream); }

} // namespace Gilvane
