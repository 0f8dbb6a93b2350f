#include <foundation/extdata/array/detail/defaultvariableinfoimpl.hpp>
#include <foundation/extdata/array/variableinfoimpldata.hpp>

#include <stdexcept>

namespace veldra {
namespace data {
namespace detail {

namespace {
std::vector<std::string> copyNames(const std::vector<const char*>& names) {
    std::vector<std::string> out;
    out.reserve(names.size());
    for (auto n : names) {
        if (!n) {
            throw std::invalid_argument("Variable name is null.");
        }
        out.emplace_back(n);
    }
    return out;
}
} // namespace

VariableInfoImplData::VariableInfoImplData(const std::vector<const char*>& names,
                                           std::vector<VariableStatus> statuses,
                                           std::vector<foundation::extdata::Array> values)
    : VariableInfoImplData(copyNames(names), std::move(statuses), std::move(values)) {}

VariableInfoImplData::VariableInfoImplData(std::vector<std::string> names,
                                           std::vector<VariableStatus> statuses,
                                           std::vector<foundation::extdata::Array> values)
    : names_(std::move(names)), statuses_(std::move(statuses)), values_(std::move(values)) {
    if (statuses_.size() != names_.size() || values_.size() != names_.size()) {
        throw std::invalid_argument("Variable names, statuses and values differ in number.");
    }
}

void VariableInfoImplData::check(std::size_t index) const {
    if (index >= names_.size()) {
        throw std::out_of_range("Variable index out of range.");
    }
}

const char* VariableInfoImplData::getName(std::size_t index) const {
    check(index);
    return names_[index].c_str();
}

VariableInfoImpl::VariableStatus VariableInfoImplData::getStatus(std::size_t index) const {
    check(index);
    return statuses_[index];
}

const foundation::extdata::Array& VariableInfoImplData::getValue(std::size_t index) const {
    check(index);
    return values_[index];
}

void VariableInfoImplData::setStatus(std::size_t index, VariableStatus status) {
    check(index);
    statuses_[index] = status;
}

void VariableInfoImplData::setValue(std::size_t index, foundation::extdata::Array value) {
    check(index);
    values_[index] = std::move(value);
}

} // namespace detail
} // namespace data
} // namespace veldra

namespace foundation {
namespace extdata {
namespace array {
namespace detail {

DefaultVariableInfoImpl::DefaultVariableInfoImpl(const std::vector<const char*>& names)
    : names_(veldra::data::detail::copyNames(names)),
      statuses_(names.size(), IVariableInfo::StatusAbsent), values_(names.size()) {}

void DefaultVariableInfoImpl::check(std::size_t index) const {
    if (index >= names_.size()) {
        throw std::out_of_range("Variable index out of range.");
    }
}

void DefaultVariableInfoImpl::setStatus(std::size_t index, VariableStatus status) {
    check(index);
    statuses_[index] = status;
}

void DefaultVariableInfoImpl::setValue(std::size_t index, Array value) {
    check(index);
    values_[index] = std::move(value);
}

std::vector<const char*> DefaultVariableInfoImpl::getPtrNames() const {
    std::vector<const char*> out;
    out.reserve(names_.size());
    for (auto& n : names_) {
        out.push_back(n.c_str());
    }
    return out;
}

} // namespace detail
} // namespace array
} // namespace extdata
} // namespace foundation
