#pragma once
// foundation::cppmicroservices: the process's plug-in framework. A process has no framework
// until its hosting program starts one; getFramework then gives it to everyone. install puts the
// bundles of a folder into it. All functions are thread-safe. install without a framework raises
// std::logic_error; a bad manifest raises std::runtime_error.
#include <cppmicroservices/bundle.hpp>
#include <cppmicroservices/framework.hpp>

#include <boost/filesystem/path.hpp>

#include <memory>
#include <vector>

namespace foundation {
namespace cppmicroservices {

// The running framework, or null when the process runs none.
std::shared_ptr<::cppmicroservices::Framework> getFramework();

// Starts the process's framework, once; later calls give the running one. Relative bundle
// folders are found under bundleRoot, by default the installation root of the platform
// libraries (fl::filesystem::get_install_path()).
std::shared_ptr<::cppmicroservices::Framework>
startFramework(const boost::filesystem::path& bundleRoot = {});

// Stops the process's framework and forgets it; holders of the old one keep a stopped framework.
void stopFramework();

// Installs every bundle of a folder: each "*.manifest" file there describes one, in the order
// of the file names. A relative folder is taken under the framework's bundle root. A missing
// folder holds no bundles. Bundles installed before are returned as they are.
std::vector<::cppmicroservices::Bundle> install(const boost::filesystem::path& folder);

} // namespace cppmicroservices
} // namespace foundation
