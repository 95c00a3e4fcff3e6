// Has a program that ends with abort, as a hardened one does at a mistake, leave what it covered. It comes along as a
// mere object, also into programs that measure nothing.
#include <csignal>

extern "C" __attribute__((weak)) int __llvm_profile_write_file();

namespace {

// Once back from here, abort ends the program all the same.
void writeProfile(int) {
    if (__llvm_profile_write_file != nullptr) {
        __llvm_profile_write_file();
    }
}

[[gnu::used]] const auto formerHandler = std::signal(SIGABRT, &writeProfile);

} // namespace
