/// @file
/// The one exception class of the system.
#ifndef GILVANE_BASE_GVEXCEPTION_H
#define GILVANE_BASE_GVEXCEPTION_H

#include <gilvane/base/gvcompiler.h>
#include <gilvane/base/gvobject.h>
#include <gilvane/base/gvstdallocator.h>

#include <string>

namespace Gilvane {

/// What sort of failure an exception reports.
enum gvexceptiontype : int {
    gvinvalidstate = 1,      ///< refused because of the object's present state or the call's arguments
    gvoutofmemory = 5,       ///< no memory for a block or a table, or no other resource that was needed
    gviteratormisuse = 12,   ///< an iterator without a table, at its end, or on an entry that is not occupied
    gvhashtablefailure = 20, ///< the hash table failed within itself
};

/// The two texts of an exception, copied into memory from the allocation hooks.
///
/// @par Thread safety
///   None needed: an exception belongs to the thread that handles it.
/// @par Ownership
///   Owns its copies of both texts.
class GILVANE_EXPORT GVExceptionMessage : public GVObject {
  public:
    /// Copies both texts, which must not be null.
    /// @throws std::bad_alloc no memory for a text
    GVExceptionMessage(const char* message, const char* file);
    GVExceptionMessage(const GVExceptionMessage&) = default;
    GVExceptionMessage& operator=(const GVExceptionMessage&) = default;
    ~GVExceptionMessage() override;

    /// What went wrong; valid as long as this object.
    const char* getMessage() const noexcept { return theMessage.c_str(); }
    /// The source file that reported it; valid as long as this object.
    const char* getFile() const noexcept { return theFile.c_str(); }

  private:
    friend struct GVTestPeer;

    using Text = std::basic_string<char, std::char_traits<char>, GVStdAllocator<char>>;

    Text theMessage;
    Text theFile;
};

/// Every failure that the library itself detects, thrown by value. Where an allocation function returned null for
/// bytes, and not for a block's object or a table, `std::bad_alloc` is thrown instead.
///
/// It does not derive from `std::exception`. Handlers catch it by reference, since copies need memory.
///
/// @par Thread safety
///   None needed: an exception belongs to the thread that handles it.
/// @par Ownership
///   Owns its copies of both texts.
class GILVANE_EXPORT GVException : public GVObject {
  public:
    /// @param message  what went wrong; copied
    /// @param file     the source file that reports it, as a path below the library's root without an ending; copied
    /// @param line     line of the throw statement in that file
    /// @param kind     sort of failure
    /// @param code     0 at every throw of the library
    /// @throws std::bad_alloc no memory for a text; it then takes the place of this exception
    GVException(const char* message, const char* file, unsigned int line, gvexceptiontype kind, int code);
    GVException(const GVException&) = default;
    GVException& operator=(const GVException&) = default;
    ~GVException() override;

    /// What went wrong; valid as long as this object.
    const char* getMessage() const noexcept { return theMessage.getMessage(); }
    /// The source file that reported it, the same text wherever the library was built; valid as long as this object.
    const char* getFile() const noexcept { return theMessage.getFile(); }
    /// The line of the throw statement.
    unsigned int getLine() const noexcept { return theLine; }
    /// The sort of failure.
    gvexceptiontype getKind() const noexcept { return theKind; }
    /// 0 for every exception that the library throws.
    int getCode() const noexcept { return theCode; }

  private:
    friend struct GVTestPeer;

    GVExceptionMessage theMessage;
    unsigned int theLine;
    gvexceptiontype theKind;
    int theCode;
};

} // namespace Gilvane

#endif
