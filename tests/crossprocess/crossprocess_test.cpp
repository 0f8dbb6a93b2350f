// Exchanges in different processes: a client (this test) and real server processes started from
// the built server program, over ipc:// and tcp:// with CURVE, killed and restarted.
#include <tests/crossprocess/serverprocess.hpp>
#include <tests/crossprocess/testprotocol.hpp>
#include <tests/support/textbuffer.hpp>

#include <quorl/cmddistributor/cmddistributor.hpp>
#include <quorl/cmddistributor/cmdrequest.hpp>
#include <quorl/cmddistributor/iip.hpp>
#include <quorl/cmddistributor/iiprunnowmessage.hpp>
#include <quorl/cmddistributor/runtimeexception.hpp>
#include <quorl/eventmgr/eventmgraccess.hpp>
#include <quorl/eventmgr/tarnshutdownevent.hpp>
#include <quorl/io/veldrasink.hpp>

#include <foundation/msg_svc/exchange/exchangeapi.hpp>
#include <foundation/msg_svc/exchange/zmqtransport.hpp>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <csignal>
#include <future>
#include <mutex>
#include <numeric>
#include <sys/stat.h>
#include <unistd.h>

using namespace crossprocess;
using namespace foundation::msg_svc::exchange;
using cmddistributor::CmdDistributor;
using cmddistributor::RuntimeException;
using quorl::contextmgr::FennID;

namespace {

constexpr auto kPatience = std::chrono::seconds(20);
std::string const kServer = QUORL_TEST_SERVER;

std::string clientName() {
    return "crossprocess-client-" + std::to_string(::getpid());
}

// The process's exchange: a client on ZeroMQ that binds nothing.
struct ClientEnvironment : ::testing::Environment {
    void SetUp() override {
        ExchangeConfig config;
        config.name = clientName();
        config.transport = makeZmqTransport();
        ExchangeApi::configure(config);
        ExchangeApi::instance();
    }
};
[[maybe_unused]] auto* const environment =
    ::testing::AddGlobalTestEnvironment(new ClientEnvironment);

// A test server on `endpoint`, started and listening.
std::unique_ptr<ServerProcess> startServer(std::string const& endpoint,
                                           std::vector<std::string> extra = {}) {
    std::vector<std::string> args{"--listen", endpoint};
    args.insert(args.end(), extra.begin(), extra.end());
    auto p = std::make_unique<ServerProcess>(kServer, args);
    EXPECT_TRUE(p->waitForLine("listening on " + endpoint)) << p->errors();
    return p;
}

template <class F> auto settle(F& future) -> decltype(future.get()) {
    if (future.wait_for(boost::chrono::seconds(20)) != boost::future_status::ready)
        throw std::runtime_error("no answer within the patience");
    return future.get();
}

boost::shared_ptr<EchoReply const> echo(ExchangeApi& ex, std::string const& to, int n,
                                        std::string body = std::string()) {
    auto f = submitForReply<EchoReply>(ex, boost::make_shared<EchoMessage>(n, std::move(body)),
                                       Address(to, Address::SpecializedQueues::noqueue()));
    return settle(f);
}

// Waits until the messages this process's exchange has queued for delivery so far have been
// delivered (its ordered lane is serial), then until the session's events are dispatched.
void drainDeliveries() {
    auto ex = ExchangeApi::instance();
    auto f = ex->submitWithReply(boost::make_shared<EchoMessage>(0),
                                 Address(ex->getExchangeName(), "noqueue"));
    settle(f);
    quorl::eventmgr::createLocalEventMgr(boost::none)->flush();
}

std::string failureOf(std::function<void()> const& f) {
    try {
        f();
    } catch (std::exception const& e) {
        return e.what();
    }
    return "(no failure)";
}

// A packet of the test server's looping type, its output watched.
class LoopRequest : public cmddistributor::CmdRequest {
public:
    LoopRequest() : LoopRequest(boost::make_shared<quorl_testing::TextBuffer>()) {}
    quorl_testing::TextBuffer& output() { return *buffer_; }

protected:
    boost::shared_ptr<cmddistributor::IIP> createIIP() override {
        return boost::make_shared<cmddistributor::IIP>(
            "test_loop", cmddistributor::UnsetIqmStreamID, getOutputSink(), getErrorSink());
    }

private:
    explicit LoopRequest(boost::shared_ptr<quorl_testing::TextBuffer> b)
        : CmdRequest(cmddistributor::UnsetIqmStreamID, boost::make_shared<quorl::io::VeldraSink>(b),
                     nullptr),
          buffer_(std::move(b)) {}
    boost::shared_ptr<quorl_testing::TextBuffer> buffer_;
};

} // namespace

