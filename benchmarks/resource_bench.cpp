// Nodes of containers in blocks: what one insertion and one removal cost.
#include "harness.h"
#include "subjects.h"

#include <gilvane/utilities/gvpoolresource.h>
#include <gilvane/utilities/gvsharedpool.h>
#include <gilvane/utilities/gvtokencache.h>

#include <boost/pool/pool_alloc.hpp>

#include <cstddef>
#include <list>
#include <map>
#include <memory>
#include <memory_resource>
#include <mutex>
#include <utility>
#include <vector>

namespace {

constexpr unsigned int nodes = 1000;

// --- what gives the nodes their memory --------------------------------------------------------------------------------

// Each subject has an allocator for each type, and makes one. This is that of subjects with a memory resource.
template <typename Subject>
class OnResource {
  public:
    template <typename T>
    using Allocator = std::pmr::polymorphic_allocator<T>;
    template <typename T>
    Allocator<T> allocator() {
        return &static_cast<Subject*>(this)->theResource;
    }
};

// @tparam Resource  of the standard library
template <typename Resource>
class Standard : public OnResource<Standard<Resource>> {
  public:
    static constexpr const char* name = "std::pmr";

  private:
    friend class OnResource<Standard<Resource>>;
    Resource theResource;
};

class OverPool : public OnResource<OverPool> {
  public:
    static constexpr const char* name = "gilvane";

  private:
    friend class OnResource<OverPool>;
    Gilvane::GVMemoryPool thePool{2 * nodes, blockBytes, false};
    Gilvane::GVPoolResource theResource{thePool};
};

class OverSharedPool : public OnResource<OverSharedPool> {
  public:
    static constexpr const char* name = "gilvane";

  private:
    friend class OnResource<OverSharedPool>;
    Gilvane::GVSharedPool thePool{2 * nodes, blockBytes};
    Gilvane::GVPoolResource theResource{thePool};
};

class OverCache : public OnResource<OverCache> {
  public:
    static constexpr const char* name = "gilvane";

  private:
    friend class OnResource<OverCache>;
    Gilvane::GVSharedPool thePool{2 * nodes, blockBytes};
    Gilvane::GVTokenCache theCache{thePool};
    Gilvane::GVPoolResource theResource{theCache};
};

// What std::pmr asks of any resource and nothing else: a call that the compiler cannot see through for each request, here
// to a list of blocks that never runs dry.
class BareResource : public std::pmr::memory_resource {
  public:
    BareResource() {
        for (Block& block : theBlocks) {
            BareResource::do_deallocate(&block, blockBytes, alignof(std::max_align_t));
        }
    }

  protected:
    void* do_allocate(std::size_t /*bytes*/, std::size_t /*alignment*/) override {
        return std::exchange(theFirst, theFirst->theNext);
    }
    void do_deallocate(void* bytes, std::size_t /*numberOfBytes*/, std::size_t /*alignment*/) override {
        Block* const block = ::new (bytes) Block;
        block->theNext = theFirst;
        theFirst = block;
    }
    bool do_is_equal(const std::pmr::memory_resource& other) const noexcept override { return this == &other; }

  private:
    struct Block {
        Block* theNext;
        std::byte theRest[blockBytes - sizeof(Block*)];
    };
    std::vector<Block> theBlocks = std::vector<Block>(2 * nodes);
    Block* theFirst = nullptr;
};

class DesignAlone : public OnResource<DesignAlone> {
  public:
    static constexpr const char* name = "the design alone";

  private:
    friend class OnResource<DesignAlone>;
    BareResource theResource;
};

// @tparam Mutex  std::mutex, or boost::details::pool::null_mutex
template <typename Mutex>
class BoostFast {
  public:
    static constexpr const char* name = "boost::fast_pool_allocator";
    template <typename T>
    using Allocator = boost::fast_pool_allocator<T, boost::default_user_allocator_new_delete, Mutex>;
    template <typename T>
    Allocator<T> allocator() {
        return {};
    }
};

class StandardAllocator {
  public:
    static constexpr const char* name = "malloc";
    template <typename T>
    using Allocator = std::allocator<T>;
    template <typename T>
    Allocator<T> allocator() {
        return {};
    }
};

// --- the containers ---------------------------------------------------------------------------------------------------

template <typename Subject>
void fillAndEmptyList(benchmark::State& state) {
    using List = std::list<unsigned int, typename Subject::template Allocator<unsigned int>>;
    tidyHeap();
    Subject subject;
    List list(subject.template allocator<unsigned int>());
    for (auto _ : state) {
        for (unsigned int value = 0; value < nodes; ++value) {
            list.push_back(value);
        }
        escape(&list);
        while (!list.empty()) {
            list.pop_front();
        }
    }
    setOperationsPerIteration(state, nodes);
}

template <typename Subject>
void fillAndEmptyMap(benchmark::State& state) {
    using Entry = std::pair<const unsigned int, unsigned int>;
    using Map = std::map<unsigned int, unsigned int, std::less<>, typename Subject::template Allocator<Entry>>;
    const std::vector<unsigned int> order = randomOrder(nodes);
    tidyHeap();
    Subject subject;
    Map map(subject.template allocator<Entry>());
    for (auto _ : state) {
        for (const unsigned int key : order) {
            map.emplace(key, key);
        }
        escape(&map);
        for (const unsigned int key : order) {
            map.erase(key);
        }
    }
    setOperationsPerIteration(state, nodes);
}

template <typename Subject>
void registerContainers(const std::string& prefix) {
    benchmark::RegisterBenchmark(benchmarkName("row/" + prefix + "list", Subject::name, nodes).c_str(),
                                 fillAndEmptyList<Subject>);
    benchmark::RegisterBenchmark(benchmarkName("row/" + prefix + "map", Subject::name, nodes).c_str(),
                                 fillAndEmptyMap<Subject>);
}

} // namespace

void registerResources() {
    registerContainers<OverPool>("");
    registerContainers<DesignAlone>("");
    registerContainers<Standard<std::pmr::unsynchronized_pool_resource>>("");
    registerContainers<BoostFast<Unlocked>>("");
    registerContainers<StandardAllocator>("");

    registerContainers<OverSharedPool>("shared_");
    registerContainers<OverCache>("cached_");
    for (const std::string prefix : {"shared_", "cached_"}) {
        registerContainers<Standard<std::pmr::synchronized_pool_resource>>(prefix);
        registerContainers<BoostFast<std::mutex>>(prefix);
        registerContainers<StandardAllocator>(prefix);
    }
}
