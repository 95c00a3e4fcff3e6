#include <gilvane/base/gvexception.h>

namespace Gilvane {

GVExceptionMessage::GVExceptionMessage(const char* message, const char* file) : theMessage(message), theFile(file) {}

GVExceptionMessage::~GVExceptionMessage() = default;

GVException::GVException(const char* message, const char* file, unsigned int line, gvexceptiontype kind, int code)
    : theMessage(message, file), theLine(line), theKind(kind), theCode(code) {}

GVException::~GVException() = default;

} // namespace Gilvane
