// A pool that has lived a while, for the pictures in docs: as a dump, and as an inspector's report.
//
//   pool FOLDER
#include <gilvane/utilities/gvmemorypool.h>
#include <gilvane/utilities/gvmemorypoolinspector.h>

#include <algorithm>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <vector>

using namespace Gilvane;

int main(int, char** arguments) {
    const std::string folder = arguments[1];
    std::minstd_rand random(1);
    GVMemoryPool pool(8, 192, false);

    // Other parts of a program take tokens and memory in between, and the pool grows as it runs dry.
    GVMemoryPool other(1, 32, false);
    std::vector<std::unique_ptr<char[]>> others;
    std::vector<unsigned int> lent;
    for (unsigned int loan = 1; loan <= 55; ++loan) {
        lent.push_back(pool.getTokenForFreeMemoryObject());
        other.resizePool(5 * loan);
        others.push_back(std::make_unique<char[]>(random() % 700));
        if (random() % 8 == 0) {
            std::swap(lent[random() % lent.size()], lent.back());
            pool.releaseObject(lent.back());
            lent.pop_back();
        }
    }
    std::ofstream(folder + "/dump") << pool;

    std::shuffle(lent.begin(), lent.end(), random);
    for (int returned = 0; returned < 12; ++returned) {
        pool.releaseObject(lent.back());
        lent.pop_back();
    }
    pool.resizePool(56);
    // Returned twice, by mistake.
    const unsigned int token = *std::min_element(lent.begin(), lent.end());
    pool.releaseObject(token);
    pool.releaseObject(token);
    std::ofstream(folder + "/report") << GVMemoryPoolInspector(pool);
}
