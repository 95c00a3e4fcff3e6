/// @file
/// Drives four smart pointers and their pools.
#ifndef GILVANE_TESTS_PROOF_MODEL_POOLDRIVER_H
#define GILVANE_TESTS_PROOF_MODEL_POOLDRIVER_H

#include "driver.h"

#include <gvtestpeer.h>

#include <optional>
#include <string>
#include <vector>

namespace Gilvane::driver {

/// Operations on pools and pointers: `a` says which pointer in its two lowest bits and which other one in the next two;
/// `b` holds a count, a size, a flag or the choice of a token.
enum class PoolCall : unsigned char {
    init,          // b: bit 0 mutex
    initCount,     // b: bit 0 mutex, blocks in the rest
    initSized,     // b: bit 0 mutex, bits 1 to 4 blocks, size in the rest
    borrow,        //
    write,         // b: token
    release,       // b: token
    removeFree,    // b: token
    resizeTo,      // b: blocks
    growBy,        // b: blocks
    shrinkBy,      // b: blocks
    makePool,      // b: blocks
    setBytes,      // b: size
    setDefault,    // b: blocks
    copyConstruct, // the pointer anew, from the other
    assign,        // the pointer from the other
    moveConstruct, //
    moveAssign,    //
    reset,         //
    decrement,     //
    deepCopy,      // of the pointer, into the other
    alias,         // the other from the pointer's pool; b: bit 0 mutex, bit 1 owning
    fromNull,      // b: bit 0 mutex, bit 1 owning
    deleteData,    //
    numberOfCalls
};

/// Choices of a token, in the two highest bits of `b`; the rest counts.
enum TokenChoice : unsigned char {
    ofTable = 0x00, // of the pool's table, in the order of the slots
    ofFree = 0x40,  // of the pool's free list, from its end
    ofLent = 0x80,  // of all tokens that any pool lent so far, from the last
    unknown = 0xc0  // one that no pool has
};

/// First tokens that a scene may ask for.
inline constexpr unsigned int firstTokens[] = {0, 1, 0xfffffff9, 0xfffffffc, 0xffffffff, 0x7ffffffe, 27, 0xffffffe0};
/// Bytes in each block.
inline constexpr unsigned int blockSizes[] = {0, 1, 4, 7, 16, 24, 40, 64};

class PoolDriver : public Driver {
  public:
    explicit PoolDriver(unsigned char scene);

    bool make(Operation operation) override;
    void compareViews() override;
    void finish() override;
    std::string calls() const override;

  private:
    using Pointer = GVSmartPointer<GVMemoryPool>;

    struct Call {
        PoolCall what;
        int pointer;
        int other;
        unsigned int number; // blocks, or a token
        unsigned int bytes;
        bool flag;
        bool owning;
    };

    std::optional<Call> decode(Operation operation);
    std::optional<unsigned int> chooseToken(unsigned char b, const model::Pool& pool) const;
    static model::Outcome makeOnModel(model::World& world, const Call& call, unsigned char content);
    model::Outcome makeOnLibrary(const Call& call, const model::Outcome& expected, unsigned char content);
    void decrementOnLibrary(int number);
    bool commit(const Call& call);

    void compareFields();
    void comparePointer(int number);
    void comparePool(unsigned int number);
    void compareTable(const model::Pool& pool, TokenTable& table);
    void compareBlocks();
    void comparePoolViews(unsigned int number);
    void compareEquality();

    std::string poolText(const model::Pool& pool) const;
    std::string pointerText(int number) const;

    bool isKnown(unsigned int pool) const { return pool < thePools.size() && thePools[pool] != nullptr; }
    Pointer& pointer(int number);
    void forget(int number);

    model::World theWorld;
    std::vector<unsigned int> theLentTokens;
    std::vector<Call> theCalls;

    // The library's side of the model's numbers; null until first seen.
    alignas(Pointer) unsigned char theStorage[4][sizeof(Pointer)];
    std::vector<GVMemoryPool*> thePools;
    std::vector<GVMemoryPoolObject*> theBlocks;
    std::vector<GVMutexHandle*> theHandles;
    std::vector<unsigned int*> theCounts;
    std::vector<bool*> theFlags;
};

} // namespace Gilvane::driver

#endif
