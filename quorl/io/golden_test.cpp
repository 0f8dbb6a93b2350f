// The kept archives of the wire forms: each is read back in both the plain and the polymorphic
// archive of its family, and the current writer must still produce the text and XML files
// byte for byte, so that any change of a wire form shows here.
#include <tests/support/archivetesting.hpp>

#include <quorl/io/sinktextevent.hpp>
#include <quorl/io/sinktraits.hpp>

#include <foundation/usm/context.hpp>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <functional>
#include <sstream>

using namespace quorl::io;
using foundation::msg_svc::eventmgr::BaseEvent;
using foundation::msg_svc::exchange::IDType;
using quorl_testing::Family;

namespace {

std::string goldenFile(std::string const& name) {
    std::string folder;
    if (char const* root = std::getenv("QUORL_SOURCE_DIR")) {
        folder = std::string(root) + "/tests/golden/";
    } else {
        std::string const here = __FILE__;
        folder = here.substr(0, here.rfind("quorl/io/")) + "tests/golden/";
    }
    std::ifstream is(folder + name, std::ios::binary);
    EXPECT_TRUE(is) << folder + name;
    std::ostringstream os;
    os << is.rdbuf();
    return os.str();
}

struct GoldenForm {
    char const* suffix;
    Family plain;
    Family polymorphic;
    bool byteExact; // binary archives carry platform sizes and are only read
};
GoldenForm const goldenForms[] = {{".txt", Family::Text, Family::PolyText, true},
                                  {".xml", Family::Xml, Family::PolyXml, true},
                                  {".bin", Family::Binary, Family::PolyBinary, false}};

class GoldenSink : public VeldraSink {
public:
    bool supportsMore() const override { return true; }
    bool needsFormattingForDisplay() const override { return true; }
    bool useEcho() const override { return true; }
    bool useLogging() const override { return true; }
};

// Writes an event through a base pointer, as the generator and the exchange do.
std::string writeEvent(Family f, BaseEvent const& e) {
    BaseEvent const* p = &e;
    return quorl_testing::write(f, p, "event");
}

std::unique_ptr<BaseEvent> readEvent(Family f, std::string const& bytes) {
    BaseEvent* p = nullptr;
    quorl_testing::read(f, bytes, p, "event");
    return std::unique_ptr<BaseEvent>(p);
}

// Checks every form of one event's golden files: read back equal to `expected`, and, where the
// form is byte-exact, written the same as kept.
template <class T> void checkEventGoldens(std::string const& stem, T const& expected) {
    for (GoldenForm const& form : goldenForms) {
        SCOPED_TRACE(stem + form.suffix);
        std::string const bytes = goldenFile(stem + form.suffix);
        for (Family f : {form.plain, form.polymorphic}) {
            std::unique_ptr<BaseEvent> back = readEvent(f, bytes);
            auto const* typed = dynamic_cast<T const*>(back.get());
            ASSERT_TRUE(typed);
            EXPECT_EQ(typed->getStreamType(), expected.getStreamType());
            EXPECT_EQ(typed->getText(), expected.getText());
            EXPECT_EQ(typed->getRequestId(), expected.getRequestId());
            EXPECT_TRUE(*typed == expected);
        }
        if (form.byteExact) {
            EXPECT_EQ(writeEvent(form.plain, expected), bytes);
        }
    }
}

} // namespace

TEST(Golden, SinkTraitsVersion1) {
    SinkTraits const written(boost::make_shared<GoldenSink>());
    for (GoldenForm const& form : goldenForms) {
        SCOPED_TRACE(form.suffix);
        std::string const bytes = goldenFile(std::string("sinktraits/sinktraits_v1") + form.suffix);
        for (Family f : {form.plain, form.polymorphic}) {
            SinkTraits traits;
            quorl_testing::read(f, bytes, traits, "traits");
            // Stored with paging on; read without it.
            EXPECT_FALSE(traits.supportsMore());
            EXPECT_FALSE(traits.supportsHotlinks());
            EXPECT_TRUE(traits.needsFormattingForDisplay());
            EXPECT_FALSE(traits.useDiary());
            EXPECT_TRUE(traits.useEcho());
            EXPECT_TRUE(traits.useLogging());
        }
        if (form.byteExact) {
            EXPECT_EQ(quorl_testing::write(form.plain, written, "traits"), bytes);
        }
    }
}

TEST(Golden, TextEventsVersion1) {
    foundation::usm::ContextScope scope(foundation::usm::Context::create("golden"));
    cmddistributor::RequestIdAdapter::setRequestId(IDType(1234567, 42));
    TextBaseEvent text(OutputStream, u"caf\u00e9 \U0001F600 <b>&amp;\"\n");
    text.addTag(u"golden");
    checkEventGoldens("textbaseevent/textbaseevent_v1", text);

    cmddistributor::RequestIdAdapter::setRequestId(IDType(7654321, 9));
    checkEventGoldens("sinktextevent/sinktextevent_v1",
                      SinkTextEvent(ErrorStream, u"Error: x is undefined.\n"));
}
