#include <tests/support/archivetesting.hpp>

#include <foundation/msg_svc/eventmgr/flushmessage.hpp>
#include <foundation/msg_svc/exchange/idtype.hpp>
#include <foundation/msg_svc/exchange/message.hpp>
#include <foundation/msg_svc/exchange/reply.hpp>
#include <foundation/msg_svc/serialization/ustring.hpp>

#include <boost/serialization/vector.hpp>
#include <gtest/gtest.h>

using namespace foundation::msg_svc;
using quorl_testing::Family;

TEST(Serialization, IdsAndTextCrossEveryArchive) {
    exchange::IDType a, b;
    EXPECT_NE(a, b);
    EXPECT_TRUE(a < b || b < a);
    EXPECT_TRUE(exchange::IDType(0, 0).isNull());
    EXPECT_EQ(exchange::IDType(3, 42).toString(), "3:42");
    ustring const text = u"na\u00efve \U0001F600 <&>";
    for (Family f : quorl_testing::allFamilies()) {
        SCOPED_TRACE(quorl_testing::familyName(f));
        exchange::IDType back(0, 0);
        quorl_testing::read(f, quorl_testing::write(f, a), back);
        EXPECT_EQ(back, a);
        ustring t;
        quorl_testing::read(f, quorl_testing::write(f, text, "text"), t, "text");
        EXPECT_EQ(t, text);
        std::vector<ustring> v{u"x", u"", text};
        std::vector<ustring> vb;
        quorl_testing::read(f, quorl_testing::write(f, v, "tags"), vb, "tags");
        EXPECT_EQ(vb, v);
    }
    // In XML the text stands directly in the field's element.
    std::string xml = quorl_testing::write(Family::Xml, ustring(u"hello"), "message");
    EXPECT_NE(xml.find("<message>hello</message>"), std::string::npos);
}

TEST(Serialization, BaseMessagesTravelThroughBasePointers) {
    eventmgr::detail::FlushMessage const m(eventmgr::EmID(77));
    for (Family f : quorl_testing::allFamilies()) {
        SCOPED_TRACE(quorl_testing::familyName(f));
        auto back = quorl_testing::roundTripThroughBase<exchange::Message>(f, m);
        ASSERT_TRUE(back);
        EXPECT_TRUE(*back == m);
        EXPECT_EQ(back->getEmId().value(), 77u);
    }
    exchange::Message const* asBase = &m;
    std::string const xml = quorl_testing::write(Family::Xml, asBase);
    EXPECT_NE(xml.find("foundation::msg_svc::eventmgr::detail::FlushMessage"), std::string::npos);
    EXPECT_EQ(quorl_testing::xmlElementNames(xml),
              (std::vector<std::string>{"object", "message", "emId"}));
}
