#pragma once
// KernelSpec: the Jupyter kernel spec of quorl-kernel (kernel.json: how Jupyter starts the
// kernel, its language "quorl", interrupts by message) and its registration in a Jupyter data
// directory: the user's, a prefix's, or the system's.
//
// Plain functions of values; any thread. install throws std::runtime_error when the folder or
// the file cannot be written.
#include <string>
#include <vector>

namespace quorl {
namespace kernel {

class KernelSpec {
public:
    enum class Location { System, User, Prefix };

    // kernel.json's text for a kernel started as `program` with `extraArgs` before "-f".
    static std::string json(std::string const& program, std::vector<std::string> const& extraArgs);
    // The kernels/quorl folder of a location (`prefix` only for Prefix).
    static std::string folder(Location location, std::string const& prefix);
    // Writes kernel.json into the location's folder and returns the folder.
    static std::string install(Location location, std::string const& prefix,
                               std::string const& program,
                               std::vector<std::string> const& extraArgs);
};

} // namespace kernel
} // namespace quorl
