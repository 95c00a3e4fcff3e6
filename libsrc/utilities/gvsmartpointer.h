/// @file
/// The reference-counted owning pointer through which pools are handed out and shared.
#ifndef GILVANE_UTILITIES_GVSMARTPOINTER_H
#define GILVANE_UTILITIES_GVSMARTPOINTER_H

#include <gilvane/base/gvcompiler.h>
#include <gilvane/base/gvdumpvalue.h>
#include <gilvane/base/gvexception.h>
#include <gilvane/base/gvobject.h>
#include <gilvane/base/gvrawblock.h>
#include <gilvane/threads/gvmutex.h>
#include <gilvane/threads/gvmutexhandle.h>
#include <gilvane/threads/gvthreadsfactory.h>

#include <cstring>
#include <memory>
#include <new>
#include <ostream>
#include <type_traits>
#include <utility>

namespace Gilvane {

namespace detail {

/// Whether a `const T` can be written to a stream with `<<`.
template <typename T, typename = void>
struct HasStreamOperator : std::false_type {};
template <typename T>
struct HasStreamOperator<T, std::void_t<decltype(std::declval<std::ostream&>() << std::declval<const T&>())>>
    : std::true_type {};

/// Whether two objects have the same virtual table, and so are of the same class. Needs no run-time type information,
/// which a part of a program may be compiled without. A class may have a table in each of several libraries: then this
/// is false for two of its objects.
inline bool haveSameVirtualTable(const GVObject& one, const GVObject& other) {
    return std::memcmp(static_cast<const void*>(&one), static_cast<const void*>(&other), sizeof(void*)) == 0;
}

} // namespace detail

/// Whether GVSmartPointer::deepCopy copies a T: by default, where T claims to be copyable.
///
/// The claim of a class may be wrong: one with a vector of unique pointers claims to be copyable, and its copy
/// constructor does not compile. Since deepCopy is virtual, a pointer to such a class does not compile either, until
/// this is specialised for it:
///
///     template <>
///     struct Gilvane::GVIsDeepCopyable<Job> : std::false_type {};
template <typename T, typename = void>
struct GVIsDeepCopyable : std::is_copy_constructible<T> {};

/// Whether a copy of a T holds things that its source goes on owning, so that deleting the copy would take them from
/// the source. When GVSmartPointer::deepCopy cannot make the pointer to such a copy, it does not delete the copy. False
/// unless specialised, as the pool's header does for pools.
template <typename T, typename = void>
struct GVCopySharesWithSource : std::false_type {};

/// Shares one object among any number of pointers; the last one to go deletes it.
///
/// Pointers that share an object share four things: the object, a cell with the number of sharers, a cell that says
/// whether the last sharer deletes the object, and the mutex handle that guards the number.
///
/// @par Invariants
///   1. all four fields are null (an empty pointer), or object, refCount and ownObject are not null
///   2. *refCount, where it exists, is at least 1: the pointers that share the object, without those on which
///      decrementRefCount was called
/// @par Thread safety
///   Different pointers that share one object may be copied, assigned and destroyed by different threads at the same
///   time if the first of them was made with a lock. One pointer is for one thread at a time. Access to the object is
///   not guarded here.
/// @par Ownership
///   The sharers own both cells and the handle together and, if so told, the object.
template <typename T>
class GILVANE_EXPORT GVSmartPointer : public GVObject {
  public:
    /// An empty pointer.
    GVSmartPointer() noexcept = default;

    /// The first sharer of `sharedObject`; from null, an empty pointer, whatever the flags say.
    /// @param sharedObject   allocated with `new`, when it is to be owned
    /// @param ownsObject     whether the last sharer deletes it
    /// @param withLock       whether a mutex handle guards the number of sharers
    /// @throws std::bad_alloc no memory for a cell or the handle; and whatever CreateUnnamedMutexHandle throws. The
    ///                        object stays the caller's; cells made before the failure are not released
    GVSmartPointer(T* sharedObject, bool ownsObject, bool withLock);

    /// One more sharer. From an empty pointer, another one.
    GVSmartPointer(const GVSmartPointer& other);

    /// Takes over the other's share; the other is empty then.
    GVSmartPointer(GVSmartPointer&& other) noexcept { takeFrom(other); }

    /// Becomes a sharer of the other's object, then gives up the former share. Assignment to itself changes nothing.
    ///
    /// The destructor of the former object may use this pointer, and assign to it again: the pointer holds the new
    /// object by then. In a class derived from this one it may not: there the former share is given up first, so that
    /// an override of deleteData still finds the former object in this pointer. The same goes for a pointer that was
    /// made in another library, where that has a virtual table of its own for the class.
    GVSmartPointer& operator=(const GVSmartPointer& other);

