#pragma once
// Process-wide services of the library: its identity records, the start of the message catalog,
// an ASCII conversion, and the unload entry point.
#include <fl/i18n/ustring.hpp>

#include <string>
#include <vector>

extern "C" {
// "major.minor.patch.build"
extern char const* const quorl_version;
// The compiler's __DATE__ at build time, e.g. "Nov 21 2026".
extern char const* const quorl_build_date;
// The library file below the installation root, e.g. "lib/libquorl.so".
extern char const* const quorl_relative_path;

// The library's unload entry. For reason 0 (detach) it tells the message service whether the
// whole process is ending (reserved non-null) or only the library is unloaded. Returns true.
// On this platform the library's unload hook calls it.
bool DllMain(void* instance, unsigned long reason, void* reserved);
}

namespace quorl {
namespace PnP {
// Converts ASCII text to ustring; a byte above 0x7F throws std::runtime_error.
std::u16string convertToUString(std::string const& text);
} // namespace PnP

namespace utils {
// Sets up the message catalog once per process: the locations in the environment variable
// VELDRA_ADDITIONAL_RESOURCE_LOCATIONS (';'-separated, empty ones dropped), then
// `resourceLocations`, then the installation path. Later calls are ignored; a call that throws
// leaves the next call free to try again. Thread-safe.
void initMessageCatalog(std::vector<std::u16string> const& resourceLocations);
} // namespace utils
} // namespace quorl
