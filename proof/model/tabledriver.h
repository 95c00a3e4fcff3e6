/// @file
/// Drives two tables with a hash function of the subject's kind.
#ifndef GILVANE_PROOF_MODEL_TABLEDRIVER_H
#define GILVANE_PROOF_MODEL_TABLEDRIVER_H

#include "driver.h"

#include <memory>

namespace Gilvane::driver {

/// Operations on a table: the highest bit of `a` says which of the two, its four lowest bits which key.
enum class TableCall : unsigned char {
    insert,      // b: value
    index,       // reads through operator[]
    indexWrite,  // b: value
    store,       // insert_helper; b: value
    remove,      //
    clear,       //
    resize,      // b: keys to make room for; 255 for more than a table can have
    copyToOther, // the other table becomes a copy
    lookup,      // b: a hash that need not be the key's
    insertMany,  // a and b: so many new keys, in ascending order
    removeMany,  // a and b: so many of them, from the lowest
    numberOfCalls
};

inline constexpr unsigned int tableKeys[] = {0, 1,  2,  3,  5,  6,           7,           8,
                                             9, 16, 24, 32, 40, 0x80000000U, 0xffffffffU, 0x12345678};

/// @param subject  one of the three tables
std::unique_ptr<Driver> makeTableDriver(Subject subject);

} // namespace Gilvane::driver

#endif