    /// Takes over the other's share, and leaves the other empty; otherwise as above.
    GVSmartPointer& operator=(GVSmartPointer&& other) noexcept;

    /// Gives up this share.
    ~GVSmartPointer() override;

    /// A first sharer, owning and with a lock of its own, of a new copy of the object made with its copy constructor.
    ///
    /// A copied pool shares its blocks and its mutex handle with its source: only one of the two may ever be torn down.
    /// An object of a class derived from T is copied as a T. No lock is taken; calling this on an empty pointer is
    /// misuse.
    /// @throws GVException kind gvinvalidstate when T is not copied, see GVIsDeepCopyable
    /// @throws             whatever the copy constructor and the constructor of a pointer throw. The source is
    ///                     unchanged. A copy that was made already is deleted, unless it shares with its source, as a
    ///                     pool's does; see GVCopySharesWithSource
    virtual GVSmartPointer deepCopy();

    /// Writes the pointer and then, by its own stream operator if there is one, the object, all under the handle.
    /// @returns `stream`
    virtual std::ostream& print(std::ostream& stream) const;

    /// Deletes the object if it is owned. Clears no field: decrementRefCount calls it for the last sharer. A class that
    /// overrides it calls decrementRefCount in its own destructor: this one's does not reach the override.
    virtual void deleteData();

    /// Gives up this share; the last one deletes the object, if owned, and both cells and the handle, and leaves this
    /// pointer empty.
    ///
    /// When others still share, this pointer keeps its fields, and its destructor gives up one share more. So either
    /// this pointer is never destroyed, or another pointer, which shares too, is not.
    void decrementRefCount();

    /// The object; null when empty.
    T* get() const noexcept { return object; }
    /// The object's members; misuse when empty.
    T* operator->() const noexcept { return object; }
    /// The object; misuse when empty.
    T& operator*() const noexcept { return *object; }
    /// Whether there is an object.
    explicit operator bool() const noexcept { return object != nullptr; }

    /// The number of sharers, read under the handle; 0 when empty.
    unsigned int getRefCount() const;

  private:
    friend struct GVTestPeer;

    template <typename Cell>
    static Cell* makeCell(Cell value);
    void addShare() const;
    void replaceWith(GVSmartPointer& next);
    void takeFrom(GVSmartPointer& other) noexcept;
    void forget() noexcept;
    void lockIfShared(GVMutex& guard) const;

