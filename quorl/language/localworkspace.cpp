#include <quorl/language/localworkspace.hpp>

namespace quorl {
namespace language {

bool LocalWorkspace::get(std::string const& name, Value& out) {
    auto it = vars_.find(name);
    if (it == vars_.end()) {
        return false;
    }
    out = it->second;
    return true;
}

void LocalWorkspace::set(std::string const& name, Value const& value) {
    vars_[name] = value;
}

void LocalWorkspace::clear(std::string const& name) {
    vars_.erase(name);
}

std::vector<std::string> LocalWorkspace::names() {
    std::vector<std::string> n;
    for (auto const& kv : vars_) {
        n.push_back(kv.first);
    }
    return n;
}

} // namespace language
} // namespace quorl
