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

/// Bytes of an array of `numberOfEntries` objects that have a destructor, as a new-expression asks for them.
unsigned int arrayBytes(std::size_t entryBytes, std::size_t numberOfEntries);

/// Bytes that the library asks for, header word not included.
std::size_t bytesOf(What what, std::size_t units);

/// A loss that is accepted.
struct AcceptedLoss {
    Loss loss;
    const char* when;
    unsigned int fixedBytes; // header word included
    unsigned int unitBytes;  // what comes on top for each unit
};

/// One row for each Loss, in its order.
const std::vector<AcceptedLoss>& acceptedLosses();

class Ledger : public reference::Meter {
  public:
    Books books;
    std::map<Id, Loss> losses;
    std::vector<std::string> errors; // losses that no row accepts

    void happened(reference::Event event, int handle) override;
    /// A loss must have the size that its row gives, to the byte.
    void lost(Loss loss, Id id) override;

  protected:
    bool grants(What what, std::size_t units) override {
        theUnits.push_back(units);
        return books.request(static_cast<unsigned int>(bytesOf(what, units)) + Gilvane::detail::rawBlockHeaderBytes);
    }
    void released(Id id) override {
        books.blocks[static_cast<std::size_t>(id) - 1].live = false;
        books.events.push_back("release " + std::to_string(id));
    }

  private:
    std::vector<std::size_t> theUnits; // by Id - 1
};

} // namespace Proof

#endif
