#pragma once
// foundation::extdata::array::detail::DefaultVariableInfoImpl: the answer to a list of variable
// names being filled in, index by index. Built from the names, which it copies; every status
// starts as StatusAbsent and every value as an empty Array. Not synchronised: one thread fills
// it. An index past the end raises std::out_of_range.
#include <foundation/extdata/array/ivariableinfo.hpp>

#include <string>
#include <vector>

namespace foundation {
namespace extdata {
namespace array {
namespace detail {

class DefaultVariableInfoImpl {
public:
    using VariableStatus = IVariableInfo::VariableStatus;

    explicit DefaultVariableInfoImpl(const std::vector<const char*>& names);

    std::size_t size() const { return names_.size(); }
    void setStatus(std::size_t index, VariableStatus status);
    void setValue(std::size_t index, Array value);

    // Pointers to this object's own copies of the names, valid while it lives unchanged.
    std::vector<const char*> getPtrNames() const;
    const std::vector<VariableStatus>& getStats() const { return statuses_; }
    const std::vector<Array>& getValues() const { return values_; }

private:
    void check(std::size_t index) const;

    std::vector<std::string> names_;
    std::vector<VariableStatus> statuses_;
    std::vector<Array> values_;
};

} // namespace detail
} // namespace array
} // namespace extdata
} // namespace foundation
