#pragma once
// quorl::cmddistributor::VeldraDataArraySerializationService: the plug-in service that turns a
// foundation::extdata::Array into bytes and back. The library holds only this interface and
// the lookup; a bundle in the plug-in folder provides the implementation, and the byte format is
// that bundle's. The lookup owns nothing: each call returns a fresh shared pointer from the
// framework, which keeps the bundle loaded while it lives.
//
// Threads: the lookup may be called from any thread; the install step runs once per process.
// Errors: implementations raise std::runtime_error for arrays they cannot write or bytes they
// cannot read; the lookup passes on what installing or starting a bundle raises, and otherwise
// reports a missing service as null.
#include <foundation/extdata/array.hpp>

#include <cppmicroservices/serviceinterface.hpp>

#include <istream>
#include <memory>
#include <ostream>

namespace quorl {
namespace cmddistributor {

class VeldraDataArraySerializationService {
public:
    VeldraDataArraySerializationService() = default;
    VeldraDataArraySerializationService(const VeldraDataArraySerializationService&) = default;
    VeldraDataArraySerializationService&
    operator=(const VeldraDataArraySerializationService&) = default;

    virtual void serializeDataArray(const foundation::extdata::Array& array, std::ostream& out) = 0;
    virtual foundation::extdata::Array deserializeDataArray(std::istream& in) = 0;
    virtual ~VeldraDataArraySerializationService() = default;
};

// The service of the first bundle in the plug-in folder made for foundation::extdata::Array and
// Protocol Buffers; null when the process runs no plug-in framework or no such service exists.
std::shared_ptr<VeldraDataArraySerializationService> getVeldraDataArraySerializationService();

} // namespace cmddistributor
} // namespace quorl

CPPMICROSERVICES_DECLARE_SERVICE_INTERFACE(
    quorl::cmddistributor::VeldraDataArraySerializationService,
    "quorl::cmddistributor::VeldraDataArraySerializationService")
