#include <mutex>
#include <quorl/utils/processutils.hpp>

#include <fl/filesystem/installpath.hpp>
#include <fl/i18n/conversions.hpp>
#include <fl/i18n/messagecatalog.hpp>
#include <foundation/msg_svc/shutdown/shutdown.hpp>

#include <boost/thread/once.hpp>
#include <boost/tokenizer.hpp>

#ifndef QUORL_VERSION_STRING
#define QUORL_VERSION_STRING "0.0.0.0"
#endif

char const* const quorl_version = QUORL_VERSION_STRING;
char const* const quorl_build_date = __DATE__;
char const* const quorl_relative_path = "lib/libquorl.so";

bool DllMain(void*, unsigned long reason, void* reserved) {
    if (reason == 0)
        foundation::msg_svc::shutdown::setProcessTerminating(reserved != nullptr);
    return true;
}

namespace {
// Runs when the library is unloaded: at process exit, or by dlclose before it.
__attribute__((destructor)) void quorlUnloadHook() {
    bool const exiting = foundation::msg_svc::shutdown::processExitStarted();
    DllMain(nullptr, 0, exiting ? reinterpret_cast<void*>(1) : nullptr);
}
} // namespace

namespace quorl {
namespace PnP {

std::u16string convertToUString(std::string const& text) {
    fl::i18n::codecvt_ascii_to_ustring cvt;
    return fl::i18n::converter(cvt, text);
}

} // namespace PnP

namespace utils {

namespace {
std::once_flag catalogOnce;
}

void initMessageCatalog(std::vector<std::u16string> const& resourceLocations) {
    std::call_once(catalogOnce, [&resourceLocations] {
        std::vector<ustring> locations;
        std::string const env =
            fl::i18n::to_string(fl::i18n::getenv("VELDRA_ADDITIONAL_RESOURCE_LOCATIONS"));
        if (!env.empty()) {
            boost::char_separator<char> sep(";");
            boost::tokenizer<boost::char_separator<char>> tokens(env, sep);
            for (auto const& t : tokens)
                locations.push_back(fl::i18n::to_ustring(t));
        }
        locations.insert(locations.end(), resourceLocations.begin(), resourceLocations.end());
        locations.push_back(fl::filesystem::get_install_path());
        fl::i18n::MessageCatalog::MessageCatalogInit(locations);
    });
}

} // namespace utils
} // namespace quorl
