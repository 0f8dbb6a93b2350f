#include <cpp11compat/u16streams.hpp>

template class std::basic_streambuf<char16_t>;
template class std::basic_stringbuf<char16_t>;

namespace cpp11compat {

u16ostream& write(u16ostream& os, std::u16string const& text) {
    return os.write(text.data(), static_cast<std::streamsize>(text.size()));
}

} // namespace cpp11compat
