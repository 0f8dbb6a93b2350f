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
    quorl_testing::expectGoldens<Message>("releaserefmessage/releaserefmessage.v1", expected,
                                          "object", /*allExact=*/true);
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
