#include <quorl/matrixref/releaserefmessage.hpp>

#include <tests/support/golden.hpp>

#include <foundation/msg_svc/exchange/routing.hpp>

#include <gtest/gtest.h>

#include <limits>

using namespace quorl::matrixref;
using foundation::msg_svc::exchange::Message;
using foundation::msg_svc::exchange::Reply;
using quorl_testing::Family;

namespace {

class RecordingService : public MatrixRefServiceAPI {
public:
    boost::shared_ptr<Reply const> serve(ReleaseRefMessage const& message) override {
        served.push_back(message.serverTag());
        return boost::shared_ptr<Reply const>();
    }
    std::vector<std::uint64_t> served;
};

} // namespace

TEST(ReleaseRefMessage, ReadsAndWritesItsGoldenArchives) {
    ReleaseRefMessage const expected(4660);
    for (quorl_testing::GoldenForm const& form : quorl_testing::goldenForms()) {
        SCOPED_TRACE(form.suffix);
        std::string const bytes = quorl_testing::readGolden(
            std::string("releaserefmessage/releaserefmessage.v1") + form.suffix);
        for (Family f : {form.plain, form.polymorphic}) {
            Message* back = nullptr;
            quorl_testing::read(f, bytes, back);
            std::unique_ptr<Message> owned(back);
            ASSERT_TRUE(dynamic_cast<ReleaseRefMessage const*>(back));
            EXPECT_TRUE(*back == expected);
        }
        Message const* asBase = &expected;
        EXPECT_EQ(quorl_testing::write(form.plain, asBase), bytes) << "the form has changed";
    }
}

// The goldens fix the bytes and element names of one tag; the extreme tags round trip too.
TEST(ReleaseRefMessage, RoundTripsEveryTagAndComparesByIt) {
    for (unsigned long long tag : {1ull, std::numeric_limits<unsigned long long>::max()}) {
        for (Family f : quorl_testing::allFamilies()) {
            SCOPED_TRACE(quorl_testing::familyName(f));
            auto back = quorl_testing::roundTripThroughBase<Message>(f, ReleaseRefMessage(tag));
            ASSERT_TRUE(back);
            EXPECT_EQ(back->serverTag(), tag);
        }
    }
    EXPECT_FALSE(ReleaseRefMessage(1) == ReleaseRefMessage(2));
    EXPECT_FALSE(Message() == ReleaseRefMessage(1));
}

TEST(ReleaseRefMessage, GoesToItsActorAndAnswersNothing) {
    ReleaseRefMessage const message(77);
    EXPECT_FALSE(message.deliver(foundation::msg_svc::exchange::Routing("peer", "TarnServer")));
    RecordingService service;
    EXPECT_FALSE(message.deliverToActor(service));
    EXPECT_EQ(service.served, std::vector<std::uint64_t>{77});
    EXPECT_EQ(MatrixRefServiceAPI::serviceName, "TarnServer");
}
