#include <gilvane/threads/gvthreadsfactory.h>

#include <gilvane/base/gvexception.h>

#include <pthread.h>

namespace Gilvane {

namespace {

constexpr const char* theSourceFile = "libsrc/threads/gvthreadsfactory";

// A handle over one POSIX mutex of the default type, which on Linux is the normal one. Correct use cannot fail, so the
// results are ignored.
class PosixMutexHandle final : public GVMutexHandle {
  public:
    PosixMutexHandle() {
        if (pthread_mutex_init(&theMutex, nullptr) != 0) {
            throw GVException("Unable to create POSIX mutex.", theSourceFile, __LINE__, gvoutofmemory, 0);
        }
    }
    ~PosixMutexHandle() override { pthread_mutex_destroy(&theMutex); }

    bool tryLock() override { return pthread_mutex_trylock(&theMutex) == 0; }
    void lock() override { pthread_mutex_lock(&theMutex); }
    void unlock() override { pthread_mutex_unlock(&theMutex); }

  private:
    pthread_mutex_t theMutex;
};

} // namespace

GVThreadsFactory::GVThreadsFactory() = default;

GVThreadsFactory::~GVThreadsFactory() = default;

GVMutexHandle* GVThreadsFactory::CreateUnnamedHandle(_gvmutex kind, bool flag) {
    return CreateUnnamedMutexHandle(kind, flag);
}

GVMutexHandle* CreateUnnamedMutexHandle(_gvmutex kind, bool flag) {
    if (kind != gvexclusivemutex) {
        throw GVException("Unknown kind of mutex.", theSourceFile, __LINE__, gvinvalidstate, 0);
    }
    if (flag) {
        throw GVException("A true flag is not supported for a mutex.", theSourceFile, __LINE__, gvinvalidstate, 0);
    }
    return new PosixMutexHandle;
}

} // namespace Gilvane