namespace cmddistributor {
template <> struct CmdRequestTraits<LoopRequest> : CmdRequestTraits<CmdRequest> {};
} // namespace cmddistributor

namespace {

struct Tracked {
    boost::shared_ptr<LoopRequest> request = boost::make_shared<LoopRequest>();
    IDType id;
    boost::unique_future<void> future;
};

Tracked enqueueLoop(CmdDistributor& d) {
    Tracked t;
    t.future = d.enqueueWithFuture(t.request, t.id);
    return t;
}

boost::shared_ptr<CmdDistributor> distributorFor(std::string const& server, int fenn) {
    return CmdDistributor::create(
        FennID{fenn}, server, boost::none,
        quorl::eventmgr::createRemoteEventMgr(server, boost::none, boost::none));
}

int statusOf(boost::unique_future<void>& f) {
    try {
        f.get();
    } catch (RuntimeException const& e) {
        return static_cast<int>(e.getExecutionStatus());
    } catch (...) {
        return -2;
    }
    return -1;
}

// Cancels a running request with interrupt: the host stops it and its future fails with 4.
void expectInterrupted(CmdDistributor& d, Tracked& t) {
    auto cancel = d.cancelRequest(t.id, true);
    EXPECT_EQ(settle(cancel), CmdDistributor::CancelEndedByStatus4);
    EXPECT_EQ(statusOf(t.future), quorl::cmddistributor::ExecutionInterrupted);
}

} // namespace

TEST(CrossProcess, MessagesRepliesActorsAndRequestsReachAServerOverIpc) {
    PrivateDir dir;
    std::string const endpoint = "ipc://" + dir.path() + "/server";
    auto server = startServer(endpoint);
    auto ex = ExchangeApi::instance();

    auto reply = echo(*ex, endpoint, 7, "abc");
    EXPECT_EQ(reply->n, 7);
    EXPECT_EQ(reply->body, "abc");
    EXPECT_EQ(reply->source, clientName()) << "the server knows who sent it";
    EXPECT_NE(failureOf([&] { echo(*ex, endpoint, -3); }).find("echo refused -3"),
              std::string::npos);

    // Order per peer: replies come back in the order the messages went.
    std::mutex m;
    std::vector<int> order;
    std::promise<void> last;
    std::string firstFailure; // guarded by m
    for (int i = 0; i < 300; ++i) {
        ex->submitWithHandler(
            boost::make_shared<EchoMessage>(i), Address(endpoint, "noqueue"),
            [&, i](boost::shared_ptr<Reply const> const& r) {
                std::lock_guard<std::mutex> lock(m);
                order.push_back(boost::dynamic_pointer_cast<EchoReply const>(r)->n);
                if (i == 299 && firstFailure.empty())
                    last.set_value();
            },
            [&](boost::exception_ptr const& e) {
                // Every message still under way fails with its peer: the first one ends the wait.
                std::lock_guard<std::mutex> lock(m);
                if (firstFailure.empty()) {
                    firstFailure = failureOf([&] { boost::rethrow_exception(e); });
                    last.set_value();
                }
            });
    }
    ASSERT_EQ(last.get_future().wait_for(kPatience), std::future_status::ready);
    {
        std::lock_guard<std::mutex> lock(m);
        EXPECT_EQ(firstFailure, "");
    }
    std::vector<int> expected(300);
    std::iota(expected.begin(), expected.end(), 0);
    EXPECT_EQ(order, expected);

    // An actor in the server process, on its own queue.
    for (int add : {1, 2, 3})
        ex->submit(boost::make_shared<TallyMessage>(add), Address(endpoint, "crossprocess.tally"));
    auto tally = submitForReply<EchoReply>(*ex, boost::make_shared<TallyMessage>(4),
                                           Address(endpoint, "crossprocess.tally"));
    EXPECT_EQ(settle(tally)->n, 10);

    // Requests run on the server's host; output, completion, cancel and run-now cross over.
    auto d = distributorFor(endpoint, 11);
    Tracked running = enqueueLoop(*d);
    Tracked second = enqueueLoop(*d);
    Tracked third = enqueueLoop(*d);
    ASSERT_TRUE(running.request->output().waitFor(u"looping")) << server->errors();
    auto ranNow =
        ex->submitWithReply(boost::make_shared<cmddistributor::IIPRunNowMessage>(third.id),
                            Address(endpoint, "noqueue"));
    settle(ranNow);
    expectInterrupted(*d, running);
    ASSERT_TRUE(third.request->output().waitFor(u"looping")) << "run-now moved it ahead";
    EXPECT_EQ(second.request->output().text(), u"");
    auto cancelQueued = d->cancelRequest(second.id, false);
    EXPECT_EQ(settle(cancelQueued), CmdDistributor::CancelDone);
    EXPECT_NE(statusOf(second.future), -1) << "a discarded request fails its future";
    expectInterrupted(*d, third);
}

