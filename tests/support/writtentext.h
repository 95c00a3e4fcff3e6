/// @file
/// What is written to a stream, as text and insertion by insertion.
#ifndef GILVANE_TESTS_SUPPORT_WRITTENTEXT_H
#define GILVANE_TESTS_SUPPORT_WRITTENTEXT_H

#include <cstddef>
#include <ios>
#include <ostream>
#include <sstream>
#include <streambuf>
#include <string>
#include <vector>

namespace Gilvane {

/// What a value's stream operator writes to a stream with default flags.
template <typename T>
std::string textOf(const T& value) {
    std::ostringstream stream;
    stream << value;
    return stream.str();
}

/// An address as a stream writes it.
inline std::string addressText(const void* address) { return textOf(address); }

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

/// The insertions that `write` makes into a stream, one text for each.
template <typename Write>
std::vector<std::string> insertionsOf(Write write) {
    PieceBuffer buffer;
    std::ostream stream(&buffer);
    stream.setf(std::ios_base::unitbuf);
    write(stream);
    return buffer.pieces();
}

} // namespace Gilvane

#endif
