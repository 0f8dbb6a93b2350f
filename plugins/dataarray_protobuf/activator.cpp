// Bundle entry: registers the Protocol Buffers data-array serializer while the bundle is active.
#include "protobufdataarrayserializer.hpp"

#include <cppmicroservices/bundleactivator.hpp>

namespace {

class Activator : public cppmicroservices::BundleActivator {
public:
    void Start(cppmicroservices::BundleContext context) override {
        context.RegisterService<quorl::cmddistributor::VeldraDataArraySerializationService>(
            std::make_shared<quorl::dataarray::ProtobufDataArraySerializer>());
    }
    void Stop(cppmicroservices::BundleContext) override {
        // The framework withdraws the bundle's services itself.
    }
};

} // namespace

CPPMICROSERVICES_EXPORT_BUNDLE_ACTIVATOR(Activator)
