// The public operations of pools, caches, leases and pointers, each as a function that does nothing else: the figures of
// the guide's page on embedded use are taken of them (tools/renewal/embedded).
#include "operations.h"

#include <gilvane/base/gvobject.h>
#include <gilvane/threads/gvthreadsfactory.h>
#include <gilvane/utilities/gvmemorypoolinspector.h>
#include <gilvane/utilities/gvsharedtokenlease.h>
#include <gilvane/utilities/gvtokenlease.h>

#include <chrono>
#include <new>
#include <ostream>

using namespace Gilvane;
using PoolPointer = GVSmartPointer<GVMemoryPool>;

// An operation's name stands in the tables. A body that is an expression is what the operation returns.
#define OPERATION(result, name, parameters, body)                                                                      \
    extern "C" result name parameters { body; }

// [pool]
OPERATION(unsigned int, GVMemoryPool__getTokenForFreeMemoryObject, (GVMemoryPool & pool),
          return pool.getTokenForFreeMemoryObject())
OPERATION(void*, GVMemoryPool__getMemoryForToken, (GVMemoryPool & pool, unsigned int token),
          return pool.getMemoryForToken(token))
OPERATION(void, GVMemoryPool__releaseObject, (GVMemoryPool & pool, unsigned int token), pool.releaseObject(token))
OPERATION(void, GVMemoryPool__GVMemoryPool, (void* place, bool locks), new (place) GVMemoryPool(8, 64, locks))
OPERATION(void, GVMemoryPool__destructor, (GVMemoryPool & pool), pool.GVMemoryPool::~GVMemoryPool())
OPERATION(void, GVMemoryPool__makePool, (GVMemoryPool & pool), pool.makePool(8))
OPERATION(void, GVMemoryPool__resizePool, (GVMemoryPool & pool, unsigned int blocks), pool.resizePool(blocks))
OPERATION(void, GVMemoryPool__setNumberOfBytesInPoolObject, (GVMemoryPool & pool), pool.setNumberOfBytesInPoolObject(8))
OPERATION(unsigned int, GVMemoryPool__numberOfObjectsInPoolInUse, (GVMemoryPool & pool),
          return pool.numberOfObjectsInPoolInUse())
OPERATION(void, GVMemoryPool__removeTokenFromAvailableList, (GVMemoryPool & pool, unsigned int token),
          pool.removeTokenFromAvailableList(token))
OPERATION(bool, GVMemoryPool__equals, (GVMemoryPool & pool, GVMemoryPool& other), return pool == other)
OPERATION(void, GVMemoryPool__print, (GVMemoryPool & pool, std::ostream& stream), pool.print(stream))
OPERATION(void, GVMemoryPool__initWithNumberOfObjectsAndSize, (void* place),
          new (place) PoolPointer(GVMemoryPool::initWithNumberOfObjectsAndSize(8, 64, true)))
OPERATION(void, GVSmartPointer__copy, (void* place, const PoolPointer& other), new (place) PoolPointer(other))
OPERATION(void, GVSmartPointer__assign, (PoolPointer & pointer, const PoolPointer& other), pointer = other)
OPERATION(void, GVSmartPointer__deepCopy, (void* place, PoolPointer& other), new (place) PoolPointer(other.deepCopy()))
OPERATION(void, GVSmartPointer__destructor, (PoolPointer & pointer), pointer.PoolPointer::~GVSmartPointer())
OPERATION(void, GVTokenLease__GVTokenLease, (void* place, GVMemoryPool& pool), new (place) GVTokenLease(pool))
OPERATION(void, GVTokenLease__destructor, (GVTokenLease & lease), lease.GVTokenLease::~GVTokenLease())
OPERATION(void, GVMemoryPoolInspector__GVMemoryPoolInspector, (void* place, const GVMemoryPool& pool),
          new (place) GVMemoryPoolInspector(pool))
OPERATION(void, GVMemoryPoolInspector__print, (const GVMemoryPoolInspector& inspector, std::ostream& stream),
          inspector.print(stream))

