/// @file
/// The scoped lock.
#ifndef GILVANE_THREADS_GVMUTEX_H
#define GILVANE_THREADS_GVMUTEX_H

#include <gilvane/base/gvhardened.h>
#include <gilvane/threads/gvmutexhandle.h>

namespace Gilvane {

/// Holds at most one handle locked until the end of a block, left normally or by an exception.
///
/// @par Invariants
///   theHandle is null, or a handle that the thread which called setHandle holds.
/// @par Thread safety
///   None: it lives on one thread's stack.
/// @par Ownership
///   Borrows the handle, which must outlive it; never deletes it.
class GVMutex {
  public:
    /// Holds no handle and locks nothing.
    GVMutex() noexcept = default;
    GVMutex(const GVMutex&) = delete;
    GVMutex& operator=(const GVMutex&) = delete;
    /// Unlocks the handle, if there is one, and leaves it alive.
    ~GVMutex() {
        if (theHandle != nullptr) {
            theHandle->unlock();
        }
    }

    /// Remembers `handle` and returns once the calling thread holds it.
    /// @param handle  not null. A scoped lock takes one handle at most
    void setHandle(GVMutexHandle* handle) {
        if constexpr (detail::isHardened) {
            detail::requireOrReport(handle != nullptr, "GVMutex::setHandle: a null handle");
            detail::requireOrReport(theHandle == nullptr, "GVMutex::setHandle: a second handle");
        }
        theHandle = handle;
        theHandle->lock();
    }

  private:
    GVMutexHandle* theHandle = nullptr;
};

} // namespace Gilvane

#endif
