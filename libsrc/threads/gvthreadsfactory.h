/// @file
/// Where mutex handles come from.
#ifndef GILVANE_THREADS_GVTHREADSFACTORY_H
#define GILVANE_THREADS_GVTHREADSFACTORY_H

#include <gilvane/base/gvcompiler.h>
#include <gilvane/base/gvobject.h>
#include <gilvane/threads/gvmutexhandle.h>

namespace Gilvane {

/// The kinds of mutex that can be asked for.
enum _gvmutex : unsigned int {
    gvexclusivemutex = 3, ///< exclusive, not recursive, for the threads of one process
};

/// Makes mutex handles. It has no data: a temporary serves, and the handles outlive it.
///
/// @par Thread safety
///   All operations may run concurrently.
/// @par Ownership
///   Owns nothing; handles belong to the caller.
class GILVANE_EXPORT GVThreadsFactory : public GVObject {
  public:
    GVThreadsFactory();
    ~GVThreadsFactory() override;

    /// A new, unlocked handle over one POSIX mutex, owned by the caller.
    /// @param kind  gvexclusivemutex
    /// @param flag  false
    /// @returns     never null
    /// @throws GVException    kind gvinvalidstate for another kind or a true flag; kind gvoutofmemory when the POSIX
    ///                        mutex cannot be made. Nothing is left behind
    /// @throws std::bad_alloc no memory for the handle or for the exception's own texts
    GVMutexHandle* CreateUnnamedHandle(_gvmutex kind, bool flag);
};

/// As GVThreadsFactory::CreateUnnamedHandle, without a factory.
GILVANE_EXPORT GVMutexHandle* CreateUnnamedMutexHandle(_gvmutex kind, bool flag);

} // namespace Gilvane

#endif
