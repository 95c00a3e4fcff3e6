/// @file
/// What a program writes that the hardened library ends.
#ifndef GILVANE_TESTS_HARDENED_ONLYLINE_H
#define GILVANE_TESTS_HARDENED_ONLYLINE_H

#include <string>

namespace Gilvane {

/// All that a dying program writes; an emulator may write about the signal after it.
inline std::string onlyLine(const std::string& text) { return "^gilvane: " + text + "\n(qemu: .*)?$"; }

} // namespace Gilvane

#endif
