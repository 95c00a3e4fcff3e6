"""Mutations that no rule makes: above all those that mend what is required to stay as it is.

Each has one or more edits. `within` stands once in its file; there begins a function, a class or a statement, which
holds `anchor` once. An edit stands at the anchor:
  before   the text is put in front of it, with ON for the question whether the mutation is in force
  value    the text is the expression that stands there instead
  instead  the text is the statements that stand there instead
"""

from typing import NamedTuple

POOL = "libsrc/utilities/gvmemorypool.cpp"
POOL_HEADER = "libsrc/utilities/gvmemorypool.h"
POINTER = "libsrc/utilities/gvsmartpointer.h"
TABLE = "libsrc/datastructures/gvhashtable.h"
OBJECT = "libsrc/base/gvobject.cpp"
RAW = "libsrc/base/gvrawblock.h"
HARDENED = "libsrc/base/gvhardened.cpp"
HARDENED_HEADER = "libsrc/base/gvhardened.h"
ALLOCATOR = "libsrc/base/gvstdallocator.h"
CHECKS = "libsrc/utilities/gvmemorypoolchecks.cpp"
INSPECTOR = "libsrc/utilities/gvmemorypoolinspector.cpp"
DUMP = "libsrc/base/gvdumpvalue.h"


class Edit(NamedTuple):
    within: str
    kind: str
    anchor: str
    text: str


class Patch(NamedTuple):
    name: str
    file: str
    edits: list


def patch(name, file, *edits):
    return Patch(name, file, [Edit(*edit) for edit in edits])


LOCKED = "GVMutex added; if (ON && useMutexHandle) { added.setHandle(theMutexHandle); }"
INSERT = "GVHashTable<K, V, H>::insert("
HELPER = "GVHashTable<K, V, H>::insert_helper("
REPLACE = "if (entry->theState == gvoccupiedentry) {\n        entry->theKey = key;"
LOOKUP = "GVHashTable<K, V, H>::lookup("
PAST_HOME = "GVHashTable<K, V, H>::lookupPastHome("
LEND = "GVMemoryPool::getTokenForFreeMemoryObject() {"
GROW = "void GVMemoryPool::growToLend() {"
SHRINK = "GVMemoryPool::resizePool"
REMOVE = "GVMemoryPool::removeObjects("
BLOCK_SIZE = "void GVMemoryPool::setNumberOfBytesInPoolObject"
RETURN = "inline void GVMemoryPool::releaseObject"
RELEASE = "GVSmartPointer<T>::decrementRefCount"
RESIZE = "int GVHashTable<K, V, H>::resize("
LEFT_SLOTS = "for (unsigned int left = 0; ON && oldArray == theSmallTable && theTable != oldArray && left < 8; ++left) "

# What the self-test plants; not among the mutants.
PLANTED = [
    patch("fatal", TABLE, (HELPER, "before", "const unsigned int hash", "if (ON) { return 2; }")),
    patch("harmless", TABLE, (HELPER, "before", "const unsigned int hash", "if (ON) { static_cast<void>(value); }")),
]

