/// @file
/// The threads that turn one file into the other, and the pools whose blocks they pass on.
#ifndef PARALLEL_GZIP_PIPELINE_H
#define PARALLEL_GZIP_PIPELINE_H

#include "files.h"
#include "progress.h"
#include "queue.h"

#include <gilvane/utilities/gvsharedpool.h>
#include <gilvane/utilities/gvsharedtokenlease.h>

#include <cstdint>
#include <exception>
#include <mutex>
#include <ostream>
#include <thread>

namespace ParallelGzip {

/// A chunk on its way from one thread to the next. The bytes stay where they are; the loans travel.
struct Parcel {
    std::uint64_t number;               // place in the file, counted from 0
    Gilvane::GVSharedTokenLease chunk;  // a block of the input pool; returned once the chunk is compressed
    Gilvane::GVSharedTokenLease member; // a block of the output pool
    unsigned int chunkBytes;
    unsigned int memberBytes; // 0 until the chunk is compressed
};

/// What a finished pipeline has to tell.
struct Figures {
    std::uint64_t bytesRead;
    std::uint64_t bytesWritten;
    std::uint64_t chunkCount;
    unsigned int blocksPerPool;
    std::uint64_t bytesInBlocks; // in both pools together
    unsigned int mostInputBlocksInUse;
    unsigned int mostOutputBlocksInUse;
};

/// Reads a file in chunks, compresses each on one of several threads, and writes the members in the chunks' order.
///
///     reader --- chunks ---> workers --- members ---> writer
///       ^                       |                       |
///       +----- input blocks ----+                       |
///       +----------------- output blocks ---------------+
///
/// The reader borrows both blocks of a chunk, and waits for them. So memory stays the same whatever the file's size. The
/// block for the member is borrowed in the file's order, before the chunk is read: members that come early cannot use up
/// the blocks, since the chunk whose turn it is has its own.
///
/// @par Thread safety
///   None: it is made, run and asked by one thread, and has its own.
/// @par Ownership
///   Owns both pools; borrows the files and the progress line.
class Pipeline {
  public:
    /// Fills both pools.
    /// @param workerCount  threads that compress, at least 1
    Pipeline(InputFile& input, OutputFile& output, Progress& progress, unsigned int workerCount);

    /// Does the whole work; to be called once. The first failure of any thread stops all of them and is thrown here.
    Figures run();

    /// Writes the text forms of both pools, the input pool's first.
    void dump(std::ostream& stream) const;

  private:
    using Work = void (Pipeline::*)();

    void read();
    void compress();
    void write();

    std::thread start(Work work);
    void guarded(Work work) noexcept;
    void stop(std::exception_ptr reason) noexcept;

    InputFile& input;
    OutputFile& output;
    Progress& progress;
    const unsigned int workerCount;
    Gilvane::GVSharedPool inputPool;  // blocks of a chunk's size
    Gilvane::GVSharedPool outputPool; // as many blocks of a member's size

    Queue<Parcel> chunks;
    Queue<Parcel> members;

    std::uint64_t bytesRead = 0;    // the reader's
    std::uint64_t chunkCount = 0;   // the reader's
    std::uint64_t bytesWritten = 0; // the writer's

    std::mutex failureMutex;
    std::exception_ptr failure; // the first; guarded by failureMutex
};

} // namespace ParallelGzip

#endif
