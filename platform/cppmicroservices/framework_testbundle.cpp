// A bundle for the framework tests: registers a TestGreeter, with a service property.
#include "framework_testbundle.hpp"

#include <cppmicroservices/bundleactivator.hpp>

namespace {

struct Greeter : TestGreeter {
    std::string greet() const override { return "hello from the bundle"; }
};

class Activator : public cppmicroservices::BundleActivator {
public:
    void Start(cppmicroservices::BundleContext context) override {
        context.RegisterService<TestGreeter>(std::make_shared<Greeter>(),
                                             {{"language", std::string("en")}});
    }
    void Stop(cppmicroservices::BundleContext) override {}
};

} // namespace

CPPMICROSERVICES_EXPORT_BUNDLE_ACTIVATOR(Activator)
