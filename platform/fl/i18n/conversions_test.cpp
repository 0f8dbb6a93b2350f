#include <fl/i18n/conversions.hpp>
#include <tests/support/errorof.hpp>

#include <gtest/gtest.h>

#include <cstdlib>
#include <stdexcept>

using namespace fl::i18n;

TEST(Conversions, RoundTripsBetweenAllForms) {
    // ASCII, two-, three- and four-byte UTF-8 (a surrogate pair in UTF-16).
    std::string const utf8 = "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80";
    ustring const u = to_ustring(utf8);
    ASSERT_EQ(u.size(), 5u);
    EXPECT_EQ(u[1], u'\u00e9');
    EXPECT_EQ(u[3], 0xD83D);
    EXPECT_EQ(u[4], 0xDE00);
    EXPECT_EQ(to_string(u), utf8);
    std::wstring const w = to_wstring(u);
    ASSERT_EQ(w.size(), 4u);
    EXPECT_EQ(static_cast<unsigned>(w[3]), 0x1F600u);
    EXPECT_EQ(to_ustring(w), u);
    EXPECT_EQ(to_string(w), utf8);
    EXPECT_EQ(to_ustring(std::string()), ustring());
}

TEST(Conversions, MalformedInputIsAnError) {
    EXPECT_THROW(to_ustring(std::string("\xC3")), std::runtime_error);
    EXPECT_THROW(to_ustring(std::string("\xFF\xFE")), std::runtime_error);
    EXPECT_THROW(to_string(ustring(1, char16_t(0xD800))), std::runtime_error);
    EXPECT_EQ(quorl_testing::errorOf<std::runtime_error>([] { to_ustring(std::string("ab\xC3")); }),
              "malformed UTF-8 text (3 units)");
}

TEST(Conversions, AsciiCodecvtRejectsHighBytes) {
    EXPECT_EQ(converter(codecvt_ascii_to_ustring(), std::string("plain")), u"plain");
    EXPECT_THROW(converter(codecvt_ascii_to_ustring(), std::string("caf\xC3\xA9")),
                 std::runtime_error);
}

TEST(Conversions, ModifiedUtf8) {
    codecvt_modified_utf8_to_ustring cvt;
    // Two-byte NUL, and U+1F600 as two 3-byte surrogate halves.
    std::string const m("x\xC0\x80y\xED\xA0\xBD\xED\xB8\x80", 10);
    ustring const u = converter(cvt, m);
    ASSERT_EQ(u.size(), 5u);
    EXPECT_EQ(u[1], 0);
    EXPECT_EQ(u[3], 0xD83D);
    EXPECT_EQ(u[4], 0xDE00);
    // A standard four-byte sequence gives the same units.
    EXPECT_EQ(converter(cvt, std::string("\xF0\x9F\x98\x80")), u.substr(3));
    EXPECT_THROW(converter(cvt, std::string("\xE2\x82")), std::runtime_error);
    EXPECT_THROW(converter(cvt, std::string("\xC1\x81")), std::runtime_error); // overlong
}

TEST(Conversions, StreamConverterFillsSmallBuffersAndKeepsSplitPairs) {
    ustring const text = u"ab\u20ac\U0001F600z";
    std::string const expected = to_string(text);
    for (std::size_t cap : {1u, 2u, 3u, 4u, 5u, 64u}) {
        stream_converter conv;
        std::string out;
        char16_t const* in = text.data();
        char16_t const* end = text.data() + text.size();
        std::string buf(cap, '\0');
        // Feed the text in two calls that split the surrogate pair.
        char16_t const* split = text.data() + 4;
        for (char16_t const* stop : {split, end}) {
            for (;;) {
                std::size_t n = conv.convert(&buf[0], &buf[0] + cap, in, stop);
                if (n == 0)
                    break;
                out.append(buf.data(), n);
            }
        }
        if (cap >= 4)
            EXPECT_EQ(out, expected) << "capacity " << cap;
        else
            EXPECT_EQ(out, expected.substr(0, out.size())) << "capacity " << cap;
    }
    // A lone low surrogate becomes U+FFFD.
    stream_converter conv;
    ustring lone(1, char16_t(0xDC00));
    char16_t const* in = lone.data();
    char buf[8];
    ASSERT_EQ(conv.convert(buf, buf + 8, in, lone.data() + 1), 3u);
    EXPECT_EQ(std::string(buf, 3), "\xEF\xBF\xBD");
}

TEST(Conversions, Getenv) {
    ::setenv("QUORL_I18N_TEST_VAR", "v\xC3\xA9", 1);
    EXPECT_EQ(fl::i18n::getenv("QUORL_I18N_TEST_VAR"), u"v\u00e9");
    EXPECT_EQ(fl::i18n::getenv(u"QUORL_I18N_TEST_VAR"), u"v\u00e9");
    ::unsetenv("QUORL_I18N_TEST_VAR");
    EXPECT_EQ(fl::i18n::getenv("QUORL_I18N_TEST_VAR"), ustring());
}
