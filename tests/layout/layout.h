/// @file
/// The layout of every class and enumeration that programs see, stated once: debuggers and programs compiled earlier rely
/// on it.
///
/// GILVANE_LAYOUT(CLASS, FIELD) expands, in the order of the fields in memory, to
///   CLASS(name, type, size32, align32, size64, align64)
///   FIELD(name, field, offset32, offset64)
/// in bytes, for targets of 32 and of 64 bits. A field belongs to the class before it. The figures are those of 32-bit
/// ARM and of x86-64 with libstdc++. Target says in what other targets differ.
#ifndef GILVANE_TESTS_LAYOUT_LAYOUT_H
#define GILVANE_TESTS_LAYOUT_LAYOUT_H

#include "gvtestpeer.h"

#include <gilvane/base/gvallocationbudget.h>
#include <gilvane/threads/gvmutex.h>
#include <gilvane/threads/gvthreadsfactory.h>
#include <gilvane/utilities/gvmemorypoolinspector.h>
#include <gilvane/utilities/gvobjectlease.h>
#include <gilvane/utilities/gvpoolresource.h>
#include <gilvane/utilities/gvsharedloan.h>
#include <gilvane/utilities/gvsharedpool.h>
#include <gilvane/utilities/gvsharedtokenlease.h>
#include <gilvane/utilities/gvtokencache.h>
#include <gilvane/utilities/gvtokenlease.h>

namespace Gilvane {

/// The three sizes of others that the layout of the classes hangs on, beside the word.
struct Target {
#if defined(__i386__)
    static constexpr std::size_t wide = 4; ///< what values of 8 bytes are aligned to in a class
#else
    static constexpr std::size_t wide = 8;
#endif
#if defined(__aarch64__)
    static constexpr std::size_t mutex = 8; ///< bytes of a POSIX mutex beyond those on 32-bit ARM and x86-64
#else
    static constexpr std::size_t mutex = 0;
#endif
#if defined(_LIBCPP_VERSION)
    static constexpr std::size_t text = 8; ///< bytes of a string that libstdc++ takes and this library does not
#else
    static constexpr std::size_t text = 0;
#endif
};

} // namespace Gilvane

