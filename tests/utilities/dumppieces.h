/// @file
/// Streams that show how a text dump is written.
#ifndef GILVANE_TESTS_UTILITIES_DUMPPIECES_H
#define GILVANE_TESTS_UTILITIES_DUMPPIECES_H

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <ios>
#include <ostream>
#include <sstream>
#include <streambuf>
#include <string>
#include <vector>

namespace Gilvane {

/// Parts what is written at each flush. A stream with `unitbuf` flushes at the end of each formatted insertion.
class PieceBuffer : public std::streambuf {
  public:
    const std::vector<std::string>& pieces() const { return thePieces; }

  protected:
    int_type overflow(int_type character) override {
        theCurrentPiece.push_back(traits_type::to_char_type(character));
        return character;
    }
    std::streamsize xsputn(const char* text, std::streamsize count) override {
        theCurrentPiece.append(text, static_cast<std::size_t>(count));
        return count;
    }
    int sync() override {
        thePieces.push_back(theCurrentPiece);
        theCurrentPiece.clear();
        return 0;
    }

  private:
    std::string theCurrentPiece;
    std::vector<std::string> thePieces;
};

/// The insertions made by `printable.print`, one text for each.
template <typename Printable>
std::vector<std::string> piecesOf(const Printable& printable) {
    PieceBuffer buffer;
    std::ostream stream(&buffer);
    stream.setf(std::ios_base::unitbuf);
    printable.print(stream);
    return buffer.pieces();
}

/// What `printable.print` writes to a stream with default flags.
template <typename Printable>
std::string dumpOf(const Printable& printable) {
    std::ostringstream stream;
    printable.print(stream);
    return stream.str();
}

/// An address as a stream writes it.
inline std::string addressText(const void* address) {
    std::ostringstream stream;
    stream << address;
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
