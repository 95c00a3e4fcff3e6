// The smallest program with a pool: one loan.
#include <gilvane/utilities/gvmemorypool.h>

int main() {
    Gilvane::GVMemoryPool pool(16, 64, false);
    const unsigned int token = pool.getTokenForFreeMemoryObject();
    *static_cast<unsigned char*>(pool.getMemoryForToken(token)) = 1;
    pool.releaseObject(token);
}
