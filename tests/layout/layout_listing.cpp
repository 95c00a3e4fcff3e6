// Lists what the layout is on the target that this program was compiled for, a line for each class and field:
//   class NAME SIZE ALIGNMENT
//   field NAME::FIELD SIZE OFFSET
#include "layout.h"

#include <cstdio>

#pragma GCC diagnostic ignored "-Winvalid-offsetof"

namespace Gilvane {

#define PRINT_CLASS(name, type, size32, align32, size64, align64)                                                      \
    std::printf("class %s %zu %zu\n", #name, sizeof(type), alignof(type));
#define PRINT_FIELD(type, field, offset32, offset64)                                                                   \
    std::printf("field %s %zu %zu\n", #field, sizeof(type::field), offsetof(type, field));

struct GVTestPeer::Layout {
    static void print() { GILVANE_LAYOUT(PRINT_CLASS, PRINT_FIELD) }
};

} // namespace Gilvane

int main() { Gilvane::GVTestPeer::Layout::print(); }
