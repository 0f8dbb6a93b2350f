#include <tools/kernel/kernelspec.hpp>

#include <nlohmann/json.hpp>

#include <boost/filesystem.hpp>

#include <cstdlib>
#include <fstream>
#include <stdexcept>

namespace quorl {
namespace kernel {

namespace fs = boost::filesystem;

namespace {

std::string env(char const* name) {
    char const* v = std::getenv(name);
    return v == nullptr ? std::string() : std::string(v);
}

} // namespace

std::string KernelSpec::json(std::string const& program,
                             std::vector<std::string> const& extraArgs) {
    nlohmann::json argv = nlohmann::json::array({program});
    for (auto const& a : extraArgs) {
        argv.push_back(a);
    }
    argv.push_back("-f");
    argv.push_back("{connection_file}");
    nlohmann::json spec = {{"argv", argv},
                           {"display_name", "quorl"},
                           {"language", "quorl"},
                           {"interrupt_mode", "message"},
                           {"metadata", {{"file_extension", ".qrl"}}}};
    return spec.dump(2) + "\n";
}

std::string KernelSpec::folder(Location location, std::string const& prefix) {
    fs::path base;
    switch (location) {
    case Location::Prefix:
        base = fs::path(prefix) / "share" / "jupyter";
        break;
    case Location::User:
        if (!env("JUPYTER_DATA_DIR").empty()) {
            base = env("JUPYTER_DATA_DIR");
        } else if (!env("XDG_DATA_HOME").empty()) {
            base = fs::path(env("XDG_DATA_HOME")) / "jupyter";
        } else {
            base = fs::path(env("HOME")) / ".local" / "share" / "jupyter";
        }
        break;
    case Location::System:
        base = "/usr/local/share/jupyter";
        break;
    }
    return (base / "kernels" / "quorl").string();
}

std::string KernelSpec::install(Location location, std::string const& prefix,
                                std::string const& program,
                                std::vector<std::string> const& extraArgs) {
    fs::path const dir = folder(location, prefix);
    boost::system::error_code ec;
    fs::create_directories(dir, ec);
    if (ec) {
        throw std::runtime_error("cannot make " + dir.string() + ": " + ec.message());
    }
    fs::path const file = dir / "kernel.json";
    std::ofstream out(file.string(), std::ios::binary | std::ios::trunc);
    out << json(program, extraArgs);
    out.close();
    if (!out) {
        throw std::runtime_error("cannot write " + file.string());
    }
    return dir.string();
}

} // namespace kernel
} // namespace quorl
