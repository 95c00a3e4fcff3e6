// A lease holds objects that are aligned as std::max_align_t at most, and says so to others.
//
// refused: GVObjectLease cannot align this type: the allocation hooks align for std::max_align_t at most
#include <gilvane/utilities/gvobjectlease.h>

#include <cstddef>

#if defined(REFUSED)
struct alignas(64) Message {
    char bytes[64];
};
#else
struct alignas(std::max_align_t) Message {
    char bytes[64];
};
#endif

int main() {
    Gilvane::GVSharedPool pool(1, sizeof(Message));
    const Gilvane::GVObjectLease<Message> lease(pool);
}
