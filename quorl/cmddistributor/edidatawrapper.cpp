#include <foundation/msg_svc/serialization/archives.hpp>

#include <quorl/cmddistributor/edidatawrapper.hpp>

#include <quorl/cmddistributor/dataarraypayload.hpp>

namespace quorl {
namespace cmddistributor {

EDIDataWrapper::EDIDataWrapper() : data_(new std::vector<foundation::extdata::Array>()) {}

EDIDataWrapper::EDIDataWrapper(const std::vector<foundation::extdata::Array>& arrays)
    : data_(new std::vector<foundation::extdata::Array>(arrays)) {}

EDIDataWrapper::EDIDataWrapper(const EDIDataWrapper& other)
    : data_(new std::vector<foundation::extdata::Array>(
          other.data_ ? *other.data_ : std::vector<foundation::extdata::Array>())) {}

EDIDataWrapper& EDIDataWrapper::operator=(const EDIDataWrapper& other) {
    if (this != &other)
        data_.reset(new std::vector<foundation::extdata::Array>(
            other.data_ ? *other.data_ : std::vector<foundation::extdata::Array>()));
    return *this;
}

EDIDataWrapper::~EDIDataWrapper() = default;

template <class Archive> void EDIDataWrapper::serializeExplicit(Archive& ar, unsigned int) {
    if constexpr (Archive::is_saving::value) {
        static const std::vector<foundation::extdata::Array> none;
        DataArrayPayload::saveList(ar, data_ ? *data_ : none);
    } else {
        Pointer loaded(new std::vector<foundation::extdata::Array>());
        DataArrayPayload::loadList(ar, *loaded);
        data_ = std::move(loaded);
    }
}

} // namespace cmddistributor
} // namespace quorl

ZN_SERIALIZE_EXPLICIT(quorl::cmddistributor::EDIDataWrapper)