PATCHES = [
    # Locks that are not wanted, and gaps between locked sections closed
    patch("print locks", POOL, ("GVMemoryPool::print", "before", 'stream << "<GVMemoryPool>"', LOCKED)),
    patch("comparison locks", POOL, ("bool GVMemoryPool::operator==", "before", "return", LOCKED)),
    patch("taking out a free token locks", POOL,
          ("GVMemoryPool::removeTokenFromAvailableList", "before", "const auto position", LOCKED)),
    patch("the destructor locks", POOL, ("GVMemoryPool::~GVMemoryPool", "before", "delete theMutexHandle",
                                         "if (ON && useMutexHandle) { GVMutex added; "
                                         "added.setHandle(theMutexHandle); }")),
    patch("the destructor goes by the flag", POOL,
          ("GVMemoryPool::~GVMemoryPool", "instead", "delete theMutexHandle;",
           "if (useMutexHandle) { delete theMutexHandle; }")),
    patch("the constructor locks while it builds", POOL,
          ("unsigned int bytesPerObject, bool useMutex)\n    :", "before", "makePool(",
           "if (ON && useMutexHandle) { GVMutex added; added.setHandle(theMutexHandle); }")),
    patch("the blocks are counted under the lock before growth", POOL,
          (GROW, "before", "const unsigned int count", "if (ON && useMutexHandle) { theMutexHandle->lock(); }"),
          (GROW, "before", "if (count != 0)", "if (ON && useMutexHandle) { theMutexHandle->unlock(); }")),
    patch("the blocks are counted before the lock is released", POOL,
          (GROW, "before", "if (useMutexHandle) {\n        theMutexHandle->unlock();",
           "const unsigned int early = memoryPool.getUsedCount();"),
          (GROW, "value", "count != 0", "early != 0"),
          (GROW, "value", "count * 2", "early * 2")),
    patch("growth is asked for again while the list is empty", POOL_HEADER,
          (LEND, "before", "const unsigned int token", "if (ON && availableTokens.empty()) { if (useMutexHandle) { "
           "theMutexHandle->unlock(); } return getTokenForFreeMemoryObject(); }")),
    patch("an empty list after growth is refused", POOL_HEADER,
          (LEND, "before", "const unsigned int token", "if (ON && availableTokens.empty()) { if (useMutexHandle) { "
           "theMutexHandle->unlock(); } throw std::bad_alloc(); }")),
    patch("the list is looked at again before growth", POOL,
          (GROW, "before", "const unsigned int count", "if (ON && !availableTokens.empty()) { if (useMutexHandle) { "
           "theMutexHandle->lock(); } return; }")),
    patch("the block size is written under the lock", POOL,
          (BLOCK_SIZE, "before", "makePool(",
           "if (ON && useMutexHandle) { GVMutex added; added.setHandle(theMutexHandle); }")),
    patch("check and rebuilding are one locked section", POOL, (BLOCK_SIZE, "before", "if (", LOCKED)),
    patch("the pool lets go of its lock before it has done anything", POOL_HEADER,
          ("decltype(auto) GVMemoryPool::withLock", "instead", "guard.setHandle(theMutexHandle);",
           "GVMutex brief; brief.setHandle(theMutexHandle);")),
    patch("deep copy locks", POINTER,
          ("GVSmartPointer<T>::deepCopy", "before", "T* const copy",
           "GVMutex added; if (ON) { lockIfShared(added); }")),
    patch("the object is deleted outside the lock", POINTER,
          (RELEASE, "before", "deleteData();", "if (ON && lock != nullptr) { lock->unlock(); }"),
          (RELEASE, "before", "detail::releaseRawBlock(refCount)", "if (ON && lock != nullptr) { lock->lock(); }")),
    patch("the cells are released outside the lock", POINTER,
          (RELEASE, "before", "detail::releaseRawBlock(refCount)", "if (ON && lock != nullptr) { lock->unlock(); }"),
          (RELEASE, "before", "if (lock != nullptr) {\n        lock->unlock();\n        delete",
           "if (ON && lock != nullptr) { lock->lock(); }")),
    patch("an override of deleteData is passed over", POINTER,
          (RELEASE, "value", "deleteData()", "GVSmartPointer::deleteData()")),
    patch("deleteData forgets the object", POINTER,
          ("void GVSmartPointer<T>::deleteData", "instead", "delete object;", "delete object; object = nullptr;")),
    patch("a share given up empties the pointer", POINTER,
          (RELEASE, "before", "return;", "if (ON) { forget(); }")),
    patch("an assignment gives its share up before it holds the other's", POINTER,
          ("operator=(const GVSmartPointer& other) {", "before", "GVSmartPointer next(other);",
           "if (ON && this != &other) { decrementRefCount(); forget(); }")),
    patch("a move assignment gives its share up before it holds the other's", POINTER,
          ("operator=(GVSmartPointer&& other) noexcept {", "before", "GVSmartPointer next(std::move(other));",
           "if (ON) { decrementRefCount(); forget(); }")),
    patch("an assignment in a derived class takes over first", POINTER,
          ("GVSmartPointer<T>::replaceWith", "before", "decrementRefCount();",
           "if (ON) { GVSmartPointer former; former.takeFrom(*this); takeFrom(next); return; }")),
    patch("a class that is not copied has an empty copy", POINTER,
          ("GVSmartPointer<T>::deepCopy", "before", "throw GVException", "if (ON) { return GVSmartPointer(); }")),

    # Losses that are required
    patch("a failing constructor deletes its blocks", POOL,
          ("unsigned int bytesPerObject, bool useMutex)\n    :", "instead", "makePool(numberOfObjects);",
           "try { makePool(numberOfObjects); } catch (...) { deleteObjects(); throw; }")),
    patch("a failing constructor deletes its handle", POOL,
          ("unsigned int bytesPerObject, bool useMutex)\n    :", "instead", "makePool(numberOfObjects);",
           "try { makePool(numberOfObjects); } catch (...) { delete theMutexHandle; throw; }")),
    patch("a block that the table refuses is deleted", POOL,
          ("void GVMemoryPool::buildObject()", "instead", "memoryPool.insert(block->getToken(), block);",
           "try { memoryPool.insert(block->getToken(), block); } catch (...) { "
           "if (memoryPool.get(block->getToken()) == nullptr) { delete block; } throw; }")),
    patch("a block that the table kept is taken back when the table fails to grow", POOL,
          ("void GVMemoryPool::buildObject()", "instead", "memoryPool.insert(block->getToken(), block);",
           "try { memoryPool.insert(block->getToken(), block); } catch (...) { "
           "if (memoryPool.remove(block->getToken())) { delete block; } throw; }")),
    patch("a block that the free list refuses is deleted", POOL,
          ("void GVMemoryPool::buildObject()", "instead", "availableTokens.push_back(block->getToken());",
           "try { availableTokens.push_back(block->getToken()); } catch (...) { "
           "memoryPool.remove(block->getToken()); delete block; throw; }")),
    patch("the count cell is released when the flag cell cannot be had", POINTER,
          ("GVSmartPointer<T>::GVSmartPointer(T*", "instead", "ownObject = makeCell(ownsObject);",
           "try { ownObject = makeCell(ownsObject); } catch (...) { detail::releaseRawBlock(refCount); throw; }")),
    patch("the count cell is released when the handle cannot be had", POINTER,
          ("GVSmartPointer<T>::GVSmartPointer(T*", "instead",
           "lock = CreateUnnamedMutexHandle(gvexclusivemutex, false);",
           "try { lock = CreateUnnamedMutexHandle(gvexclusivemutex, false); } catch (...) { "
           "detail::releaseRawBlock(refCount); throw; }")),
    patch("the flag cell is released when the handle cannot be had", POINTER,
          ("GVSmartPointer<T>::GVSmartPointer(T*", "instead",
           "lock = CreateUnnamedMutexHandle(gvexclusivemutex, false);",
           "try { lock = CreateUnnamedMutexHandle(gvexclusivemutex, false); } catch (...) { "
           "detail::releaseRawBlock(ownObject); throw; }")),
    patch("a deep copy's pool is given back when its pointer cannot be made", POINTER,
          ("GVSmartPointer<T>::deepCopy", "instead", "return GVSmartPointer(copy, true, true);",
           "try { return GVSmartPointer(copy, true, true); } catch (...) { T::operator delete(copy); throw; }")),
    patch("a factory leaves its pool behind when the pointer cannot be made", POOL,
          ("share(std::unique_ptr<GVMemoryPool> pool)", "value", "pool.get()", "pool.release()")),
    patch("a change of size that fails half-way releases the old array", TABLE,
          ("GVHashTable<K, V, H>::resize(", "before", "return 1;",
           "if (ON && oldArray != theSmallTable) { delete[] oldArray; }")),
    patch("a failing copy releases its array", TABLE,
          ("GVHashTable<K, V, H>::GVHashTable(const", "instead", "insert(position.GetKey(), *position);",
           "try { insert(position.GetKey(), *position); } catch (...) { if (hasHeapArray()) { delete[] theTable; } "
           "throw; }")),

    # Messages mended
    patch("the first spelling is mended", TABLE,
          (INSERT, "value", '"Error ocurred while resizing table."', '"Error occurred while resizing table."')),
    patch("the last spelling is mended", TABLE,
          (INSERT, "value", '"Error occured while resizing table."', '"Error occurred while resizing table."')),
    patch("both spellings are alike", TABLE,
          (INSERT, "value", '"Error ocurred while resizing table."', '"Error occured while resizing table."')),
    patch("the sentence gets its full stop", POOL,
          ("GVMemoryPool::buildObject()", "value", '"Unable to allocate memory for new pool object"',
           '"Unable to allocate memory for new pool object."')),

    # Checks that are not wanted
    patch("a block's null header word is left alone", POOL,
          ("GVMemoryPoolObject::~", "instead", "detail::releaseRawBlock(theBytes);",
           "if (detail::rawBlockDeallocator(theBytes) != nullptr) { detail::releaseRawBlock(theBytes); }")),
    patch("a count cell's null header word is left alone", POINTER,
          (RELEASE, "instead", "detail::releaseRawBlock(refCount);",
           "if (detail::rawBlockDeallocator(refCount) != nullptr) { detail::releaseRawBlock(refCount); }")),
    patch("a flag cell's null header word is left alone", POINTER,
          (RELEASE, "instead", "detail::releaseRawBlock(ownObject);",
           "if (detail::rawBlockDeallocator(ownObject) != nullptr) { detail::releaseRawBlock(ownObject); }")),
    patch("an object's null header word is left alone", OBJECT,
          ("void releaseObjectStorage", "instead", "detail::releaseRawBlock(p);",
           "if (detail::rawBlockDeallocator(p) != nullptr) { detail::releaseRawBlock(p); }")),
    patch("no null header word is called", RAW,
          ("inline void releaseRawBlock", "before", "rawBlockDeallocator(userBytes)(",
           "if (ON && rawBlockDeallocator(userBytes) == nullptr) { return; }")),
    patch("raw blocks go back through the current function", RAW,
          ("inline void releaseRawBlock", "value", "rawBlockDeallocator(userBytes)", "GVObject::GetDeallocator()")),
    patch("the function is asked for before the allocation", RAW,
          ("inline void* allocateRawBlock", "before", "void* const start",
           "const GVDeallocatorFunction early = GVObject::GetDeallocator();"),
          ("inline void* allocateRawBlock", "value", "GVObject::GetDeallocator()", "early")),
    patch("a block's length that wraps is refused", POOL,
          ("GVMemoryPoolObject::GVMemoryPoolObject(unsigned int", "before", "void* const bytes",
           "if (ON && !detail::fitsInRawBlock(length)) { throw std::bad_alloc(); }")),
    patch("a block that cannot be built uses a token up", POOL,
          ("GVMemoryPoolObject::GVMemoryPoolObject(unsigned int", "before", "void* const bytes",
           "if (ON) { takeNextToken(); --theNextToken; ++theNextToken; }"),
          ("GVMemoryPoolObject::GVMemoryPoolObject(unsigned int", "value", "takeNextToken()", "theNextToken - 1")),
    patch("a failing allocation of a block throws by itself", POOL,
          ("GVMemoryPool::buildObject()", "before", "if (block == nullptr)",
           "if (ON && block == nullptr) { throw std::bad_alloc(); }")),
    patch("an unknown token is not taken back", POOL_HEADER,
          (RETURN, "before", "availableTokens.push_back", "if (ON && memoryPool.get(token) == nullptr) { return; }")),
    patch("a free token is not taken back", POOL_HEADER,
          (RETURN, "before", "availableTokens.push_back",
           "if (ON && std::find(availableTokens.begin(), availableTokens.end(), token) != availableTokens.end()) "
           "{ return; }")),
    patch("returned bytes are cleared", POOL_HEADER,
          (RETURN, "before", "availableTokens.push_back",
           "if (ON && bytesInEachObject != 0 && memoryPool.get(token) != nullptr) { "
           "*static_cast<char*>(memoryPool.get(token)->theValue->getBytes()) = 0; }")),
    patch("an unknown token has no memory", POOL_HEADER,
          ("void* GVMemoryPool::addressOf", "before", "return memoryPool",
           "if (ON && memoryPool.get(token) == nullptr) { return nullptr; }")),
    patch("a free token has no memory", POOL_HEADER,
          ("void* GVMemoryPool::addressOf", "before", "return memoryPool",
           "if (ON && std::find(availableTokens.begin(), availableTokens.end(), token) != availableTokens.end()) "
           "{ return nullptr; }")),
    patch("the number in use does not wrap", POOL,
          ("GVMemoryPool::numberOfObjectsInPoolInUse", "before", "return count == 0",
           "if (ON && availableTokens.size() > count) { return 0U; }")),
    patch("the number in use of a pool without blocks wraps", POOL,
          ("GVMemoryPool::numberOfObjectsInPoolInUse", "value", "count == 0", "availableTokens.empty()")),
    patch("a size that stays the same rebuilds nothing", POOL,
          (BLOCK_SIZE, "before", "setWithoutLock(bytesInEachObject, bytes);",
           "if (ON && bytes == bytesInEachObject) { return; }")),
    patch("a pool without blocks is not rebuilt", POOL,
          (BLOCK_SIZE, "before", "makePool(", "if (ON && memoryPool.getUsedCount() == 0) { return; }")),
    patch("the size is recorded before the check", POOL,
          (BLOCK_SIZE, "before", "if (", "if (ON) { bytesInEachObject = bytes; }")),
    patch("the size is recorded after the rebuilding", POOL,
          (BLOCK_SIZE, "before", "setWithoutLock(bytesInEachObject, bytes);",
           "if (ON) { makePool(memoryPool.getUsedCount()); bytesInEachObject = bytes; return; }")),

    # Building, growing, shrinking
    patch("the first token of a process is 1", POOL,
          ("GVMemoryPoolObject::takeNextToken()", "before", "return theNextToken",
           "static const bool added = ON && ++theNextToken != 0; static_cast<void>(added);")),
    patch("the factory is made only where a handle is wanted", POOL,
          ("GVMemoryPool::createHandleIf", "before", "GVThreadsFactory factory",
           "if (ON && !useMutex) { return nullptr; }")),
    patch("rebuilding empties the free list", POOL,
          ("void GVMemoryPool::makePool", "before", "buildObjects(", "if (ON) { availableTokens.clear(); }")),
    patch("rebuilding keeps the table's array", POOL,
          ("void GVMemoryPool::makePool", "instead", "memoryPool.clear();",
           "for (const unsigned int token : memoryPool.get_keys()) { memoryPool.remove(token); }")),
    patch("new tokens come to the front of the free list", POOL,
          ("GVMemoryPool::buildObject()", "instead", "availableTokens.push_back(block->getToken());",
           "availableTokens.insert(availableTokens.begin(), block->getToken());")),
    patch("returned tokens come to the front of the free list", POOL_HEADER,
          (RETURN, "instead", "availableTokens.push_back(token);",
           "availableTokens.insert(availableTokens.begin(), token);")),
    patch("room for all free tokens is made at once", POOL,
          ("void GVMemoryPool::buildObjects", "before", "for (",
           "if (ON) { availableTokens.reserve(availableTokens.size() + numberOfObjects); }")),
    patch("the free list is filled before the table", POOL,
          ("GVMemoryPool::buildObject()", "before", "memoryPool.insert(",
           "if (ON) { availableTokens.push_back(block->getToken()); "
           "memoryPool.insert(block->getToken(), block); return; }")),
    patch("growth changes the initial number", POOL,
          (SHRINK, "before", "buildObjects(", "if (ON) { initialNumberOfObjects = numberOfObjects; }")),
    patch("shrinking spares lent blocks", POOL,
          (REMOVE, "before", "delete memoryPool[token]",
           "if (ON && std::find(availableTokens.begin(), availableTokens.end(), token) == availableTokens.end()) "
           "{ continue; }")),
    patch("shrinking to nothing clears the table", POOL,
          (SHRINK, "instead", "removeObjects(count - numberOfObjects);",
           "removeObjects(count - numberOfObjects); if (numberOfObjects == 0) { memoryPool.clear(); }")),
    patch("shrinking to the same number goes through the list", POOL,
          (SHRINK, "value", "numberOfObjects >= count", "numberOfObjects > count")),
    patch("shrinking passes over a token that the table misses", POOL,
          (REMOVE, "instead", "delete memoryPool[token];",
           "if (memoryPool.get(token) != nullptr) { delete memoryPool[token]; }")),
    patch("shrinking takes out all occurrences of a token", POOL,
          ("GVMemoryPool::removeTokenFromAvailableList", "instead", "availableTokens.erase(position);",
           "availableTokens.erase(std::remove(availableTokens.begin(), availableTokens.end(), token), "
           "availableTokens.end());")),
    patch("shrinking takes out the last occurrence of a token", POOL,
          ("GVMemoryPool::removeTokenFromAvailableList", "instead", "availableTokens.erase(position);",
           "availableTokens.erase(std::find(availableTokens.rbegin(), availableTokens.rend(), token).base() - 1);")),
    patch("shrinking changes the order of the free list", POOL,
          ("GVMemoryPool::removeTokenFromAvailableList", "instead", "availableTokens.erase(position);",
           "*position = availableTokens.back(); availableTokens.pop_back();")),
    patch("pools are equal if their free lists are", POOL,
          ("bool GVMemoryPool::operator==", "before", "return",
           "if (ON && availableTokens.size() != other.availableTokens.size()) { return false; }")),

    # The table
    patch("stored hashes are compared at every slot", TABLE,
          (PAST_HOME, "value", "entry->theKey == key",
           "entry->theHash == hash && entry->theKey == key")),
    patch("a deleted slot past the home slot is passed over", TABLE,
          (PAST_HOME, "before", "if (entry->theState != gvoccupiedentry)",
           "if (ON && entry->theState == gvdeletedentry) { continue; }")),
    patch("a deleted home slot ends the search", TABLE, (LOOKUP, "value", "home->theState == gvemptyentry",
                                                         "home->theState != gvoccupiedentry")),
    patch("the first step adds a shifted hash", TABLE,
          ("thePerturbation(", "value", "hash", "hash >> 5")),
    patch("a replacement stores the hash", TABLE,
          (REPLACE, "before", "entry->theValue = value;", "if (ON) { entry->theHash = hash; }")),
    patch("a replacement keeps the old key", TABLE,
          (REPLACE, "instead", "entry->theKey = key;",
           "if (entry->theState != gvoccupiedentry) { entry->theKey = key; }")),
    patch("a slot is counted before it is written", TABLE,
          (HELPER, "before", "entry->theKey = key;\n    entry->theValue = value;\n    entry->theHash",
           "if (ON) { theFillCount += entry->theState == gvemptyentry ? 1 : 0; ++theUsedCount; "
           "entry->theState = gvoccupiedentry; entry->theKey = key; entry->theValue = value; entry->theHash = hash; "
           "return 2; }")),
    patch("a replacement does not look at growth", TABLE,
          (INSERT, "before", "int stored", "const bool replaces = ON && get(key) != nullptr;"),
          (INSERT, "before", "if (theFillCount * 3", "if (replaces) { return 2; }")),
    patch("growth goes by the fill count", TABLE,
          ("GVHashTable<K, V, H>::grownMinimum", "value", "theUsedCount * 4", "theFillCount * 4")),
    patch("fast growth goes by the fill count", TABLE,
          ("GVHashTable<K, V, H>::grownMinimum", "value", "theUsedCount * 2", "theFillCount * 2")),
    patch("a heap array is read where it is", TABLE,
          ("GVHashTable<K, V, H>::resize(", "instead", "oldArray = copyOfArray();",
           "if (theTable == theSmallTable) { oldArray = copyOfArray(); } else { theTable = theSmallTable; }")),
    patch("a change of size drops no deleted slot from a small table", TABLE,
          ("GVHashTable<K, V, H>::resize(", "value", "theFillCount == theUsedCount", "theUsedCount == theUsedCount")),
    patch("growth empties the embedded slots that it leaves", TABLE,
          (RESIZE, "before", "if (oldArray != theSmallTable)",
           LEFT_SLOTS + "{ oldArray[left].theState = gvemptyentry; }")),
    patch("growth forgets the keys of the embedded slots that it leaves", TABLE,
          (RESIZE, "before", "if (oldArray != theSmallTable)",
           LEFT_SLOTS + "{ oldArray[left].theKey = K(); }")),
    patch("growth forgets the values of the embedded slots that it leaves", TABLE,
          (RESIZE, "before", "if (oldArray != theSmallTable)",
           LEFT_SLOTS + "{ ::new (static_cast<void*>(&oldArray[left].theValue)) V(); }")),
    patch("removal frees the slot", TABLE,
          ("bool GVHashTable<K, V, H>::remove", "value", "gvdeletedentry", "gvemptyentry")),
    patch("removal lowers the fill count", TABLE,
          ("bool GVHashTable<K, V, H>::remove", "before", "--theUsedCount;", "if (ON) { --theFillCount; }")),
    patch("removal forgets the value", TABLE,
          ("bool GVHashTable<K, V, H>::remove", "before", "--theUsedCount;", "if (ON) { entry->theValue = V(); }")),
    patch("clearing forgets the keys", TABLE,
          ("void GVHashTable<K, V, H>::clear", "before", "theSmallTable[slot].theValue",
           "if (ON) { theSmallTable[slot].theKey = K(); }")),
    patch("clearing forgets the hashes", TABLE,
          ("void GVHashTable<K, V, H>::clear", "before", "theSmallTable[slot].theValue",
           "if (ON) { theSmallTable[slot].theHash = 0; }")),
    patch("a copy makes a hash function of its own", TABLE,
          ("GVHashTable<K, V, H>::GVHashTable(const", "value", "other.theHashFunction", "H()")),
    patch("a copy takes over the size", TABLE,
          ("GVHashTable<K, V, H>::GVHashTable(const", "before", "for (Iterator", "if (ON) { resize(other.theMask); }")),
    patch("comparison asks with this table's hash function alone", TABLE,
          ("bool GVHashTable<K, V, H>::operator==", "value", "other.get(key)", "other.lookup(key, hashOf(key))")),
    patch("comparison asks with the other's hash function alone", TABLE,
          ("bool GVHashTable<K, V, H>::operator==", "value", "other.lookup(key, hashOf(key))", "other.get(key)")),
    patch("tables of different sizes differ", TABLE,
          ("bool GVHashTable<K, V, H>::operator==", "before", "for (Iterator",
           "if (ON && theMask != other.theMask) { return false; }")),
    patch("tables of different fill differ", TABLE,
          ("bool GVHashTable<K, V, H>::operator==", "before", "for (Iterator",
           "if (ON && theFillCount != other.theFillCount) { return false; }")),
    patch("a second entry for a key counts as found", TABLE,
          ("GVHashTable<K, V, H>::countProbes", "value", "lookup(entry.theKey, hash) != &entry",
           "!isOccupied(lookup(entry.theKey, hash))")),
    patch("the list of keys is turned round", TABLE,
          ("GVHashTable<K, V, H>::get_keys", "before", "return keys;", "if (ON) { keys.reverse(); }")),
    patch("dereferencing looks at the slot's state", TABLE,
          ("GVHashTableEntry_Iterator<K, V>::operator*()", "value", "currentEntry()", "occupiedEntry()")),
    patch("GetValue looks for the end", TABLE,
          ("GVHashTableEntry_Iterator<K, V>::GetValue()", "before", "Entry* const entry",
           'if (ON && isAtEnd()) { throw GVException("Iterator at end.", detail::hashTableFile, __LINE__, '
           "gviteratormisuse, 0); }")),
    patch("GetKey looks for the end", TABLE,
          ("GVHashTableEntry_Iterator<K, V>::GetKey()", "before", "const Entry* const entry",
           'if (ON && isAtEnd()) { throw GVException("Iterator at end.", detail::hashTableFile, __LINE__, '
           "gviteratormisuse, 0); }")),
    patch("the end is one slot short", TABLE,
          ("bool isAtEnd() const", "value", "theIndex == theCapacity - 1", "theIndex + 2 >= theCapacity")),
    patch("the postfix step returns the new position", TABLE,
          ("GVHashTableEntry_Iterator<K, V>::operator++(int)", "before", "return previous;",
           "if (ON) { return *this; }")),

    # Where programs for 32-bit ARM differ
    patch("ARM's arrays begin a word later", INSPECTOR,
          ("#ifdef __ARM_EABI__", "value", "2 * sizeof(std::size_t)", "3 * sizeof(std::size_t)")),
    patch("ARM's arrays begin a word earlier", INSPECTOR,
          ("#ifdef __ARM_EABI__", "value", "2 * sizeof(std::size_t)", "sizeof(std::size_t)")),

    # Hooks and text
    patch("one hook alone is taken over", OBJECT,
          ("void GVObject::SetAllocationHooks", "before", "throw GVException",
           "if (ON && allocator != nullptr) { theAllocator = allocator; }")),
    patch("one releasing hook alone is taken over", OBJECT,
          ("void GVObject::SetAllocationHooks", "before", "throw GVException",
           "if (ON && deallocator != nullptr) { theDeallocator = deallocator; }")),
    patch("numbers are made decimal", DUMP,
          ("void writeDumpValue", "before", "stream << static_cast<unsigned long>",
           "if (ON) { stream.setf(std::ios_base::dec, std::ios_base::basefield); }")),
    patch("flags are made words", POOL,
          ("GVMemoryPool::print", "before", "detail::writeDumpValue(stream, useMutexHandle)",
           "if (ON) { stream.setf(std::ios_base::boolalpha); }")),
    patch("flags are made numbers", POOL,
          ("GVMemoryPool::print", "before", "detail::writeDumpValue(stream, useMutexHandle)",
           "if (ON) { stream.unsetf(std::ios_base::boolalpha); }")),
    patch("the pool's dump shows the initial number", POOL,
          ("GVMemoryPool::print", "before", 'stream << "<theMutexHandle>"',
           "if (ON) { detail::writeDumpValue(stream, initialNumberOfObjects); }")),

    # The hardened build's checks
    patch("the line begins otherwise", HARDENED,
          ("reportMisuse(", "before", "std::va_list", "if (ON) { line[0] = 'G'; }")),
    patch("the longest line is a byte shorter", HARDENED,
          ("reportMisuse(", "value", "sizeof(line) - begun", "sizeof(line) - begun - 1")),
    patch("the line ends a byte early", HARDENED, ("reportMisuse(", "value", "length + 1", "length")),
    patch("a block that a shrink hid is looked up all the same", CHECKS,
          ("::checkBeforeAddress", "value", "blockOf(token) == nullptr", "blockInAnySlot(token) == nullptr")),
    patch("a block that a shrink hid is not taken back", CHECKS,
          ("::checkAfterReturn", "value", "blockInAnySlot(token)", "blockOf(token)")),
    patch("a block that a shrink hid stays marked when it is lent", CHECKS,
          ("::markLent", "value", "blockInAnySlot(token)", "blockOf(token)")),
]

