#include <foundation/core/io/streambufadaptor.hpp>

#include <boost/locale/encoding.hpp>
#include <boost/locale/encoding_utf.hpp>

#include <algorithm>
#include <stdexcept>

namespace foundation {
namespace core {
namespace io {

namespace {

class Utf8Adaptor : public std::basic_streambuf<char> {
public:
    explicit Utf8Adaptor(boost::shared_ptr<std::basic_streambuf<char16_t>> target)
        : target_(std::move(target)) {
        setp(buffer_, buffer_ + sizeof(buffer_));
    }
    ~Utf8Adaptor() override {
        try {
            drain(true);
        } catch (...) {
        }
    }

protected:
    int_type overflow(int_type ch) override {
        if (!drain(false))
            return traits_type::eof();
        if (!traits_type::eq_int_type(ch, traits_type::eof())) {
            *pptr() = traits_type::to_char_type(ch);
            pbump(1);
        }
        return traits_type::not_eof(ch);
    }

    std::streamsize xsputn(char const* s, std::streamsize n) override {
        // Large writes skip the put area.
        if (n > static_cast<std::streamsize>(sizeof(buffer_)) / 2) {
            if (!drain(false))
                return 0;
            pending_.append(s, static_cast<std::size_t>(n));
            if (!decodePending(false))
                return 0;
            return n;
        }
        return std::basic_streambuf<char>::xsputn(s, n);
    }

    int sync() override {
        if (!drain(true))
            return -1;
        return target_->pubsync();
    }

private:
    // Moves the put area into `pending_` and decodes what is complete.
    bool drain(bool flushPartial) {
        if (pptr() != pbase()) {
            pending_.append(pbase(), static_cast<std::size_t>(pptr() - pbase()));
            setp(buffer_, buffer_ + sizeof(buffer_));
        }
        return decodePending(flushPartial);
    }

    // Length of the longest prefix of `pending_` that ends on a character boundary.
    std::size_t completePrefix() const {
        std::size_t n = pending_.size();
        std::size_t back = 0;
        while (back < 3 && back < n &&
               (static_cast<unsigned char>(pending_[n - 1 - back]) & 0xC0) == 0x80)
            ++back;
        if (back < n) {
            unsigned lead = static_cast<unsigned char>(pending_[n - 1 - back]);
            std::size_t len = lead < 0x80             ? 1
                              : (lead & 0xE0) == 0xC0 ? 2
                              : (lead & 0xF0) == 0xE0 ? 3
                              : (lead & 0xF8) == 0xF0 ? 4
                                                      : 1;
            if (len > back + 1)
                return n - 1 - back; // the last character is incomplete
        }
        return n;
    }

    bool decodePending(bool flushPartial) {
        if (pending_.empty())
            return true;
        std::size_t cut = flushPartial ? pending_.size() : completePrefix();
        if (cut == 0)
            return true;
        std::u16string out;
        out.reserve(cut);
        char const* p = pending_.data();
        char const* e = p + cut;
        while (p < e) {
            auto cp = boost::locale::utf::utf_traits<char>::decode(p, e);
            if (cp == boost::locale::utf::illegal || cp == boost::locale::utf::incomplete) {
                cp = 0xFFFD;
                ++p;
            }
            boost::locale::utf::utf_traits<char16_t>::encode(cp, std::back_inserter(out));
        }
        pending_.erase(0, cut);
        auto n = static_cast<std::streamsize>(out.size());
        return target_->sputn(out.data(), n) == n;
    }

    boost::shared_ptr<std::basic_streambuf<char16_t>> target_;
    std::string pending_; // bytes taken from the put area, not yet passed on
    char buffer_[512];
};

class CharsetAdaptor : public std::basic_streambuf<char> {
public:
    CharsetAdaptor(boost::shared_ptr<std::basic_streambuf<char16_t>> target, std::string charset)
        : target_(std::move(target)), charset_(std::move(charset)) {}

protected:
    int_type overflow(int_type ch) override {
        if (traits_type::eq_int_type(ch, traits_type::eof()))
            return traits_type::not_eof(ch);
        char c = traits_type::to_char_type(ch);
        return xsputn(&c, 1) == 1 ? ch : traits_type::eof();
    }
    std::streamsize xsputn(char const* s, std::streamsize n) override {
        std::wstring wide = boost::locale::conv::to_utf<wchar_t>(s, s + n, charset_);
        std::u16string out = boost::locale::conv::utf_to_utf<char16_t>(wide);
        auto m = static_cast<std::streamsize>(out.size());
        return target_->sputn(out.data(), m) == m ? n : 0;
    }
    int sync() override { return target_->pubsync(); }

private:
    boost::shared_ptr<std::basic_streambuf<char16_t>> target_;
    std::string charset_;
};

bool isUtf8(std::string const& encoding) {
    std::string e;
    for (char c : encoding) {
        if (c != '-' && c != '_')
            e.push_back(static_cast<char>(std::tolower(static_cast<unsigned char>(c))));
    }
    return e.empty() || e == "utf8";
}

} // namespace

boost::shared_ptr<std::basic_streambuf<char>>
make_streambuf_adaptor(boost::shared_ptr<std::basic_streambuf<char16_t>> const& target,
                       std::string const& encoding) {
    if (!target)
        throw std::invalid_argument("make_streambuf_adaptor: null target buffer");
    if (isUtf8(encoding))
        return boost::shared_ptr<std::basic_streambuf<char>>(new Utf8Adaptor(target));
    try {
        (void)boost::locale::conv::to_utf<wchar_t>("a", encoding);
    } catch (boost::locale::conv::invalid_charset_error const&) {
        throw std::invalid_argument("make_streambuf_adaptor: unknown encoding \"" + encoding +
                                    "\"");
    }
    return boost::shared_ptr<std::basic_streambuf<char>>(new CharsetAdaptor(target, encoding));
}

} // namespace io
} // namespace core
} // namespace foundation
