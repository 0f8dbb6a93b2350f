// Eval requests through the distributor to a quorl-server in another process: the server's own
// workspace per context, the client's workspace read and written across the wire, output
// streamed while the code runs, errors with stack and cause, interrupt, and a server killed in
// the middle of an evaluation.
#include <tests/crossprocess/serverprocess.hpp>
#include <tests/evalremote/remoteeval.hpp>
#include <tests/support/nestederror.hpp>

#include <quorl/cmddistributor/cmddistributor.hpp>
#include <quorl/cmddistributor/defaultiipstateevent.hpp>
#include <quorl/cmddistributor/evalcmdrequest.hpp>
#include <quorl/cmddistributor/runtimeexception.hpp>
#include <quorl/eventmgr/eventmgraccess.hpp>
#include <quorl/io/veldrasink.hpp>
#include <quorl/workspace/clientworkspace.hpp>
#include <quorl/workspace/workspaceholder.hpp>

#include <foundation/cppmicroservices/framework.hpp>
#include <foundation/msg_svc/exchange/exchangeapi.hpp>
#include <foundation/msg_svc/exchange/zmqtransport.hpp>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <csignal>
#include <unistd.h>

using namespace crossprocess;
using namespace foundation::msg_svc::exchange;
using namespace quorl_testing;
using foundation::extdata::Array;

namespace {

std::string const kServer = QUORL_SERVER;

// The process's exchange binds nothing; it trusts the key pair that the tcp servers are given.
struct ClientEnvironment : ::testing::Environment {
    void SetUp() override {
        foundation::cppmicroservices::startFramework();
        keys = std::make_unique<PrivateDir>();
        keyFile = keys->path() + "/server.key";
        ZmqTransportOptions options;
        options.serverPublicKey = loadOrCreateKeyFile(keyFile).publicKey;
        ExchangeConfig config;
        config.name = "evalremote-client-" + std::to_string(::getpid());
        config.transport = makeZmqTransport(options);
        ExchangeApi::configure(config);
        ExchangeApi::instance();
    }
    static std::unique_ptr<PrivateDir> keys;
    static std::string keyFile;
};
std::unique_ptr<PrivateDir> ClientEnvironment::keys;
std::string ClientEnvironment::keyFile;
[[maybe_unused]] auto* const environment =
    ::testing::AddGlobalTestEnvironment(new ClientEnvironment);

std::unique_ptr<ServerProcess> startServer(std::string const& endpoint) {
    std::vector<std::string> args{"--listen", endpoint};
    if (endpoint.compare(0, 6, "tcp://") == 0) {
        args.push_back("--key-file");
        args.push_back(ClientEnvironment::keyFile);
    }
    auto p = std::make_unique<ServerProcess>(kServer, args);
    EXPECT_TRUE(p->waitForLine("listening on " + endpoint)) << p->errors();
    return p;
}

// Values kept in the server's workspace between requests, and code run in the client's
// workspace: reads, writes and clears cross the wire, and later client changes are seen.
void exerciseWorkspaces(std::string const& endpoint) {
    Remote remote(endpoint, 3);
    remote.eval(u"x = 6 * 7;");
    Sink shown;
    remote.eval(u"disp(x)", nullptr, &shown);
    EXPECT_EQ(shown.buffer->text(), u"42\n");

    auto ws = boost::make_shared<ClientWorkspace>();
    ws->set("a", Array::createScalar(5.0));
    ws->set("gone", Array::createChar(u"old"));
    ws->set("v", Array::create<double>({1, 3}, {1, 2, 3}));
    Sink out;
    remote.eval(u"b = a * 2; v(2) = 20; clear gone; s = 'text'; fprintf('%g %g\\n', b, sum(v))", ws,
                &out);
    EXPECT_EQ(out.buffer->text(), u"10 24\n");
    ASSERT_TRUE(ws->find("b"));
    EXPECT_EQ(ws->find("b")->get<double>(0), 10.0);
    EXPECT_EQ(*ws->find("v"), Array::create<double>({1, 3}, {1, 20, 3}));
    EXPECT_EQ(*ws->find("s"), Array::createChar(u"text"));
    EXPECT_FALSE(ws->find("gone"));
    EXPECT_FALSE(ws->find("x")) << "the server's own x stays on the server";

    // The client's later change is what the next request sees, through the same provider.
    ws->set("a", Array::createScalar(7.0));
    remote.eval(u"b = a + 1;", ws);
    EXPECT_EQ(ws->find("b")->get<double>(0), 8.0);
    // And the client's variables did not leak into the server's workspace.
    EXPECT_EQ(remote.failure(u"disp(a)").GetID(), "quorl:undefinedFunctionOrVariable");
    quorl::workspace::WorkspaceHolder::workspaceDeleted(ws);
}

} // namespace

TEST(EvalRemote, ServerAndClientWorkspacesOverIpc) {
    PrivateDir dir;
    std::string const endpoint = "ipc://" + dir.path() + "/server";
    auto server = startServer(endpoint);
    exerciseWorkspaces(endpoint);
}

