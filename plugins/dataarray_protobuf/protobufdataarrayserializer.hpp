#pragma once
// ProtobufDataArraySerializer: the data-array serialization service of this bundle. Writes a
// foundation::extdata::Array as one Protocol Buffers message (dataarray.proto), with the element
// block of numbers written straight from the array's storage, and reads it back. Stateless:
// any thread may call at once. Both directions raise std::runtime_error: writing an array whose
// message would exceed the Protocol Buffers limit of 2 GiB or a failing stream; reading bytes
// that are not a well-formed array.
#include <quorl/cmddistributor/veldradataarrayserializationservice.hpp>

namespace quorl {
namespace dataarray {

class ProtobufDataArraySerializer : public cmddistributor::VeldraDataArraySerializationService {
public:
    void serializeDataArray(const foundation::extdata::Array& array, std::ostream& out) override;
    foundation::extdata::Array deserializeDataArray(std::istream& in) override;
};

} // namespace dataarray
} // namespace quorl
