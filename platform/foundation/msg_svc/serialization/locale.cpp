// XML archives turn wide strings into narrow text with the C library's multibyte conversion,
// which follows LC_CTYPE. Under the "C" locale every character beyond ASCII fails to convert,
// so 16-bit text could not cross an XML archive. When the program has not chosen a character
// locale, the library chooses UTF-8 for LC_CTYPE (only that category) at load.
#include <clocale>
#include <cstring>

namespace {
struct Utf8CharacterLocale {
    Utf8CharacterLocale() {
        char const* current = std::setlocale(LC_CTYPE, nullptr);
        if (current && (std::strcmp(current, "C") == 0 || std::strcmp(current, "POSIX") == 0)) {
            if (!std::setlocale(LC_CTYPE, "C.UTF-8"))
                std::setlocale(LC_CTYPE, "C.utf8");
        }
    }
};
Utf8CharacterLocale const utf8CharacterLocale;
} // namespace
