#include <mutex>
#include <quorl/cmddistributor/veldradataarrayserializationservice.hpp>

#include <cppmicroservices/bundlecontext.hpp>
#include <foundation/cppmicroservices/framework.hpp>

#include <boost/thread/once.hpp>

namespace quorl {
namespace cmddistributor {

namespace {

std::once_flag installOnce;

// Installs the plug-in folder and starts the first bundle made for data arrays and Protocol
// Buffers; the others are neither started nor looked at.
void installSerializerPlugins() {
    // The plug-in folder, relative: the framework resolves it under the installation root.
    auto folder = boost::filesystem::path(L"bin") / L"win64" / L"serializer_plugins";
    auto bundles = foundation::cppmicroservices::install(folder);
    for (auto& bundle : bundles) {
        if (bundle.GetProperty("zn.serialization.for_type").ToString() ==
                "foundation::extdata::Array" &&
            bundle.GetProperty("zn.serialization.method").ToString() == "protobuf") {
            bundle.Start();
            break;
        }
    }
}

} // namespace

std::shared_ptr<VeldraDataArraySerializationService> getVeldraDataArraySerializationService() {
    std::shared_ptr<VeldraDataArraySerializationService> result;
    auto framework = foundation::cppmicroservices::getFramework();
    if (!framework) {
        return result;
    }
    std::call_once(installOnce, &installSerializerPlugins);
    auto context = framework->GetBundleContext();
    if (!context) {
        return result;
    }
    auto reference = context.GetServiceReference<VeldraDataArraySerializationService>();
    if (!reference) {
        return result;
    }
    result = context.GetServiceObjects(reference).GetService();
    return result;
}

} // namespace cmddistributor
} // namespace quorl
