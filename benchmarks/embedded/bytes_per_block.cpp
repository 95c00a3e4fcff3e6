// Bytes that a pool takes for its blocks, and those that an array of such blocks takes: a line for each size and number of
// blocks. Counted is all that is held when the pool is built: what is asked for through the allocation hooks, what malloc
// rounds that up to, malloc's own word in front of it, and the pool itself.
#include <gilvane/base/gvobject.h>
#include <gilvane/utilities/gvmemorypool.h>
#include <gilvane/utilities/gvsharedpool.h>

#include <malloc.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>

namespace {

std::size_t held = 0;

// malloc keeps the size of a piece of memory in a word in front of it.
std::size_t bytesOf(void* memory) { return malloc_usable_size(memory) + sizeof(std::size_t); }

// Alignment as the default hooks give it: the user's bytes come behind the header word.
constexpr std::size_t padding = alignof(std::max_align_t) - sizeof(void*);

void* allocate(unsigned int numberOfBytes) {
    void* const memory = std::malloc(numberOfBytes + padding);
    if (memory == nullptr) {
        std::abort();
    }
    held += bytesOf(memory);
    return static_cast<char*>(memory) + padding;
}

void release(void* bytes) {
    if (bytes == nullptr) {
        return;
    }
    void* const memory = static_cast<char*>(bytes) - padding;
    held -= bytesOf(memory);
    std::free(memory);
}

} // namespace

int main() {
    Gilvane::GVObject::SetAllocationHooks(&allocate, &release);
    for (const unsigned int bytes : {16U, 64U, 256U, 1024U, 4096U}) {
        for (const unsigned int blocks : {16U, 64U, 256U, 1024U, 65536U}) {
            const std::size_t before = held;
            std::size_t ofPool = 0;
            std::size_t ofSharedPool = 0;
            {
                const Gilvane::GVMemoryPool pool(blocks, bytes, false);
                ofPool = sizeof pool + held - before;
            }
            {
                const Gilvane::GVSharedPool pool(blocks, bytes);
                ofSharedPool = sizeof pool + held - before;
            }
            void* const array = std::malloc(std::size_t{bytes} * blocks);
            std::printf("%u %u %zu %zu %zu\n", bytes, blocks, bytesOf(array), ofPool, ofSharedPool);
            std::free(array);
        }
    }
    if (held != 0) {
        std::abort();
    }
}
