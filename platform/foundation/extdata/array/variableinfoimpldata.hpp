#pragma once
// veldra::data::detail::VariableInfoImplData: a VariableInfoImpl that owns copies of the names,
// the statuses and the values it was built from. Not synchronised: one writer at a time. The
// constructor raises std::invalid_argument when the three lists differ in length; an index past
// the end raises std::out_of_range.
#include <foundation/extdata/array/variableinfoimpl.hpp>

#include <string>
#include <vector>

namespace veldra {
namespace data {
namespace detail {

class VariableInfoImplData : public VariableInfoImpl {
public:
    VariableInfoImplData(const std::vector<const char*>& names,
                         std::vector<VariableStatus> statuses,
                         std::vector<foundation::extdata::Array> values);
    VariableInfoImplData(std::vector<std::string> names, std::vector<VariableStatus> statuses,
                         std::vector<foundation::extdata::Array> values);

    std::size_t size() const override { return names_.size(); }
    const char* getName(std::size_t index) const override;
    VariableStatus getStatus(std::size_t index) const override;
    const foundation::extdata::Array& getValue(std::size_t index) const override;
    void setStatus(std::size_t index, VariableStatus status) override;
    void setValue(std::size_t index, foundation::extdata::Array value) override;

private:
    void check(std::size_t index) const;

    std::vector<std::string> names_;
    std::vector<VariableStatus> statuses_;
    std::vector<foundation::extdata::Array> values_;
};

} // namespace detail
} // namespace data
} // namespace veldra
