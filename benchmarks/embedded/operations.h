/// @file
/// The operations of which the figures of embedded use are taken. operations.cpp has them all; these are called.
#ifndef GILVANE_BENCHMARKS_EMBEDDED_OPERATIONS_H
#define GILVANE_BENCHMARKS_EMBEDDED_OPERATIONS_H

#include <gilvane/utilities/gvmemorypool.h>
#include <gilvane/utilities/gvsharedpool.h>
#include <gilvane/utilities/gvtokencache.h>

#include <optional>

/// Hands on what a loan returned, without the class that it was in.
inline bool take(const std::optional<unsigned int>& lent, unsigned int& token) {
    token = lent.value_or(0);
    return lent.has_value();
}

extern "C" {
unsigned int GVMemoryPool__getTokenForFreeMemoryObject(Gilvane::GVMemoryPool& pool);
void* GVMemoryPool__getMemoryForToken(Gilvane::GVMemoryPool& pool, unsigned int token);
void GVMemoryPool__releaseObject(Gilvane::GVMemoryPool& pool, unsigned int token);
bool GVSharedPool__tryBorrow(Gilvane::GVSharedPool& pool, unsigned int& token);
void* GVSharedPool__getMemoryForToken(const Gilvane::GVSharedPool& pool, unsigned int token);
void GVSharedPool__releaseObject(Gilvane::GVSharedPool& pool, unsigned int token);
bool GVTokenCache__tryBorrow(Gilvane::GVTokenCache& cache, unsigned int& token);
void* GVTokenCache__getMemoryForToken(const Gilvane::GVTokenCache& cache, unsigned int token);
void GVTokenCache__releaseObject(Gilvane::GVTokenCache& cache, unsigned int token);
}

#endif
