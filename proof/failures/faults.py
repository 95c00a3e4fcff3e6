"""Faults in what a refused allocation leaves behind; proof/faults/plant_faults.py plants them."""

# name, file, text that stands there once, what stands there instead
FAULTS = [
    ("a failing smart pointer releases its count cell", "utilities/gvsmartpointer.h",
     "    ownObject = makeCell(ownsObject);\n",
     """    try {
        ownObject = makeCell(ownsObject);
    } catch (...) {
        if (@) {
            detail::releaseRawBlock(refCount);
        }
        throw;
    }
"""),
    ("the free list takes a token before the table", "utilities/gvmemorypool.cpp",
     """    memoryPool.insert(block->getToken(), block);
    availableTokens.push_back(block->getToken());
""",
     """    if (@) {
        availableTokens.push_back(block->getToken());
    }
    memoryPool.insert(block->getToken(), block);
    if (!(@)) {
        availableTokens.push_back(block->getToken());
    }
"""),
    ("a refused block uses up a token", "utilities/gvmemorypool.cpp",
     "    void* const bytes = detail::allocateRawBlock(length);\n    if (bytes == nullptr) {\n",
     """    void* const bytes = detail::allocateRawBlock(length);
    if (bytes == nullptr) {
        if (@) {
            takeNextToken();
        }
"""),
    ("a pool that cannot be built gives its handle back", "utilities/gvmemorypool.cpp",
     "useMutexHandle(useMutex) {\n    makePool(numberOfObjects);\n",
     """useMutexHandle(useMutex) {
    try {
        makePool(numberOfObjects);
    } catch (...) {
        if (@) {
            delete theMutexHandle;
        }
        throw;
    }
"""),
    ("a pool that cannot be rebuilt deletes the blocks built", "utilities/gvmemorypool.cpp",
     "        memoryPool.clear();\n        buildObjects(numberOfObjects);\n",
     """        memoryPool.clear();
        try {
            buildObjects(numberOfObjects);
        } catch (...) {
            if (@) {
                deleteObjects();
                memoryPool.clear();
            }
            throw;
        }
"""),
    ("a throw leaves the lock taken", "threads/gvmutex.h",
     "        if (theHandle != nullptr) {\n            theHandle->unlock();\n",
     """        if (theHandle != nullptr && !((@) && std::uncaught_exceptions() > 0)) {
            theHandle->unlock();
"""),
    ("a table counts anew before it has its array", "datastructures/gvhashtable.h",
     "        newArray = makeArray(newSize + 1);\n        if (newArray == nullptr) {\n",
     """        newArray = makeArray(newSize + 1);
        if (newArray == nullptr) {
            theFillCount = (@) ? theUsedCount : theFillCount;
"""),
    ("a table that cannot grow drops the key it stored", "datastructures/gvhashtable.h",
     "    const int resized = resize(grownMinimum());\n",
     """    const auto grow = [this, &key] {
        try {
            return resize(grownMinimum());
        } catch (...) {
            if (@) {
                remove(key);
            }
            throw;
        }
    };
    const int resized = grow();
"""),
    ("a failing copy of a table releases its array", "datastructures/gvhashtable.h",
     "        insert(position.GetKey(), *position);\n",
     """        try {
            insert(position.GetKey(), *position);
        } catch (...) {
            if ((@) && hasHeapArray()) {
                delete[] theTable;
            }
            throw;
        }
"""),
    ("a refused block is reported as std::bad_alloc", "utilities/gvmemorypool.cpp",
     "    if (block == nullptr) {\n",
     """    if (block == nullptr) {
        if (@) {
            throw std::bad_alloc();
        }
"""),
    ("the block size is recorded after the rebuilding", "utilities/gvmemorypool.cpp",
     "void GVMemoryPool::setNumberOfBytesInPoolObject(unsigned int bytes) {\n",
     """void GVMemoryPool::setNumberOfBytesInPoolObject(unsigned int bytes) {
    struct Restorer {
        unsigned int& field;
        unsigned int former;
        int exceptions = std::uncaught_exceptions();
        ~Restorer() {
            if ((@) && std::uncaught_exceptions() > exceptions) {
                field = former;
            }
        }
    } const restorer{bytesInEachObject, bytesInEachObject};
"""),
    ("a deep copy without a pointer returns the pool's storage", "utilities/gvsmartpointer.h",
     "            return GVSmartPointer(copy, true, true);\n",
     """            try {
                return GVSmartPointer(copy, true, true);
            } catch (...) {
                if (@) {
                    GVObject::operator delete(copy);
                }
                throw;
            }
"""),
    ("a factory without a pointer keeps the pool", "utilities/gvmemorypool.cpp",
     "    GVSmartPointer<GVMemoryPool> pointer(pool.get(), true, true);\n    static_cast<void>(pool.release());\n",
     """    GVMemoryPool* const kept = pool.get();
    if (@) {
        static_cast<void>(pool.release());
    }
    GVSmartPointer<GVMemoryPool> pointer(kept, true, true);
    static_cast<void>(pool.release());
"""),
    ("the free list gets exactly the room it needs", "utilities/gvmemorypool.h",
     "        availableTokens.push_back(token);\n",
     """        if (@) {
            availableTokens.reserve(availableTokens.size() + 1);
        }
        availableTokens.push_back(token);
"""),
    ("a block that cannot be entered is deleted", "utilities/gvmemorypool.cpp",
     "    memoryPool.insert(block->getToken(), block);\n",
     """    try {
        memoryPool.insert(block->getToken(), block);
    } catch (...) {
        if (@) {
            memoryPool.remove(block->getToken());
            delete block;
        }
        throw;
    }
"""),
    ("header words hold the first deallocation function there was", "base/gvrawblock.h",
     "    ::new (start) GVDeallocatorFunction(GVObject::GetDeallocator());\n",
     """    static const GVDeallocatorFunction first = GVObject::GetDeallocator();
    ::new (start) GVDeallocatorFunction((@) ? first : GVObject::GetDeallocator());
"""),
    ("an exception drops its message", "base/gvexception.cpp",
     "theMessage(message), theFile(file) {}", 'theMessage((@) ? "" : message), theFile(file) {}'),
    ("a shrinking pool that cannot list its tokens forgets a free one", "utilities/gvmemorypool.cpp",
     "    TokenRemoval removal(memoryPool, availableTokens, numberOfObjects);\n",
     """    const auto list = [&] {
        try {
            return TokenRemoval(memoryPool, availableTokens, numberOfObjects);
        } catch (...) {
            if ((@) && !availableTokens.empty()) {
                availableTokens.pop_back();
            }
            throw;
        }
    };
    TokenRemoval removal = list();
"""),
]
