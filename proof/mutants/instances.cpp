// One unit that holds every template of the library, each with several types: where a part of one has the same type in
// all of them, that type is the template's own.
#include <gilvane/base/gvallocationbudget.h>
#include <gilvane/base/gvdumpvalue.h>
#include <gilvane/base/gvrawblock.h>
#include <gilvane/base/gvstdallocator.h>
#include <gilvane/utilities/gvmemorypool.h>
#include <gilvane/utilities/gvmemorypoolinspector.h>
#include <gilvane/utilities/gvobjectlease.h>
#include <gilvane/utilities/gvsharedtokenlease.h>
#include <gilvane/utilities/gvtokencache.h>
#include <gilvane/utilities/gvtokenlease.h>

#include <chrono>
#include <string>

namespace Gilvane {

enum class GVColour { red };

struct GVCopied {
    int field;
};

struct GVNeverCopied {
    GVNeverCopied() = default;
    GVNeverCopied(const GVNeverCopied&) = delete;
};

inline std::ostream& operator<<(std::ostream& stream, const GVCopied&) { return stream; }

template class GVHashTable<std::string, std::string>;
template class GVHashTableEntry<std::string, std::string>;
template class GVHashTableEntry_Iterator<std::string, std::string>;
template class GVGenericHashFunction<std::string>;
template class GVGenericHashFunction<short>;
template class GVGenericHashFunction<GVColour>;
template class GVSmartPointer<GVCopied>;
template class GVSmartPointer<GVNeverCopied>;
template class GVStdAllocator<std::string>;
template class GVStdAllocator<char>;

void visitInspectedBlock(const GVInspectedBlock& block);
void visitLoan(const GVSharedLoan& loan);

template <typename Pool>
void visitBlocksOf(const Pool& pool) {
    GVMemoryPoolInspector::visitBlocks(pool, visitInspectedBlock);
    GVMemoryPoolInspector::visitBlocks(pool, [](const GVVisitedBlock& block) { visitInspectedBlock(block); });
}

void useFunctionTemplates(std::ostream& stream, GVStdAllocator<char>& characters, GVStdAllocator<std::string>& texts) {
    detail::writeDumpValue(stream, &useFunctionTemplates);
    detail::writeDumpValue(stream, &stream);
    detail::writeDumpValue(stream, 1U);
    detail::writeDumpValue(stream, 'a');
    static_cast<void>(characters == texts || characters != texts);
    static_cast<void>(GVStdAllocator<short>(characters));
    static_cast<void>(GVStdAllocator<void>(characters));
    static_cast<void>(GVStdAllocator<void>(texts));
    char* const character = characters.allocate(1);
    characters.construct(character, 'a');
    characters.destroy(character);
    std::string* const text = texts.allocate(1);
    texts.construct(text, "a");
    texts.destroy(text);
    const GVTokenLease lease;
    static_cast<void>(lease.as<char>());
    static_cast<void>(lease.as<std::string>());
    const GVMemoryPool pool(false);
    const GVMemoryPoolInspector inspector(pool);
    inspector.visitBlocks(visitInspectedBlock);
    inspector.visitBlocks([](const GVInspectedBlock& block) { visitInspectedBlock(block); });
    visitBlocksOf(pool);
    stream << GVSmartPointer<GVCopied>() << GVSmartPointer<GVNeverCopied>();
}

template <typename Lender, typename Time, typename Deadline>
void waitForALoan(Lender& lender, const Time& time, const Deadline& deadline) {
    static_cast<void>(GVSharedTokenLease::wait(lender));
    static_cast<void>(GVSharedTokenLease::waitFor(lender, time));
    static_cast<void>(GVSharedTokenLease::waitUntil(lender, deadline));
}

void useArenas(unsigned char (&few)[8], unsigned char (&many)[16]) {
    { const GVAllocationArena arena(few); }
    const GVAllocationArena arena(many);
}

void waitForLoans(GVSharedPool& pool, GVTokenCache& cache) {
    visitBlocksOf(pool);
    pool.visitLoans(std::chrono::seconds(1), visitLoan);
    pool.visitLoans(std::chrono::duration<double>(1), [](const GVSharedLoan& loan) { visitLoan(loan); });
    const GVSharedTokenLease lease;
    static_cast<void>(lease.as<char>());
    static_cast<void>(lease.as<std::string>());
    waitForALoan(pool, std::chrono::seconds(1), std::chrono::steady_clock::now());
    waitForALoan(pool, std::chrono::duration<double>(1), std::chrono::system_clock::now());
    waitForALoan(cache, std::chrono::seconds(1), std::chrono::steady_clock::now());
    waitForALoan(cache, std::chrono::duration<double>(1), std::chrono::system_clock::now());
}

template class GVObjectLease<char>;
template class GVObjectLease<std::string>;

template <typename T, typename Lender>
void holdAnObject(Lender& lender) {
    static_cast<void>(GVObjectLease<T>(lender));
    static_cast<void>(GVObjectLease<T>(lender, T()));
}

template <typename T, typename Lender>
void waitForAnObject(Lender& lender) {
    holdAnObject<T>(lender);
    static_cast<void>(GVObjectLease<T>::wait(lender));
    static_cast<void>(GVObjectLease<T>::wait(lender, T()));
    static_cast<void>(GVObjectLease<T>::waitFor(lender, std::chrono::seconds(1)));
    static_cast<void>(GVObjectLease<T>::waitFor(lender, std::chrono::duration<double>(1), T()));
    static_cast<void>(GVObjectLease<T>::waitUntil(lender, std::chrono::steady_clock::now()));
    static_cast<void>(GVObjectLease<T>::waitUntil(lender, std::chrono::system_clock::now(), T()));
}

template <typename T>
void holdObjects(GVSmartPointer<GVMemoryPool>& owner, GVMemoryPool& memoryPool, GVSharedPool& pool,
                 GVTokenCache& cache) {
    holdAnObject<T>(owner);
    holdAnObject<T>(memoryPool);
    waitForAnObject<T>(pool);
    waitForAnObject<T>(cache);
}

void holdSomeObjects(GVSmartPointer<GVMemoryPool>& owner, GVMemoryPool& memoryPool, GVSharedPool& pool,
                     GVTokenCache& cache) {
    holdObjects<char>(owner, memoryPool, pool, cache);
    holdObjects<std::string>(owner, memoryPool, pool, cache);
}

} // namespace Gilvane
