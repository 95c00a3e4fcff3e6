/// @file
/// Runs every sequence of operations up to a length, for several alphabets of operations.
///
///     enumerate short | long [ALPHABET ...]
///
/// Each sequence is run from the start, and everything is compared after its last operation; what comes before was
/// compared when it was last itself. A sequence whose last operation has no defined outcome is not continued.
#include "driver.h"
#include "pooldriver.h"
#include "tabledriver.h"

#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

namespace Gilvane::driver {

namespace {

struct Alphabet {
    std::string name;
    Subject subject;
    unsigned char scene;
    std::vector<Operation> before; // what each sequence begins with
    std::vector<Operation> letters;
    unsigned int shortLength;
    unsigned int longLength;
};

Operation on(PoolCall call, int pointer, unsigned int b = 0, int other = 0) {
    return {static_cast<unsigned char>(call), static_cast<unsigned char>(pointer + other * 4),
            static_cast<unsigned char>(b)};
}

// b of initSized
unsigned int sized(unsigned int blocks, unsigned int sizeNumber, bool mutex) {
    return sizeNumber * 32 + blocks * 2 + (mutex ? 1 : 0);
}

// b of growBy and shrinkBy
unsigned int by(unsigned int blocks) { return blocks - 1; }

Alphabet lending() {
    return {"lending",
            pools,
            0,
            {on(PoolCall::initSized, 0, sized(3, 2, false)), on(PoolCall::initCount, 1, 2 * 2 + 1)},
            {on(PoolCall::borrow, 0), on(PoolCall::borrow, 1), on(PoolCall::release, 0, ofLent),
             on(PoolCall::release, 0, ofLent + 1), on(PoolCall::release, 1, ofLent), on(PoolCall::write, 0, ofLent),
             on(PoolCall::resizeTo, 0, 2), on(PoolCall::resizeTo, 0, 7), on(PoolCall::makePool, 0, 2),
             on(PoolCall::setBytes, 0, 4), on(PoolCall::removeFree, 0, ofFree + 1), on(PoolCall::growBy, 1, by(3)),
             on(PoolCall::shrinkBy, 1, by(1))},
            4,
            6};
}

// Two pools without blocks. The tokens are about to wrap, so that a pool gets ones that are lower than those it has.
Alphabet deletedSlots() {
    return {"deleted slots",
            pools,
            2,
            {on(PoolCall::initSized, 0, sized(0, 1, false)), on(PoolCall::initSized, 1, sized(0, 0, true))},
            {on(PoolCall::growBy, 0, by(1)), on(PoolCall::growBy, 1, by(2)), on(PoolCall::growBy, 1, by(7)),
             on(PoolCall::shrinkBy, 0, by(1)), on(PoolCall::shrinkBy, 0, by(2)), on(PoolCall::shrinkBy, 1, by(1)),
             on(PoolCall::write, 0, ofTable), on(PoolCall::deepCopy, 0, 0, 2)},
            5,
            8};
}

Alphabet pointers() {
    return {"pointers",
            pools,
            4,
            {on(PoolCall::initSized, 0, sized(2, 3, true))},
            {on(PoolCall::init, 0, 1), on(PoolCall::assign, 1, 0, 0), on(PoolCall::assign, 0, 0, 0),
             on(PoolCall::moveAssign, 1, 0, 0), on(PoolCall::moveAssign, 0, 0, 0), on(PoolCall::copyConstruct, 2, 0, 0),
             on(PoolCall::moveConstruct, 0, 0, 1), on(PoolCall::reset, 0), on(PoolCall::reset, 1),
             on(PoolCall::decrement, 0), on(PoolCall::decrement, 2), on(PoolCall::deepCopy, 0, 0, 2),
             on(PoolCall::alias, 0, 1, 1), on(PoolCall::deleteData, 0), on(PoolCall::borrow, 0),
             on(PoolCall::makePool, 2, 2)},
            4,
            6};
}

Operation on(TableCall call, unsigned int key, unsigned int b = 0) {
    unsigned char rank = 0;
    while (tableKeys[rank] != key) {
        ++rank;
    }
    return {static_cast<unsigned char>(call), rank, static_cast<unsigned char>(b)};
}

Alphabet tables(const std::string& name, Subject subject) {
    return {"tables by " + name,
            subject,
            0,
            {on(TableCall::insert, 2, 1), on(TableCall::insert, 9, 2), on(TableCall::insert, 0, 3)},
            {on(TableCall::insert, 0, 10), on(TableCall::insert, 1, 11), on(TableCall::insert, 8, 12),
             on(TableCall::insert, 16, 13), on(TableCall::index, 32), on(TableCall::indexWrite, 9, 14),
             on(TableCall::store, 24, 15), on(TableCall::remove, 0), on(TableCall::remove, 1), on(TableCall::remove, 8),
             on(TableCall::remove, 9), on(TableCall::resize, 0, 7), on(TableCall::resize, 0, 8),
             on(TableCall::copyToOther, 0), on(TableCall::clear, 0)},
            3,
            6};
}

class Enumeration {
  public:
    Enumeration(const Alphabet& alphabet, unsigned int length) : theAlphabet(alphabet), theLength(length) {
        theProgram = {alphabet.subject, alphabet.scene};
        for (const Operation& operation : alphabet.before) {
            append(operation);
        }
    }

