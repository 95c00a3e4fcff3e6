// What a shrink removes, who then holds a dead token, and how a shrink can hide a token that stays.
#include <gilvane/datastructures/gvhashtable.h>
#include <gilvane/utilities/gvmemorypool.h>

#include <iostream>

using Gilvane::GVHashTable;
using Gilvane::GVMemoryPool;

namespace {

using Table = GVHashTable<unsigned int, int>;

void store(Table& table, unsigned int first, unsigned int last) {
    for (unsigned int key = first; key <= last; ++key) {
        table.insert(key, 0);
    }
}

} // namespace

int main() {
    // [lent]
    GVMemoryPool pool(4, 64, false);                               // tokens 0 to 3
    const unsigned int token = pool.getTokenForFreeMemoryObject(); // 3, the highest
    pool.resizePool(2); // removes blocks 3 and 2; whoever holds token 3 is not told, and must not use it any more
    // [lent]
    std::cout << "lent " << token << ", in use after the shrink: " << pool.numberOfObjectsInPoolInUse() << "\n";

    // [returned]
    // The borrower returns a dead token, and the pool lends it again.
    pool.releaseObject(token);
    std::cout << "the pool lends " << pool.getTokenForFreeMemoryObject() << ", which has no block\n";
    // [returned]

    // [hidden]
    // A table with the history of a pool that was built with 2 blocks, grown by 4 after another pool had taken the 30
    // tokens in between, and shrunk by 3.
    Table table;
    store(table, 0, 1);
    store(table, 32, 35);
    for (unsigned int key = 35; key > 32; --key) {
        table.remove(key);
    }
    // Key 32 was not removed. It is behind the slot of a removed key, and the table does not find it there.
    std::cout << "key 32 is " << (table.get(32) == nullptr ? "lost" : "found") << "\n";
    // [hidden]

    // [safe]
    // The pool is built in one go, and no other pool builds blocks meanwhile. So its tokens are consecutive, each is in
    // its first slot, and no deleted slot can hide it.
    GVMemoryPool inOneGo(100, 64, false);
    unsigned int lent[100];
    for (unsigned int& each : lent) {
        each = inOneGo.getTokenForFreeMemoryObject();
    }
    for (const unsigned int each : lent) {
        inOneGo.releaseObject(each);
    }
    inOneGo.resizePool(40); // every loan is back: nobody holds a dead token
    // [safe]
    unsigned int found = 0;
    for (int loan = 0; loan < 40; ++loan) {
        found += inOneGo.getMemoryForToken(inOneGo.getTokenForFreeMemoryObject()) != nullptr ? 1U : 0U;
    }
    std::cout << found << " of 40 blocks found\n";
}
