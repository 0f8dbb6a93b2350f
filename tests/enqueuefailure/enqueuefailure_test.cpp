// A request whose enqueue fails where it arrives must hear of it: its future fails, its
// continuation runs, and its distributor stops tracking it. The process's exchange ("client")
// and a second one ("server") talk through the loopback transport; the deliver function is the
// test's own and refuses packets of the plug-in type "refused".
#include <foundation/msg_svc/serialization/archives.hpp>

#include <tests/support/stopexchange.hpp>

#include <quorl/cmddistributor/defaultdistributor.hpp>
#include <quorl/cmddistributor/fcncmdrequest.hpp>
#include <quorl/cmddistributor/iipenqueuemessage.hpp>
#include <quorl/cmddistributor/runtimeexception.hpp>
#include <quorl/eventmgr/eventmgraccess.hpp>

#include <foundation/msg_svc/exchange/exchangeapi.hpp>
#include <foundation/msg_svc/exchange/transport.hpp>

#include <boost/make_shared.hpp>
#include <boost/serialization/base_object.hpp>
#include <boost/serialization/export.hpp>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <string>

using namespace cmddistributor;
using foundation::msg_svc::exchange::ExchangeApi;
using foundation::msg_svc::exchange::ExchangeConfig;
using foundation::msg_svc::exchange::IDType;
using foundation::msg_svc::exchange::Reply;
namespace WTD = quorl::cmddistributor::WhenToDequeue;

// A packet that saves, but that the receiving end refuses to load: made by its archive
// constructor, it reports that it cannot be serialized, which fails the load.
class RefusedOnArrival : public IIP {
public:
    explicit RefusedOnArrival(bool)
        : IIP("refused on arrival", DefaultIqmStreamID, quorl::io::SinkTraits(),
              quorl::io::SinkTraits()),
          loaded_(false) {}
    bool canBeSerialized() const override { return !loaded_; }

private:
    RefusedOnArrival() : loaded_(true) {}
    ZN_SERIALIZABLE()
    bool loaded_;
};

template <class Archive> void RefusedOnArrival::serializeExplicit(Archive& ar, unsigned int) {
    ar& boost::serialization::make_nvp("iip", boost::serialization::base_object<IIP>(*this));
}
ZN_SERIALIZE_EXPLICIT(RefusedOnArrival)
ZN_SERIALIZATION_TRAITS(RefusedOnArrival, 1)
BOOST_CLASS_EXPORT_KEY2(RefusedOnArrival, "quorl::test::RefusedOnArrival")
BOOST_CLASS_EXPORT_IMPLEMENT(RefusedOnArrival)

namespace {

// A request for the given packet (null: a request without one).
class PacketRequest : public CmdRequest {
public:
    explicit PacketRequest(boost::shared_ptr<IIP> packet)
        : CmdRequest(DefaultIqmStreamID, nullptr, nullptr), packet_(std::move(packet)) {}

protected:
    boost::shared_ptr<IIP> createIIP() override { return packet_; }

private:
    boost::shared_ptr<IIP> packet_;
};

boost::shared_ptr<PacketRequest> refused() {
    return boost::make_shared<PacketRequest>(boost::make_shared<IIP>(
        "refused", DefaultIqmStreamID, quorl::io::SinkTraits(), quorl::io::SinkTraits()));
}

std::atomic<int> delivered{0};

boost::shared_ptr<Reply const>
deliverHere(foundation::msg_svc::exchange::Routing const&, boost::shared_ptr<IIP> iip,
            IDType const&, quorl::contextmgr::FennID const&,
            boost::optional<quorl::contextmgr::TarnID> const&,
            boost::shared_ptr<foundation::msg_svc::eventmgr::EventMgr>, WTD::WhenToDequeue, bool) {
    ++delivered;
    if (iip && iip->getPluginType() == "refused")
        throw std::runtime_error("deliver refused the packet");
    return Reply::defaultReply();
}

// How long a wait for a result from another exchange polls before it sleeps, in this process.
constexpr std::chrono::milliseconds kSpin{2000};

class TwoExchanges : public ::testing::Environment {
public:
    void SetUp() override {
        ExchangeConfig client;
        client.name = "client";
        client.transport = foundation::msg_svc::exchange::makeLoopbackTransport();
        client.replySpin = kSpin; // long enough to be told from a wait that does not poll
        ExchangeApi::configure(client);
        ExchangeConfig server;
        server.name = "server";
        server.transport = foundation::msg_svc::exchange::makeLoopbackTransport();
        serverExchange = ExchangeApi::create(server);
        setDeliverFuncPtr(&deliverHere);
    }
    void TearDown() override {
        EXPECT_TRUE(quorl_testing::stopExchangeAndWaitForReport(serverExchange));
    }
    boost::shared_ptr<ExchangeApi> serverExchange;
};
::testing::Environment* const environment = ::testing::AddGlobalTestEnvironment(new TwoExchanges);

std::size_t tracked(boost::shared_ptr<CmdDistributor> const& d) {
    return boost::static_pointer_cast<DefaultDistributor>(d)->trackedCount();
}

// The future's failure, which must come within the patience.
template <class Future> std::string failureOf(Future& f) {
    if (!f.timed_wait(boost::posix_time::seconds(20)))
        return "(still waiting)";
    try {
        f.get();
        return "(no failure)";
    } catch (RuntimeException const& e) {
        EXPECT_EQ(e.getExecutionStatus(), quorl::cmddistributor::ExecutionCommunicationError);
        return e.GetMessageTxt();
    } catch (std::exception const& e) {
        return e.what();
    }
}

} // namespace