    T* object = nullptr;
    unsigned int* refCount = nullptr; // sharers, in a raw block of its own
    bool* ownObject = nullptr;        // whether the last sharer deletes the object, in a raw block of its own
    GVMutexHandle* lock = nullptr;    // guards *refCount; null without locking
};

template <typename T>
GVSmartPointer<T>::GVSmartPointer(T* sharedObject, bool ownsObject, bool withLock) : object(sharedObject) {
    if (object == nullptr) {
        return;
    }
    // Deliberate: cells made before a failure are lost (docs/deliberate.md, Failures).
    // Watched by SmartPointer.losesTheCountCellWhenTheFlagCellCannotBeHad and
    // SmartPointer.losesBothCellsWhenTheHandleCannotBeHad.
    refCount = makeCell(1U);
    ownObject = makeCell(ownsObject);
    if (withLock) {
        lock = CreateUnnamedMutexHandle(gvexclusivemutex, false);
    }
}

template <typename T>
GVSmartPointer<T>::GVSmartPointer(const GVSmartPointer& other)
    : GVObject(other), object(other.object), refCount(other.refCount), ownObject(other.ownObject), lock(other.lock) {
    addShare();
}

// The other's share is added, or taken over, before this pointer's is given up: the object that goes may be the same,
// or may hold `other` itself.
template <typename T>
GVSmartPointer<T>& GVSmartPointer<T>::operator=(const GVSmartPointer& other) {
    GVSmartPointer next(other);
    replaceWith(next);
    return *this;
}

template <typename T>
GVSmartPointer<T>& GVSmartPointer<T>::operator=(GVSmartPointer&& other) noexcept {
    if (this != &other) {
        GVSmartPointer next(std::move(other));
        replaceWith(next);
    }
    return *this;
}

template <typename T>
GVSmartPointer<T>::~GVSmartPointer() {
    if (object != nullptr || refCount != nullptr || ownObject != nullptr || lock != nullptr) {
        decrementRefCount();
    }
}

template <typename T>
GVSmartPointer<T> GVSmartPointer<T>::deepCopy() {
    if constexpr (GVIsDeepCopyable<T>::value) {
        T* const copy = new T(*object);
        if constexpr (GVCopySharesWithSource<T>::value) {
            // Deliberate: a copied pool is not deleted when its pointer fails (docs/deliberate.md, Smart pointer).
            // Watched by SmartPointerDeepCopy.leavesThePoolUnreleasedWhenThePointerCannotBeMade.
            return GVSmartPointer(copy, true, true);
        } else {
            std::unique_ptr<T> guard(copy);
            GVSmartPointer pointer(copy, true, true);
            static_cast<void>(guard.release());
            return pointer;
        }
    } else {
        constexpr const char* file = "libsrc/utilities/gvsmartpointer";
        throw GVException("Object of smart pointer cannot be copied.", file, __LINE__, gvinvalidstate, 0);
    }
}

template <typename T>
std::ostream& GVSmartPointer<T>::print(std::ostream& stream) const {
    GVMutex guard;
    lockIfShared(guard);
    stream << "<GVSmartPointer";
    if (object != nullptr) {
        stream << " object=\"";
        detail::writeDumpValue(stream, object);
        stream << "\"";
    }
    if (refCount != nullptr) {
        stream << " refCount=\"";
        detail::writeDumpValue(stream, *refCount);
        stream << "\"";
    }
    if (ownObject != nullptr) {
        stream << " ownObject=\"";
        detail::writeDumpValue(stream, *ownObject);
        stream << "\"";
    }
    if (lock != nullptr) {
        stream << " lock=\"";
        stream << *lock;
        stream << "\"";
    }
    stream << ">";
    if constexpr (detail::HasStreamOperator<T>::value) {
        if (object != nullptr) {
            stream << *object;
        }
    }
    stream << "</GVSmartPointer>";
    return stream;
}

template <typename T>
void GVSmartPointer<T>::deleteData() {
    if (ownObject != nullptr && *ownObject && object != nullptr) {
        delete object;
    }
}

template <typename T>
void GVSmartPointer<T>::decrementRefCount() {
    if (lock != nullptr) {
        lock->lock();
    }
    // Deliberate: the fields stay while others share (docs/deliberate.md, Smart pointer).
    // Watched by SmartPointerDecrement.keepsAllFieldsWhileOthersShare.
    if (refCount == nullptr || --*refCount != 0) {
        if (lock != nullptr) {
            lock->unlock();
        }
        return;
    }
    deleteData();
    detail::releaseRawBlock(refCount);
    detail::releaseRawBlock(ownObject);
    if (lock != nullptr) {
        lock->unlock();
        delete lock;
    }
    forget();
}

template <typename T>
unsigned int GVSmartPointer<T>::getRefCount() const {
    if (refCount == nullptr) {
        return 0;
    }
    GVMutex guard;
    lockIfShared(guard);
    return *refCount;
}

template <typename T>
template <typename Cell>
Cell* GVSmartPointer<T>::makeCell(Cell value) {
    void* const storage = detail::allocateRawBlock(sizeof(Cell));
    if (storage == nullptr) {
        throw std::bad_alloc();
    }
    return ::new (storage) Cell(value);
}

template <typename T>
void GVSmartPointer<T>::addShare() const {
    if (refCount != nullptr) {
        GVMutex guard;
        lockIfShared(guard);
        ++*refCount;
    }
}

// Takes over the share of `next`, and gives up this pointer's own: by way of `next`, which its owner destroys, except
// where a derived class may override deleteData.
template <typename T>
void GVSmartPointer<T>::replaceWith(GVSmartPointer& next) {
    if (detail::haveSameVirtualTable(*this, next)) {
        std::swap(object, next.object);
        std::swap(refCount, next.refCount);
        std::swap(ownObject, next.ownObject);
        std::swap(lock, next.lock);
    } else {
        decrementRefCount();
        takeFrom(next);
    }
}

template <typename T>
void GVSmartPointer<T>::takeFrom(GVSmartPointer& other) noexcept {
    object = other.object;
    refCount = other.refCount;
    ownObject = other.ownObject;
    lock = other.lock;
    other.forget();
}

template <typename T>
void GVSmartPointer<T>::forget() noexcept {
    object = nullptr;
    refCount = nullptr;
    ownObject = nullptr;
    lock = nullptr;
}

template <typename T>
void GVSmartPointer<T>::lockIfShared(GVMutex& guard) const {
    if (lock != nullptr) {
        guard.setHandle(lock);
    }
}

/// Writes a pointer's text form, as GVSmartPointer::print.
template <typename T>
std::ostream& operator<<(std::ostream& stream, const GVSmartPointer<T>& pointer) {
    return pointer.print(stream);
}

} // namespace Gilvane

#endif
