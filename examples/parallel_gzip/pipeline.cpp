#include "pipeline.h"

#include "compressor.h"

#include <map>
#include <system_error>
#include <utility>
#include <vector>

using Gilvane::GVSharedTokenLease;

namespace ParallelGzip {

namespace {

constexpr unsigned int chunkBytes = 128 * 1024;
constexpr unsigned int blocksPerWorker = 4; // enough to keep workers busy while one slow chunk holds the writer up

} // namespace

Pipeline::Pipeline(InputFile& inputFile, OutputFile& outputFile, Progress& progressLine, unsigned int numberOfWorkers)
    : input(inputFile), output(outputFile), progress(progressLine), workerCount(numberOfWorkers),
      inputPool(numberOfWorkers * blocksPerWorker, chunkBytes),
      outputPool(numberOfWorkers * blocksPerWorker, Compressor().largestMember(chunkBytes)) {}

// The calling thread reads. A queue is closed once everybody who fills it is done.
Figures Pipeline::run() {
    std::thread writer;
    std::vector<std::thread> workers;
    try {
        workers.reserve(workerCount);
        writer = start(&Pipeline::write);
        for (unsigned int worker = 0; worker < workerCount; ++worker) {
            workers.push_back(start(&Pipeline::compress));
        }
        read();
    } catch (...) {
        stop(std::current_exception());
    }
    chunks.close();
    for (std::thread& worker : workers) {
        worker.join();
    }
    members.close();
    if (writer.joinable()) {
        writer.join();
    }
    if (failure) {
        std::rethrow_exception(failure);
    }
    const unsigned int blocksPerPool = inputPool.getNumberOfObjects();
    return {bytesRead,
            bytesWritten,
            chunkCount,
            blocksPerPool,
            std::uint64_t{blocksPerPool} * (inputPool.getBytesInEachObject() + outputPool.getBytesInEachObject()),
            inputPool.getStatistics().theHighestLentCount,
            outputPool.getStatistics().theHighestLentCount};
}

void Pipeline::dump(std::ostream& stream) const {
    inputPool.print(stream) << "\n";
    outputPool.print(stream) << "\n";
}

// A file of nothing is one chunk of nothing, since a gzip file has at least one member.
void Pipeline::read() {
    for (;;) {
        GVSharedTokenLease member = GVSharedTokenLease::wait(outputPool);
        GVSharedTokenLease chunk = GVSharedTokenLease::wait(inputPool);
        if (!member || !chunk) {
            return; // stopped
        }
        const auto count = static_cast<unsigned int>(input.read(chunk.getBytes(), chunk.getLength()));
        if (count == 0 && chunkCount > 0) {
            return;
        }
        chunks.push({chunkCount, std::move(chunk), std::move(member), count, 0});
        bytesRead += count;
        ++chunkCount;
    }
}

void Pipeline::compress() {
    Compressor compressor;
    while (auto parcel = chunks.pop()) {
        parcel->memberBytes = compressor.compress(parcel->chunk.getBytes(), parcel->chunkBytes,
                                                  parcel->member.getBytes(), parcel->member.getLength());
        parcel->chunk = GVSharedTokenLease();
        members.push(std::move(*parcel));
    }
}

void Pipeline::write() {
    std::map<std::uint64_t, Parcel> early; // members whose turn has not come
    std::uint64_t nextNumber = 0;
    std::uint64_t doneBytes = 0;
    while (auto member = members.pop()) {
        early.emplace(member->number, std::move(*member));
        for (auto next = early.begin(); next != early.end() && next->first == nextNumber; next = early.erase(next)) {
            const Parcel& parcel = next->second;
            output.write(parcel.member.getBytes(), parcel.memberBytes);
            bytesWritten += parcel.memberBytes;
            doneBytes += parcel.chunkBytes;
            progress.show(doneBytes);
            ++nextNumber;
        }
    }
}

std::thread Pipeline::start(Work work) {
    try {
        return std::thread(&Pipeline::guarded, this, work);
    } catch (const std::system_error& cause) {
        throw std::system_error(cause.code(), "cannot start a thread");
    }
}

void Pipeline::guarded(Work work) noexcept {
    try {
        (this->*work)();
    } catch (...) {
        stop(std::current_exception());
    }
}

// Ends the reader, whatever it waits for, and the writer. What is under way until then is a few chunks.
void Pipeline::stop(std::exception_ptr reason) noexcept {
    {
        const std::lock_guard<std::mutex> guard(failureMutex);
        if (!failure) {
            failure = std::move(reason);
        }
    }
    inputPool.close();
    outputPool.close();
    input.cancel();
    output.cancel();
}

} // namespace ParallelGzip
