#include "pipeline.h"

#include "compressor.h"

#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

namespace ParallelGzip {

namespace {

constexpr unsigned int chunkBytes = 128 * 1024;
constexpr unsigned int blocksPerWorker = 4; // enough to keep workers busy while one slow chunk holds the writer up

// Threads that are waited for, at the latest when their crew goes.
class Crew {
  public:
    Crew() = default;
    Crew(const Crew&) = delete;
    Crew& operator=(const Crew&) = delete;
    ~Crew() { join(); }

    template <typename Work>
    void start(Work work) {
        try {
            threads.emplace_back(std::move(work));
        } catch (const std::system_error& failure) {
            throw std::system_error(failure.code(), "cannot start a thread");
        }
    }
    void join() {
        for (std::thread& thread : threads) {
            thread.join();
        }
        threads.clear();
    }

  private:
    std::vector<std::thread> threads;
};

// Borrows a block and notes in `highest` how many were lent at once.
unsigned int borrow(const SharedPool& pool, std::atomic<unsigned int>& highest) {
    const unsigned int token = pool->getTokenForFreeMemoryObject();
    const unsigned int lent = pool->numberOfObjectsInPoolInUse();
    unsigned int known = highest;
    while (known < lent && !highest.compare_exchange_weak(known, lent)) {
    }
    return token;
}

// The text form of a pool has one entry for each block.
unsigned int numberOfBlocks(const Gilvane::GVMemoryPool& pool) {
    std::ostringstream stream;
    stream << pool;
    const std::string text = stream.str();
    unsigned int count = 0;
    for (auto at = text.find("<GVHashTableEntry>"); at != std::string::npos;
         at = text.find("<GVHashTableEntry>", at + 1)) {
        ++count;
    }
    return count;
}

} // namespace

Pipeline::Pipeline(InputFile& inputFile, OutputFile& outputFile, Progress& progressLine, unsigned int numberOfWorkers)
    : input(inputFile), output(outputFile), progress(progressLine), workerCount(numberOfWorkers),
      blocksPerPool(numberOfWorkers * blocksPerWorker), memberBytes(Compressor().largestMember(chunkBytes)),
      inputPool(Gilvane::GVMemoryPool::initWithNumberOfObjectsAndSize(blocksPerPool, chunkBytes, true)),
      outputPool(Gilvane::GVMemoryPool::initWithNumberOfObjectsAndSize(blocksPerPool, memberBytes, true)),
      permits(blocksPerPool), chunks(blocksPerPool), members(blocksPerPool) {}

// Each thread gets pointers to the pools of its own. A queue is closed once everybody who fills it has gone home.
Figures Pipeline::run() {
    Crew reader;
    Crew workers;
    Crew writer;
    try {
        writer.start([this, to = outputPool] { guarded([&] { write(to); }); });
        for (unsigned int worker = 0; worker < workerCount; ++worker) {
            workers.start([this, from = inputPool, to = outputPool] { guarded([&] { compress(from, to); }); });
        }
        reader.start([this, from = inputPool] { guarded([&] { read(from); }); });
    } catch (...) {
        stop(std::current_exception());
    }
    reader.join();
    chunks.close();
    workers.join();
    members.close();
    writer.join();
    if (failure) {
        std::rethrow_exception(failure);
    }
    checkPools();
    return {bytesRead,
            bytesWritten,
            chunkCount,
            blocksPerPool,
            std::uint64_t{blocksPerPool} * (chunkBytes + memberBytes),
            mostInputBlocksInUse,
            mostOutputBlocksInUse};
}

void Pipeline::dump(std::ostream& stream) const {
    inputPool.print(stream) << "\n";
    outputPool.print(stream) << "\n";
}

// A file of nothing is one chunk of nothing, since a gzip file has at least one member. When a thread stops early, the
// tokens it holds stay lent: the pools go with the pipeline, and take every block along.
void Pipeline::read(const SharedPool& inputBlocks) {
    while (permits.acquire()) {
        const unsigned int token = borrow(inputBlocks, mostInputBlocksInUse);
        const auto count = static_cast<unsigned int>(input.read(inputBlocks->getMemoryForToken(token), chunkBytes));
        if (count == 0 && chunkCount > 0) {
            inputBlocks->releaseObject(token);
            permits.release();
            return;
        }
        if (!chunks.push({chunkCount, token, count, count})) {
            return;
        }
        bytesRead += count;
        ++chunkCount;
    }
}

void Pipeline::compress(const SharedPool& inputBlocks, const SharedPool& outputBlocks) {
    Compressor compressor;
    while (const auto chunk = chunks.pop()) {
        const unsigned int token = borrow(outputBlocks, mostOutputBlocksInUse);
        const unsigned int count = compressor.compress(inputBlocks->getMemoryForToken(chunk->token), chunk->byteCount,
                                                       outputBlocks->getMemoryForToken(token), memberBytes);
        inputBlocks->releaseObject(chunk->token);
        if (!members.push({chunk->number, token, count, chunk->chunkBytes})) {
            return;
        }
    }
}

void Pipeline::write(const SharedPool& outputBlocks) {
    std::map<std::uint64_t, Parcel> early; // members whose turn has not come
    std::uint64_t nextNumber = 0;
    std::uint64_t doneBytes = 0;
    while (const auto member = members.pop()) {
        early.emplace(member->number, *member);
        for (auto next = early.begin(); next != early.end() && next->first == nextNumber; next = early.erase(next)) {
            const Parcel& parcel = next->second;
            output.write(outputBlocks->getMemoryForToken(parcel.token), parcel.byteCount);
            outputBlocks->releaseObject(parcel.token);
            permits.release();
            bytesWritten += parcel.byteCount;
            doneBytes += parcel.chunkBytes;
            progress.show(doneBytes);
            ++nextNumber;
        }
    }
}

void Pipeline::guarded(const std::function<void()>& work) noexcept {
    try {
        work();
    } catch (...) {
        stop(std::current_exception());
    }
}

void Pipeline::stop(std::exception_ptr reason) noexcept {
    {
        const std::lock_guard<std::mutex> guard(failureMutex);
        if (!failure) {
            failure = std::move(reason);
        }
    }
    permits.cancel();
    chunks.cancel();
    members.cancel();
    input.cancel();
    output.cancel();
}

void Pipeline::checkPools() const {
    for (const SharedPool* const pool : {&inputPool, &outputPool}) {
        if (numberOfBlocks(**pool) != blocksPerPool || (*pool)->numberOfObjectsInPoolInUse() != 0) {
            throw std::logic_error("a pool has grown or misses a block");
        }
    }
}

} // namespace ParallelGzip
