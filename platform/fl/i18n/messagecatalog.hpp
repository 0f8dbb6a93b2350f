#pragma once
// The process's message catalog: message texts by identifier, read from catalog files.
//
// A catalog file is any file named `*.msg` directly inside a location or inside its
// `messages/` folder. Each line is `identifier = text` (UTF-8); blank lines and lines starting
// with '#' are skipped. Texts may hold the holes {0}, {1}, ... that `format` fills.
// Locations are read in order and the first definition of an identifier wins.
//
// Thread-safe: lookups take a shared lock, (re)initialisation an exclusive one.
// Unreadable or missing locations are skipped; a malformed line raises std::runtime_error
// naming the file and the line.
#include <fl/i18n/ustring.hpp>

#include <boost/optional.hpp>

#include <string>
#include <vector>

namespace fl {
namespace i18n {

class MessageCatalog {
public:
    // Replaces the catalog with the messages found in `locations`.
    static void MessageCatalogInit(std::vector<ustring> const& locations);

    // The locations of the last MessageCatalogInit, in order.
    static std::vector<ustring> locations();

    static boost::optional<ustring> lookup(std::string const& id);

    // The message with its holes filled; an unknown id gives the id itself.
    static ustring format(std::string const& id, std::vector<ustring> const& args = {});
};

} // namespace i18n
} // namespace fl
