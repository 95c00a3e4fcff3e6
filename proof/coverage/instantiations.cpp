// Every class template of the library whole, and every function template that belongs to no class or is a member by
// itself, for each way it compiles: what no test calls would otherwise not be compiled, and not be missed.

#include <gilvane/base/gvallocationbudget.h>
#include <gilvane/utilities/gvmemorypool.h>
#include <gilvane/utilities/gvmemorypoolinspector.h>
#include <gilvane/utilities/gvobjectlease.h>
#include <gilvane/utilities/gvtokenlease.h>

#include <chrono>

namespace Gilvane {

namespace {

struct NotCopied : GVObject {
    NotCopied() = default;
    NotCopied(const NotCopied&) = delete;
    NotCopied& operator=(const NotCopied&) = delete;
};

enum Choice : int {};

using Lease = GVObjectLease<int>;
using Time = std::chrono::seconds;
using Deadline = std::chrono::steady_clock::time_point;

using Visitor = void (*)(const GVInspectedBlock&);
using VisitorWithoutSnapshot = void (*)(const GVVisitedBlock&);
using VisitorOfLoans = void (*)(const GVSharedLoan&);

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
template class GVObjectLease<int>;
template Lease::GVObjectLease(GVSmartPointer<GVMemoryPool>, int&&);
template Lease::GVObjectLease(GVMemoryPool&, int&&);
template Lease::GVObjectLease(GVSharedPool&, int&&);
template Lease::GVObjectLease(GVTokenCache&, int&&);
template Lease Lease::wait<GVSharedPool, int>(GVSharedPool&, int&&);
template Lease Lease::wait<GVTokenCache, int>(GVTokenCache&, int&&);
template Lease Lease::waitFor<GVSharedPool>(GVSharedPool&, const Time&, int&&);
template Lease Lease::waitFor<GVTokenCache>(GVTokenCache&, const Time&, int&&);
template Lease Lease::waitUntil<GVSharedPool>(GVSharedPool&, const Deadline&, int&&);
template Lease Lease::waitUntil<GVTokenCache>(GVTokenCache&, const Deadline&, int&&);
template void GVMemoryPoolInspector::visitBlocks<Visitor>(Visitor&&) const;
template void GVMemoryPoolInspector::visitBlocks<VisitorWithoutSnapshot>(const GVMemoryPool&, VisitorWithoutSnapshot&&);
template void GVMemoryPoolInspector::visitBlocks<VisitorWithoutSnapshot>(const GVSharedPool&, VisitorWithoutSnapshot&&);
template bool GVSharedPool::visitLoans(const Time&, VisitorOfLoans&&) const;

} // namespace Gilvane

int main() {}
