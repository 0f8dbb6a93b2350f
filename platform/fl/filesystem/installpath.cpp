#include <fl/filesystem/installpath.hpp>
#include <fl/i18n/conversions.hpp>

#include <boost/dll/runtime_symbol_info.hpp>

namespace fl {
namespace filesystem {

namespace {
boost::filesystem::path libraryDir() {
    static boost::filesystem::path const dir = [] {
        boost::system::error_code ec;
        auto p = boost::dll::this_line_location(ec);
        return ec ? boost::filesystem::current_path() : p.parent_path();
    }();
    return dir;
}
} // namespace

ustring get_library_path() {
    return i18n::to_ustring(libraryDir().string());
}

ustring get_install_path() {
    auto dir = libraryDir();
    auto parent = dir.parent_path();
    return i18n::to_ustring((parent.empty() ? dir : parent).string());
}

} // namespace filesystem
} // namespace fl
