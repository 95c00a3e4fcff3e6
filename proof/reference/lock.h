/// @file
/// Handles of locks, and the lock that is released on every way out.
#ifndef GILVANE_PROOF_REFERENCE_LOCK_H
#define GILVANE_PROOF_REFERENCE_LOCK_H

#include "allocation.h"
#include "notdriven.h"

#include <map>

namespace Gilvane::reference {

struct Handle {
    int number; // from 1, in the order of creation
    bool locked = false;
};

inline std::map<Id, Handle> handles;
inline int lastHandleNumber = 0;

/// @param maker  createdByFactory or createdByFunction
inline Id makeHandle(Event maker) {
    const Id id = requestOrThrow(What::handle);
    handles[id] = {++lastHandleNumber};
    meter->happened(maker, lastHandleNumber);
    return id;
}

inline Handle& liveHandle(Id id) {
    const auto found = handles.find(id);
    if (found == handles.end()) {
        throw NotDriven{"a lock is used that went with the pool that this one was copied from, or with a copy"};
    }
    return found->second;
}

inline void lock(Id handle) {
    if (handle != 0) {
        liveHandle(handle).locked = true;
        meter->happened(Event::locked, liveHandle(handle).number);
    }
}

inline void unlock(Id handle) {
    if (handle != 0) {
        liveHandle(handle).locked = false;
        meter->happened(Event::unlocked, liveHandle(handle).number);
    }
}

inline void deleteHandle(Id handle) {
    if (handle != 0) {
        meter->happened(Event::deleted, liveHandle(handle).number);
        handles.erase(handle);
        release(handle);
    }
}

class Scope {
  public:
    explicit Scope(Id handle) : theHandle(handle) { lock(handle); }
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;
    ~Scope() { unlock(theHandle); }

  private:
    Id theHandle;
};

} // namespace Gilvane::reference

#endif
