#pragma once
// Where the platform libraries are installed.
#include <fl/i18n/ustring.hpp>

namespace fl {
namespace filesystem {

// The installation root: the folder that holds the platform libraries' folder (for
// <prefix>/lib/libzni18n.so it is <prefix>). Found from the loaded library's own file, so it is
// right wherever the package was unpacked. Thread-safe; computed once.
ustring get_install_path();

// The folder that holds the loaded platform libraries themselves.
ustring get_library_path();

} // namespace filesystem
} // namespace fl
