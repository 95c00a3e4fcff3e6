/// @file
/// Streams that show how a text dump is written.
#ifndef GILVANE_TESTS_UTILITIES_DUMPPIECES_H
#define GILVANE_TESTS_UTILITIES_DUMPPIECES_H

#include "writtentext.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <ios>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

namespace Gilvane {

/// The insertions made by `printable.print`, one text for each.
template <typename Printable>
std::vector<std::string> piecesOf(const Printable& printable) {
    return insertionsOf([&printable](std::ostream& stream) { printable.print(stream); });
}

/// What `printable.print` writes to a stream with default flags.
template <typename Printable>
std::string dumpOf(const Printable& printable) {
    std::ostringstream stream;
    printable.print(stream);
    return stream.str();
}

/// A pointer that is compared and written, never followed.
template <typename T>
T* madeUpAddress(std::uintptr_t address) {
    return reinterpret_cast<T*>(address);
}

/// Expects `print` to leave flags, precision, fill and width of its stream as they were.
template <typename Printable>
void expectFormattingKept(const Printable& printable) {
    std::ostringstream stream;
    stream.flags(std::ios_base::hex | std::ios_base::showbase | std::ios_base::uppercase | std::ios_base::boolalpha |
                 std::ios_base::left | std::ios_base::showpos | std::ios_base::scientific);
    stream.precision(3);
    stream.fill('*');
    const std::ios_base::fmtflags flags = stream.flags();
    printable.print(stream);
    EXPECT_FALSE(stream.str().empty());
    EXPECT_EQ(stream.flags(), flags);
    EXPECT_EQ(stream.precision(), 3);
    EXPECT_EQ(stream.fill(), '*');
    EXPECT_EQ(stream.width(), 0);
}

/// Expects a width set by the caller to reach the first insertion, `first`, and no other.
template <typename Printable>
void expectWidthOnFirstInsertionOnly(const Printable& printable, const std::string& first) {
    std::ostringstream stream;
    stream.fill('*');
    stream.width(40);
    printable.print(stream);
    const std::string dump = dumpOf(printable);
    ASSERT_EQ(dump.substr(0, first.size()), first);
    EXPECT_EQ(stream.str(), std::string(40 - first.size(), '*') + dump);
}

} // namespace Gilvane

#endif