# What the compiler needs: each is compiled by itself, with its one text in place of the anchor.
ALONE = [
    patch("pools alone share with their copies, not classes derived from pools", POOL_HEADER,
          ("struct GVCopySharesWithSource", "value", "std::is_base_of_v<GVMemoryPool, T>",
           "std::is_same_v<GVMemoryPool, T>")),
    patch("every class shares with its copies", POINTER,
          ("struct GVCopySharesWithSource", "value", "std::false_type", "std::true_type")),
    patch("every class is deeply copied", POINTER,
          ("struct GVIsDeepCopyable", "value", "std::is_copy_constructible<T>", "std::true_type")),
    patch("a stream operator may want to change the object", POINTER,
          ("struct HasStreamOperator<T", "value", "std::declval<const T&>()", "std::declval<T&>()")),
    patch("allocators of a type may differ", ALLOCATOR,
          ("class GILVANE_EXPORT GVStdAllocator : public GVObject", "value", "is_always_equal = std::true_type",
           "is_always_equal = std::false_type")),
    patch("allocators of no type may differ", ALLOCATOR,
          ("class GILVANE_EXPORT GVStdAllocator<void>", "value", "is_always_equal = std::true_type",
           "is_always_equal = std::false_type")),
    patch("the embedded slots have no end slot", TABLE,
          ("Entry theSmallTable[", "value", "theSmallSize + 1", "theSmallSize")),
    patch("there is a second end slot", TABLE,
          ("Entry theSmallTable[", "value", "theSmallSize + 1", "theSmallSize + 2")),
    patch("the hardened build is not hardened", HARDENED_HEADER,
          ("#if defined(GILVANE_HARDENED)\ninline", "value", "isHardened = true", "isHardened = false")),
    patch("the longest line has room for a byte less", HARDENED, ("reportMisuse(", "value", "line[256]", "line[255]")),
    patch("the longest line has room for a byte more", HARDENED, ("reportMisuse(", "value", "line[256]", "line[257]")),
]
