/// @file
/// An object to share, and a smart pointer's fields at a glance.
#ifndef GILVANE_TESTS_UTILITIES_SHAREDOBJECT_H
#define GILVANE_TESTS_UTILITIES_SHAREDOBJECT_H

#include <gilvane/base/gvobject.h>
#include <gilvane/utilities/gvsmartpointer.h>

#include "gvtestpeer.h"

#include <gtest/gtest.h>

#include <tuple>

namespace Gilvane {

/// Counts its deletions in a number of the test's. Copyable; without a stream operator.
struct SharedObject : GVObject {
    explicit SharedObject(int& deletions) : theDeletions(deletions) {}
    ~SharedObject() override { ++theDeletions; }

    int theValue = 0;
    int& theDeletions;
};

/// The four fields, in their order.
template <typename T>
std::tuple<T*, unsigned int*, bool*, GVMutexHandle*> fieldsOf(GVSmartPointer<T>& pointer) {
    return {GVTestPeer::object(pointer), GVTestPeer::refCount(pointer), GVTestPeer::ownObject(pointer),
            GVTestPeer::lock(pointer)};
}

/// The fields of an empty pointer.
template <typename T>
std::tuple<T*, unsigned int*, bool*, GVMutexHandle*> noFields() {
    return {nullptr, nullptr, nullptr, nullptr};
}

/// Empties the fields and gives up no share.
template <typename T>
void clearFields(GVSmartPointer<T>& pointer) {
    GVTestPeer::object(pointer) = nullptr;
    GVTestPeer::refCount(pointer) = nullptr;
    GVTestPeer::ownObject(pointer) = nullptr;
    GVTestPeer::lock(pointer) = nullptr;
}

/// Takes from a pool what it shares with its source or copy, so that it can be torn down beside the other.
inline void takeSharedPartsFrom(GVMemoryPool& pool) {
    GVTestPeer::table(pool).clear();
    GVTestPeer::mutexHandle(pool) = nullptr;
}

} // namespace Gilvane

#endif
