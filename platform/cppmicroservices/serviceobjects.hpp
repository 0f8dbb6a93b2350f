#pragma once
// cppmicroservices::ServiceObjects: gives out the service object behind a reference. The object
// is shared: every GetService returns the registered instance, and the returned pointer keeps the
// providing bundle's library loaded while it lives. Any thread. GetService gives null when the
// service was unregistered or the reference is invalid.
#include <cppmicroservices/servicereference.hpp>

#include <memory>

namespace cppmicroservices {

class ServiceObjectsBase {
public:
    explicit ServiceObjectsBase(ServiceReferenceBase reference)
        : reference_(std::move(reference)) {}

    std::shared_ptr<void> GetService() const;
    const ServiceReferenceBase& GetServiceReference() const { return reference_; }

private:
    ServiceReferenceBase reference_;
};

template <class S> class ServiceObjects : private ServiceObjectsBase {
public:
    explicit ServiceObjects(const ServiceReference<S>& reference) : ServiceObjectsBase(reference) {}

    // The service as its interface; registration stored it converted to S*.
    std::shared_ptr<S> GetService() const {
        return std::static_pointer_cast<S>(ServiceObjectsBase::GetService());
    }
    ServiceReference<S> GetServiceReference() const {
        return ServiceReference<S>(ServiceObjectsBase::GetServiceReference());
    }
};

} // namespace cppmicroservices
