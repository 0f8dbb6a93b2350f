#pragma once
// cppmicroservices::ServiceReference: a handle to one registered service, as found by
// BundleContext::GetServiceReference. Copies share it; a default one is invalid, and a reference
// turns invalid when its service is unregistered. Any thread. GetBundle and GetProperty on an
// invalid reference give empty results.
#include <cppmicroservices/any.hpp>
#include <cppmicroservices/bundle.hpp>

#include <memory>
#include <string>

namespace cppmicroservices {

namespace detail {
struct RegistrationData;
}

class ServiceReferenceBase {
public:
    ServiceReferenceBase() = default;
    ServiceReferenceBase(std::shared_ptr<detail::RegistrationData> data, std::string interfaceId)
        : d_(std::move(data)), interfaceId_(std::move(interfaceId)) {}

    explicit operator bool() const;
    // The identity of the interface the reference was looked up for.
    const std::string& GetInterfaceId() const { return interfaceId_; }
    Any GetProperty(const std::string& key) const;
    Bundle GetBundle() const;

    const std::shared_ptr<detail::RegistrationData>& data() const { return d_; }

private:
    std::shared_ptr<detail::RegistrationData> d_;
    std::string interfaceId_;
};

template <class S> class ServiceReference : public ServiceReferenceBase {
public:
    ServiceReference() = default;
    explicit ServiceReference(ServiceReferenceBase base) : ServiceReferenceBase(std::move(base)) {}
};

using ServiceReferenceU = ServiceReferenceBase;

} // namespace cppmicroservices
