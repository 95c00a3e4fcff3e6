#include <gilvane/utilities/gvmemorypool.h>

#include <gilvane/base/gvdumpvalue.h>
#include <gilvane/base/gvexception.h>
#include <gilvane/base/gvrawblock.h>
#include <gilvane/threads/gvthreadsfactory.h>

#include <algorithm>
#include <iterator>
#include <memory>
#include <new>

namespace Gilvane {

// The token table and the pool's smart pointer stand in the library whole, so that what it offers to programs does not
// depend on what the optimiser happened to inline.
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

// Wraps a new pool; should the pointer fail, the pool goes.
GVSmartPointer<GVMemoryPool> share(std::unique_ptr<GVMemoryPool> pool) {
    GVSmartPointer<GVMemoryPool> pointer(pool.get(), true, true);
    static_cast<void>(pool.release());
    return pointer;
}

// A reader would expect this read to need the pool's lock. Both callers make it without, by requirement: the number may
// be out of date when they act on it. Watched by TokenLending.readsTheNumberOfBlocksOutsideTheLock and
// PoolBlockSize.rebuildsAsManyBlocksAsThereAreAfterTheCheck.
template <typename Table>
GILVANE_UNGUARDED unsigned int countWithoutLock(const Table& table) {
    return table.getUsedCount();
}

// A reader would expect this write to need the pool's lock. It is made without, by requirement: a thread that builds
// blocks meanwhile may build some of the old size and some of the new.
// Watched by PoolBlockSize.isWrittenBetweenTheLockedSteps.
GILVANE_UNGUARDED void setWithoutLock(unsigned int& bytesInEachObject, unsigned int bytes) {
    bytesInEachObject = bytes;
}

// The tokens that a shrink removes from a pool, the highest first.
//
// Each leaves the free list too: of several equal tokens in the list, the first. A search for each alone would make the
// cost of a shrink grow with the square of the pool. So all of them leave the list in one pass, when the shrink ends,
// normally or by a throw. Only a deallocation hook that looks at the pool meanwhile can tell.
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
    // A plain loop from the front: which of several equal tokens leaves depends on the order.
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
    // Marks the token found in the free list, and returns whether it was among those that are gone and not yet marked.
    // It can be among them twice, since a table may hold a key twice; see GVHashTable::lookup.
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
    // A reader would expect a check that the header word can be added. There is none, by requirement: a length within a
    // word of 2^32 wraps and gets a block too small even for the header word.
    // Watched by PoolObject.asksForItsLengthAndAHeaderWordModulo32Bits.
    detail::requireOrReport(detail::fitsInRawBlock(length),
                            "GVMemoryPoolObject: a length that wraps with the header word");
    void* const bytes = detail::allocateRawBlock(length);
    if (bytes == nullptr) {
        throw std::bad_alloc();
    }
    theBytes = bytes;
    theLength = length;
    theToken = takeNextToken();
}

GVMemoryPoolObject::~GVMemoryPoolObject() {
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

// A reader would expect an atomic counter or a lock: pools of different locks, or of none, share it. There is neither,
// and neither is to be added; it wraps without a check for tokens still in use. This is required.
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

// A reader would expect a failing makePool to give back the handle and the blocks built so far. The members' own
// storage goes and nothing else, by requirement; so this constructor must not hand its work to another one, after which
// the destructor would run. Watched by PoolConstruction.losesHandleAndBlocksWhenABlockCannotBeBuilt.
GVMemoryPool::GVMemoryPool(unsigned int numberOfObjects, unsigned int bytesPerObject, bool useMutex)
    : initialNumberOfObjects(numberOfObjects), bytesInEachObject(bytesPerObject),
      theMutexHandle(createHandleIf(useMutex)), useMutexHandle(useMutex) {
    makePool(numberOfObjects);
}

GVMemoryPool::~GVMemoryPool() {
    delete theMutexHandle;
    deleteObjects();
}

// A reader would expect the free list to be emptied along with the table. It is not, by requirement: the tokens of the
// destroyed blocks stay below the new ones, which are lent first. Watched by PoolRebuilding.keepsTheStaleTokensInFront.
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

// A reader would expect one lock around the whole. The check and the rebuilding lock each by itself, and what stands
// between them, a race with other threads, does not, by requirement: another thread may also borrow a block in the gap
// and lose it to the rebuilding.
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
        // Wraps when the list holds more tokens than there are blocks; this is required.
        // Watched by PoolRebuilding.countsStaleTokensAsFree.
        return count == 0 ? 0 : count - static_cast<unsigned int>(availableTokens.size());
    });
}

void GVMemoryPool::removeTokenFromAvailableList(unsigned int token) {
    const auto position = std::find(availableTokens.begin(), availableTokens.end(), token);
    if (position != availableTokens.end()) {
        availableTokens.erase(position);
        if constexpr (detail::isHardened) {
            checkAfterLoan(token);
        }
    }
}

// For a loan that finds nothing to lend. Called, and left, with the lock taken if the pool locks; left by a throw,
// without it.
void GVMemoryPool::growToLend() {
    // Growing takes the lock itself. A reader would expect the number of blocks to be read before the lock is
    // released: it is read after, a race with other threads, by requirement. Two threads that find the list empty
    // both act on the number they read: the later may do nothing, double the pool once more, shrink it or rebuild
    // it. Watched by TokenLending.readsTheNumberOfBlocksOutsideTheLock.
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

// The factory is made even where no handle is wanted: programs that link one of their own see every pool.
GVMutexHandle* GVMemoryPool::createHandleIf(bool useMutex) {
    GVThreadsFactory factory;
    return useMutex ? factory.CreateUnnamedHandle(gvexclusivemutex, false) : nullptr;
}

void GVMemoryPool::buildObjects(unsigned int numberOfObjects) {
    for (unsigned int built = 0; built < numberOfObjects; ++built) {
        buildObject();
    }
}

// A reader would expect a block to be deleted when it cannot be entered in the table or the free list. It is not, by
// requirement: one that the table did not store is lost, and one that it stored before it failed to grow stays there,
// never lent, until the pool goes. Watched by PoolGrowth.losesTheBlockWhoseInsertionFails.
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
    // A reader would expect lent blocks to be spared, or their holders to be told. Neither happens, by requirement.
    // Watched by PoolShrinking.removesTheHighestTokensEvenIfLent. Nor is a token that the table misses behind a deleted
    // slot passed over: operator[] stores it again, with a null block, and the block it named stays until the pool
    // goes, unless the table grows over it, which leaves one of the two entries.
    for (; !removal.isComplete(); removal.highestTokenIsGone()) {
        const unsigned int token = removal.highestToken();
        delete memoryPool[token];
        memoryPool.remove(token);
    }
}

std::ostream& operator<<(std::ostream& stream, const GVMemoryPool& pool) { return pool.print(stream); }

} // namespace Gilvane
