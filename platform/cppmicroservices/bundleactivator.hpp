#pragma once
// cppmicroservices::BundleActivator: what a bundle's library runs when the bundle starts and
// stops, typically to register its services. One instance per start, made by the library's
// exported factory (CPPMICROSERVICES_EXPORT_BUNDLE_ACTIVATOR) and owned by the framework.
// Called on the thread that starts or stops the bundle; what it throws reaches that caller.
#include <cppmicroservices/bundlecontext.hpp>

namespace cppmicroservices {

class BundleActivator {
public:
    virtual ~BundleActivator() = default;
    virtual void Start(BundleContext context) = 0;
    virtual void Stop(BundleContext context) = 0;
};

} // namespace cppmicroservices

// The symbol that the framework looks up in a bundle's library.
#define CPPMICROSERVICES_ACTIVATOR_SYMBOL "zn_bundle_create_activator"

// Exports the factory of a bundle's activator; use once in the bundle's library.
#define CPPMICROSERVICES_EXPORT_BUNDLE_ACTIVATOR(Type)                                             \
    extern "C" __attribute__((visibility("default"))) ::cppmicroservices::BundleActivator*         \
    zn_bundle_create_activator() {                                                                 \
        return new Type();                                                                         \
    }
