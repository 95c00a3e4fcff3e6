// What waits for a block is a shared pool or a cache; other pools are told apart by a plain sentence.
//
// refused: Only a GVSharedPool and a GVTokenCache wait for a block
#include <gilvane/utilities/gvobjectlease.h>

int main() {
#if defined(REFUSED)
    Gilvane::GVMemoryPool pool(1, sizeof(int), false);
#else
    Gilvane::GVSharedPool pool(1, sizeof(int));
#endif
    const auto lease = Gilvane::GVObjectLease<int>::wait(pool, 1);
    return *lease - 1;
}
