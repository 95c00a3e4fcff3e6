/// @file
/// What is compared, with one interface.
///
/// Each subject is made with a number of blocks that it has ready, and has `borrow`, `address` and `giveBack`. Where a
/// subject lends the address itself, `address` only hands it on.
#ifndef GILVANE_BENCHMARKS_SUBJECTS_H
#define GILVANE_BENCHMARKS_SUBJECTS_H

#include "designalone.h"
#include "handwrittenpool.h"
#include "mimalloc.h"

#include <gilvane/utilities/gvmemorypool.h>

#include <boost/pool/pool.hpp>
#include <boost/pool/singleton_pool.hpp>

#include <cstddef>
#include <cstdlib>
#include <memory_resource>
#include <vector>

/// Bytes in every block that is lent here.
inline constexpr unsigned int blockBytes = 64;

/// Has a subject without a number of blocks of its own obtain that many, and keep them for later.
template <typename Subject>
void obtainBlocks(Subject& subject, unsigned int numberOfBlocks) {
    std::vector<typename Subject::Loan> loans(numberOfBlocks);
    for (auto& loan : loans) {
        loan = subject.borrow();
    }
    while (!loans.empty()) {
        subject.giveBack(loans.back());
        loans.pop_back();
    }
}

template <bool Locked>
class OurPool {
  public:
    using Loan = unsigned int;
    static constexpr const char* name = "gilvane";
    explicit OurPool(unsigned int numberOfBlocks) : thePool(numberOfBlocks, blockBytes, Locked) {}
    Loan borrow() { return thePool.getTokenForFreeMemoryObject(); }
    void* address(Loan loan) { return thePool.getMemoryForToken(loan); }
    void giveBack(Loan loan) { thePool.releaseObject(loan); }
    Gilvane::GVMemoryPool& pool() { return thePool; }

  private:
    Gilvane::GVMemoryPool thePool;
};

template <typename Mutex>
class ByHand : public HandWrittenPool<Mutex> {
  public:
    using Loan = unsigned int;
    static constexpr const char* name = "hand-written";
    explicit ByHand(unsigned int numberOfBlocks) : HandWrittenPool<Mutex>(numberOfBlocks, blockBytes) {}
};

/// As ByHand, but it makes room for its blocks before it builds them.
class ByHandReserved : public HandWrittenPool<NoMutex> {
  public:
    using Loan = unsigned int;
    static constexpr const char* name = "hand-written, reserving";
    explicit ByHandReserved(unsigned int numberOfBlocks) : HandWrittenPool(numberOfBlocks, blockBytes, true) {}
};

/// The pool, with its memory from mimalloc by way of the hooks.
class OurPoolOnMimalloc : public OurPool<false> {
  public:
    static constexpr const char* name = "gilvane on mimalloc";
    explicit OurPoolOnMimalloc(unsigned int numberOfBlocks) : OurPool(withMimalloc(numberOfBlocks)) {
        Gilvane::GVObject::SetAllocationHooks(nullptr, nullptr);
    }

  private:
    static unsigned int withMimalloc(unsigned int numberOfBlocks) {
        MimallocLibrary::hook();
        return numberOfBlocks;
    }
};

/// What all subjects that lend addresses have in common.
class LendsAddresses {
  public:
    using Loan = void*;
    void* address(Loan loan) { return loan; }
};

class BoostPool : public LendsAddresses {
  public:
    static constexpr const char* name = "boost::pool";
    explicit BoostPool(unsigned int numberOfBlocks) : thePool(blockBytes) { obtainBlocks(*this, numberOfBlocks); }
    Loan borrow() { return thePool.malloc(); }
    void giveBack(Loan loan) { thePool.free(loan); }

  private:
    boost::pool<> thePool;
};

/// Boost's pool for the whole process; only one object of this class at a time. Emptied, such a pool goes on obtaining
/// larger chunks each time; the limit keeps them at the size that they have anyhow when a pool gets large.
/// @tparam Mutex  std::mutex, or boost::details::pool::null_mutex
template <typename Mutex>
class BoostSingletonPool : public LendsAddresses {
  public:
    static constexpr const char* name = "boost::singleton_pool";
    explicit BoostSingletonPool(unsigned int numberOfBlocks) { obtainBlocks(*this, numberOfBlocks); }
    BoostSingletonPool(const BoostSingletonPool&) = delete;
    BoostSingletonPool& operator=(const BoostSingletonPool&) = delete;
    ~BoostSingletonPool() { Pool::purge_memory(); }
    Loan borrow() { return Pool::malloc(); }
    void giveBack(Loan loan) { Pool::free(loan); }

  private:
    static constexpr unsigned int mostBlocksInChunk = 65536;
    struct Tag {};
    using Pool =
        boost::singleton_pool<Tag, blockBytes, boost::default_user_allocator_new_delete, Mutex, 32, mostBlocksInChunk>;
};

/// @tparam Resource  std::pmr::synchronized_pool_resource or std::pmr::unsynchronized_pool_resource
template <typename Resource>
class StandardResource : public LendsAddresses {
  public:
    static constexpr const char* name = "std::pmr";
    explicit StandardResource(unsigned int numberOfBlocks) { obtainBlocks(*this, numberOfBlocks); }
    Loan borrow() { return theResource.allocate(blockBytes); }
    void giveBack(Loan loan) { theResource.deallocate(loan, blockBytes); }

  private:
    Resource theResource;
};

class Malloc : public LendsAddresses {
  public:
    static constexpr const char* name = "malloc";
    explicit Malloc(unsigned int numberOfBlocks) { obtainBlocks(*this, numberOfBlocks); }
    Loan borrow() { return std::malloc(blockBytes); }
    void giveBack(Loan loan) { std::free(loan); }
};

class Mimalloc : public LendsAddresses {
  public:
    static constexpr const char* name = "mimalloc";
    explicit Mimalloc(unsigned int numberOfBlocks) { obtainBlocks(*this, numberOfBlocks); }
    Loan borrow() { return MimallocLibrary::allocate(blockBytes); }
    void giveBack(Loan loan) { MimallocLibrary::release(loan); }
};

using Unlocked = boost::details::pool::null_mutex;

#endif
