// A data-array serializer bundle that can write only double scalars and fails on anything else,
// as the real one fails on an array too large for its message: the road of the 2 GB error is
// then taken with small arrays.
#include <quorl/cmddistributor/veldradataarrayserializationservice.hpp>

#include <cppmicroservices/bundleactivator.hpp>

#include <stdexcept>

namespace {

class ScalarsOnlySerializer : public quorl::cmddistributor::VeldraDataArraySerializationService {
public:
    void serializeDataArray(const foundation::extdata::Array& array, std::ostream& out) override {
        if (array.getType() != foundation::extdata::DOUBLE || array.getNumberOfElements() != 1)
            throw std::runtime_error("Data array too large for this serializer.");
        double const value = array.get<double>(0);
        out.write(reinterpret_cast<const char*>(&value), sizeof value);
    }
    foundation::extdata::Array deserializeDataArray(std::istream& in) override {
        double value = 0;
        if (!in.read(reinterpret_cast<char*>(&value), sizeof value))
            throw std::runtime_error("Invalid data array bytes.");
        return foundation::extdata::Array::createScalar(value);
    }
};

class Activator : public cppmicroservices::BundleActivator {
public:
    void Start(cppmicroservices::BundleContext context) override {
        context.RegisterService<quorl::cmddistributor::VeldraDataArraySerializationService>(
            std::make_shared<ScalarsOnlySerializer>());
    }
    void Stop(cppmicroservices::BundleContext) override {}
};

} // namespace

CPPMICROSERVICES_EXPORT_BUNDLE_ACTIVATOR(Activator)
