/// @file
/// The lock that guards a pool or a shared count.
#ifndef GILVANE_THREADS_GVMUTEXHANDLE_H
#define GILVANE_THREADS_GVMUTEXHANDLE_H

#include <gilvane/base/gvcompiler.h>
#include <gilvane/base/gvobject.h>

#include <ostream>

namespace Gilvane {

/// An exclusive lock for the threads of one process, seen through its operations only.
///
/// Made by GVThreadsFactory::CreateUnnamedHandle or CreateUnnamedMutexHandle. A program may bring its own locks:
/// - its lock is a class derived from this one, whose operations do not throw
/// - the program defines all that gvthreadsfactory.h declares, in place of the library
///
/// @par Invariants
///   The virtual operations stand in this order: destructors, tryLock, lock, unlock. Programs rely on it.
/// @par Thread safety
///   tryLock, lock and unlock may run concurrently. Deleting a handle that a thread holds or waits for is misuse.
/// @par Ownership
///   Whoever asked for the handle owns it and deletes it.
class GILVANE_EXPORT GVMutexHandle : public GVObject {
  public:
    GVMutexHandle() = default;
    GVMutexHandle(const GVMutexHandle&) = delete;
    GVMutexHandle& operator=(const GVMutexHandle&) = delete;
    ~GVMutexHandle() override;

    /// Takes the lock if it is free.
    /// @returns whether the calling thread now holds it
    virtual bool tryLock() = 0;

    /// Waits until the calling thread holds the lock. Not recursive: a thread that holds it already waits for ever.
    virtual void lock() = 0;

    /// Releases the lock, which the calling thread must hold.
    virtual void unlock() = 0;
};

/// Writes the handle's address, without locking it.
/// @returns `stream`
GILVANE_EXPORT std::ostream& operator<<(std::ostream& stream, const GVMutexHandle& handle);

} // namespace Gilvane

#endif
