// Nodes of standard containers lie in the blocks of a pool.
#include <gilvane/utilities/gvmemorypool.h>
#include <gilvane/utilities/gvpoolresource.h>

#include <iostream>
#include <list>
#include <map>
#include <memory_resource>
#include <new>
#include <string>

using Gilvane::GVMemoryPool;
using Gilvane::GVPoolResource;

int main() {
    // [nodes]
    // Blocks for nodes of lists and maps with small values: a list's node is two pointers and the value, a map's four.
    GVMemoryPool pool(100, 64, false);
    GVPoolResource resource(pool);
    {
        std::pmr::list<int> list({1, 2, 3}, &resource);
        std::pmr::map<int, int> map({{1, 10}, {2, 20}}, &resource);
        std::cout << "in use: " << pool.numberOfObjectsInPoolInUse() << "\n";
        list.pop_front();
        std::cout << "in use: " << pool.numberOfObjectsInPoolInUse() << "\n";
    }
    std::cout << "in use: " << pool.numberOfObjectsInPoolInUse() << "\n";
    // [nodes]

    // [bounded]
    // With nothing behind it, the pool bounds the memory. A container that finds no block throws std::bad_alloc.
    GVMemoryPool smallPool(3, 64, false);
    GVPoolResource bounded(smallPool, std::pmr::null_memory_resource());
    std::pmr::list<int> list(&bounded);
    try {
        for (int number = 0;; ++number) {
            list.push_back(number);
        }
    } catch (const std::bad_alloc&) {
        std::cout << "nodes: " << list.size() << "\n";
    }
    // [bounded]

    // [behind]
    // What does not fit in a block goes to the resource behind.
    std::pmr::string text(1000, 'x', &resource);
    std::cout << "in use: " << pool.numberOfObjectsInPoolInUse() << "\n";
    // [behind]
    return pool.numberOfObjectsInPoolInUse() == 0 ? 0 : 1;
}
