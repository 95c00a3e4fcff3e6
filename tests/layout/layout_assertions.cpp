// Nothing runs here: that this file compiles, for each target, is the test.
#include "layout.h"

namespace Gilvane {

namespace {

constexpr bool wordHas32Bits = sizeof(void*) == 4;
constexpr std::size_t expected(std::size_t on32Bits, std::size_t on64Bits) {
    return wordHas32Bits ? on32Bits : on64Bits;
}

} // namespace

// The classes have virtual destructors, so that offsetof is the compiler's extension; g++ and clang++ both have it.
#pragma GCC diagnostic ignored "-Winvalid-offsetof"

#define ASSERT_CLASS(name, type, size32, align32, size64, align64)                                                     \
    static_assert(sizeof(type) == expected(size32, size64), "size of " #name);                                         \
    static_assert(alignof(type) == expected(align32, align64), "alignment of " #name);
#define ASSERT_FIELD(type, field, offset32, offset64)                                                                  \
    static_assert(offsetof(type, field) == expected(offset32, offset64), "offset of " #type "::" #field);

struct GVTestPeer::Layout {
    GILVANE_LAYOUT(ASSERT_CLASS, ASSERT_FIELD)

    // That offsets ascend makes the order of the statements the order of the fields.
#define NO_CLASS(name, type, size32, align32, size64, align64) 0,
#define OFFSET(type, field, offset32, offset64) offsetof(type, field),
    static constexpr bool fieldsAscend() {
        const std::size_t offsets[] = {GILVANE_LAYOUT(NO_CLASS, OFFSET) 0};
        std::size_t before = 0;
        for (const std::size_t offset : offsets) {
            if (offset != 0 && offset <= before) {
                return false;
            }
            before = offset;
        }
        return true;
    }
};

static_assert(GVTestPeer::Layout::fieldsAscend(), "the fields are stated in the order in which they lie");

} // namespace Gilvane
