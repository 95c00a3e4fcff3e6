/// @file
/// Marks what a shared library of this system offers to the programs that link it.
#ifndef GILVANE_BASE_GVEXPORT_H
#define GILVANE_BASE_GVEXPORT_H

/// Put before a class, function or variable that must be one and the same on both sides of a library's border: type
/// information that a handler matches, virtual tables, the token counter, the allocation hooks. It matters where the
/// library is compiled with `-fvisibility=hidden`, and does nothing elsewhere.
#define GILVANE_EXPORT __attribute__((visibility("default")))

#endif
