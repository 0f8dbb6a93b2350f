#include <quorl/io/sinktraits.hpp>
#include <quorl/io/veldrasink.hpp>

#include <cpp11compat/u16streams.hpp>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <sstream>

using namespace quorl::io;

namespace {

typedef boost::shared_ptr<std::basic_streambuf<char16_t>> U16Buf;

U16Buf newBuffer() {
    return boost::make_shared<std::basic_stringbuf<char16_t>>();
}

std::u16string contents(U16Buf const& b) {
    return static_cast<std::basic_stringbuf<char16_t>&>(*b).str();
}

// A sink whose answers are set by the test; it exposes the protected buffer operations.
class TestSink : public VeldraSink {
public:
    TestSink() = default;
    explicit TestSink(U16Buf const& b) : VeldraSink(b) {}
    using VeldraSink::restoreInitialBuffers;
    using VeldraSink::setUnicodeOutStreamBuffer;
    bool more = false, links = false, display = false, diary = false, echo = false, log = false;
    bool supportsMore() const override { return more; }
    bool supportsHotlinks() const override { return links; }
    bool needsFormattingForDisplay() const override { return display; }
    bool useDiary() const override { return diary; }
    bool useEcho() const override { return echo; }
    bool useLogging() const override { return log; }
};

// Lets the test reach the protected comparison.
struct Traits : SinkTraits {
    using SinkTraits::equalsExceptSupportsMore;
    using SinkTraits::SinkTraits;
    Traits(SinkTraits const& t) : SinkTraits(t) {}
};

} // namespace

TEST(VeldraSink, RedirectionsNestAndRestore) {
    TestSink bare;
    EXPECT_FALSE(bare.usingInitialBuffers());
    EXPECT_FALSE(bare.getUnicodeOutStreamBuffer());
    EXPECT_FALSE(bare.getOutStreamBuffer());
    bare.deactivate(); // nothing to sync, and no failure
    U16Buf a = newBuffer(), b = newBuffer(), c = newBuffer();
    EXPECT_FALSE(bare.setUnicodeOutStreamBuffer(a));
    EXPECT_TRUE(bare.usingInitialBuffers()) << "the first buffer becomes the initial one";
    EXPECT_EQ(bare.setUnicodeOutStreamBuffer(b), a);
    EXPECT_FALSE(bare.usingInitialBuffers());
    EXPECT_EQ(bare.restoreInitialBuffers(), b);
    EXPECT_EQ(bare.getUnicodeOutStreamBuffer(), a);

    TestSink sink(a);
    EXPECT_TRUE(sink.usingInitialBuffers());
    EXPECT_EQ(sink.setUnicodeOutStreamBuffer(b), a);
    EXPECT_EQ(sink.setUnicodeOutStreamBuffer(c), b);
    EXPECT_FALSE(sink.usingInitialBuffers());
    // The narrow adaptor follows the current 16-bit buffer.
    sink.getOutStreamBuffer()->sputn("caf\xc3\xa9", 5);
    sink.getOutStreamBuffer()->pubsync();
    EXPECT_EQ(contents(c), u"caf\u00e9");
    EXPECT_EQ(sink.restoreInitialBuffers(), c);
    EXPECT_TRUE(sink.usingInitialBuffers());
    sink.getOutStreamBuffer()->sputn("x", 1);
    sink.getOutStreamBuffer()->pubsync();
    EXPECT_EQ(contents(a), u"x");
    EXPECT_THROW(TestSink{U16Buf()}, std::invalid_argument);
}

TEST(SinkTraits, TakenFromASinkAndComparedFieldByField) {
    auto sink = boost::make_shared<TestSink>();
    Traits none;
    EXPECT_TRUE(none == Traits(boost::shared_ptr<VeldraSink>()));
    EXPECT_TRUE(none == Traits(sink)) << "a sink's base answers are all false";
    // Each field on its own makes a difference.
    bool TestSink::*fields[] = {&TestSink::more,  &TestSink::links, &TestSink::display,
                                &TestSink::diary, &TestSink::echo,  &TestSink::log};
    for (auto f : fields) {
        (*sink).*f = true;
        Traits t(sink);
        EXPECT_FALSE(t == none);
        EXPECT_EQ(t.equalsExceptSupportsMore(none), f == &TestSink::more);
        (*sink).*f = false;
    }
    sink->more = sink->diary = sink->log = true;
    Traits t(sink);
    EXPECT_TRUE(t.supportsMore() && t.useDiary() && t.useLogging());
    EXPECT_FALSE(t.supportsHotlinks() || t.needsFormattingForDisplay() || t.useEcho());
}
