#include <fl/i18n/conversions.hpp>

#include <boost/locale/encoding_utf.hpp>

#include <cstdlib>
#include <stdexcept>

namespace fl {
namespace i18n {

namespace conv = boost::locale::conv;

namespace {
// Boost.Locale says only "Conversion failed"; say what was being converted.
template <class To, class From>
std::basic_string<To> strict(std::basic_string<From> const& text, char const* what) {
    try {
        return conv::utf_to_utf<To>(text, conv::stop);
    } catch (conv::conversion_error const&) {
        throw std::runtime_error(std::string("malformed ") + what + " text (" +
                                 std::to_string(text.size()) + " units)");
    }
}
} // namespace

std::string to_string(ustring const& text) {
    return strict<char>(text, "UTF-16");
}

std::string to_string(std::wstring const& text) {
    return strict<char>(text, "wide");
}

ustring to_ustring(std::string const& utf8) {
    return strict<char16_t>(utf8, "UTF-8");
}

ustring to_ustring(char const* utf8) {
    return utf8 ? to_ustring(std::string(utf8)) : ustring();
}

ustring to_ustring(std::wstring const& text) {
    return strict<char16_t>(text, "wide");
}

std::wstring to_wstring(ustring const& text) {
    return strict<wchar_t>(text, "UTF-16");
}

std::wstring to_wstring(std::string const& utf8) {
    return strict<wchar_t>(utf8, "UTF-8");
}

ustring getenv(std::string const& name) {
    char const* value = std::getenv(name.c_str());
    return value ? to_ustring(std::string(value)) : ustring();
}

ustring getenv(ustring const& name) {
    return getenv(to_string(name));
}

ustring codecvt_ascii_to_ustring::operator()(char const* begin, char const* end) const {
    ustring out;
    out.reserve(static_cast<std::size_t>(end - begin));
    for (char const* p = begin; p != end; ++p) {
        auto byte = static_cast<unsigned char>(*p);
        if (byte > 0x7F) {
            throw std::runtime_error("non-ASCII byte in ASCII text at offset " +
                                     std::to_string(p - begin));
        }
        out.push_back(static_cast<char16_t>(byte));
    }
    return out;
}

// Boost.Locale and ICU have no modified UTF-8 decoder: the two-byte NUL and the 3-byte
// surrogate halves are exactly what a standard decoder must reject, so this one is ours.
ustring codecvt_modified_utf8_to_ustring::operator()(char const* begin, char const* end) const {
    ustring out;
    out.reserve(static_cast<std::size_t>(end - begin));
    auto fail = [&](char const* at) {
        throw std::runtime_error("malformed modified UTF-8 at offset " +
                                 std::to_string(at - begin));
    };
    auto cont = [&](char const* at) -> unsigned {
        if (at >= end || (static_cast<unsigned char>(*at) & 0xC0) != 0x80)
            fail(at);
        return static_cast<unsigned char>(*at) & 0x3F;
    };
    for (char const* p = begin; p < end;) {
        unsigned b0 = static_cast<unsigned char>(*p);
        if (b0 < 0x80) {
            out.push_back(static_cast<char16_t>(b0));
            p += 1;
        } else if ((b0 & 0xE0) == 0xC0) {
            unsigned cp = ((b0 & 0x1F) << 6) | cont(p + 1);
            if (cp < 0x80 && cp != 0)
                fail(p); // overlong, except the two-byte NUL
            out.push_back(static_cast<char16_t>(cp));
            p += 2;
        } else if ((b0 & 0xF0) == 0xE0) {
            unsigned cp = ((b0 & 0x0F) << 12) | (cont(p + 1) << 6) | cont(p + 2);
            if (cp < 0x800)
                fail(p);
            out.push_back(static_cast<char16_t>(cp)); // surrogate halves pass through as units
            p += 3;
        } else if ((b0 & 0xF8) == 0xF0) {
            unsigned cp =
                ((b0 & 0x07) << 18) | (cont(p + 1) << 12) | (cont(p + 2) << 6) | cont(p + 3);
            if (cp < 0x10000 || cp > 0x10FFFF)
                fail(p);
            cp -= 0x10000;
            out.push_back(static_cast<char16_t>(0xD800 + (cp >> 10)));
            out.push_back(static_cast<char16_t>(0xDC00 + (cp & 0x3FF)));
            p += 4;
        } else {
            fail(p);
        }
    }
    return out;
}

namespace {
std::size_t encodeUtf8(char32_t cp, char* out) {
    if (cp < 0x80) {
        out[0] = static_cast<char>(cp);
        return 1;
    }
    if (cp < 0x800) {
        out[0] = static_cast<char>(0xC0 | (cp >> 6));
        out[1] = static_cast<char>(0x80 | (cp & 0x3F));
        return 2;
    }
    if (cp < 0x10000) {
        out[0] = static_cast<char>(0xE0 | (cp >> 12));
        out[1] = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out[2] = static_cast<char>(0x80 | (cp & 0x3F));
        return 3;
    }
    out[0] = static_cast<char>(0xF0 | (cp >> 18));
    out[1] = static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
    out[2] = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out[3] = static_cast<char>(0x80 | (cp & 0x3F));
    return 4;
}
} // namespace

std::size_t stream_converter::convert(char* out, char* outEnd, char16_t const*& in,
                                      char16_t const* inEnd) {
    auto isHigh = [](char16_t u) { return u >= 0xD800 && u <= 0xDBFF; };
    auto isLow = [](char16_t u) { return u >= 0xDC00 && u <= 0xDFFF; };
    auto combine = [](char16_t hi, char16_t lo) {
        return static_cast<char32_t>(0x10000 + ((hi - 0xD800) << 10) + (lo - 0xDC00));
    };
    char* const start = out;
    while (in != inEnd) {
        char16_t unit = *in;
        char16_t const* next = in + 1;
        char32_t cp;
        if (pendingHigh_) {
            if (isLow(unit)) {
                cp = combine(pendingHigh_, unit);
            } else {
                cp = 0xFFFD; // the held high half had no partner; `unit` is handled next
                next = in;
            }
        } else if (isHigh(unit)) {
            if (next == inEnd) {
                pendingHigh_ = unit; // wait for the low half in the next call
                in = next;
                break;
            }
            if (isLow(*next)) {
                cp = combine(unit, *next);
                ++next;
            } else {
                cp = 0xFFFD;
            }
        } else {
            cp = isLow(unit) ? 0xFFFD : unit;
        }
        std::size_t need = cp < 0x80 ? 1 : cp < 0x800 ? 2 : cp < 0x10000 ? 3 : 4;
        if (static_cast<std::size_t>(outEnd - out) < need)
            break;
        out += encodeUtf8(cp, out);
        pendingHigh_ = 0;
        in = next;
    }
    return static_cast<std::size_t>(out - start);
}

} // namespace i18n
} // namespace fl
