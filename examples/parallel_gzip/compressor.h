/// @file
/// One chunk in, one gzip member out.
#ifndef PARALLEL_GZIP_COMPRESSOR_H
#define PARALLEL_GZIP_COMPRESSOR_H

#include <zlib.h>

namespace ParallelGzip {

/// Compresses chunks, each into a gzip member of its own. A gzip file is any number of members, one after another.
///
/// @par Thread safety
///   None: each thread has its own.
/// @par Ownership
///   Owns zlib's working memory, a quarter of a megabyte, for all its chunks.
class Compressor {
  public:
    /// @throws std::bad_alloc no memory for zlib
    Compressor();
    Compressor(const Compressor&) = delete;
    Compressor& operator=(const Compressor&) = delete;
    ~Compressor();

    /// Bytes that the member of any chunk of `chunkBytes` fits into.
    unsigned int largestMember(unsigned int chunkBytes);

    /// Writes the member of a chunk.
    /// @param chunkBytes   may be 0: the member of nothing is a valid one
    /// @param memberBytes  room at `member`: what largestMember says, or more
    /// @returns            bytes written
    /// @throws std::logic_error zlib refuses, which a room of that size excludes
    unsigned int compress(const void* chunk, unsigned int chunkBytes, void* member, unsigned int memberBytes);

  private:
    z_stream stream;
};

} // namespace ParallelGzip

#endif
