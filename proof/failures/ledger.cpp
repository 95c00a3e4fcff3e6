#include "ledger.h"

#include <array>

namespace Proof {

namespace {

using TableAlone = Gilvane::GVHashTable<unsigned int, int>;
constexpr unsigned int header = Gilvane::detail::rawBlockHeaderBytes;

struct KeyNode {
    void* next;
    void* previous;
    unsigned int key;
};

} // namespace

std::size_t bytesOf(What what, std::size_t units) {
    constexpr std::size_t bitsOfWord = 8 * sizeof(unsigned long);
    switch (what) {
    case What::pool:
        return sizeof(Gilvane::GVMemoryPool);
    case What::otherObject:
        return sizeof(PlainObject);
    case What::block:
        return sizeof(Gilvane::GVMemoryPoolObject);
    case What::arrayOfPool:
        return arrayBytes(sizeof(Gilvane::TokenTable::Entry), units);
    case What::arrayOfTable:
        return arrayBytes(sizeof(TableAlone::Entry), units);
    case What::tokens:
        return units * sizeof(unsigned int);
    case What::marksOfTokens:
        return (units + bitsOfWord - 1) / bitsOfWord * sizeof(unsigned long);
    case What::keyNode:
        return sizeof(KeyNode);
    case What::countCell:
        return sizeof(unsigned int);
    case What::flagCell:
        return sizeof(bool);
    case What::handle:
        return sizeof(Gilvane::RecordingMutexHandle);
    case What::bytesOfBlock:
    case What::text:
        break;
    }
    return units;
}

const std::vector<AcceptedLoss>& acceptedLosses() {
    const unsigned int array = header + arrayBytes(0, 0);
    constexpr unsigned int poolSlot = sizeof(Gilvane::TokenTable::Entry);
    static const std::vector<AcceptedLoss> rows = {
        {Loss::countCell, "a smart pointer's flag cell or handle is refused: its count cell",
         sizeof(unsigned int) + header, 0},
        {Loss::flagCell, "a smart pointer's handle is refused: its flag cell", sizeof(bool) + header, 0},
        {Loss::handleOfFailedPool, "a pool cannot build its blocks at construction: its handle",
         sizeof(Gilvane::RecordingMutexHandle) + header, 0},
        {Loss::blockOfFailedPool, "a pool cannot build its blocks at construction: each block built",
         sizeof(Gilvane::GVMemoryPoolObject) + header, 0},
        {Loss::bytesOfFailedPool, "a pool cannot build its blocks at construction: bytes of each block built", header,
         1},
        {Loss::arrayOfFailedTableCopy, "a table's copy cannot grow: the array it had grown to", array,
         sizeof(TableAlone::Entry)},
        {Loss::arrayOfFailedPoolCopy, "a pool's copy cannot grow its table: the array it had grown to", array,
         poolSlot},
        {Loss::poolOfFailedDeepCopy, "a deep copy cannot make its pointer: the pool copied",
         sizeof(Gilvane::GVMemoryPool) + header, 0},
        {Loss::arrayOfFailedDeepCopy, "a deep copy cannot make its pointer: the array of the pool's table", array,
         poolSlot},
        {Loss::freeListOfFailedDeepCopy, "a deep copy cannot make its pointer: the pool's free list", header,
         sizeof(unsigned int)},
    };
    return rows;
}

void Ledger::happened(reference::Event event, int handle) {
    static constexpr std::array<const char*, 7> texts = {
        "factory made", "factory destroyed", "factory creates ", "function creates ", "lock ", "unlock ", "delete "};
    const bool made = event == reference::Event::createdByFactory || event == reference::Event::createdByFunction;
    books.events.push_back(texts[static_cast<std::size_t>(event)] + (handle == 0 ? "" : std::to_string(handle)) +
                           (made ? " (3, false)" : ""));
}

void Ledger::lost(Loss loss, Id id) {
    const auto index = static_cast<std::size_t>(id) - 1;
    const AcceptedLoss& row = acceptedLosses()[static_cast<std::size_t>(loss)];
    if (row.loss != loss || books.blocks[index].bytes != row.fixedBytes + row.unitBytes * theUnits[index]) {
        errors.push_back("a loss of " + std::to_string(books.blocks[index].bytes) +
                         " bytes is not what is accepted when " + row.when);
    }
    losses[id] = loss;
}

} // namespace Proof
