// Refills smart pointers from the destructor of what they hold. Compiled with run-time type information and without,
// and linked into one program as both; it is the main program in one of the two.
#include <gilvane/utilities/gvmemorypool.h>
#include <gilvane/utilities/gvsmartpointer.h>

using Gilvane::GVMemoryPool;
using Gilvane::GVSmartPointer;

#if defined(__cpp_rtti)
#define refill refillWithTypeInformation
#else
#define refill refillWithoutTypeInformation
#endif

namespace {

// Puts another object into the slot that it goes from, once.
struct Refiller {
    ~Refiller() {
        if (theSlot != nullptr) {
            *theSlot = GVSmartPointer<Refiller>(new Refiller, true, true);
        }
    }
    GVSmartPointer<Refiller>* theSlot = nullptr;
};

} // namespace

bool refillWithTypeInformation();
bool refillWithoutTypeInformation();

bool refill() {
    GVSmartPointer<GVMemoryPool> pool = GVMemoryPool::init(false);
    GVSmartPointer<GVMemoryPool> other = GVMemoryPool::init(false);
    const GVMemoryPool* const kept = other.get();
    pool = other;

    GVSmartPointer<Refiller> slot(new Refiller, true, true);
    slot->theSlot = &slot;
    slot = GVSmartPointer<Refiller>(new Refiller, true, true);
    return pool.get() == kept && pool.getRefCount() == 2 && slot->theSlot == nullptr && slot.getRefCount() == 1;
}

#if defined(IS_MAIN)
int main() { return refillWithTypeInformation() && refillWithoutTypeInformation() ? 0 : 1; }
#endif
