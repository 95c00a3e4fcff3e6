/// @file
/// What the pools and the shared count must do, step by step: plain arrays and the algorithms in their own words.
///
/// Its operations call at() exactly where a thread of the library may be stopped, so that the two can be run side by
/// side under one schedule. Nothing in it needs destruction: it may be given up at any step.
#ifndef GILVANE_PROOF_INTERLEAVINGS_REFERENCE_H
#define GILVANE_PROOF_INTERLEAVINGS_REFERENCE_H

#include <array>
#include <bitset>
#include <cstddef>

namespace Gilvane {
namespace Interleavings {

/// What is worth telling of a schedule: all of it is described behaviour, or follows a mistake of the program.
enum Sight : unsigned char {
    secondGrowthDidNothing,
    secondGrowthDoubledAgain,
    grewByAPartialNumber,
    rebuiltByAPartialNumber,
    staleNumberShrank,
    staleNumberRemovedALentBlock,
    secondRebuildingDestroyedALentBlock,
    rebuildingDestroyedALentBlock,
    shrinkingRemovedALentBlock,
    sizeChangeDestroyedALentBlock,
    sizeChangeRefused,
    sizeChangeBesideBuilding,
    grewWithATokenBack,
    tookATokenGivenBackMeanwhile,
    twoPoolsMadeOneToken,
    poolLostABlock,
    tokenLentTwice,
    deadTokenLent,
    inUseWrapped,
    firstThreadDeletedThePool,
    otherThreadDeletedThePool,
    // The undefined steps, at which a schedule ends
    nothingToTake,
    unknownToken,
    deletedBlockTouched,
    numberOfSights,
};

using Sights = std::bitset<numberOfSights>;

/// What a sight is, and where the library's documents describe it: a page and one of its headings, which
/// tools/check-documents looks up.
struct Description {
    const char* text;
    const char* describedIn;
};

Description describe(Sight sight);

constexpr std::size_t mostBlocks = 512;
constexpr int nobody = -1;
constexpr int outsideThreads = -2;

/// An array that is filled from the front.
template <typename T>
struct Sequence {
    std::array<T, mostBlocks> items;
    unsigned int size = 0;

    void append(const T& item) { items.at(size++) = item; }
    void erase(unsigned int index) {
        for (--size; index < size; ++index) {
            items[index] = items[index + 1];
        }
    }
    T* begin() { return items.data(); }
    T* end() { return items.data() + size; }
};

struct ReferenceBlock {
    unsigned int token;
    unsigned int length;
    unsigned char content; // of its first byte
    bool alive;
    bool lost; // no longer in a table, and never deleted
    unsigned int loans;
};

struct ReferencePool {
    struct Entry {
        unsigned int token;
        unsigned int block;
    };
    Sequence<Entry> table;
    Sequence<unsigned int> freeTokens;
    unsigned int initialNumber = 0;
    unsigned int bytes = 0;
    bool exists = false;
    // For telling only
    unsigned int growths = 0; // by loans
    unsigned int returns = 0;
    bool building = false;
};

/// The state and its operations. A member function is run by a thread, or before and after the threads.
struct Reference {
    static Reference& world();
    /// As at the start of the process.
    void reset();

    void makePool(unsigned int pool, unsigned int blocks, unsigned int bytes, unsigned int later);
    void destroyPool(unsigned int pool);
    unsigned int borrow(unsigned int pool);
    void give(unsigned int pool, unsigned int token);
    /// @returns what the block's first byte held
    unsigned int use(unsigned int pool, unsigned int token, unsigned char mark);
    unsigned int inUse(unsigned int pool);
    void resize(unsigned int pool, unsigned int blockCount) { resizeFor(pool, blockCount, nullptr); }
    void rebuild(unsigned int pool, unsigned int blockCount) { rebuildFor(pool, blockCount, Reason::asked); }
    /// @returns whether it was not refused
    bool setSize(unsigned int pool, unsigned int bytes);

    // The shared count, whose handle comes after those of the pools
    void addShare();
    void giveUpShare();
    unsigned int sharers();

    std::array<ReferencePool, 2> pools;
    Sequence<ReferenceBlock> blocks; // all that ever were
    unsigned int counter = 0;
    std::array<int, 3> holders; // of the handles
    unsigned int refCount = 0;
    unsigned int shareHandle = 0;
    int thread = outsideThreads; // who runs
    Sights sights;

  private:
    // For telling only: why a pool is rebuilt, and what a loan that grows it knows.
    enum class Reason { asked, loan, sizeChange };
    struct Loan {
        unsigned int growths; // before it, when the list was found empty
        bool late;            // other loans grew the pool between that and the reading of the number
        bool partial;         // others were building when the number was read
    };

    void lock(unsigned int handle);
    void unlock(unsigned int handle);
    void resizeFor(unsigned int pool, unsigned int blocks, const Loan* loan);
    void rebuildFor(unsigned int pool, unsigned int blocks, Reason reason);
    void build(unsigned int pool, unsigned int number);
    void deleteBlock(ReferenceBlock& block, Sight sightIfLent);
    void lend(unsigned int pool, unsigned int token);
    [[noreturn]] void cut(Sight sight);
};

} // namespace Interleavings
} // namespace Gilvane

#endif
