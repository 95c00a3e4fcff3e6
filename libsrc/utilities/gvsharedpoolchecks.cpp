// What the hardened build checks in the use of a shared pool, and where it notes loans.
#include <gilvane/base/gvhardened.h>
#include <gilvane/utilities/gvsharedpool.h>

namespace Gilvane {

void GVSharedPool::checkThatNobodyUsesIt() const {
    if (theFirstWaiter != nullptr) {
        detail::reportMisuse("~GVSharedPool: pool %p: a thread waits for a block", static_cast<const void*>(this));
    }
    if (theFirstCache != nullptr) {
        detail::reportMisuse("~GVSharedPool: pool %p: a cache is alive", static_cast<const void*>(this));
    }
}

namespace detail {

GVLoanRecords& GVSharedPoolAccess::loans(const GVSharedPool& pool) noexcept { return *pool.theLoans; }

} // namespace detail

} // namespace Gilvane
