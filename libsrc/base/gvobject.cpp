#include <gilvane/base/gvobject.h>

#include <gilvane/base/gvexception.h>
#include <gilvane/base/gvrawblock.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>

#if defined(__linux__)
#include <sys/mman.h>
#endif

#if defined(GILVANE_MIMALLOC)
#include <mimalloc.h>
#endif

namespace Gilvane {

namespace {

constexpr const char* theSourceFile = "libsrc/base/gvobject";

// Where the default hooks get memory, and give it back.
#if defined(GILVANE_MIMALLOC)
void* takeMemory(std::size_t bytes) { return mi_malloc(bytes); }
void returnMemory(void* memory) { mi_free(memory); }
#else
void* takeMemory(std::size_t bytes) { return std::malloc(bytes); }
void returnMemory(void* memory) { std::free(memory); }
#endif

// The default hooks shift each block inside what malloc returned, so that the user's bytes, after the header word, have
// malloc's full alignment: doubles, 64-bit atomics and vector values need it. The block ends where malloc's memory
// ends, so that a memory checker sees an overrun of a single byte.
//
//   malloc returned     the hook returns           the user gets, aligned for std::max_align_t
//   | padding           | deallocation function    | bytes ... |
//
constexpr std::size_t defaultHookPadding = alignof(std::max_align_t) - detail::rawBlockHeaderBytes;
static_assert(alignof(std::max_align_t) >= detail::rawBlockHeaderBytes &&
                  defaultHookPadding % alignof(GVDeallocatorFunction) == 0,
              "the header word is aligned too");

// Asks the kernel for huge pages where they lie in the block wholly. Large tables need them: with ordinary pages nearly
// every access to a random slot misses the TLB, and each growth causes thousands of page faults.
#if defined(MADV_HUGEPAGE)
void adviseHugePages(void* memory, std::size_t bytes) {
    constexpr std::uintptr_t hugePageBytes = std::uintptr_t{1} << 21;
    constexpr std::size_t leastBytes = 2 * hugePageBytes; // at least one whole huge page lies in as many
    if (bytes < leastBytes) {
        return;
    }
    const std::uintptr_t start = reinterpret_cast<std::uintptr_t>(memory);
    const std::uintptr_t first = (start + hugePageBytes - 1) / hugePageBytes * hugePageBytes;
    const std::uintptr_t end = (start + bytes) / hugePageBytes * hugePageBytes;
    static_cast<void>(madvise(reinterpret_cast<void*>(first), end - first, MADV_HUGEPAGE));
}
#else
void adviseHugePages(void*, std::size_t) {}
#endif

void* allocateByDefault(unsigned int numberOfBytes) {
    const std::size_t paddedBytes = defaultHookPadding + numberOfBytes;
    if (paddedBytes < numberOfBytes) { // wraps where size_t has 32 bits
        return nullptr;
    }
    void* const memory = takeMemory(paddedBytes);
    if (memory == nullptr) {
        return nullptr;
    }
    adviseHugePages(memory, paddedBytes);
    return static_cast<char*>(memory) + defaultHookPadding;
}

void releaseByDefault(void* block) { returnMemory(static_cast<char*>(block) - defaultHookPadding); }

// Constant-initialised: objects may be made before main, by other files' initialisers.
GVAllocatorFunction theAllocator = &allocateByDefault;
GVDeallocatorFunction theDeallocator = &releaseByDefault;

void* allocateObject(std::size_t size) noexcept {
    return detail::fitsInRawBlock(size) ? detail::allocateRawBlock(static_cast<unsigned int>(size)) : nullptr;
}

void* allocateObjectOrThrow(std::size_t size) {
    void* const storage = allocateObject(size);
    if (storage == nullptr) {
        throw std::bad_alloc();
    }
    return storage;
}

void releaseObjectStorage(void* p) noexcept {
    if (p != nullptr) {
        detail::releaseRawBlock(p);
    }
}

} // namespace

GVAllocatorFunction GVObject::GetAllocator() { return theAllocator; }

GVDeallocatorFunction GVObject::GetDeallocator() { return theDeallocator; }

void GVObject::SetAllocationHooks(GVAllocatorFunction allocator, GVDeallocatorFunction deallocator) {
    if ((allocator == nullptr) != (deallocator == nullptr)) {
        throw GVException("Allocation hooks must be set or reset together.", theSourceFile, __LINE__, gvinvalidstate,
                          0);
    }
    const bool restoreDefaults = allocator == nullptr;
    theAllocator = restoreDefaults ? &allocateByDefault : allocator;
    theDeallocator = restoreDefaults ? &releaseByDefault : deallocator;
}

void* GVObject::operator new(std::size_t size) { return allocateObjectOrThrow(size); }

void* GVObject::operator new(std::size_t size, const std::nothrow_t&) noexcept { return allocateObject(size); }

void* GVObject::operator new[](std::size_t size) { return allocateObjectOrThrow(size); }

void* GVObject::operator new[](std::size_t size, const std::nothrow_t&) noexcept { return allocateObject(size); }

void GVObject::operator delete(void* p) noexcept { releaseObjectStorage(p); }

void GVObject::operator delete(void* p, const std::nothrow_t&) noexcept { releaseObjectStorage(p); }

void GVObject::operator delete[](void* p) noexcept { releaseObjectStorage(p); }

void GVObject::operator delete[](void* p, const std::nothrow_t&) noexcept { releaseObjectStorage(p); }

} // namespace Gilvane