    /// @returns sequences run
    unsigned long long run() {
        extend(0);
        return theCount;
    }

  private:
    void append(Operation operation) {
        theProgram.insert(theProgram.end(), {operation.code, operation.a, operation.b});
    }

    void extend(unsigned int length) {
        if (length == theLength) {
            return;
        }
        for (const Operation& letter : theAlphabet.letters) {
            append(letter);
            if (driver::run(theProgram, Comparison::viewsAfterLast).lastMade) {
                ++theCount;
                showProgress();
                extend(length + 1);
            }
            theProgram.resize(theProgram.size() - 3);
        }
    }

    void showProgress() {
        const auto now = std::chrono::steady_clock::now();
        if (now - theLastShown > std::chrono::seconds(20)) {
            theLastShown = now;
            std::printf("   %s: %llu sequences so far\n", theAlphabet.name.c_str(), theCount);
            std::fflush(stdout);
        }
    }

    const Alphabet& theAlphabet;
    unsigned int theLength;
    Bytes theProgram;
    unsigned long long theCount = 0;
    std::chrono::steady_clock::time_point theLastShown = std::chrono::steady_clock::now();
};

int enumerateAll(bool isLong, const std::vector<std::string>& wanted) {
    unsigned long long total = 0;
    for (const Alphabet& alphabet : {lending(), deletedSlots(), pointers(), tables("identity", tablesByIdentity),
                                     tables("a constant", tablesByConstant), tables("few bits", tablesByFewBits)}) {
        if (!wanted.empty() && std::find(wanted.begin(), wanted.end(), alphabet.name) == wanted.end()) {
            continue;
        }
        const unsigned int length = isLong ? alphabet.longLength : alphabet.shortLength;
        const unsigned long long count = Enumeration(alphabet, length).run();
        std::printf("   %s: all sequences up to length %u of %zu operations: %llu\n", alphabet.name.c_str(), length,
                    alphabet.letters.size(), count);
        std::fflush(stdout);
        total += count;
    }
    std::printf("sequences: %llu\n", total);
    return total > 0 ? 0 : 1;
}

} // namespace

} // namespace Gilvane::driver

int main(int argc, char** argv) {
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    if (arguments.empty() || (arguments[0] != "short" && arguments[0] != "long")) {
        std::fprintf(stderr, "usage: enumerate short | long [ALPHABET ...]\n");
        return 2;
    }
    return Gilvane::driver::enumerateAll(arguments[0] == "long", {arguments.begin() + 1, arguments.end()});
}
