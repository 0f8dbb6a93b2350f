#include <tests/support/archivetesting.hpp>

#include <quorl/cmddistributor/iipcancelmessage.hpp>
#include <quorl/cmddistributor/iipcancelreply.hpp>
#include <quorl/cmddistributor/iiprunnowmessage.hpp>

#include <foundation/msg_svc/exchange/exchangeapi.hpp>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

using namespace cmddistributor;
using foundation::msg_svc::exchange::Address;
using foundation::msg_svc::exchange::ExchangeApi;
using foundation::msg_svc::exchange::IDType;
using foundation::msg_svc::exchange::Message;
using foundation::msg_svc::exchange::Reply;
using quorl_testing::Family;

namespace {

std::atomic<int> cancels{0};
std::atomic<int> runNows{0};
std::atomic<bool> handlersOnDeliveryThread{true};
IDType lastRunNow(0, 0);

boost::shared_ptr<Reply const> hostCancel(IDType const& id, bool interrupt) {
    ++cancels;
    if (!ExchangeApi::instance()->isDeliveryThread())
        handlersOnDeliveryThread = false;
    if (id.serial() == 666)
        throw std::runtime_error("host refused");
    return boost::make_shared<IIPCancelReply const>(interrupt ? IIPCancelReply::CancelAccepted
                                                              : IIPCancelReply::CancelNotCancelled);
}
boost::shared_ptr<Reply const> otherCancel(IDType const&, bool) {
    return boost::make_shared<IIPCancelReply const>(IIPCancelReply::CancelNotFound);
}
void hostRunNow(IDType const& id) {
    ++runNows;
    lastRunNow = id;
}
void otherRunNow(IDType const&) {}
bool yes(quorl::contextmgr::FennID const&) {
    return true;
}
bool no(quorl::contextmgr::FennID const&) {
    return false;
}

Address own(std::string const& q) {
    return Address(ExchangeApi::instance()->getExchangeName(), q);
}

template <class T>
void expectRoundTrips(T const& original, std::vector<std::string> const& xmlNames) {
    for (Family f : quorl_testing::allFamilies()) {
        SCOPED_TRACE(quorl_testing::familyName(f));
        auto back = quorl_testing::roundTripThroughBase<Message>(f, original);
        ASSERT_TRUE(back);
        EXPECT_TRUE(*back == original);
    }
    EXPECT_EQ(quorl_testing::xmlElementNames(quorl_testing::write(Family::Xml, original)),
              xmlNames);
}

} // namespace

TEST(ExchangeFrame, CancelAndRunNowReachTheHostFunctions) {
    auto ex = ExchangeApi::instance();
    IDType const id;
    // No host functions yet: a cancel is answered with status 0, run-now with the default reply.
    auto none = foundation::msg_svc::exchange::submitForReply<IIPCancelReply>(
        *ex, boost::make_shared<IIPCancelMessage>(id, true),
        own(Address::SpecializedQueues::unordered()));
    EXPECT_EQ(none.get()->getStatus(), IIPCancelReply::CancelNotFound);
    EXPECT_EQ(ex->submitWithReply(boost::make_shared<IIPRunNowMessage>(id), own("noqueue")).get(),
              Reply::defaultReply());
    EXPECT_EQ(runNows.load(), 0);
    EXPECT_FALSE(isRunNowThread(quorl::contextmgr::FennID{0}));

    setCancelFuncPtr(&hostCancel);
    setCancelFuncPtr(&otherCancel); // ignored: the first wins
    setRunNowFuncPtr(&hostRunNow);
    setRunNowFuncPtr(&otherRunNow);
    setIsRunNowThreadFuncPtr(&yes);
    EXPECT_TRUE(isRunNowThread(quorl::contextmgr::FennID{0}));
    setIsRunNowThreadFuncPtr(&no); // the last wins
    EXPECT_FALSE(isRunNowThread(quorl::contextmgr::FennID{0}));

    auto accepted = foundation::msg_svc::exchange::submitForReply<IIPCancelReply>(
        *ex, boost::make_shared<IIPCancelMessage>(id, true),
        own(Address::SpecializedQueues::unordered()));
    EXPECT_EQ(accepted.get()->getStatus(), IIPCancelReply::CancelAccepted);
    auto refused = foundation::msg_svc::exchange::submitForReply<IIPCancelReply>(
        *ex, boost::make_shared<IIPCancelMessage>(id, false), own("noqueue"));
    EXPECT_EQ(refused.get()->getStatus(), IIPCancelReply::CancelNotCancelled);
    // A handler's exception fails the sender's future.
    auto failed = ex->submitWithReply(boost::make_shared<IIPCancelMessage>(IDType(1, 666), true),
                                      own("noqueue"));
    EXPECT_THROW(failed.get(), std::runtime_error);
    EXPECT_EQ(cancels.load(), 3);
    EXPECT_TRUE(handlersOnDeliveryThread.load());

    IDType const runId;
    EXPECT_EQ(
        ex->submitWithReply(boost::make_shared<IIPRunNowMessage>(runId), own("noqueue")).get(),
        Reply::defaultReply());
    EXPECT_EQ(runNows.load(), 1);
    EXPECT_EQ(lastRunNow, runId);
}

TEST(ExchangeFrame, AssignToPromiseChecksTheReplyType) {
    auto p = boost::make_shared<IIPCancelReply::Promise>();
    auto f = p->get_future();
    IIPCancelReply::assignToPromise(p, Reply::defaultReply());
    EXPECT_THROW(f.get(), std::bad_cast);
    auto p2 = boost::make_shared<IIPCancelReply::Promise>();
    auto f2 = p2->get_future();
    IIPCancelReply::assignToPromise(p2, nullptr);
    EXPECT_FALSE(f2.get());
}

TEST(ExchangeFrame, MessagesCrossEveryArchiveWithTheirFieldNames) {
    IDType const id(12345, 678);
    expectRoundTrips(IIPCancelMessage(id, true),
                     {"object", "message", "id", "origin", "serial", "interrupt"});
    expectRoundTrips(IIPCancelMessage(id, false),
                     {"object", "message", "id", "origin", "serial", "interrupt"});
    expectRoundTrips(IIPRunNowMessage(id), {"object", "message", "id", "origin", "serial"});
    EXPECT_FALSE(IIPCancelMessage(id, true) == IIPCancelMessage(id, false));
    EXPECT_FALSE(Message() == IIPRunNowMessage(id));

    IIPCancelReply const reply(IIPCancelReply::CancelAccepted);
    for (Family f : quorl_testing::allFamilies()) {
        auto back = quorl_testing::roundTripThroughBase<Reply>(f, reply);
        ASSERT_TRUE(back);
        EXPECT_TRUE(*back == reply);
        EXPECT_EQ(back->getStatus(), IIPCancelReply::CancelAccepted);
    }
    EXPECT_EQ(quorl_testing::xmlElementNames(quorl_testing::write(Family::Xml, reply)),
              (std::vector<std::string>{"object", "reply", "status"}));
}
