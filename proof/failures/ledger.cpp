#include "ledger.h"

#include <array>

namespace Proof {

Size sizeOf(What what) {
    using Table = Gilvane::GVHashTable<unsigned int, int>;
    struct KeyNode {
        void* next;
        void* previous;
        unsigned int key;
    };
    static const std::map<What, Size> sizes = {
        {What::pool, {sizeof(Gilvane::GVMemoryPool), 0}},
        {What::otherObject, {sizeof(PlainObject), 0}},
        {What::block, {sizeof(Gilvane::GVMemoryPoolObject), 0}},
        {What::bytesOfBlock, {0, 1}},
        {What::arrayOfPool, {bytesBeforeAnArray(), sizeof(Gilvane::TokenTable::Entry)}},
        {What::arrayOfTable, {bytesBeforeAnArray(), sizeof(Table::Entry)}},
        {What::tokens, {0, sizeof(unsigned int)}},
        {What::marksOfTokens, {0, sizeof(unsigned long)}},
        {What::keyNode, {sizeof(KeyNode), 0}},
        {What::countCell, {sizeof(unsigned int), 0}},
        {What::flagCell, {sizeof(bool), 0}},
        {What::handle, {sizeof(Gilvane::RecordingMutexHandle), 0}},
        {What::text, {0, sizeof(char)}},
    };
    return sizes.at(what);
}

void Ledger::happened(reference::Event event, int handle) {
    static constexpr std::array<const char*, 7> texts = {
        "factory made", "factory destroyed", "factory creates ", "function creates ", "lock ", "unlock ", "delete "};
    const bool made = event == reference::Event::createdByFactory || event == reference::Event::createdByFunction;
    books.events.push_back(texts[static_cast<std::size_t>(event)] + (handle == 0 ? "" : std::to_string(handle)) +
                           (made ? " (3, false)" : ""));
}

void Ledger::lost(Loss loss, Id id) {
    const AcceptedLoss& row = acceptedLosses[static_cast<std::size_t>(loss)];
    if (row.loss != loss || row.what != theRequests[static_cast<std::size_t>(id) - 1]) {
        errors.push_back("block #" + std::to_string(id) + " is not what is accepted to be lost when " + row.when);
    }
    losses[id] = loss;
}

} // namespace Proof
