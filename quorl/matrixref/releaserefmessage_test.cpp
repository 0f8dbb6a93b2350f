#include <quorl/matrixref/releaserefmessage.hpp>

#include <tests/support/archivetesting.hpp>

#include <foundation/msg_svc/exchange/routing.hpp>

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <limits>
#include <sstream>

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

// A golden archive of tests/golden/releaserefmessage, found from QUORL_SOURCE_DIR or, without
// it, from this file's path.
std::string golden(std::string const& suffix) {
    std::string const here = __FILE__;
    char const* root = std::getenv("QUORL_SOURCE_DIR");
    std::string const path =
        (root ? std::string(root) + "/" : here.substr(0, here.rfind("quorl/"))) +
        "tests/golden/releaserefmessage/releaserefmessage.v1" + suffix;
    std::ifstream is(path, std::ios::binary);
    EXPECT_TRUE(is) << path;
    std::ostringstream os;
    os << is.rdbuf();
    return os.str();
}

} // namespace

TEST(ReleaseRefMessage, ReadsAndWritesItsGoldenArchives) {
    ReleaseRefMessage const expected(4660);
    struct Form {
        char const* suffix;
        Family plain, polymorphic;
    };
    for (Form form :
         {Form{".txt", Family::Text, Family::PolyText}, Form{".xml", Family::Xml, Family::PolyXml},
          Form{".bin", Family::Binary, Family::PolyBinary}}) {
        SCOPED_TRACE(form.suffix);
        std::string const bytes = golden(form.suffix);
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

TEST(ReleaseRefMessage, RoundTripsInEveryArchiveWithItsPairNames) {
    for (unsigned long long tag : {1ull, 42ull, std::numeric_limits<unsigned long long>::max()}) {
        ReleaseRefMessage const original(tag);
        for (Family f : quorl_testing::allFamilies()) {
            SCOPED_TRACE(quorl_testing::familyName(f));
            // Through a base pointer, as the exchange sends it.
            Message const* asBase = &original;
            std::string bytes = quorl_testing::write(f, asBase);
            Message* back = nullptr;
            quorl_testing::read(f, bytes, back);
            std::unique_ptr<Message> owned(back);
            auto const* release = dynamic_cast<ReleaseRefMessage const*>(back);
            ASSERT_TRUE(release);
            EXPECT_EQ(release->serverTag(), tag);
            EXPECT_TRUE(*back == original);
        }
    }
    std::string xml = quorl_testing::write(Family::Xml, ReleaseRefMessage(9));
    EXPECT_EQ(quorl_testing::xmlElementNames(xml),
              (std::vector<std::string>{"object", "Message", "Tag"}));
    EXPECT_NE(xml.find("<Tag>9</Tag>"), std::string::npos) << xml;
    EXPECT_NE(xml.find("version=\"1\""), std::string::npos) << xml;
    Message const* asBase = nullptr;
    ReleaseRefMessage const keyed(3);
    asBase = &keyed;
    EXPECT_NE(quorl_testing::write(Family::Xml, asBase).find("quorl::matrixref::ReleaseRefMessage"),
              std::string::npos);
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

    std::ostringstream text;
    message.toString(text, 2);
    EXPECT_NE(text.str().find("\n    MatrixRef tag: 77\n"), std::string::npos) << text.str();
}
