#include <foundation/cppmicroservices/framework.hpp>

#include <fl/filesystem/installpath.hpp>
#include <fl/i18n/conversions.hpp>

#include <boost/filesystem/operations.hpp>

#include <algorithm>
#include <mutex>

namespace foundation {
namespace cppmicroservices {

namespace {
std::mutex frameworkMutex; // guards theFramework
std::shared_ptr<::cppmicroservices::Framework> theFramework;
} // namespace

std::shared_ptr<::cppmicroservices::Framework> getFramework() {
    std::lock_guard<std::mutex> lock(frameworkMutex);
    return theFramework;
}

std::shared_ptr<::cppmicroservices::Framework>
startFramework(const boost::filesystem::path& bundleRoot) {
    std::lock_guard<std::mutex> lock(frameworkMutex);
    if (!theFramework) {
        auto root =
            bundleRoot.empty()
                ? boost::filesystem::path(fl::i18n::to_string(fl::filesystem::get_install_path()))
                : boost::filesystem::absolute(bundleRoot);
        theFramework = std::make_shared<::cppmicroservices::Framework>(root);
    }
    return theFramework;
}

void stopFramework() {
    std::shared_ptr<::cppmicroservices::Framework> old;
    {
        std::lock_guard<std::mutex> lock(frameworkMutex);
        old.swap(theFramework);
    }
    if (old) {
        old->Stop();
    }
}

std::vector<::cppmicroservices::Bundle> install(const boost::filesystem::path& folder) {
    auto framework = getFramework();
    if (!framework) {
        throw std::logic_error("No plug-in framework is running.");
    }
    auto dir = folder.is_relative() ? framework->GetBundleRoot() / folder : folder;
    std::vector<boost::filesystem::path> manifests;
    boost::system::error_code ec;
    if (!boost::filesystem::is_directory(dir, ec)) {
        return {};
    }
    for (boost::filesystem::directory_iterator it(dir, ec), end; !ec && it != end;
         it.increment(ec)) {
        if (it->path().extension() == ".manifest" && boost::filesystem::is_regular_file(*it, ec)) {
            manifests.push_back(it->path());
        }
    }
    if (ec) {
        throw std::runtime_error("Cannot list bundle folder " + dir.string() + ": " + ec.message());
    }
    std::sort(manifests.begin(), manifests.end());
    std::vector<::cppmicroservices::Bundle> bundles;
    auto context = framework->GetBundleContext();
    for (auto& m : manifests) {
        for (auto& b : context.InstallBundles(m.string())) {
            bundles.push_back(std::move(b));
        }
    }
    return bundles;
}

} // namespace cppmicroservices
} // namespace foundation
