// The program's own mutex handles, in place of the library's: each pool and smart pointer of a program that is linked
// with this file has locks with priority inheritance.
#include <gilvane/base/gvexception.h>
#include <gilvane/threads/gvthreadsfactory.h>

#include <pthread.h>

using Gilvane::GVException;
using Gilvane::GVMutexHandle;

namespace {

// [handle]
// A POSIX mutex whose holder runs with the highest priority of those who wait for it.
class InheritingMutexHandle final : public GVMutexHandle {
  public:
    InheritingMutexHandle() {
        pthread_mutexattr_t attributes;
        int error = pthread_mutexattr_init(&attributes);
        if (error == 0) {
            error = pthread_mutexattr_setprotocol(&attributes, PTHREAD_PRIO_INHERIT);
            if (error == 0) {
                error = pthread_mutex_init(&theMutex, &attributes);
            }
            pthread_mutexattr_destroy(&attributes);
        }
        if (error != 0) {
            throw GVException("Unable to create a mutex with priority inheritance.",
                              "examples/guide/inheriting_handles", __LINE__, Gilvane::gvoutofmemory, error);
        }
    }
    ~InheritingMutexHandle() override { pthread_mutex_destroy(&theMutex); }

    bool tryLock() override { return pthread_mutex_trylock(&theMutex) == 0; }
    void lock() override { pthread_mutex_lock(&theMutex); }
    void unlock() override { pthread_mutex_unlock(&theMutex); }

  private:
    pthread_mutex_t theMutex;
};
// [handle]

} // namespace

// [factory]
namespace Gilvane {

// All that gvthreadsfactory.h declares. One definition less, and the linker takes the library's file as well, and finds
// the others twice.
GVThreadsFactory::GVThreadsFactory() = default;

GVThreadsFactory::~GVThreadsFactory() = default;

GVMutexHandle* GVThreadsFactory::CreateUnnamedHandle(_gvmutex kind, bool flag) {
    return CreateUnnamedMutexHandle(kind, flag);
}

GVMutexHandle* CreateUnnamedMutexHandle(_gvmutex kind, bool flag) {
    if (kind != gvexclusivemutex || flag) {
        throw GVException("There is no such mutex.", "examples/guide/inheriting_handles", __LINE__, gvinvalidstate, 0);
    }
    return new InheritingMutexHandle;
}

} // namespace Gilvane
// [factory]
