#pragma once
// EDIDataWrapper: an owning heap vector of foundation::extdata::Array values, the EDI form of a
// function call's arguments or results. Its archive form is the array payload list of
// DataArrayPayload ("NoOfElement", then "PayLoadLength" and bytes per array); a zero length on
// reading ends the list with one default-constructed array.
//
// A value type: the default constructor makes an empty vector (never a null pointer); copies
// copy the whole vector. Any thread; no lock. Saving and loading raise std::runtime_error
// "Missing Veldra Data Array serialization support." without the serialization service, and
// pass on what the service or the archive raise on reading.
#include <quorl/cmddistributor/dataarraysdeleter.hpp>

#include <foundation/msg_svc/serialization/serializable.hpp>

#include <memory>
#include <vector>

namespace quorl {
namespace cmddistributor {

class EDIDataWrapper {
public:
    typedef std::unique_ptr<std::vector<foundation::extdata::Array>,
                            ::cmddistributor::DataArraysDeleter>
        Pointer;

    EDIDataWrapper();
    explicit EDIDataWrapper(const std::vector<foundation::extdata::Array>& arrays);
    EDIDataWrapper(const EDIDataWrapper& other);
    EDIDataWrapper(EDIDataWrapper&& other) noexcept = default;
    EDIDataWrapper& operator=(const EDIDataWrapper& other);
    EDIDataWrapper& operator=(EDIDataWrapper&& other) noexcept = default;
    ~EDIDataWrapper();

    // The vector; null only after the wrapper was moved from or its pointer taken.
    Pointer& getData() { return data_; }
    const Pointer& getData() const { return data_; }

private:
    ZN_SERIALIZABLE()
    Pointer data_;
};

} // namespace cmddistributor
} // namespace quorl

ZN_SERIALIZATION_TRAITS(quorl::cmddistributor::EDIDataWrapper, 0)
