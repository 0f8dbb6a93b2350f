#pragma once
// veldra::data::detail::VariableInfoImpl: the storage behind a VariableInfo, one name, status
// and value per index. Abstract; see VariableInfoImplData for the plain implementation. Not
// synchronised: one writer at a time, readers only once writing is done. An index past the end
// raises std::out_of_range.
#include <foundation/extdata/array/ivariableinfo.hpp>

#include <cstddef>

namespace veldra {
namespace data {
namespace detail {

class VariableInfoImpl {
public:
    using VariableStatus = foundation::extdata::array::IVariableInfo::VariableStatus;

    virtual ~VariableInfoImpl() = default;
    virtual std::size_t size() const = 0;
    virtual const char* getName(std::size_t index) const = 0;
    virtual VariableStatus getStatus(std::size_t index) const = 0;
    virtual const foundation::extdata::Array& getValue(std::size_t index) const = 0;
    virtual void setStatus(std::size_t index, VariableStatus status) = 0;
    virtual void setValue(std::size_t index, foundation::extdata::Array value) = 0;
};

} // namespace detail
} // namespace data
} // namespace veldra
