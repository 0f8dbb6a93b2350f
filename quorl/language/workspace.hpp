#pragma once
// Workspace: the variables that code evaluated at top level reads and writes. The interpreter
// reads a variable the first time a statement needs it and writes back the variables it
// changed when an evaluation ends (also when it fails) and before built-ins that list or clear
// variables. Implementations: LocalWorkspace (the interpreter's own) and CustomWorkspaceAdapter
// (a client's foundation::extdata::array::ICustomWorkspace).
//
// Threads: used by the interpreter thread of one context only.
// Errors: implementations may throw; the interpreter passes the error on as a LanguageError.
#include <quorl/language/value.hpp>

#include <string>
#include <vector>

namespace quorl {
namespace language {

class Workspace {
public:
    virtual ~Workspace() = default;
    // The variable's value, or false when there is none.
    virtual bool get(std::string const& name, Value& out) = 0;
    virtual void set(std::string const& name, Value const& value) = 0;
    virtual void clear(std::string const& name) = 0;
    // Names of all variables, sorted.
    virtual std::vector<std::string> names() = 0;
};

} // namespace language
} // namespace quorl
