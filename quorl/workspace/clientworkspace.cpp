#include <quorl/workspace/clientworkspace.hpp>

#include <foundation/extdata/array/variableinfoimpldata.hpp>

#include <memory>
#include <mutex>
#include <stdexcept>

namespace quorl {
namespace workspace {

using foundation::extdata::Array;
using foundation::extdata::array::IVariableInfo;
using foundation::extdata::array::VariableInfo;

namespace {
std::string checkedName(char const* name) {
    if (!name)
        throw std::invalid_argument("A variable name must not be null.");
    return name;
}
} // namespace

ClientWorkspace::~ClientWorkspace() = default;

Array ClientWorkspace::getVariable(char const* name) {
    auto value = find(checkedName(name));
    return value ? *value : Array();
}

VariableInfo ClientWorkspace::getVariables(std::vector<char const*> const& names) {
    std::vector<std::string> keys;
    keys.reserve(names.size());
    for (char const* n : names)
        keys.push_back(checkedName(n));
    std::vector<IVariableInfo::VariableStatus> statuses;
    std::vector<Array> values;
    statuses.reserve(keys.size());
    values.reserve(keys.size());
    {
        std::shared_lock<std::shared_mutex> lock(mutex_);
        for (auto const& key : keys) {
            auto found = variables_.find(key);
            statuses.push_back(found == variables_.end() ? IVariableInfo::StatusAbsent
                                                         : IVariableInfo::StatusValue);
            values.push_back(found == variables_.end() ? Array() : found->second);
        }
    }
    return VariableInfo(std::make_shared<veldra::data::detail::VariableInfoImplData>(
        std::move(keys), std::move(statuses), std::move(values)));
}

void ClientWorkspace::setVariables(std::vector<char const*> names, std::vector<Array> values) {
    if (names.size() != values.size())
        throw std::invalid_argument("setVariables needs one value per name.");
    std::vector<std::string> keys;
    keys.reserve(names.size());
    for (char const* n : names)
        keys.push_back(checkedName(n));
    std::unique_lock<std::shared_mutex> lock(mutex_);
    for (std::size_t i = 0; i < keys.size(); ++i)
        variables_[keys[i]] = std::move(values[i]);
}

void ClientWorkspace::clearVariable(char const* name) {
    erase(checkedName(name));
}

std::vector<std::string> ClientWorkspace::getVariableNames() {
    std::shared_lock<std::shared_mutex> lock(mutex_);
    std::vector<std::string> names;
    names.reserve(variables_.size());
    for (auto const& v : variables_)
        names.push_back(v.first);
    return names;
}

void ClientWorkspace::set(std::string const& name, Array value) {
    std::unique_lock<std::shared_mutex> lock(mutex_);
    variables_[name] = std::move(value);
}

boost::optional<Array> ClientWorkspace::find(std::string const& name) const {
    std::shared_lock<std::shared_mutex> lock(mutex_);
    auto found = variables_.find(name);
    if (found == variables_.end())
        return boost::none;
    return found->second;
}

bool ClientWorkspace::erase(std::string const& name) {
    std::unique_lock<std::shared_mutex> lock(mutex_);
    return variables_.erase(name) != 0;
}

void ClientWorkspace::clear() {
    std::unique_lock<std::shared_mutex> lock(mutex_);
    variables_.clear();
}

std::size_t ClientWorkspace::size() const {
    std::shared_lock<std::shared_mutex> lock(mutex_);
    return variables_.size();
}

} // namespace workspace
} // namespace quorl
