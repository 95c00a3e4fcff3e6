// Every class template of the library whole, and every function template that belongs to no class or is a member by
// itself, for each way it compiles: what no test calls would otherwise not be compiled, and not be missed.

#include <gilvane/base/gvallocationbudget.h>
#include <gilvane/utilities/gvmemorypool.h>
#include <gilvane/utilities/gvmemorypoolinspector.h>
#include <gilvane/utilities/gvtokenlease.h>

namespace Gilvane {

namespace {

struct NotCopied : GVObject {
    NotCopied() = default;
    NotCopied(const NotCopied&) = delete;
    NotCopied& operator=(const NotCopied&) = delete;
};

enum Choice : int {};

using Visitor = void (*)(const GVInspectedBlock&);
using VisitorWithoutSnapshot = void (*)(const GVVisitedBlock&);

} // namespace

template void detail::writeDumpValue<int>(std::ostream&, const int&);
template void detail::writeDumpValue<unsigned int>(std::ostream&, const unsigned int&);
template void detail::writeDumpValue<int*>(std::ostream&, int* const&);
template void detail::writeDumpValue<void (*)()>(std::ostream&, void (*const&)());

template GVAllocationArena::GVAllocationArena(unsigned char (&)[1]);

template class GVStdAllocator<int>;
template GVStdAllocator<int>::GVStdAllocator(const GVStdAllocator<char>&);
template GVStdAllocator<void>::GVStdAllocator(const GVStdAllocator<int>&);
template void GVStdAllocator<int>::construct<int, int>(int*, int&&);
template void GVStdAllocator<int>::destroy<int>(int*);
template bool operator==<int, char>(const GVStdAllocator<int>&, const GVStdAllocator<char>&);
template bool operator!=<int, char>(const GVStdAllocator<int>&, const GVStdAllocator<char>&);

template class GVHashTableEntry<int, int>;
template class GVHashTableEntry_Iterator<int, int>;
template class GVHashTable<int, int>;
template class GVGenericHashFunction<unsigned int>;
template class GVGenericHashFunction<Choice>;
template class GVGenericHashFunction<int*>;

template class GVSmartPointer<GVMemoryPool>;
template class GVSmartPointer<int>;
template class GVSmartPointer<NotCopied>;
template std::ostream& operator<< <int>(std::ostream&, const GVSmartPointer<int>&);

template int& GVTokenLease::as<int>() const;
template void GVMemoryPoolInspector::visitBlocks<Visitor>(Visitor&&) const;
template void GVMemoryPoolInspector::visitBlocks<VisitorWithoutSnapshot>(const GVMemoryPool&, VisitorWithoutSnapshot&&);
template void GVMemoryPoolInspector::visitBlocks<VisitorWithoutSnapshot>(const GVSharedPool&, VisitorWithoutSnapshot&&);

} // namespace Gilvane

int main() {}
