// What a smart pointer does where types cannot be asked for at run time: compiled without them, by itself.
#include <gilvane/utilities/gvsmartpointer.h>

#if defined(__cpp_rtti)
#error "to be compiled with -fno-rtti"
#endif

namespace {

// Notes what it holds when deleteData is called.
struct WatchfulPointer : Gilvane::GVSmartPointer<int> {
    using GVSmartPointer::GVSmartPointer;
    void deleteData() override {
        theObject = get();
        GVSmartPointer::deleteData();
    }
    const int* theObject = nullptr;
};

} // namespace

int main() {
    WatchfulPointer pointer(new int(1), true, true);
    const int* const former = pointer.get();
    const Gilvane::GVSmartPointer<int> next(new int(2), true, true);
    static_cast<Gilvane::GVSmartPointer<int>&>(pointer) = next;
    return pointer.theObject == former && pointer.get() == next.get() && next.getRefCount() == 2 ? 0 : 1;
}
