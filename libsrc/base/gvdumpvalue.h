/// @file
/// How one value stands in a text dump: the rule shared by every dump writer.
#ifndef GILVANE_BASE_GVDUMPVALUE_H
#define GILVANE_BASE_GVDUMPVALUE_H

#include <gilvane/base/gvversion.h>

#include <ostream>
#include <type_traits>

namespace Gilvane::detail {

/// Writes an address with a single stream insertion; a null one as a lone "0", for which libc++ has another text.
inline void writeDumpAddress(std::ostream& stream, const void* address) {
    if (address == nullptr) {
        stream << 0UL;
    } else {
        stream << address;
    }
}

/// Writes one value with a single stream insertion and leaves the stream's formatting state alone.
///
/// A pointer, to an object or to a function, is written as an address; an `unsigned int` as an `unsigned long`; everything
/// else by its own stream operator.
template <typename T>
void writeDumpValue(std::ostream& stream, const T& value) {
    if constexpr (std::is_pointer_v<T>) {
        if constexpr (std::is_function_v<std::remove_pointer_t<T>>) {
            writeDumpAddress(stream, reinterpret_cast<const void*>(value));
        } else {
            writeDumpAddress(stream, const_cast<const void*>(static_cast<const volatile void*>(value)));
        }
    } else if constexpr (std::is_same_v<T, unsigned int>) {
        stream << static_cast<unsigned long>(value);
    } else {
        stream << value;
    }
}

} // namespace Gilvane::detail

#endif
