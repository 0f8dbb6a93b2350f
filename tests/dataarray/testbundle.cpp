// A stand-in data-array serializer bundle: it writes its own name, so a test can tell which
// bundle's service the lookup found.
#include <quorl/cmddistributor/veldradataarrayserializationservice.hpp>

#include <cppmicroservices/bundleactivator.hpp>

namespace {

class NamingSerializer : public quorl::cmddistributor::VeldraDataArraySerializationService {
public:
    void serializeDataArray(const foundation::extdata::Array&, std::ostream& out) override {
        out << TEST_BUNDLE_NAME;
    }
    foundation::extdata::Array deserializeDataArray(std::istream&) override {
        return foundation::extdata::Array::createChar(u"" TEST_BUNDLE_NAME);
    }
};

class Activator : public cppmicroservices::BundleActivator {
public:
    void Start(cppmicroservices::BundleContext context) override {
        context.RegisterService<quorl::cmddistributor::VeldraDataArraySerializationService>(
            std::make_shared<NamingSerializer>());
    }
    void Stop(cppmicroservices::BundleContext) override {}
};

} // namespace

CPPMICROSERVICES_EXPORT_BUNDLE_ACTIVATOR(Activator)
