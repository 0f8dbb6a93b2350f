#pragma once
// LocalWorkspace: a workspace held in memory as values of the language, the interpreter's own
// workspace of its context. Owns its values. One thread at a time. Throws nothing of its own.
#include <quorl/language/workspace.hpp>

#include <map>

namespace quorl {
namespace language {

class LocalWorkspace : public Workspace {
public:
    bool get(std::string const& name, Value& out) override;
    void set(std::string const& name, Value const& value) override;
    void clear(std::string const& name) override;
    std::vector<std::string> names() override;

private:
    std::map<std::string, Value> vars_;
};

} // namespace language
} // namespace quorl
