/// @file
/// The reference's requests as a proof of refusals sees them: entered in books, some refused, some lost by a rule.
#ifndef GILVANE_PROOF_FAILURES_LEDGER_H
#define GILVANE_PROOF_FAILURES_LEDGER_H

#include "gvtestpeer.h"
#include "memory.h"
#include "recordingthreads.h"

#include "reference/pointer.h"

#include <gilvane/utilities/gvmemorypool.h>

#include <map>
#include <string>
#include <vector>

namespace Proof {

namespace reference = Gilvane::reference;
using reference::Loss;
using reference::What;

/// An object that is no pool and can be copied.
struct PlainObject : Gilvane::GVObject {
    void* anything = nullptr;
};

/// Bytes that a new-expression asks for in front of an array of objects that have a destructor.
std::size_t bytesBeforeAnArray();

/// What the library asks for, in bytes; the header word comes on top.
struct Size {
    std::size_t fixedBytes;
    std::size_t unitBytes; // for each unit

    std::size_t of(std::size_t units) const { return fixedBytes + units * unitBytes; }
};
Size sizeOf(What what);

/// A loss that is accepted.
struct AcceptedLoss {
    Loss loss;
    What what;
    const char* when;
};

/// One row for each Loss, in its order.
inline constexpr AcceptedLoss acceptedLosses[] = {
    {Loss::countCell, What::countCell, "a smart pointer's flag cell or handle is refused: its count cell"},
    {Loss::flagCell, What::flagCell, "a smart pointer's handle is refused: its flag cell"},
    {Loss::handleOfFailedPool, What::handle, "a pool cannot build its blocks at construction: its handle"},
    {Loss::blockOfFailedPool, What::block, "a pool cannot build its blocks at construction: each block built"},
    {Loss::bytesOfFailedPool, What::bytesOfBlock,
     "a pool cannot build its blocks at construction: bytes of each block built"},
    {Loss::arrayOfFailedTableCopy, What::arrayOfTable, "a table's copy cannot grow: the array it had grown to"},
    {Loss::arrayOfFailedPoolCopy, What::arrayOfPool, "a pool's copy cannot grow its table: the array it had grown to"},
    {Loss::poolOfFailedDeepCopy, What::pool, "a deep copy cannot make its pointer: the pool copied"},
    {Loss::arrayOfFailedDeepCopy, What::arrayOfPool,
     "a deep copy cannot make its pointer: the array of the pool's table"},
    {Loss::freeListOfFailedDeepCopy, What::tokens, "a deep copy cannot make its pointer: the pool's free list"},
};

class Ledger : public reference::Meter {
  public:
    Books books;
    std::map<Id, Loss> losses;
    std::vector<std::string> errors; // losses that no row accepts

    void happened(reference::Event event, int handle) override;
    /// What is lost must be what the loss's row says.
    void lost(Loss loss, Id id) override;

  protected:
    bool grants(What what, std::size_t units) override {
        theRequests.push_back(what);
        return books.request(static_cast<unsigned int>(sizeOf(what).of(units)) + Gilvane::detail::rawBlockHeaderBytes);
    }
    void released(Id id) override {
        books.blocks[static_cast<std::size_t>(id) - 1].live = false;
        books.events.push_back("release " + std::to_string(id));
    }

  private:
    std::vector<What> theRequests; // by Id - 1
};

} // namespace Proof

#endif
