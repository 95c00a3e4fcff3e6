/// @file
/// What threads share blocks by, with one interface.
///
/// A subject is made once for all threads, with a number of blocks. Each thread makes a `Seat` of it, which has
/// `borrow`, `address` and `giveBack`. Where a subject lends the address itself, `address` only hands it on.
#ifndef GILVANE_BENCHMARKS_SHARINGSUBJECTS_H
#define GILVANE_BENCHMARKS_SHARINGSUBJECTS_H

#include "subjects.h"

#include <gilvane/utilities/gvsharedpool.h>
#include <gilvane/utilities/gvtokencache.h>

#include <boost/lockfree/detail/freelist.hpp>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <vector>

struct rte_mempool;
struct rte_mempool_cache;

/// A subject of subjects.h, whose threads all use the one object.
/// @tparam Subject  one that threads may share
template <typename Subject>
class Shared : public Subject {
  public:
    using Subject::Subject;
    using typename Subject::Loan;

    class Seat {
      public:
        explicit Seat(Shared& subject) : theSubject(&subject) {}
        Loan borrow() { return theSubject->borrow(); }
        void* address(Loan loan) { return theSubject->address(loan); }
        void giveBack(Loan loan) { theSubject->giveBack(loan); }

      private:
        Subject* theSubject;
    };
};

/// The locked pool.
class LockedPool : public OurPool<true> {
  public:
    static constexpr const char* name = "gilvane, locked pool";
    using OurPool::OurPool;
};

/// The shared pool, without a cache: waits when it is dry.
class SharedPoolAlone {
  public:
    using Loan = unsigned int;
    static constexpr const char* name = "gilvane";
    explicit SharedPoolAlone(unsigned int numberOfBlocks) : thePool(numberOfBlocks, blockBytes) {}

    class Seat {
      public:
        explicit Seat(SharedPoolAlone& subject) : thePool(subject.thePool) {}
        Loan borrow() { return *thePool.borrow(); }
        void* address(Loan loan) { return thePool.getMemoryForToken(loan); }
        void giveBack(Loan loan) { thePool.releaseObject(loan); }

      private:
        Gilvane::GVSharedPool& thePool;
    };

  private:
    Gilvane::GVSharedPool thePool;
};

/// The shared pool, with a cache for each thread.
class SharedPoolCached {
  public:
    using Loan = unsigned int;
    static constexpr const char* name = "gilvane";
    explicit SharedPoolCached(unsigned int numberOfBlocks) : thePool(numberOfBlocks, blockBytes) {}

    class Seat {
      public:
        explicit Seat(SharedPoolCached& subject) : theCache(subject.thePool) {}
        Loan borrow() { return *theCache.borrow(); }
        void* address(Loan loan) { return theCache.getMemoryForToken(loan); }
        void giveBack(Loan loan) { theCache.releaseObject(loan); }

      private:
        Gilvane::GVTokenCache theCache;
    };

  private:
    Gilvane::GVSharedPool thePool;
};

/// What a user would write: tokens in a vector, a mutex and a condition variable to wait on.
class WaitingByHand {
  public:
    using Loan = unsigned int;
    static constexpr const char* name = "mutex + condition variable";
    explicit WaitingByHand(unsigned int numberOfBlocks);
    Loan borrow() {
        std::unique_lock<std::mutex> guard(theMutex);
        theCondition.wait(guard, [this] { return !theFree.empty(); });
        const Loan loan = theFree.back();
        theFree.pop_back();
        return loan;
    }
    void* address(Loan loan) { return theBytes.get() + std::size_t{loan} * blockBytes; }
    void giveBack(Loan loan) {
        {
            const std::lock_guard<std::mutex> guard(theMutex);
            theFree.push_back(loan);
        }
        theCondition.notify_one();
    }

  private:
    std::unique_ptr<char[]> theBytes;
    std::mutex theMutex;
    std::condition_variable theCondition;
    std::vector<Loan> theFree;
};

/// The free list of Boost's lock-free containers.
class BoostFreeList : public LendsAddresses {
  public:
    static constexpr const char* name = "boost::lockfree free list";
    explicit BoostFreeList(unsigned int numberOfBlocks) : theList(std::allocator<Block>(), numberOfBlocks) {}
    Loan borrow() { return theList.construct<true, true>(); }
    void giveBack(Loan loan) { theList.destruct<true>(static_cast<Block*>(loan)); }

  private:
    struct alignas(64) Block {
        Block() {} // the bytes stay as they are
        char theBytes[blockBytes];
    };
    boost::lockfree::detail::freelist_stack<Block> theList;
};

/// DPDK's pool, with a cache of 64 for each thread.
class DpdkPool : public LendsAddresses {
  public:
    static constexpr const char* name = "rte_mempool";
    explicit DpdkPool(unsigned int numberOfBlocks);
    DpdkPool(const DpdkPool&) = delete;
    DpdkPool& operator=(const DpdkPool&) = delete;
    ~DpdkPool();

    class Seat {
      public:
        explicit Seat(DpdkPool& subject);
        Seat(const Seat&) = delete;
        Seat& operator=(const Seat&) = delete;
        ~Seat();
        inline Loan borrow();
        void* address(Loan loan) { return loan; }
        inline void giveBack(Loan loan);

      private:
        rte_mempool* thePool;
        rte_mempool_cache* theCache;
    };

    /// To be called once, before the first object is made. Ends the program when the library cannot be used.
    static void load();

  private:
    rte_mempool* thePool;
};

#endif
