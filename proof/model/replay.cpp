/// @file
/// Runs the programs in the files that it is given, comparing everything after each operation.
#include "driver.h"

#include <cstdio>
#include <fstream>
#include <iterator>

int main(int argc, char** argv) {
    using namespace Gilvane;
    reference::limits.slots = 1U << 19;
    std::size_t made = 0;
    std::size_t passedOver = 0;
    for (int number = 1; number < argc; ++number) {
        std::ifstream file(argv[number], std::ios::binary);
        const driver::Bytes program((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
        if (!file || program.size() < 2) {
            std::fprintf(stderr, "%s is no program\n", argv[number]);
            return 1;
        }
        const driver::Run run = driver::run(program, driver::Comparison::afterEach);
        made += run.made;
        passedOver += run.passedOver;
    }
    std::printf("%d programs, %zu operations made, %zu passed over\n", argc - 1, made, passedOver);
    return made > 0 ? 0 : 1;
}
