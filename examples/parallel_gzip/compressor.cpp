#include "compressor.h"

#include <new>
#include <stdexcept>

namespace ParallelGzip {

namespace {

constexpr int windowBits = 15 + 16; // the largest window; 16 asks for gzip's wrapper instead of zlib's
constexpr int memoryLevel = 8;      // zlib's default

} // namespace

Compressor::Compressor() : stream() {
    switch (deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, windowBits, memoryLevel, Z_DEFAULT_STRATEGY)) {
    case Z_OK:
        return;
    case Z_MEM_ERROR:
        throw std::bad_alloc();
    default:
        throw std::logic_error("zlib cannot be started");
    }
}

Compressor::~Compressor() { deflateEnd(&stream); }

unsigned int Compressor::largestMember(unsigned int chunkBytes) {
    return static_cast<unsigned int>(deflateBound(&stream, chunkBytes));
}

unsigned int Compressor::compress(const void* chunk, unsigned int chunkBytes, void* member, unsigned int memberBytes) {
    deflateReset(&stream);
    stream.next_in = static_cast<Bytef*>(const_cast<void*>(chunk)); // zlib only reads it
    stream.avail_in = chunkBytes;
    stream.next_out = static_cast<Bytef*>(member);
    stream.avail_out = memberBytes;
    if (deflate(&stream, Z_FINISH) != Z_STREAM_END) {
        throw std::logic_error("zlib did not finish a chunk");
    }
    return memberBytes - stream.avail_out;
}

} // namespace ParallelGzip
