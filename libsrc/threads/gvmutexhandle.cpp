#include <gilvane/threads/gvmutexhandle.h>

#include <gilvane/base/gvdumpvalue.h>

namespace Gilvane {

GVMutexHandle::~GVMutexHandle() = default;

std::ostream& operator<<(std::ostream& stream, const GVMutexHandle& handle) {
    detail::writeDumpValue(stream, &handle);
    return stream;
}

} // namespace Gilvane