// clang-format off
#define GILVANE_LAYOUT(CLASS, FIELD)                                                                    \
    CLASS(GVObject, GVObject, 4, 4, 8, 8)                                                               \
    CLASS(GVDeallocatorFunction, GVDeallocatorFunction, 4, 4, 8, 8)                                     \
    CLASS(GVStdAllocator, GVStdAllocator<unsigned int>, 4, 4, 8, 8)                                     \
    CLASS(GVStdAllocator<void>, GVStdAllocator<void>, 4, 4, 8, 8)                                       \
    CLASS(GVAllocationBudget, GVAllocationBudget, 4, 4, 8, 8)                                           \
    CLASS(GVAllocationArena, GVAllocationArena, 4, 4, 8, 8)                                             \
    CLASS(GVExceptionMessage, GVExceptionMessage, 60, 4, 88 - 2 * Target::text, 8)                      \
    FIELD(GVExceptionMessage, theMessage, 4, 8)                                                         \
    FIELD(GVExceptionMessage, theFile, 32, 48 - Target::text)                                           \
    CLASS(GVException, GVException, 76, 4, 112 - 2 * Target::text, 8)                                   \
    FIELD(GVException, theMessage, 4, 8)                                                                \
    FIELD(GVException, theLine, 64, 96 - 2 * Target::text)                                              \
    FIELD(GVException, theKind, 68, 100 - 2 * Target::text)                                             \
    FIELD(GVException, theCode, 72, 104 - 2 * Target::text)                                             \
    CLASS(gvexceptiontype, gvexceptiontype, 4, 4, 4, 4)                                                 \
    CLASS(GVMutexHandle, GVMutexHandle, 4, 4, 8, 8)                                                     \
    CLASS(GVMutex, GVMutex, 4, 4, 8, 8)                                                                 \
    CLASS(GVThreadsFactory, GVThreadsFactory, 4, 4, 8, 8)                                               \
    CLASS(_gvmutex, _gvmutex, 4, 4, 4, 4)                                                               \
    CLASS(GVMutexProtocol, GVMutexProtocol, 4, 4, 4, 4)                                                 \
    CLASS(GVHashTableEntry, TokenTable::Entry, 20, 4, 32, 8)                                            \
    FIELD(TokenTable::Entry, theKey, 4, 8)                                                              \
    FIELD(TokenTable::Entry, theValue, 8, 16)                                                           \
    FIELD(TokenTable::Entry, theHash, 12, 24)                                                           \
    FIELD(TokenTable::Entry, theState, 16, 28)                                                          \
    CLASS(GVHashTableEntryState, GVHashTableEntryState, 4, 4, 4, 4)                                     \
    CLASS(GVGenericHashFunction, GVGenericHashFunction<unsigned int>, 4, 4, 8, 8)                       \
    CLASS(GVHashTableEntry_Iterator, TokenTable::Iterator, 16, 4, 24, 8)                                \
    FIELD(TokenTable::Iterator, theTable, 4, 8)                                                         \
    FIELD(TokenTable::Iterator, theCapacity, 8, 16)                                                     \
    FIELD(TokenTable::Iterator, theIndex, 12, 20)                                                       \
    CLASS(GVHashTable, TokenTable, 204, 4, 328, 8)                                                      \
    FIELD(TokenTable, theUsedCount, 4, 8)                                                               \
    FIELD(TokenTable, theFillCount, 8, 12)                                                              \
    FIELD(TokenTable, theMask, 12, 16)                                                                  \
    FIELD(TokenTable, theTable, 16, 24)                                                                 \
    FIELD(TokenTable, theSmallTable, 20, 32)                                                            \
    FIELD(TokenTable, theHashFunction, 200, 320)                                                        \
    CLASS(GVMemoryPoolObject, GVMemoryPoolObject, 16, 4, 24, 8)                                         \
    FIELD(GVMemoryPoolObject, theBytes, 4, 8)                                                           \
    FIELD(GVMemoryPoolObject, theLength, 8, 16)                                                         \
    FIELD(GVMemoryPoolObject, theToken, 12, 20)                                                         \
    CLASS(GVMemoryPool, GVMemoryPool, 240, 4, 392, 8)                                                   \
    FIELD(GVMemoryPool, memoryPool, 4, 8)                                                               \
    FIELD(GVMemoryPool, availableTokens, 208, 336)                                                      \
    FIELD(GVMemoryPool, initialNumberOfObjects, 224, 368)                                               \
    FIELD(GVMemoryPool, bytesInEachObject, 228, 372)                                                    \
    FIELD(GVMemoryPool, theMutexHandle, 232, 376)                                                       \
    FIELD(GVMemoryPool, useMutexHandle, 236, 384)                                                       \
    CLASS(GVSmartPointer, GVSmartPointer<GVMemoryPool>, 20, 4, 40, 8)                                   \
    FIELD(GVSmartPointer<GVMemoryPool>, object, 4, 8)                                                   \
    FIELD(GVSmartPointer<GVMemoryPool>, refCount, 8, 16)                                                \
    FIELD(GVSmartPointer<GVMemoryPool>, ownObject, 12, 24)                                              \
    FIELD(GVSmartPointer<GVMemoryPool>, lock, 16, 32)                                                   \
    CLASS(GVTokenLease, GVTokenLease, 40, 4, 72, 8)                                                     \
    FIELD(GVTokenLease, theOwner, 4, 8)                                                                 \
    FIELD(GVTokenLease, thePool, 24, 48)                                                                \
    FIELD(GVTokenLease, theToken, 28, 56)                                                               \
    FIELD(GVTokenLease, theLength, 32, 60)                                                              \
    FIELD(GVTokenLease, theBytes, 36, 64)                                                               \
    CLASS(GVInspectedBlock, GVInspectedBlock, 28, 4, 40, 8)                                             \
    FIELD(GVInspectedBlock, theToken, 4, 8)                                                             \
    FIELD(GVInspectedBlock, theBytes, 8, 16)                                                            \
    FIELD(GVInspectedBlock, theLength, 12, 24)                                                          \
    FIELD(GVInspectedBlock, isFree, 16, 28)                                                             \
    FIELD(GVInspectedBlock, theSlot, 20, 32)                                                            \
    FIELD(GVInspectedBlock, theProbeCount, 24, 36)                                                      \
    CLASS(GVVisitedBlock, GVVisitedBlock, 32, 4, 48, 8)                                                 \
    FIELD(GVVisitedBlock, isNeverLent, 28, 40)                                                          \
    CLASS(GVMemoryPoolInspector, GVMemoryPoolInspector, 140, 4, 280, 8)                                 \
    FIELD(GVMemoryPoolInspector, thePool, 4, 8)                                                         \
    FIELD(GVMemoryPoolInspector, theBlocks, 8, 16)                                                      \
    FIELD(GVMemoryPoolInspector, theFreeBlockCount, 24, 48)                                             \
    FIELD(GVMemoryPoolInspector, theFreeTokenCount, 28, 56)                                             \
    FIELD(GVMemoryPoolInspector, theBytesInEachObject, 32, 64)                                          \
    FIELD(GVMemoryPoolInspector, theBytesAskedFor, 36, 72)                                              \
    FIELD(GVMemoryPoolInspector, theBytesOfSlots, 40, 80)                                               \
    FIELD(GVMemoryPoolInspector, theBytesOfFreeList, 44, 88)                                            \
    FIELD(GVMemoryPoolInspector, theSlotStates, 48, 96)                                                 \
    FIELD(GVMemoryPoolInspector, theLongestProbe, 64, 128)                                              \
    FIELD(GVMemoryPoolInspector, theReachedCount, 68, 136)                                              \
    FIELD(GVMemoryPoolInspector, theProbeSum, 72, 144)                                                  \
    FIELD(GVMemoryPoolInspector, theTokensTwiceFree, 76, 152)                                           \
    FIELD(GVMemoryPoolInspector, theTokensUnknown, 92, 184)                                             \
    FIELD(GVMemoryPoolInspector, theTokensUnreachable, 108, 216)                                        \
    FIELD(GVMemoryPoolInspector, theTokensWithoutBlock, 124, 248)                                       \
    CLASS(GVSharedPoolStatistics, GVSharedPoolStatistics, 40, Target::wide, 48, 8)                      \
    FIELD(GVSharedPoolStatistics, theNumberOfObjects, 4, 8)                                             \
    FIELD(GVSharedPoolStatistics, theLentCount, 8, 12)                                                  \
    FIELD(GVSharedPoolStatistics, theCachedCount, 12, 16)                                               \
    FIELD(GVSharedPoolStatistics, theFreeCount, 16, 20)                                                 \
    FIELD(GVSharedPoolStatistics, theHighestLentCount, 20, 24)                                          \
    FIELD(GVSharedPoolStatistics, theWaitCount, 24, 28)                                                 \
    FIELD(GVSharedPoolStatistics, theTimeoutCount, 28, 32)                                              \
    FIELD(GVSharedPoolStatistics, theLongestWait, 32, 40)                                               \
    CLASS(GVSharedLoan, GVSharedLoan, 96, Target::wide, 168, 8)                                         \
    FIELD(GVSharedLoan, theToken, 4, 8)                                                                 \
    FIELD(GVSharedLoan, theNumber, 8, 16)                                                               \
    FIELD(GVSharedLoan, theBegin, 16, 24)                                                               \
    FIELD(GVSharedLoan, theThread, 24, 32)                                                              \
    FIELD(GVSharedLoan, theFrameCount, 28, 36)                                                          \
    FIELD(GVSharedLoan, theFrames, 32, 40)                                                              \
    CLASS(GVSharedPool, GVSharedPool, 480 + Target::wide, Target::wide, 680 + Target::mutex, 8)         \
    FIELD(GVSharedPool, thePaddingBefore, 4, 8)                                                         \
    FIELD(GVSharedPool, theDirectory, 68, 72)                                                           \
    FIELD(GVSharedPool, theAttention, 88, 96)                                                           \
    FIELD(GVSharedPool, theNumberOfObjects, 92, 100)                                                    \
    FIELD(GVSharedPool, theBytesInEachObject, 96, 104)                                                  \
    FIELD(GVSharedPool, thePaddingBetween, 100, 108)                                                    \
    FIELD(GVSharedPool, theLock, 164, 176)                                                              \
    FIELD(GVSharedPool, thePool, 188, 216 + Target::mutex)                                              \
    FIELD(GVSharedPool, theFirstWaiter, 428, 608 + Target::mutex)                                       \
    FIELD(GVSharedPool, theLastWaiter, 432, 616 + Target::mutex)                                        \
    FIELD(GVSharedPool, theFirstCache, 436, 624 + Target::mutex)                                        \
    FIELD(GVSharedPool, theNotifiedCount, 440, 632 + Target::mutex)                                     \
    FIELD(GVSharedPool, theHighestLentCount, 444, 636 + Target::mutex)                                  \
    FIELD(GVSharedPool, theIdleCachedCount, 448, 640 + Target::mutex)                                   \
    FIELD(GVSharedPool, theWaitCount, 452, 644 + Target::mutex)                                         \
    FIELD(GVSharedPool, theTimeoutCount, 456, 648 + Target::mutex)                                      \
    FIELD(GVSharedPool, theEvents, 460, 652 + Target::mutex)                                            \
    FIELD(GVSharedPool, theDescriptor, 464, 656 + Target::mutex)                                        \
    FIELD(GVSharedPool, theReadiness, 468, 660 + Target::mutex)                                         \
    FIELD(GVSharedPool, theClosedFlag, 469, 661 + Target::mutex)                                        \
    FIELD(GVSharedPool, isWatched, 470, 662 + Target::mutex)                                            \
    FIELD(GVSharedPool, theLongestWait, 472, 664 + Target::mutex)                                       \
    FIELD(GVSharedPool, theLoans, 480, 672 + Target::mutex)                                             \
    CLASS(GVTokenCache, GVTokenCache, 184, 4, 216, 8)                                                   \
    FIELD(GVTokenCache, thePaddingBefore, 4, 8)                                                         \
    FIELD(GVTokenCache, theCount, 68, 72)                                                               \
    FIELD(GVTokenCache, theCapacity, 72, 76)                                                            \
    FIELD(GVTokenCache, theTokens, 76, 80)                                                              \
    FIELD(GVTokenCache, theDirectory, 80, 88)                                                           \
    FIELD(GVTokenCache, theAttention, 100, 112)                                                         \
    FIELD(GVTokenCache, thePool, 104, 120)                                                              \
    FIELD(GVTokenCache, thePaddingBetween, 108, 128)                                                    \
    FIELD(GVTokenCache, theRegistration, 172, 192)                                                      \
    CLASS(GVSharedTokenLease, GVSharedTokenLease, 20, 4, 32, 8)                                         \
    FIELD(GVSharedTokenLease, thePool, 4, 8)                                                            \
    FIELD(GVSharedTokenLease, theToken, 8, 16)                                                          \
    FIELD(GVSharedTokenLease, theLength, 12, 20)                                                        \
    FIELD(GVSharedTokenLease, theBytes, 16, 24)                                                         \
    CLASS(GVObjectLease, GVObjectLease<unsigned int>, 52, 4, 96, 8)                                     \
    FIELD(GVObjectLease<unsigned int>, theObject, 4, 8)                                                 \
    FIELD(GVObjectLease<unsigned int>, theLease, 8, 16)                                                 \
    GILVANE_LAYOUT_OF_RESOURCE(CLASS, FIELD)

// Where the standard library has it.
#if __has_include(<memory_resource>)
#define GILVANE_LAYOUT_OF_RESOURCE(CLASS, FIELD)                                                        \
    CLASS(GVPoolResource, GVPoolResource, 28, 4, 56, 8)                                                 \
    FIELD(GVPoolResource, thePool, 8, 16)                                                               \
    FIELD(GVPoolResource, theSharedPool, 12, 24)                                                        \
    FIELD(GVPoolResource, theCache, 16, 32)                                                             \
    FIELD(GVPoolResource, theUpstream, 20, 40)                                                          \
    FIELD(GVPoolResource, theSmallEnd, 24, 48)
#else
#define GILVANE_LAYOUT_OF_RESOURCE(CLASS, FIELD)
#endif
// clang-format on

#endif
