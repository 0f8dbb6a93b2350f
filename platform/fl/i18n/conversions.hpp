#pragma once
// Text conversions between the narrow (UTF-8), 16-bit (UTF-16) and wide (UTF-32) forms.
//
// Every function is thread-safe and stateless. Malformed input raises std::runtime_error
// naming what was wrong; nothing is silently dropped.
#include <fl/i18n/ustring.hpp>

#include <cstddef>
#include <locale>
#include <string>

namespace fl {
namespace i18n {

std::string to_string(ustring const& text);
std::string to_string(std::wstring const& text);
ustring to_ustring(std::string const& utf8);
ustring to_ustring(std::wstring const& text);
ustring to_ustring(char const* utf8);
std::wstring to_wstring(ustring const& text);
std::wstring to_wstring(std::string const& utf8);

// Reads an environment variable; unset gives the empty string.
ustring getenv(std::string const& name);
ustring getenv(ustring const& name);

// Converter objects for `converter`: each turns a narrow byte range into ustring.
class codecvt_ascii_to_ustring {
public:
    // Throws std::runtime_error on a byte above 0x7F.
    ustring operator()(char const* begin, char const* end) const;
};

// Modified UTF-8: NUL as C0 80, supplementary characters as two 3-byte surrogates.
// Standard 4-byte sequences are accepted as well.
class codecvt_modified_utf8_to_ustring {
public:
    ustring operator()(char const* begin, char const* end) const;
};

template <class Codecvt> ustring converter(Codecvt const& cvt, std::string const& text) {
    return cvt(text.data(), text.data() + text.size());
}

// UTF-16 <-> UTF-8 facet for narrow streams that carry 16-bit text.
class stream_codecvt_ustring_to_string : public std::codecvt<char16_t, char, std::mbstate_t> {
public:
    explicit stream_codecvt_ustring_to_string(std::size_t refs = 0)
        : std::codecvt<char16_t, char, std::mbstate_t>(refs) {}
    ~stream_codecvt_ustring_to_string() override = default;
};

// Incremental UTF-16 to UTF-8 conversion into a bounded buffer. A surrogate pair split across
// calls is kept until its second half arrives; a lone surrogate becomes U+FFFD.
class stream_converter {
public:
    // Writes into [out, outEnd) as much of [in, inEnd) as fits, advances `in` past what it
    // consumed, and returns the number of bytes written (0 when nothing more can be done).
    std::size_t convert(char* out, char* outEnd, char16_t const*& in, char16_t const* inEnd);

private:
    char16_t pendingHigh_ = 0;
};

} // namespace i18n
} // namespace fl
