#include <fl/i18n/conversions.hpp>
#include <fl/i18n/messagecatalog.hpp>

#include <boost/filesystem.hpp>
#include <boost/thread/shared_mutex.hpp>

#include <algorithm>
#include <fstream>
#include <stdexcept>
#include <unordered_map>

namespace fl {
namespace i18n {

namespace {
struct Catalog {
    boost::shared_mutex mutex; // guards both members
    std::vector<ustring> locations;
    std::unordered_map<std::string, ustring> messages;
};

Catalog& catalog() {
    static Catalog c;
    return c;
}

std::string trim(std::string const& s) {
    auto b = s.find_first_not_of(" \t\r");
    if (b == std::string::npos)
        return std::string();
    auto e = s.find_last_not_of(" \t\r");
    return s.substr(b, e - b + 1);
}

void readFile(boost::filesystem::path const& file, std::unordered_map<std::string, ustring>& into) {
    std::ifstream in(file.string());
    std::string line;
    for (int lineNo = 1; std::getline(in, line); ++lineNo) {
        std::string t = trim(line);
        if (t.empty() || t[0] == '#')
            continue;
        auto eq = t.find('=');
        if (eq == std::string::npos || trim(t.substr(0, eq)).empty()) {
            throw std::runtime_error("malformed message catalog line " + std::to_string(lineNo) +
                                     " in " + file.string());
        }
        into.emplace(trim(t.substr(0, eq)), to_ustring(trim(t.substr(eq + 1))));
    }
}

void readLocation(boost::filesystem::path const& dir,
                  std::unordered_map<std::string, ustring>& into) {
    boost::system::error_code ec;
    if (!boost::filesystem::is_directory(dir, ec))
        return;
    std::vector<boost::filesystem::path> files;
    for (boost::filesystem::directory_iterator it(dir, ec), end; !ec && it != end;
         it.increment(ec)) {
        if (it->path().extension() == ".msg" && boost::filesystem::is_regular_file(it->path(), ec))
            files.push_back(it->path());
    }
    std::sort(files.begin(), files.end());
    for (auto const& f : files)
        readFile(f, into);
}
} // namespace

void MessageCatalog::MessageCatalogInit(std::vector<ustring> const& locations) {
    std::unordered_map<std::string, ustring> messages;
    for (auto const& loc : locations) {
        boost::filesystem::path dir(to_string(loc));
        readLocation(dir, messages);
        readLocation(dir / "messages", messages);
    }
    Catalog& c = catalog();
    boost::unique_lock<boost::shared_mutex> lock(c.mutex);
    c.locations = locations;
    c.messages.swap(messages);
}

std::vector<ustring> MessageCatalog::locations() {
    Catalog& c = catalog();
    boost::shared_lock<boost::shared_mutex> lock(c.mutex);
    return c.locations;
}

boost::optional<ustring> MessageCatalog::lookup(std::string const& id) {
    Catalog& c = catalog();
    boost::shared_lock<boost::shared_mutex> lock(c.mutex);
    auto it = c.messages.find(id);
    if (it == c.messages.end())
        return boost::none;
    return it->second;
}

ustring MessageCatalog::format(std::string const& id, std::vector<ustring> const& args) {
    auto text = lookup(id);
    if (!text)
        return to_ustring(id);
    ustring out;
    ustring const& t = *text;
    for (std::size_t i = 0; i < t.size(); ++i) {
        if (t[i] == u'{') {
            std::size_t close = t.find(u'}', i);
            if (close != ustring::npos && close > i + 1) {
                std::size_t n = 0;
                bool digits = true;
                for (std::size_t k = i + 1; k < close; ++k) {
                    if (t[k] < u'0' || t[k] > u'9') {
                        digits = false;
                        break;
                    }
                    n = n * 10 + static_cast<std::size_t>(t[k] - u'0');
                }
                if (digits && n < args.size()) {
                    out += args[n];
                    i = close;
                    continue;
                }
            }
        }
        out.push_back(t[i]);
    }
    return out;
}

} // namespace i18n
} // namespace fl