// [shared pool]
OPERATION(bool, GVSharedPool__tryBorrow, (GVSharedPool & pool, unsigned int& token),
          return take(pool.tryBorrow(), token))
OPERATION(bool, GVSharedPool__borrow, (GVSharedPool & pool, unsigned int& token), return take(pool.borrow(), token))
OPERATION(bool, GVSharedPool__borrowFor, (GVSharedPool & pool, unsigned int& token),
          return take(pool.borrowFor(std::chrono::milliseconds(1)), token))
OPERATION(void*, GVSharedPool__getMemoryForToken, (const GVSharedPool& pool, unsigned int token),
          return pool.getMemoryForToken(token))
OPERATION(void, GVSharedPool__releaseObject, (GVSharedPool & pool, unsigned int token), pool.releaseObject(token))
OPERATION(void, GVSharedPool__GVSharedPool, (void* place), new (place) GVSharedPool(8, 64))
OPERATION(void, GVSharedPool__destructor, (GVSharedPool & pool), pool.GVSharedPool::~GVSharedPool())
OPERATION(void, GVSharedPool__close, (GVSharedPool & pool), pool.close())
OPERATION(bool, GVSharedPool__isClosed, (const GVSharedPool& pool), return pool.isClosed())
OPERATION(int, GVSharedPool__getDescriptor, (GVSharedPool & pool), return pool.getDescriptor())
OPERATION(void, GVSharedPool__getStatistics, (void* place, const GVSharedPool& pool),
          new (place) GVSharedPoolStatistics(pool.getStatistics()))
OPERATION(void, GVSharedPool__resetHighestLentCount, (GVSharedPool & pool), pool.resetHighestLentCount())
OPERATION(void, GVSharedPool__print, (const GVSharedPool& pool, std::ostream& stream), pool.print(stream))
OPERATION(void, GVSharedTokenLease__GVSharedTokenLease, (void* place, GVSharedPool& pool),
          new (place) GVSharedTokenLease(pool))
OPERATION(void, GVSharedTokenLease__destructor, (GVSharedTokenLease & lease),
          lease.GVSharedTokenLease::~GVSharedTokenLease())

// [cache]
OPERATION(bool, GVTokenCache__tryBorrow, (GVTokenCache & cache, unsigned int& token),
          return take(cache.tryBorrow(), token))
OPERATION(bool, GVTokenCache__borrow, (GVTokenCache & cache, unsigned int& token), return take(cache.borrow(), token))
OPERATION(bool, GVTokenCache__borrowFor, (GVTokenCache & cache, unsigned int& token),
          return take(cache.borrowFor(std::chrono::milliseconds(1)), token))
OPERATION(unsigned int, GVTokenCache__tryBorrowMany, (GVTokenCache & cache, unsigned int* tokens),
          return cache.tryBorrowMany(tokens, 8))
OPERATION(void*, GVTokenCache__getMemoryForToken, (const GVTokenCache& cache, unsigned int token),
          return cache.getMemoryForToken(token))
OPERATION(void, GVTokenCache__releaseObject, (GVTokenCache & cache, unsigned int token), cache.releaseObject(token))
OPERATION(void, GVTokenCache__releaseMany, (GVTokenCache & cache, const unsigned int* tokens),
          cache.releaseMany(tokens, 8))
OPERATION(void, GVTokenCache__flush, (GVTokenCache & cache), cache.flush())
OPERATION(void, GVTokenCache__GVTokenCache, (void* place, GVSharedPool& pool), new (place) GVTokenCache(pool, 16))
OPERATION(void, GVTokenCache__destructor, (GVTokenCache & cache), cache.GVTokenCache::~GVTokenCache())

// [what others call through pointers: the library's own locks and allocation functions]
OPERATION(GVMutexHandle*, CreateUnnamedMutexHandle__, (), return CreateUnnamedMutexHandle(gvexclusivemutex, false))
OPERATION(void, GVObject__SetAllocationHooks, (), GVObject::SetAllocationHooks(nullptr, nullptr))
