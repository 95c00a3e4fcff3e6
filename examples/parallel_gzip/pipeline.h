/// @file
/// The threads that turn one file into the other, and the pools whose blocks they pass on.
#ifndef PARALLEL_GZIP_PIPELINE_H
#define PARALLEL_GZIP_PIPELINE_H

#include "boundedqueue.h"
#include "files.h"
#include "progress.h"

#include <gilvane/utilities/gvmemorypool.h>

#include <atomic>
#include <cstdint>
#include <exception>
#include <functional>
#include <mutex>
#include <ostream>

namespace ParallelGzip {

using SharedPool = Gilvane::GVSmartPointer<Gilvane::GVMemoryPool>;

/// A lent block on its way from one thread to the next. Its bytes stay where they are; the token travels.
struct Parcel {
    std::uint64_t number;    // place in the file, counted from 0
    unsigned int token;      // of a block of the input pool, then of one of the output pool
    unsigned int byteCount;  // bytes used in the block
    unsigned int chunkBytes; // bytes of input that it stands for
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
///     reader --- chunks (tokens of input blocks) ---> workers --- members (tokens of output blocks) ---> writer
///       ^                                                                                                  |
///       +---------------------------------------- permits -----------------------------------------------+
///
/// A chunk needs a permit from before it is read until after its member is written, and holds at most one block of each
/// pool meanwhile. There are as many permits as each pool has blocks, so no pool ever runs dry, memory stays the same
/// whatever the file's size, and the writer can keep members that come early without asking where.
///
/// @par Thread safety
///   None: it is made, run and asked by one thread, and has its own.
/// @par Ownership
///   Shares both pools with its threads; borrows the files and the progress line.
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
    void read(const SharedPool& inputBlocks);
    void compress(const SharedPool& inputBlocks, const SharedPool& outputBlocks);
    void write(const SharedPool& outputBlocks);

    void guarded(const std::function<void()>& work) noexcept;
    void stop(std::exception_ptr reason) noexcept;
    void checkPools() const;

    InputFile& input;
    OutputFile& output;
    Progress& progress;
    const unsigned int workerCount;
    const unsigned int blocksPerPool; // as many permits
    const unsigned int memberBytes;   // in a block of the output pool
    const SharedPool inputPool;       // blocks of a chunk's size
    const SharedPool outputPool;

    Permits permits;
    BoundedQueue<Parcel> chunks;
    BoundedQueue<Parcel> members;

    std::uint64_t bytesRead = 0;    // the reader's
    std::uint64_t chunkCount = 0;   // the reader's
    std::uint64_t bytesWritten = 0; // the writer's
    std::atomic<unsigned int> mostInputBlocksInUse{0};
    std::atomic<unsigned int> mostOutputBlocksInUse{0};

    std::mutex failureMutex;
    std::exception_ptr failure; // the first; guarded by failureMutex
};

} // namespace ParallelGzip

#endif