namespace cmddistributor {
template <> struct CmdRequestTraits<PacketRequest> : CmdRequestTraits<CmdRequest> {};
} // namespace cmddistributor

TEST(EnqueueFailure, ADeliverThatThrowsInThisProcessFailsTheRequest) {
    ASSERT_EQ(ExchangeApi::instance()->getExchangeName(), "client");
    auto d = CmdDistributor::instance(quorl::contextmgr::FennID{1});
    auto f = d->enqueueWithFuture(refused());
    EXPECT_EQ(failureOf(f), "deliver refused the packet");

    // The continuation runs once, after the future is made ready: wait for it, not for the future.
    std::atomic<int> continued{0};
    std::promise<void> ran;
    auto withContinuation = d->enqueueWithContinuation(refused(), [&] {
        if (++continued == 1)
            ran.set_value();
    });
    EXPECT_EQ(failureOf(withContinuation), "deliver refused the packet");
    ASSERT_EQ(ran.get_future().wait_for(std::chrono::seconds(20)), std::future_status::ready);
    EXPECT_EQ(continued.load(), 1);

    // Fire and forget: nobody to tell, but the record goes. The ordered queue delivers the next
    // request only after the first one's failure was handled.
    d->enqueue(refused(), WTD::DequeueDefault);
    auto after = d->enqueueWithFuture(refused());
    EXPECT_EQ(failureOf(after), "deliver refused the packet");
    EXPECT_EQ(tracked(d), 0u);

    // A request without a packet is refused before anything is sent.
    int const deliveredBefore = delivered.load();
    EXPECT_THROW(d->enqueue(boost::make_shared<PacketRequest>(nullptr), WTD::DequeueDefault),
                 std::invalid_argument);
    EXPECT_EQ(tracked(d), 0u);
    EXPECT_EQ(failureOf(after = d->enqueueWithFuture(refused())), "deliver refused the packet");
    EXPECT_EQ(delivered.load(), deliveredBefore + 1);
}

TEST(EnqueueFailure, FailuresAtAnotherExchangeComeBackToTheRequest) {
    auto d = CmdDistributor::create(
        quorl::contextmgr::FennID{2}, "server", boost::none,
        quorl::eventmgr::createRemoteEventMgr("server", boost::none, boost::none));
    ASSERT_FALSE(boost::static_pointer_cast<DefaultDistributor>(d)->isLocal());
    int const deliveredBefore = delivered.load();

    // A packaged task cannot travel: refused at once, never saved or sent.
    auto task = boost::make_shared<FcnCmdRequest<void>>([] {}, nullptr, nullptr);
    auto f = d->enqueueWithFuture(task);
    ASSERT_TRUE(f.is_ready());
    std::string const why = failureOf(f);
    EXPECT_NE(why.find("\"packaged_task\" cannot be serialized"), std::string::npos) << why;
    EXPECT_NE(why.find("'server'"), std::string::npos) << why;
    EXPECT_THROW(d->enqueue(boost::make_shared<FcnCmdRequest<void>>([] {}, nullptr, nullptr),
                            WTD::DequeueDefault),
                 std::invalid_argument);
    EXPECT_THROW(d->enqueue(boost::make_shared<PacketRequest>(nullptr), WTD::DequeueDefault),
                 std::invalid_argument);

    // The far end's deliver throws: its reason comes back as a communication failure.
    auto refusedThere = d->enqueueWithFuture(refused());
    EXPECT_NE(failureOf(refusedThere).find("deliver refused the packet"), std::string::npos);

    // The far end cannot decode the message: the reason comes back too.
    auto undecodable = d->enqueueWithFuture(
        boost::make_shared<PacketRequest>(boost::make_shared<RefusedOnArrival>(true)));
    EXPECT_NE(failureOf(undecodable).find("could not decode a message"), std::string::npos);

    EXPECT_EQ(delivered.load(), deliveredBefore + 1) << "only the refused packet was delivered";
    EXPECT_EQ(tracked(d), 0u);
}

TEST(EnqueueFailure, AWaitForAResultFromAnotherExchangePollsOnceAndNoLongerThanItTakes) {
    auto d = CmdDistributor::create(
        quorl::contextmgr::FennID{3}, "server", boost::none,
        quorl::eventmgr::createRemoteEventMgr("server", boost::none, boost::none));
    auto const now = [] { return std::chrono::steady_clock::now(); };
    auto const start = now();
    auto refusedThere = d->enqueueWithFuture(refused());
    EXPECT_NE(failureOf(refusedThere).find("deliver refused the packet"), std::string::npos);
    EXPECT_LT(now() - start, kSpin / 2) << "the poll ends when the result comes";

    // Delivered there, but no interpreter serves it: it never completes. The first wait polls
    // for the whole bound; the waits after it do not poll again.
    auto never = d->enqueueWithFuture(boost::make_shared<PacketRequest>(boost::make_shared<IIP>(
        "served", DefaultIqmStreamID, quorl::io::SinkTraits(), quorl::io::SinkTraits())));
    auto const first = now();
    EXPECT_FALSE(never.timed_wait(boost::posix_time::milliseconds(0)));
    EXPECT_GE(now() - first, kSpin);
    auto const later = now();
    for (int i = 0; i < 100; ++i)
        EXPECT_FALSE(never.timed_wait(boost::posix_time::milliseconds(0)));
    EXPECT_LT(now() - later, kSpin / 2);
}