TEST(EvalRemote, ServerAndClientWorkspacesOverTcpWithCurve) {
    std::string const endpoint = "tcp://127.0.0.1:" + std::to_string(freeTcpPort());
    auto server = startServer(endpoint);
    exerciseWorkspaces(endpoint);
}

TEST(EvalRemote, OutputReachesTheClientsSinksInOrderWhileTheCodeRuns) {
    PrivateDir dir;
    std::string const endpoint = "ipc://" + dir.path() + "/out";
    auto server = startServer(endpoint);
    Remote remote(endpoint, 4);
    auto ws = boost::make_shared<ClientWorkspace>();
    Sink out;
    Sink err;
    // The loop ends only once the client has set `go`, which it does after seeing the output:
    // the text must have crossed while the code was still running.
    auto f = remote.start(u"for k = 1:3, fprintf('%d,', k); end\n"
                          u"fprintf(2, 'warned\\n'); disp('waiting')\n"
                          u"while ~exist('go', 'var'), pause(0.002); end\n"
                          u"disp('done')",
                          IDType(), ws, &out, &err);
    ASSERT_TRUE(out.buffer->waitFor(u"waiting\n")) << server->errors();
    EXPECT_FALSE(f.is_ready());
    EXPECT_EQ(out.buffer->text(), u"1,2,3,waiting\n");
    EXPECT_EQ(err.buffer->text(), u"warned\n");
    ws->set("go", Array::createScalar(1.0));
    Remote::finish(f);
    EXPECT_EQ(out.buffer->text(), u"1,2,3,waiting\ndone\n");
    quorl::workspace::WorkspaceHolder::workspaceDeleted(ws);
}

TEST(EvalRemote, AnErrorCrossesWithItsIdentifierStackAndCause) {
    PrivateDir dir;
    std::string const endpoint = "ipc://" + dir.path() + "/err";
    auto server = startServer(endpoint);
    Remote remote(endpoint, 5);
    expectNestedError(remote.failure(nestedErrorCode));

    // The context serves on after the error.
    Sink out;
    remote.eval(u"disp(1 + 1)", nullptr, &out);
    EXPECT_EQ(out.buffer->text(), u"2\n");
}

TEST(EvalRemote, CancelWithInterruptStopsARunningLoopAndTheContextServesOn) {
    PrivateDir dir;
    std::string const endpoint = "ipc://" + dir.path() + "/cancel";
    auto server = startServer(endpoint);
    Remote remote(endpoint, 6);
    Sink out;
    IDType const id;
    auto f = remote.start(u"n = 0; disp('started'); while true, n = n + 1; end", id, nullptr, &out);
    ASSERT_TRUE(out.buffer->waitFor(u"started\n")) << server->errors();
    EXPECT_FALSE(f.is_ready());
    auto cancel = remote.distributor().cancelRequest(id, true);
    ASSERT_TRUE(cancel.timed_wait(boost::posix_time::seconds(30)));
    // The host answered "running, interrupt pending"; the cancel ends with the request's status 4.
    EXPECT_EQ(cancel.get(), CmdDistributor::CancelEndedByStatus4);
    EXPECT_EQ(statusOf(f), quorl::cmddistributor::ExecutionInterrupted);

    Sink after;
    remote.eval(u"disp(exist('n', 'var'))", nullptr, &after);
    EXPECT_EQ(after.buffer->text(), u"1\n") << "the context serves on, its workspace kept";
}

TEST(EvalRemote, AServerKilledMidEvaluationFailsTheRequestWithStatus5) {
    PrivateDir dir;
    std::string const endpoint = "ipc://" + dir.path() + "/killed";
    auto server = startServer(endpoint);
    Remote remote(endpoint, 7);
    auto ws = boost::make_shared<ClientWorkspace>();
    ws->set("a", Array::createScalar(1.0));
    Sink out;
    auto f = remote.start(u"b = a; disp('started'); while true, end", IDType(), ws, &out);
    ASSERT_TRUE(out.buffer->waitFor(u"started\n")) << server->errors();
    server->signal(SIGKILL);
    EXPECT_EQ(statusOf(f), quorl::cmddistributor::ExecutionCommunicationError);
    EXPECT_EQ(server->wait(), 128 + SIGKILL);
    EXPECT_FALSE(ws->find("b")) << "nothing was written back";
}

TEST(EvalRemote, AClientThatListensToStartedEventsHearsThemBeforeTheCompletion) {
    // The server sends a packet's state events only to a client that listens to them: the
    // client says so when it first writes, and again as soon as it starts listening.
    PrivateDir dir;
    std::string const endpoint = "ipc://" + dir.path() + "/started";
    auto server = startServer(endpoint);
    Remote remote(endpoint, 7);
    remote.eval(u"y = 1;");
    auto manager = quorl::eventmgr::createLocalEventMgr(boost::none);
    IDType const id;
    std::atomic<int> heard{0};
    auto connection = manager->subscribe<cmddistributor::IIPStartedEvent>(
        [&](cmddistributor::IIPStartedEvent const& e) {
            if (e.getIdOfChangedIIP() == id)
                ++heard;
        });
    auto f = remote.start(u"y = 2;", id);
    Remote::finish(f);
    // The completion is dispatched after the started event, by the same event thread.
    EXPECT_EQ(heard.load(), 1);
}
