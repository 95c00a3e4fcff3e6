// A class that claims to be copyable and is not needs its GVIsDeepCopyable to be held by a smart pointer.
//
// refused: std::unique_ptr<int>
#include <gilvane/utilities/gvsmartpointer.h>

#include <memory>
#include <type_traits>
#include <vector>

struct Job {
    std::vector<std::unique_ptr<int>> theParts;
};
static_assert(std::is_copy_constructible_v<Job>, "this is its claim");

#if !defined(REFUSED)
template <>
struct Gilvane::GVIsDeepCopyable<Job> : std::false_type {};
#endif

int main() { const Gilvane::GVSmartPointer<Job> pointer(new Job, true, false); }
