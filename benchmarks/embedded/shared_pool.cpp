// The smallest program with a shared pool: one loan.
#include <gilvane/utilities/gvsharedpool.h>

int main() {
    Gilvane::GVSharedPool pool(16, 64);
    if (const auto token = pool.tryBorrow()) {
        *static_cast<unsigned char*>(pool.getMemoryForToken(*token)) = 1;
        pool.releaseObject(*token);
    }
}
