/// @file
/// The same programs as libFuzzer finds them, kept small for speed; for the same reason the highest bit of the second
/// byte says whether views are compared after each operation.
#include "driver.h"

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* bytes, std::size_t count) {
    using namespace Gilvane;
    model::limits.slots = 512;
    model::limits.blocks = 48;
    const bool often = count > 1 && bytes[1] >= 0x80;
    driver::run(driver::Bytes(bytes, bytes + count), often ? driver::Views::afterEach : driver::Views::afterLast);
    return 0;
}
