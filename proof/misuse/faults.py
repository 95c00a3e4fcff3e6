"""Faults in what a wrong use comes to; proof/faults/plant_faults.py plants them."""

# name, file, text that stands there once, what stands there instead
FAULTS = [
    ("a token returned twice is refused", "utilities/gvmemorypool.h",
     "        availableTokens.push_back(token);\n",
     """        if ((@) && std::find(availableTokens.begin(), availableTokens.end(), token) != availableTokens.end()) {
            return;
        }
        availableTokens.push_back(token);
"""),
    ("a rebuilt pool empties its free list", "utilities/gvmemorypool.cpp",
     "        memoryPool.clear();\n",
     """        memoryPool.clear();
        if (@) {
            availableTokens.clear();
        }
"""),
    ("an iterator refuses a removed entry wherever it is asked", "datastructures/gvhashtable.h",
     "    Entry* const entry = currentEntry();\n    if (entry == nullptr) {\n",
     """    Entry* const entry = currentEntry();
    if (entry == nullptr || ((@) && entry->theState != gvoccupiedentry)) {
"""),
    ("an unknown kind of mutex is granted", "threads/gvthreadsfactory.cpp",
     "    if (kind != gvexclusivemutex) {\n", "    if (kind != gvexclusivemutex && !(@)) {\n"),
    ("a second share given up is given up for good", "utilities/gvsmartpointer.h",
     "        if (lock != nullptr) {\n            lock->unlock();\n        }\n        return;\n",
     """        if (lock != nullptr) {
            lock->unlock();
        }
        if (@) {
            forget();
        }
        return;
"""),
    ("the number of blocks in use stops at none", "utilities/gvmemorypool.cpp",
     "        return count == 0 ? 0 :",
     "        return count == 0 || ((@) && count < availableTokens.size()) ? 0 :"),
]
