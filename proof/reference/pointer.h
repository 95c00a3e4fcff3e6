/// @file
/// The smart pointer.
#ifndef GILVANE_PROOF_REFERENCE_POINTER_H
#define GILVANE_PROOF_REFERENCE_POINTER_H

#include "allocation.h"
#include "lock.h"
#include "pool.h"

#include <map>
#include <utility>

namespace Gilvane::reference {

inline std::map<Id, unsigned int> counts; // in count cells
inline std::map<Id, bool> flags;          // in flag cells

/// @tparam T  has `self`, destroy and find, as Pool has
template <typename T>
class Pointer {
  public:
    struct Fields {
        Id object = 0;
        Id count = 0;
        Id flag = 0;
        Id handle = 0;
    };
    Fields fields;

    Pointer() = default;
    /// A failure loses the cells that were had before it.
    Pointer(T* sharedObject, bool owns, bool locked) {
        if (sharedObject == nullptr) {
            return;
        }
        fields.object = sharedObject->self;
        try {
            fields.count = requestOrThrow(What::countCell);
            counts[fields.count] = 1;
            fields.flag = requestOrThrow(What::flagCell);
            flags[fields.flag] = owns;
            fields.handle = locked ? makeHandle(Event::createdByFunction) : 0;
        } catch (...) {
            lose(Loss::countCell, fields.count);
            lose(Loss::flagCell, fields.flag);
            throw;
        }
    }
    Pointer(const Pointer& other) : fields(other.addShare()) {}
    Pointer(Pointer&& other) noexcept : fields(other.forget()) {}
    Pointer& operator=(const Pointer& other) {
        replaceWith(other.addShare());
        return *this;
    }
    // NOLINTNEXTLINE(performance-noexcept-move-constructor): what has no outcome is left by a throw
    Pointer& operator=(Pointer&& other) {
        if (this != &other) {
            replaceWith(other.forget());
        }
        return *this;
    }
    ~Pointer() { decrementRefCount(); }

    /// The object, which must not be deleted, or null.
    T* get() const { return fields.object == 0 ? nullptr : &T::find(fields.object); }

    unsigned int getRefCount() const {
        if (fields.count == 0) {
            return 0;
        }
        const Scope scope(fields.handle);
        return counts[fields.count];
    }

    void deleteData() {
        if (fields.flag != 0 && flags[fields.flag]) {
            T::destroy(get());
        }
    }

    /// The last share leaves the pointer empty.
    void decrementRefCount() {
        lock(fields.handle);
        if (fields.count == 0 || --counts[fields.count] != 0) {
            unlock(fields.handle);
            return;
        }
        deleteData();
        counts.erase(fields.count);
        flags.erase(fields.flag);
        release(fields.count);
        release(fields.flag);
        unlock(fields.handle);
        deleteHandle(fields.handle);
        forget();
    }

    /// Leaves the pointer empty, its share still counted.
    Fields forget() { return std::exchange(fields, Fields()); }

  private:
    Fields addShare() const {
        if (fields.count != 0) {
            const Scope scope(fields.handle);
            ++counts[fields.count];
        }
        return fields;
    }

    void replaceWith(const Fields& next) {
        decrementRefCount();
        fields = next;
    }
};

/// A factory's second half: should the pointer fail, the object goes.
template <typename T>
Pointer<T> share(T* object) {
    try {
        return Pointer<T>(object, true, true);
    } catch (...) {
        T::destroy(object);
        throw;
    }
}

/// Should the pointer fail, the copied pool is lost with all that is its own.
inline Pointer<Pool> deepCopy(const Pointer<Pool>& source) {
    Pool* const copy = Pool::make(*source.get());
    try {
        return Pointer<Pool>(copy, true, true);
    } catch (...) {
        lose(Loss::poolOfFailedDeepCopy, copy->self);
        lose(Loss::arrayOfFailedDeepCopy, copy->table.array.leave());
        lose(Loss::freeListOfFailedDeepCopy, copy->freeList.storage.leave());
        pools.erase(copy->self);
        throw;
    }
}

/// Begins anew, with nothing alive.
inline void begin(Meter& newMeter, unsigned int firstToken) {
    meter = nullptr;
    pools.clear();
    blocks.clear();
    handles.clear();
    counts.clear();
    flags.clear();
    lastHandleNumber = 0;
    nextToken = firstToken;
    Pool::defaultNumberOfObjects = 4;
    meter = &newMeter;
}

} // namespace Gilvane::reference

#endif
