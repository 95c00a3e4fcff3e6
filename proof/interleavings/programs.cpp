#include "programs.h"

namespace Gilvane {
namespace Interleavings {

namespace {

constexpr Operation borrow(unsigned int place, unsigned int pool = 0) { return {Do::borrow, pool, place}; }
constexpr Operation give(unsigned int place, unsigned int pool = 0) { return {Do::give, pool, place}; }
constexpr Operation use(unsigned int place, unsigned int pool = 0) { return {Do::use, pool, place}; }
constexpr Operation count(unsigned int pool = 0) { return {Do::count, pool}; }
constexpr Operation resize(unsigned int blocks, unsigned int pool = 0) { return {Do::resize, pool, blocks}; }
constexpr Operation rebuild(unsigned int blocks, unsigned int pool = 0) { return {Do::rebuild, pool, blocks}; }
constexpr Operation setSize(unsigned int bytes, unsigned int pool = 0) { return {Do::setSize, pool, bytes}; }
constexpr Operation copy(unsigned int from, unsigned int to) { return {Do::copy, from, to}; }
constexpr Operation assign(unsigned int from, unsigned int to) { return {Do::assign, from, to}; }
constexpr Operation move(unsigned int from, unsigned int to) { return {Do::move, from, to}; }
constexpr Operation drop(unsigned int place) { return {Do::drop, place}; }
constexpr Operation refs(unsigned int place) { return {Do::refs, place}; }
constexpr Operation print(unsigned int place) { return {Do::print, place}; }

} // namespace

const std::vector<Program>& exhaustivePrograms() {
    static const std::vector<Program> thePrograms{
        {"a pool large enough",
         {{4, 8}},
         false,
         {},
         {{borrow(0), use(0), borrow(1), give(0), count(), give(1)},
          {borrow(0), borrow(1), use(1), give(1), use(0), give(0)}}},
        {"a full pool that both find empty",
         {{1, 8}},
         false,
         {borrow(3)},
         {{borrow(0), use(0), give(0), borrow(1), use(1), give(1)},
          {borrow(0), use(0), give(0), borrow(1), use(1), give(1)}}},
        {"a pool that both find empty, and keep",
         {{1, 0}},
         false,
         {borrow(3)},
         {{borrow(0), count(), give(0), count(), borrow(1), count()},
          {borrow(0), count(), borrow(1), give(0), count(), give(1)}}},
        {"a pool without blocks that both find empty",
         {{0, 0, 2}},
         false,
         {},
         {{borrow(0), use(0), give(0), borrow(1), give(1), count()},
          {borrow(0), use(0), give(0), borrow(1), count(), give(1)}}},
        {"loans beside growth and shrinking by hand",
         {{2, 8}},
         false,
         {borrow(2), borrow(3)},
         {{borrow(0), use(0), give(0), count(), borrow(1), give(1)},
          {resize(5), count(), resize(3), resize(4), resize(2), count()}}},
        {"loans beside rebuilding",
         {{1, 8}},
         false,
         {borrow(3)},
         {{borrow(0), use(0), give(0), borrow(1), use(1), give(1)},
          {rebuild(2), count(), borrow(0), use(0), give(0), count()}}},
        {"loans beside a change of size",
         {{2, 8}},
         false,
         {},
         {{setSize(16), count(), setSize(24), borrow(0), use(0), give(0)},
          {borrow(0), use(0), give(0), count(), borrow(1), give(1)}}},
        {"growth beside a change of size",
         {{1, 8}},
         false,
         {},
         {{setSize(16), borrow(0), use(0), give(0), count(), setSize(8)},
          {resize(3), borrow(0), use(0), give(0), resize(1), count()}}},
        {"two pools and one token counter",
         {{1, 8}, {1, 0}},
         false,
         {},
         {{resize(2), borrow(0), give(0), count(1), borrow(1), give(1)},
          {resize(2, 1), borrow(0, 1), count(), give(0, 1), borrow(1, 1), count(1)}}},
        {"shares copied, assigned and dropped",
         {{1, 8}},
         true,
         {},
         {{copy(0, 1), refs(1), assign(1, 0), drop(1), print(0), drop(0)},
          {copy(0, 1), drop(0), move(1, 2), refs(2), assign(2, 2), drop(2)}}},
        {"the last shares given up together, around loans",
         {{1, 8}},
         true,
         {},
         {{borrow(0), use(0), give(0), refs(0), assign(1, 0), refs(0)},
          {copy(0, 1), move(1, 0), print(0), assign(0, 1), drop(1), drop(0)}}},
    };
    return thePrograms;
}

const std::vector<Program>& boundedPrograms() {
    static const std::vector<Program> thePrograms{
        {"three find the pool empty",
         {{1, 8}},
         false,
         {borrow(3)},
         {{borrow(0), use(0), give(0)}, {borrow(0), use(0), give(0)}, {borrow(0), use(0), give(0)}}},
        {"three find the pool empty, and keep what they take",
         {{1, 0}},
         false,
         {borrow(3)},
         {{borrow(0), borrow(1), count()}, {borrow(0), borrow(1), count()}, {borrow(0), give(0), borrow(1)}}},
        {"three find a pool without blocks",
         {{0, 0, 2}},
         false,
         {},
         {{borrow(0), use(0), give(0)}, {borrow(0), use(0), give(0)}, {borrow(0), use(0), give(0)}}},
        {"a loan comes back while two find the pool empty",
         {{1, 8}},
         false,
         {borrow(3)},
         {{give(3), borrow(0), use(0)}, {borrow(0), use(0), give(0)}, {borrow(0), use(0), count()}}},
        {"loans, growth and shrinking, a change of size",
         {{2, 8}},
         false,
         {},
         {{borrow(0), use(0), give(0)}, {resize(3), resize(1), count()}, {setSize(16), borrow(0), use(0)}}},
        {"loans, rebuilding, a change of size",
         {{1, 8}},
         false,
         {},
         {{borrow(0), use(0), borrow(1)}, {rebuild(2), borrow(0), give(0)}, {setSize(16), count(), borrow(0)}}},
        {"two pools and one token counter, three threads",
         {{1, 8}, {1, 8}},
         false,
         {},
         {{resize(2), borrow(0), use(0)}, {resize(4, 1), borrow(0, 1), use(0, 1)}, {borrow(0, 1), borrow(1), use(1)}}},
        {"shares of three threads",
         {{1, 8}},
         true,
         {},
         {{copy(0, 1), drop(0), drop(1)}, {print(0), assign(1, 0), refs(0)}, {move(0, 1), print(1), drop(1)}}},
    };
    return thePrograms;
}

const std::vector<Program>& randomPrograms() {
    static const std::vector<Program> thePrograms{
        {"four threads, a pool that runs dry",
         {{1, 8}},
         false,
         {},
         {{borrow(0), use(0), borrow(1), use(1), give(0), give(1), count(), borrow(2)},
          {borrow(0), borrow(1), use(0), give(0), use(1), give(1), borrow(2), use(2)},
          {borrow(0), use(0), give(0), borrow(0), use(0), give(0), borrow(0), give(0)},
          {count(), resize(4), count(), resize(2), borrow(0), give(0), resize(3), count()}}},
        {"four threads, a pool without blocks, a change of size",
         {{0, 0, 2}},
         false,
         {},
         {{borrow(0), use(0), give(0), borrow(1), use(1), give(1)},
          {borrow(0), use(0), borrow(1), give(0), give(1), count()},
          {setSize(8), borrow(0), use(0), give(0), setSize(16), count()},
          {rebuild(2), borrow(0), use(0), give(0), borrow(1), give(1)}}},
        {"four threads, two pools",
         {{1, 8}, {0, 0, 1}},
         false,
         {},
         {{borrow(0), use(0), borrow(1), use(1), give(0), give(1)},
          {borrow(0, 1), borrow(1, 1), give(0, 1), resize(3, 1), give(1, 1), count(1)},
          {rebuild(2), borrow(0, 1), use(0, 1), give(0, 1), borrow(0), use(0)},
          {setSize(16, 1), borrow(0), give(0), borrow(1, 1), use(1, 1), count(1)}}},
        {"five threads, one shared pool",
         {{5, 8}},
         true,
         {},
         {{copy(0, 1), borrow(0), use(0), give(0), drop(0), refs(1), drop(1)},
          {assign(0, 1), refs(0), print(1), move(1, 0), drop(0), refs(1)},
          {borrow(0), use(0), give(0), refs(0), assign(1, 0), drop(0)},
          {copy(0, 1), copy(1, 2), drop(1), borrow(0), give(0), drop(0), print(2), drop(2)},
          {move(0, 3), copy(3, 0), drop(3), count(), drop(0)}}},
    };
    return thePrograms;
}

} // namespace Interleavings
} // namespace Gilvane
