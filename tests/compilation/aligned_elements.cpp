// The allocator takes elements that are aligned as std::max_align_t at most, and says so to others.
//
// refused: GVStdAllocator cannot align this type: the allocation hooks align for std::max_align_t at most
#include <gilvane/base/gvstdallocator.h>

#include <cstddef>
#include <vector>

#if defined(REFUSED)
struct alignas(64) Element {
    char bytes[64];
};
#else
struct alignas(std::max_align_t) Element {
    char bytes[64];
};
#endif

int main() {
    std::vector<Element, Gilvane::GVStdAllocator<Element>> elements;
    elements.emplace_back();
}
