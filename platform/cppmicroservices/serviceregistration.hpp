#pragma once
// cppmicroservices::ServiceRegistration: the registering bundle's handle to a service it
// registered. Unregister withdraws the service: references turn invalid and GetService gives
// null; objects already handed out stay usable. Any thread; Unregister twice is harmless.
#include <cppmicroservices/servicereference.hpp>

#include <memory>

namespace cppmicroservices {

class ServiceRegistrationBase {
public:
    ServiceRegistrationBase() = default;
    ServiceRegistrationBase(std::shared_ptr<detail::RegistrationData> data, std::string iid)
        : d_(std::move(data)), iid_(std::move(iid)) {}

    explicit operator bool() const { return static_cast<bool>(d_); }
    void Unregister();
    ServiceReferenceBase GetReference() const { return ServiceReferenceBase(d_, iid_); }

private:
    std::shared_ptr<detail::RegistrationData> d_;
    std::string iid_;
};

template <class S> class ServiceRegistration : public ServiceRegistrationBase {
public:
    ServiceRegistration() = default;
    explicit ServiceRegistration(ServiceRegistrationBase base)
        : ServiceRegistrationBase(std::move(base)) {}
    ServiceReference<S> GetReference() const {
        return ServiceReference<S>(ServiceRegistrationBase::GetReference());
    }
};

} // namespace cppmicroservices
