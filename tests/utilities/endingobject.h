/// @file
/// An object that does something as it ends.
#ifndef GILVANE_TESTS_UTILITIES_ENDINGOBJECT_H
#define GILVANE_TESTS_UTILITIES_ENDINGOBJECT_H

#include <gilvane/base/gvobject.h>
#include <gilvane/utilities/gvsmartpointer.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace Gilvane {

/// Names of objects, in the order in which they ended.
using Ends = std::vector<std::string>;

/// Enters its name and then does what the test told it.
struct EndingObject : GVObject {
    EndingObject(std::string name, Ends& ends) : theName(std::move(name)), theEnds(ends) {}
    EndingObject(const EndingObject&) = delete;
    EndingObject& operator=(const EndingObject&) = delete;
    ~EndingObject() override {
        theEnds.push_back(theName);
        if (theLastAct) {
            theLastAct();
        }
    }

    std::string theName;
    std::function<void()> theLastAct;
    GVSmartPointer<EndingObject> theHeld; // ends after the last act
    Ends& theEnds;
};

} // namespace Gilvane

#endif
