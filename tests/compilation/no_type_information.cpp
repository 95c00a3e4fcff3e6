// The smart pointer's assignments need no type information at run time.
//
// with: -fno-rtti
#include <gilvane/utilities/gvmemorypool.h>
#include <gilvane/utilities/gvsmartpointer.h>

#include <utility>

#if defined(__cpp_rtti)
#error there is type information
#endif

template class Gilvane::GVSmartPointer<int>;

int main() {
    Gilvane::GVSmartPointer<Gilvane::GVMemoryPool> pool;
    Gilvane::GVSmartPointer<Gilvane::GVMemoryPool> other;
    pool = other;
    pool = std::move(other);
}
