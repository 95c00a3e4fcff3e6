/// @file
/// The layout of every class, stated once: debuggers and programs compiled earlier rely on it.
///
/// GILVANE_LAYOUT(CLASS, FIELD) expands, in the order of the fields in memory, to
///   CLASS(name, type, size32, align32, size64, align64)
///   FIELD(name, field, offset32, offset64)
/// in bytes, for 32-bit ARM and for x86-64. A field belongs to the class before it.
#ifndef GILVANE_TESTS_LAYOUT_LAYOUT_H
#define GILVANE_TESTS_LAYOUT_LAYOUT_H

#include "gvtestpeer.h"

#include <gilvane/threads/gvmutex.h>
#include <gilvane/threads/gvthreadsfactory.h>

// clang-format off
#define GILVANE_LAYOUT(CLASS, FIELD)                                                                    \
    CLASS(GVObject, GVObject, 4, 4, 8, 8)                                                               \
    CLASS(GVRawBlockHeader, GVDeallocatorFunction, 4, 4, 8, 8)                                          \
    CLASS(GVStdAllocator, GVStdAllocator<unsigned int>, 4, 4, 8, 8)                                     \
    CLASS(GVExceptionMessage, GVExceptionMessage, 60, 4, 88, 8)                                         \
    FIELD(GVExceptionMessage, theMessage, 4, 8)                                                         \
    FIELD(GVExceptionMessage, theFile, 32, 48)                                                          \
    CLASS(GVException, GVException, 76, 4, 112, 8)                                                      \
    FIELD(GVException, theMessage, 4, 8)                                                                \
    FIELD(GVException, theLine, 64, 96)                                                                 \
    FIELD(GVException, theKind, 68, 100)                                                                \
    FIELD(GVException, theCode, 72, 104)                                                                \
    CLASS(gvexceptiontype, gvexceptiontype, 4, 4, 4, 4)                                                 \
    CLASS(GVMutexHandle, GVMutexHandle, 4, 4, 8, 8)                                                     \
    CLASS(GVThreadsFactory, GVThreadsFactory, 4, 4, 8, 8)                                               \
    CLASS(_gvmutex, _gvmutex, 4, 4, 4, 4)                                                               \
    CLASS(GVHashTableEntry, TokenTable::Entry, 20, 4, 32, 8)                                            \
    FIELD(TokenTable::Entry, theKey, 4, 8)                                                              \
    FIELD(TokenTable::Entry, theValue, 8, 16)                                                           \
    FIELD(TokenTable::Entry, theHash, 12, 24)                                                           \
    FIELD(TokenTable::Entry, theState, 16, 28)                                                          \
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
    FIELD(GVSmartPointer<GVMemoryPool>, lock, 16, 32)
// clang-format on

#endif