TEST(CrossProcess, EventsTravelBothWaysAndFlushIsABarrier) {
    PrivateDir dir;
    std::string const endpoint = "ipc://" + dir.path() + "/events";
    auto server = startServer(endpoint);
    auto ex = ExchangeApi::instance();

    // To the server: its subscriber is slow, so only a real barrier sees all of them handled.
    auto remote = quorl::eventmgr::createRemoteEventMgr(endpoint, boost::none, boost::none);
    for (int i = 0; i < 40; ++i)
        remote->notify<PingEvent>(foundation::msg_svc::eventmgr::DeliverQueued, i);
    remote->flush();
    auto count = submitForReply<EchoReply>(*ex, boost::make_shared<CountMessage>(0),
                                           Address(endpoint, "unordered"));
    EXPECT_EQ(settle(count)->n, 40);

    // From the server, to this process's session, in order.
    std::mutex m;
    std::vector<int> pongs;
    auto session = quorl::eventmgr::createLocalEventMgr(boost::none);
    auto connection = session->subscribe<PingEvent>([&](PingEvent const& e) {
        std::lock_guard<std::mutex> lock(m);
        pongs.push_back(e.n);
    });
    auto asked = submitForReply<EchoReply>(*ex, boost::make_shared<CountMessage>(25),
                                           Address(endpoint, "noqueue"));
    settle(asked);
    drainDeliveries(); // the events came before the reply and wait in the delivery queue
    std::vector<int> expected(25);
    std::iota(expected.begin(), expected.end(), 0);
    std::lock_guard<std::mutex> lock(m);
    EXPECT_EQ(pongs, expected);
}

