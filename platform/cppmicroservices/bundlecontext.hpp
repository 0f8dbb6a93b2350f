#pragma once
// cppmicroservices::BundleContext: a bundle's (or the framework's) access to the framework:
// install bundles, register services, find them. A handle; copies share one context, which
// turns invalid when its bundle stops or the framework stops. Any thread. Operations on an
// invalid context raise std::logic_error; a service interface without a declared identity
// raises ServiceException.
#include <cppmicroservices/any.hpp>
#include <cppmicroservices/bundle.hpp>
#include <cppmicroservices/serviceexception.hpp>
#include <cppmicroservices/serviceinterface.hpp>
#include <cppmicroservices/serviceobjects.hpp>
#include <cppmicroservices/servicereference.hpp>
#include <cppmicroservices/serviceregistration.hpp>

#include <map>
#include <memory>
#include <string>
#include <vector>

namespace cppmicroservices {

namespace detail {
struct ContextData;
}

using ServiceProperties = std::map<std::string, Any>;

class BundleContext {
public:
    BundleContext() = default;
    explicit BundleContext(std::shared_ptr<detail::ContextData> data) : d_(std::move(data)) {}

    explicit operator bool() const;

    // The bundle of this context; invalid for the framework's own context.
    Bundle GetBundle() const;
    std::vector<Bundle> GetBundles() const;
    // Installs the bundle described by a manifest file; a manifest installed before gives the
    // bundle installed then. Bad manifests raise std::runtime_error naming the file and line.
    std::vector<Bundle> InstallBundles(const std::string& location);

    template <class S, class Impl>
    ServiceRegistration<S> RegisterService(const std::shared_ptr<Impl>& service,
                                           const ServiceProperties& properties = {}) {
        std::shared_ptr<S> asInterface = service;
        return ServiceRegistration<S>(
            registerService(checkedId(us_service_interface_iid<S>()), asInterface, properties));
    }

    // The first registered service of the interface still registered; invalid when none.
    template <class S> ServiceReference<S> GetServiceReference() {
        return ServiceReference<S>(GetServiceReference(checkedId(us_service_interface_iid<S>())));
    }
    ServiceReferenceU GetServiceReference(const std::string& interfaceId);

    template <class S> ServiceObjects<S> GetServiceObjects(const ServiceReference<S>& reference) {
        return ServiceObjects<S>(reference);
    }

private:
    static const std::string& checkedId(const std::string& iid) {
        if (iid.empty()) {
            throw ServiceException("The service interface class has no "
                                   "CPPMICROSERVICES_DECLARE_SERVICE_INTERFACE macro");
        }
        return iid;
    }
    ServiceRegistrationBase registerService(const std::string& interfaceId,
                                            std::shared_ptr<void> service,
                                            const ServiceProperties& properties);
    detail::ContextData& data() const;

    std::shared_ptr<detail::ContextData> d_;
};

} // namespace cppmicroservices
