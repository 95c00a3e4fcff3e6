#include <gilvane/base/gvhardened.h>

#include <algorithm>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstdlib>

#include <unistd.h>

// Outside Valgrind its requests do nothing. They need a header, and no library.
#if __has_include(<valgrind/memcheck.h>)
#include <valgrind/memcheck.h>
#endif

// Weak: null in a program without AddressSanitizer.
extern "C" {
__attribute__((weak)) void __asan_poison_memory_region(const volatile void* bytes, std::size_t numberOfBytes);
__attribute__((weak)) void __asan_unpoison_memory_region(const volatile void* bytes, std::size_t numberOfBytes);
}

namespace Gilvane::detail {

// One write, so that no other thread's text comes between.
void reportMisuse(const char* format, ...) noexcept {
    char line[256] = "gilvane: ";
    constexpr std::size_t begun = sizeof("gilvane: ") - 1;
    std::va_list arguments;
    va_start(arguments, format);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): clang-tidy 14 does not see va_start
    const int formatted = std::vsnprintf(line + begun, sizeof(line) - begun, format, arguments);
    va_end(arguments);
    const std::size_t length = std::min(begun + static_cast<std::size_t>(std::max(formatted, 0)), sizeof(line) - 1);
    line[length] = '\n';
    static_cast<void>(!write(STDERR_FILENO, line, length + 1)); // there is no one left to tell of a failure
    std::abort();
}

void markBytesUntouchable(const void* bytes, unsigned int numberOfBytes) noexcept {
    if (numberOfBytes == 0) {
        return;
    }
    if (__asan_poison_memory_region != nullptr) {
        __asan_poison_memory_region(bytes, numberOfBytes);
    }
#if defined(VALGRIND_MAKE_MEM_NOACCESS)
    static_cast<void>(VALGRIND_MAKE_MEM_NOACCESS(bytes, numberOfBytes));
#endif
}

void markBytesUsable(const void* bytes, unsigned int numberOfBytes) noexcept {
    if (numberOfBytes == 0) {
        return;
    }
    if (__asan_unpoison_memory_region != nullptr) {
        __asan_unpoison_memory_region(bytes, numberOfBytes);
    }
#if defined(VALGRIND_MAKE_MEM_UNDEFINED)
    static_cast<void>(VALGRIND_MAKE_MEM_UNDEFINED(bytes, numberOfBytes));
#endif
}

} // namespace Gilvane::detail
