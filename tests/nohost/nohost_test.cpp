// Without a host, messages still get answers: an enqueued packet is reported discarded (to
// whoever watches), a cancel answers 0, a run-now answers the default reply, and a request's
// future ends instead of hanging.
#include <quorl/cmddistributor/cmddistributor.hpp>
#include <quorl/cmddistributor/futureexception.hpp>
#include <quorl/cmddistributor/iipenqueuemessage.hpp>
#include <quorl/eventmgr/eventmgraccess.hpp>

#include <foundation/core/log/diagnosticlogger.hpp>
#include <foundation/msg_svc/exchange/exchangeapi.hpp>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <atomic>
#include <sstream>

using namespace cmddistributor;
using foundation::msg_svc::exchange::IDType;

namespace {
class TestIIP : public IIP {
public:
    TestIIP() : IIP("test", DefaultIqmStreamID, quorl::io::SinkTraits(), quorl::io::SinkTraits()) {}
};
class TestRequest : public CmdRequest {
public:
    TestRequest() : CmdRequest(DefaultIqmStreamID, nullptr, nullptr) {}

protected:
    boost::shared_ptr<IIP> createIIP() override { return boost::make_shared<TestIIP>(); }
};
} // namespace

namespace cmddistributor {
template <> struct CmdRequestTraits<TestRequest> : CmdRequestTraits<CmdRequest> {};
} // namespace cmddistributor

TEST(NoHost, EnqueuedPacketsAreDiscardedNotLost) {
    std::ostringstream log;
    foundation::core::log::set_console_stream(&log);
    foundation::core::log::set_channel_mask(
        "cmddistributor::IIPEnqueueMessage",
        foundation::core::log::mask_from(foundation::core::log::warning));
    auto manager = quorl::eventmgr::createLocalEventMgr(boost::none);
    // Unwatched: the message answers, and no event is built.
    IIPEnqueueMessage const unwatched(boost::make_shared<TestIIP const>(), IDType(),
                                      quorl::contextmgr::FennID{0}, boost::none, nullptr,
                                      quorl::cmddistributor::WhenToDequeue::DequeueDefault, false);
    EXPECT_EQ(unwatched.deliver(foundation::msg_svc::exchange::Routing("x", "noqueue")),
              foundation::msg_svc::exchange::Reply::defaultReply());

    std::atomic<int> discarded{0};
    IDType const id;
    auto conn = manager->subscribe<IIPDiscardedEvent>([&](IIPDiscardedEvent const& e) {
        if (e.getIdOfChangedIIP() == id)
            ++discarded;
    });
    IIPEnqueueMessage const watched(boost::make_shared<TestIIP const>(), id,
                                    quorl::contextmgr::FennID{0}, boost::none, nullptr,
                                    quorl::cmddistributor::WhenToDequeue::DequeueDefault, true);
    watched.deliver(foundation::msg_svc::exchange::Routing("x", "noqueue"));
    manager->flush();
    EXPECT_EQ(discarded.load(), 1);

    // Through the default distributor: the request's future ends with the discard.
    auto& d = CmdDistributor::instance();
    auto future = d.enqueueWithFuture(boost::make_shared<TestRequest>());
    EXPECT_THROW(future.get(), AlreadyCancelledException);
    EXPECT_EQ(d.cancelRequest(IDType(), true).get(), CmdDistributor::CancelNotFound);

    // Three discards, one warning.
    std::string const text = log.str();
    std::string const warning = "[cmddistributor::IIPEnqueueMessage] warning: no deliver function";
    ASSERT_NE(text.find(warning), std::string::npos) << text;
    EXPECT_EQ(text.find(warning, text.find(warning) + 1), std::string::npos) << text;
    foundation::core::log::set_console_stream(&std::clog);
}
