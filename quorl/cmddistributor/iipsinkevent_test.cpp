#include <tests/support/golden.hpp>

#include <quorl/cmddistributor/iipsinkevent.hpp>

#include <gtest/gtest.h>

#include <limits>
#include <memory>

using cmddistributor::IIPSinkEvent;
using foundation::msg_svc::eventmgr::BaseEvent;
using foundation::msg_svc::exchange::IDType;
using quorl_testing::Family;

namespace {

// Records each call; takes at most `limit` units per write.
class CountingBuffer : public std::basic_streambuf<char16_t> {
public:
    explicit CountingBuffer(std::streamsize limit = std::numeric_limits<std::streamsize>::max())
        : limit_(limit) {}
    std::vector<std::streamsize> writes;
    std::u16string text;
    int syncs = 0;

protected:
    std::streamsize xsputn(char16_t const* s, std::streamsize n) override {
        writes.push_back(n);
        std::streamsize const taken = std::min(n, limit_);
        text.append(s, static_cast<std::size_t>(taken));
        return taken;
    }
    int sync() override {
        ++syncs;
        return 0;
    }

private:
    std::streamsize limit_;
};

// Writes an event through a base pointer, as the exchange does.
std::string writeEvent(Family f, BaseEvent const& e) {
    BaseEvent const* p = &e;
    return quorl_testing::write(f, p, "event");
}

} // namespace

TEST(IIPSinkEvent, WritesItsTextAndSyncs) {
    IDType const iip(4, 77);
    IIPSinkEvent const empty(iip, quorl::io::OutputStream, static_cast<char16_t const*>(nullptr));
    CountingBuffer buffer;
    EXPECT_EQ(empty.write(buffer), 0);
    EXPECT_EQ(buffer.writes, std::vector<std::streamsize>{0}) << "an empty text is still written";
    EXPECT_EQ(buffer.syncs, 1);

    IIPSinkEvent const text(iip, quorl::io::ErrorStream, u"caf\u00e9\n");
    EXPECT_EQ(text.write(buffer), 5);
    EXPECT_EQ(buffer.text, u"caf\u00e9\n");
    EXPECT_EQ(buffer.syncs, 2);
    CountingBuffer narrow(2);
    EXPECT_EQ(text.write(narrow), 2) << "what sputn took, not the length";
    EXPECT_EQ(narrow.syncs, 1);

    EXPECT_TRUE(text.isKindOf(u"cmddistributor::IIPSinkEvent"));
    EXPECT_TRUE(text.isKindOf(u"foundation::msg_svc::eventmgr::BaseEvent"));
    std::unique_ptr<BaseEvent> copy(text.clone());
    EXPECT_TRUE(*copy == text);
    EXPECT_FALSE(*copy == IIPSinkEvent(iip, quorl::io::OutputStream, text.getText()));
    EXPECT_FALSE(*copy == IIPSinkEvent(IDType(4, 78), quorl::io::ErrorStream, text.getText()));
    EXPECT_FALSE(*copy == IIPSinkEvent(iip, quorl::io::ErrorStream, u"caf\u00e9"));
}

// Equality covers the id, the stream and the text (see above), so comparing what was read with
// the original checks every field, in each of the six archives. (Characters that XML escapes are
// shown to cross by the text serialization test.)
TEST(IIPSinkEvent, ReadsAndWritesItsGoldenArchives) {
    IIPSinkEvent const expected(IDType(1234567, 1001), quorl::io::ErrorStream,
                                u"l\u00e4uft \U0001F600\r\n");
    // The byte-exact XML also fixes every element name of the wire form.
    quorl_testing::expectGoldens<BaseEvent>("iipsinkevent/iipsinkevent_v1", expected, "event");
}

TEST(IIPSinkEvent, TruncatedBinaryArchivesAreErrors) {
    // Binary archives only: the text reader of wide strings does not notice an end of input
    // inside the characters, and the XML reader ends the process when the closing tags are
    // missing (its destructor throws).
    std::string const bytes = writeEvent(
        Family::Binary, IIPSinkEvent(IDType(3, 4), quorl::io::OutputStream, u"some text"));
    for (std::size_t cut = 0; cut < bytes.size(); ++cut) {
        BaseEvent* back = nullptr;
        EXPECT_THROW(quorl_testing::read(Family::Binary, bytes.substr(0, cut), back, "event"),
                     boost::archive::archive_exception)
            << "cut at " << cut;
        delete back;
    }
}

TEST(IIPSinkEventDeathTest, TextLongerThanAStreamCanTakeEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    CountingBuffer buffer;
    char16_t const unit = u'x';
    std::uint64_t const tooLong =
        static_cast<std::uint64_t>(std::numeric_limits<std::streamsize>::max()) + 1;
    EXPECT_DEATH(cmddistributor::detail::writeUnits(buffer, &unit, tooLong),
                 "positive overflow.*\n"
                 "cmddistributor/iipsinkevent: buffer size is larger than streamsize allows\\.");
    // A length that fits is written as usual.
    CountingBuffer one;
    EXPECT_EQ(cmddistributor::detail::writeUnits(one, &unit, 1), 1);
}
