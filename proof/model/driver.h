/// @file
/// Programs of bytes, run on the library and on the model side by side.
///
/// The first byte of a program says what it drives: pools and smart pointers, or tables with one of three hash
/// functions. The second sets the scene, and each three bytes after it are one operation. Every string of bytes is a
/// program: what the model says has no defined outcome is passed over.
#ifndef GILVANE_TESTS_PROOF_MODEL_DRIVER_H
#define GILVANE_TESTS_PROOF_MODEL_DRIVER_H

#include "model.h"

#include <cstddef>
#include <string>
#include <vector>

namespace Gilvane::driver {

using Bytes = std::vector<unsigned char>;

/// The first byte of a program, modulo 4.
enum Subject : unsigned char { pools, tablesByIdentity, tablesByConstant, tablesByFewBits };

/// One operation of a program; its fields mean what the subject makes of them.
struct Operation {
    unsigned char code;
    unsigned char a;
    unsigned char b;
};

/// What one run of a program did.
struct Run {
    std::size_t made = 0;       // operations that were made
    bool lastMade = false;      // whether its last operation was among them
    std::size_t passedOver = 0; // operations that have no defined outcome, or one larger than the driver wants
};

/// When searches, walks, comparisons and texts are compared as well. Fields always are, after each operation.
enum class Views { afterEach, afterLast };

/// Runs a program. Where the library differs from the model it says so on the standard error, with the calls that led
/// there, and aborts.
Run run(const Bytes& program, Views views);

/// Thrown by same().
struct Difference {
    std::string text;
};

template <typename T>
std::string textOf(const T& value) {
    if constexpr (std::is_arithmetic_v<T>) {
        return std::to_string(value);
    } else if constexpr (std::is_convertible_v<const T&, const void*>) {
        return value == nullptr ? "null" : "an address";
    } else {
        return '"' + std::string(value) + '"';
    }
}

/// Compares what the library has with what the model has.
template <typename T>
void same(const char* what, const T& library, const T& model) {
    if (!(library == model)) {
        throw Difference{std::string(what) + ": " + textOf(library) + " in the library, " + textOf(model) +
                         " in the model"};
    }
}

/// What the two kinds of driver share: an operation is made on a copy of the model first, and on the library only when
/// the model has an outcome for it.
class Driver {
  public:
    virtual ~Driver() = default;
    /// @returns whether the operation was made
    virtual bool make(Operation operation) = 0;
    /// Compares searches, walks, comparisons and texts.
    virtual void compareViews() = 0;
    /// Takes everything down that may be, and compares what is left.
    virtual void finish() = 0;
    /// The calls made so far, as text.
    virtual std::string calls() const = 0;
};

} // namespace Gilvane::driver

#endif
