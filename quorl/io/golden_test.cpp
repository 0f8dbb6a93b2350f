// The kept archives of the wire forms: each is read back in both the plain and the polymorphic
// archive of its family, and the current writer must still produce the text and XML files
// byte for byte, so that any change of a wire form shows here.
#include <tests/support/golden.hpp>

#include <quorl/io/sinktextevent.hpp>
#include <quorl/io/sinktraits.hpp>

#include <foundation/usm/context.hpp>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

using namespace quorl::io;
using foundation::msg_svc::eventmgr::BaseEvent;
using foundation::msg_svc::exchange::IDType;
using quorl_testing::Family;

namespace {

class GoldenSink : public VeldraSink {
public:
    explicit GoldenSink(bool pages) : more(pages) {}
    bool more;
    bool supportsMore() const override { return more; }
    bool needsFormattingForDisplay() const override { return true; }
    bool useEcho() const override { return true; }
    bool useLogging() const override { return true; }
};

} // namespace

TEST(Golden, SinkTraitsVersion1) {
    SinkTraits const written(boost::make_shared<GoldenSink>(true));
    SinkTraits const readBack(boost::make_shared<GoldenSink>(false));
    for (quorl_testing::GoldenForm const& form : quorl_testing::goldenForms()) {
        SCOPED_TRACE(form.suffix);
        std::string const bytes =
            quorl_testing::readGolden(std::string("sinktraits/sinktraits_v1") + form.suffix);
        for (Family f : {form.plain, form.polymorphic}) {
            SinkTraits traits;
            quorl_testing::read(f, bytes, traits, "traits");
            // Stored with paging on; read without it.
            EXPECT_EQ(readBack, traits);
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
    cmddistributor::RequestIdAdapter::setRequestId(IDType(7654321, 9));
    SinkTextEvent const sink(ErrorStream, u"Error: x is undefined.\n");
    // Read under another request id than their own: the archive's id wins, as equality, which
    // compares the ids, shows.
    cmddistributor::RequestIdAdapter::setRequestId(IDType(5, 1));
    // Equality covers every field of the text events.
    quorl_testing::expectGoldens<BaseEvent>("textbaseevent/textbaseevent_v1", text, "event");
    quorl_testing::expectGoldens<BaseEvent>("sinktextevent/sinktextevent_v1", sink, "event");
}
