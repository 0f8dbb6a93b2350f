#pragma once
// cppmicroservices::Framework: the running plug-in framework of a process: its installed
// bundles, its service registry and its own bundle context. Bundle manifests named with a
// relative path are found under the framework's bundle root. Shared by everyone who holds it;
// every operation is thread-safe. Stop stops all active bundles, latest started first, and
// invalidates every context; later calls see no bundles and an invalid context.
#include <cppmicroservices/bundle.hpp>
#include <cppmicroservices/bundlecontext.hpp>

#include <boost/filesystem/path.hpp>

#include <memory>
#include <vector>

namespace cppmicroservices {

namespace detail {
struct CoreData;
}

class Framework {
public:
    explicit Framework(boost::filesystem::path bundleRoot);
    ~Framework();
    Framework(const Framework&) = delete;
    Framework& operator=(const Framework&) = delete;

    BundleContext GetBundleContext() const;
    std::vector<Bundle> GetBundles() const;
    const boost::filesystem::path& GetBundleRoot() const;
    void Stop();

private:
    std::shared_ptr<detail::CoreData> d_;
};

} // namespace cppmicroservices
