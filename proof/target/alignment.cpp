// Reads two words, or writes them, where they are not aligned, in a way that 32-bit ARM demands alignment for.
//
//   target_alignment INSTRUCTION OFFSET     the offset in bytes from an aligned address
//
// Ends with status 0 if the processor does it.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

alignas(8) unsigned char theBytes[32];

// Returns whether there is such an instruction here.
bool access([[maybe_unused]] const char* instruction, [[maybe_unused]] void* address) {
#ifdef __arm__
    std::uint32_t first = 0;
    std::uint32_t second = 0;
    const auto is = [instruction](const char* name) { return std::strcmp(instruction, name) == 0; };
    if (is("ldr")) { // the one that needs no alignment
        __asm__ volatile("ldr %0, [%1]" : "=r"(first) : "r"(address) : "memory");
    } else if (is("ldm")) {
        __asm__ volatile("ldmia %2, {r4, r5}\n\tmov %0, r4\n\tmov %1, r5"
                         : "=r"(first), "=r"(second)
                         : "r"(address)
                         : "r4", "r5", "memory");
    } else if (is("stm")) {
        __asm__ volatile("stmia %0, {r4, r5}" : : "r"(address) : "memory");
    } else if (is("ldrd")) {
        __asm__ volatile("ldrd r4, r5, [%0]" : : "r"(address) : "r4", "r5", "memory");
    } else if (is("strd")) {
        __asm__ volatile("strd r4, r5, [%0]" : : "r"(address) : "memory");
    } else if (is("ldrex")) {
        __asm__ volatile("ldrex %0, [%1]\n\tclrex" : "=r"(first) : "r"(address) : "memory");
    } else {
        return false;
    }
    return true;
#else
    return false;
#endif
}

} // namespace

int main(int argumentCount, char** arguments) {
    if (argumentCount != 3 || !access(arguments[1], theBytes + std::strtoul(arguments[2], nullptr, 10))) {
        std::fputs("usage, on 32-bit ARM: target_alignment ldr|ldm|stm|ldrd|strd|ldrex OFFSET\n", stderr);
        return 2;
    }
    return 0;
}
