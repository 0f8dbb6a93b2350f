#pragma once
// foundation::extdata::array::ICustomWorkspace: a workspace of named variables that a client
// hands to an interpreter, so that code runs against the client's variables. Implementations
// decide their own threading; callers use one workspace from one thread at a time. Names are
// null-terminated and only borrowed for the call. Errors are the implementation's exceptions.
#include <foundation/extdata/array.hpp>
#include <foundation/extdata/array/variableinfo.hpp>

#include <string>
#include <vector>

namespace foundation {
namespace extdata {
namespace array {

class ICustomWorkspace {
public:
    virtual ~ICustomWorkspace() = default;
    // The value of one variable; an empty Array when there is none.
    virtual Array getVariable(const char* name) = 0;
    // Name, status and value of each variable, in the order of the names.
    virtual VariableInfo getVariables(const std::vector<const char*>& names) = 0;
    // Sets names[i] to values[i]; both lists are consumed.
    virtual void setVariables(std::vector<const char*> names, std::vector<Array> values) = 0;
    virtual void clearVariable(const char* name) = 0;
    virtual std::vector<std::string> getVariableNames() = 0;
};

} // namespace array
} // namespace extdata
} // namespace foundation
