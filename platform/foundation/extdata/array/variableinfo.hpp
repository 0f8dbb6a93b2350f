#pragma once
// foundation::extdata::array::VariableInfo: what a workspace answers for a list of variable
// names, by index. A cheap handle: copies share one VariableInfoImpl, which the handle keeps
// alive. A default-constructed one is empty. Readers may share it across threads once built.
// An index past the end raises std::out_of_range.
#include <foundation/extdata/array/ivariableinfo.hpp>
#include <foundation/extdata/array/variableinfoimpl.hpp>

#include <memory>

namespace foundation {
namespace extdata {
namespace array {

class VariableInfo : public IVariableInfo {
public:
    VariableInfo() = default;
    explicit VariableInfo(std::shared_ptr<veldra::data::detail::VariableInfoImpl> impl)
        : impl_(std::move(impl)) {}

    std::size_t size() const override { return impl_ ? impl_->size() : 0; }
    const char* getName(std::size_t index) const override { return impl().getName(index); }
    VariableStatus getStatus(std::size_t index) const override { return impl().getStatus(index); }
    Array getValue(std::size_t index) const override { return impl().getValue(index); }

    const std::shared_ptr<veldra::data::detail::VariableInfoImpl>& getImpl() const { return impl_; }

private:
    const veldra::data::detail::VariableInfoImpl& impl() const {
        if (!impl_) {
            throw std::out_of_range("VariableInfo is empty.");
        }
        return *impl_;
    }

    std::shared_ptr<veldra::data::detail::VariableInfoImpl> impl_;
};

} // namespace array
} // namespace extdata
} // namespace foundation