TEST(CrossProcess, TcpUsesCurveWithAKeyFileAndRefusesPeersWithoutTheKey) {
    PrivateDir dir;
    std::string const keyFile = dir.path() + "/keys/server.key";
    std::string const endpoint = "tcp://127.0.0.1:" + std::to_string(freeTcpPort());
    auto server = startServer(endpoint, {"--key-file", keyFile});
    EXPECT_TRUE(server->waitForLine("public key in " + keyFile + ".pub"));
    struct stat st;
    ASSERT_EQ(::stat(keyFile.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    ASSERT_EQ(::stat((dir.path() + "/keys").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0700u);
    std::string const publicKey = readPublicKeyFile(keyFile + ".pub");
    EXPECT_EQ(loadOrCreateKeyFile(keyFile).publicKey, publicKey) << "kept, not remade";

    auto client = [&](std::string const& name, ZmqTransportOptions options) {
        options.connectTimeout = std::chrono::milliseconds(500);
        ExchangeConfig c;
        c.name = name + "-" + std::to_string(::getpid());
        c.transport = makeZmqTransport(options);
        return ExchangeApi::create(c);
    };
    ZmqTransportOptions good;
    good.serverPublicKey = publicKey;
    auto trusted = client("trusted", good);
    EXPECT_EQ(echo(*trusted, endpoint, 5, "over curve")->body, "over curve");

    ZmqTransportOptions wrong;
    wrong.serverPublicKey = loadOrCreateKeyFile(dir.path() + "/other.key").publicKey;
    auto impostor = client("impostor", wrong);
    EXPECT_THROW(echo(*impostor, endpoint, 1), DeliveryError);
    ZmqTransportOptions plain;
    plain.curve = false;
    auto plainClient = client("plain", plain);
    EXPECT_THROW(echo(*plainClient, endpoint, 1), DeliveryError);
    auto keyless = client("keyless", ZmqTransportOptions());
    EXPECT_NE(failureOf([&] { echo(*keyless, endpoint, 1); }).find("no CURVE public key"),
              std::string::npos);

    EXPECT_EQ(echo(*trusted, endpoint, 6)->n, 6) << "the refusals left the server serving";

    // A key file that others may read is not used.
    std::string const loose = dir.path() + "/loose.key";
    loadOrCreateKeyFile(loose);
    ::chmod(loose.c_str(), 0644);
    auto refused =
        runToEnd(kServer, {"--listen", "tcp://127.0.0.1:" + std::to_string(freeTcpPort()),
                           "--key-file", loose});
    EXPECT_EQ(refused.code, 1);
    EXPECT_NE(refused.err.find("must be of mode 0600"), std::string::npos) << refused.err;
}

TEST(CrossProcess, OversizedFramesAreRefusedOnBothSidesAndNothingCrashes) {
    PrivateDir dir;
    std::string const endpoint = "ipc://" + dir.path() + "/small";
    auto server = startServer(endpoint, {"--max-frame-size", "1048576"});
    ZmqTransportOptions options;
    options.maxFrameSize = 4 << 20;
    ExchangeConfig c;
    c.name = "big-sender-" + std::to_string(::getpid());
    c.transport = makeZmqTransport(options);
    auto ex = ExchangeApi::create(c);

    // Too large for this side: refused before it leaves, to the sender only.
    std::string const huge(5 << 20, 'x');
    EXPECT_NE(failureOf([&] { echo(*ex, endpoint, 1, huge); }).find("exceeds the limit"),
              std::string::npos);
    EXPECT_THROW(ex->submit(boost::make_shared<EchoMessage>(1, huge), Address(endpoint, "noqueue")),
                 DeliveryError);
    // Too large for the server: it drops the frame unread, and the sender's future fails.
    EXPECT_THROW(echo(*ex, endpoint, 2, std::string(2 << 20, 'y')), DeliveryError);
    EXPECT_EQ(echo(*ex, endpoint, 3, std::string(1000, 'z'))->n, 3) << "served again";
    EXPECT_EQ(echo(*ExchangeApi::instance(), endpoint, 4)->n, 4);
}

TEST(Chaos, AKilledServerFailsEveryTrackedRequestWithStatus5AndARestartServesTheSameClient) {
    PrivateDir dir;
    std::string const endpoint = "ipc://" + dir.path() + "/chaos";
    auto server = startServer(endpoint);
    auto d = distributorFor(endpoint, 21);
    std::vector<Tracked> inFlight;
    for (int i = 0; i < 4; ++i)
        inFlight.push_back(enqueueLoop(*d));
    ASSERT_TRUE(inFlight[0].request->output().waitFor(u"looping"));

    server->signal(SIGKILL);
    auto const killed = boost::chrono::steady_clock::now();
    for (auto& t : inFlight) {
        ASSERT_EQ(t.future.wait_until(killed + boost::chrono::seconds(1)),
                  boost::future_status::ready)
            << "a tracked request still waits a second after its server died";
        EXPECT_EQ(statusOf(t.future), quorl::cmddistributor::ExecutionCommunicationError);
    }
    EXPECT_EQ(server->wait(), 128 + SIGKILL);

    auto restarted = startServer(endpoint);
    Tracked again = enqueueLoop(*d);
    ASSERT_TRUE(again.request->output().waitFor(u"looping")) << restarted->errors();
    expectInterrupted(*d, again);
}

TEST(Chaos, AFrozenServerIsDroppedByHeartbeatsAndItsRequestsFailWithStatus5) {
    PrivateDir dir;
    std::string const endpoint = "ipc://" + dir.path() + "/frozen";
    auto server = startServer(endpoint);
    auto d = distributorFor(endpoint, 41);
    Tracked running = enqueueLoop(*d);
    ASSERT_TRUE(running.request->output().waitFor(u"looping"));

    // Its connection stays open: only the missing heartbeats can tell.
    server->signal(SIGSTOP);
    auto const frozen = boost::chrono::steady_clock::now();
    ASSERT_EQ(running.future.wait_until(frozen + boost::chrono::milliseconds(2000)),
              boost::future_status::ready);
    EXPECT_EQ(statusOf(running.future), quorl::cmddistributor::ExecutionCommunicationError);
    server->signal(SIGCONT);
}

TEST(Lifecycle, AServerStoppedBySignalTellsItsClientsAndExitsZero) {
    PrivateDir dir;
    std::string const endpoint = "ipc://" + dir.path() + "/stopping";
    auto server = startServer(endpoint);
    std::promise<void> heard;
    std::atomic<bool> once{false};
    auto session = quorl::eventmgr::createLocalEventMgr(boost::none);
    auto connection = session->subscribe<quorl::eventmgr::TARNShutdownEvent>([&](auto const&) {
        if (!once.exchange(true))
            heard.set_value();
    });
    auto d = distributorFor(endpoint, 31);
    Tracked running = enqueueLoop(*d);
    ASSERT_TRUE(running.request->output().waitFor(u"looping"));

    server->signal(SIGTERM);
    EXPECT_EQ(heard.get_future().wait_for(kPatience), std::future_status::ready);
    EXPECT_EQ(running.future.wait_for(boost::chrono::seconds(20)), boost::future_status::ready)
        << "the client must not hang";
    EXPECT_EQ(server->wait(), 0) << server->errors();
    EXPECT_NE(server->output().find("shutting down"), std::string::npos);
}

TEST(ServerProgram, HelpUsageErrorsAndStartFailuresHaveTheirExitCodes) {
    auto help = runToEnd(kServer, {"--help"});
    EXPECT_EQ(help.code, 0);
    EXPECT_NE(help.out.find("Usage: quorl-server --listen ENDPOINT"), std::string::npos);
    EXPECT_NE(help.out.find("--key-file"), std::string::npos);

    for (auto const& args :
         std::vector<std::vector<std::string>>{{},
                                               {"--listen", "somewhere"},
                                               {"--bogus"},
                                               {"--listen", "ipc://x", "--max-frame-size", "0"}}) {
        auto r = runToEnd(kServer, args);
        EXPECT_EQ(r.code, 2) << r.err;
        EXPECT_NE(r.err.find("Try 'quorl-server --help'"), std::string::npos) << r.err;
    }

    PrivateDir dir;
    std::string const open = dir.path() + "/open";
    ::mkdir(open.c_str(), 0755);
    auto r = runToEnd(kServer, {"--listen", "ipc://" + open + "/server"});
    EXPECT_EQ(r.code, 1);
    EXPECT_NE(r.err.find("must be of mode 0700"), std::string::npos) << r.err;
}
