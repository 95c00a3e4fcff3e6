/// @file
/// What a GVException must carry, its line looked up in the library's source.
#ifndef GILVANE_TESTS_SUPPORT_THROWSITES_H
#define GILVANE_TESTS_SUPPORT_THROWSITES_H

#include <gilvane/base/gvexception.h>

#include <gtest/gtest.h>

#include <string>

namespace Gilvane {

/// The line of the throw statement that carries `message`.
/// @param file        as an exception names it, for example "libsrc/utilities/gvmemorypool"
/// @param occurrence  1 for the first throw of this message in the file, header before source, 2 for the second, …
/// @returns           0 when there is none
unsigned int lineOfThrow(const std::string& file, const std::string& message, int occurrence = 1);

/// Runs `operation` and expects a GVException with these contents, code 0 and the line of its own throw statement.
template <typename Operation>
void expectGVException(Operation operation, gvexceptiontype kind, const std::string& file, const std::string& message,
                       int occurrence = 1) {
    try {
        operation();
    } catch (const GVException& exception) {
        EXPECT_EQ(exception.getMessage(), message);
        EXPECT_EQ(exception.getFile(), file);
        EXPECT_EQ(exception.getKind(), kind);
        EXPECT_EQ(exception.getCode(), 0);
        EXPECT_EQ(exception.getLine(), lineOfThrow(file, message, occurrence));
        EXPECT_NE(exception.getLine(), 0U);
        return;
    }
    ADD_FAILURE() << "no exception; expected: " << message;
}

} // namespace Gilvane

#endif
