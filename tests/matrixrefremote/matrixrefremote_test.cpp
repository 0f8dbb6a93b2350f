// Matrix references between a client (this test) and a server process: code run on the server
// in the client's workspace stores an object there; the client holds a reference, copies it,
// keeps it in a cell and sends it back; the server sees its original object, and destroys it
// when the client's last copy dies, after exactly one release. A client that dies holding
// references leaves nothing once its context is cleared; a server that dies leaves the client's
// references as clean failures. The server counts its live tokens (kept in the objects) and the
// releases it serves.
#include <tests/crossprocess/serverprocess.hpp>
#include <tests/evalremote/remoteeval.hpp>

#include <quorl/matrixref/matrixref.hpp>
#include <quorl/matrixref/matrixreftable.hpp>
#include <quorl/matrixref/refexternalform.hpp>
#include <quorl/workspace/workspaceholder.hpp>

#include <foundation/cppmicroservices/framework.hpp>
#include <foundation/msg_svc/exchange/exchangeapi.hpp>
#include <foundation/msg_svc/exchange/zmqtransport.hpp>

#include <gtest/gtest.h>

#include <csignal>
#include <string>
#include <unistd.h>

using namespace crossprocess;
using namespace foundation::msg_svc::exchange;
using namespace quorl_testing;
using foundation::extdata::Array;
using quorl::matrixref::refIsExternalRef;

namespace {

bool anythingConverts(hvArray_tag const*) {
    return true;
}

struct ClientEnvironment : ::testing::Environment {
    void SetUp() override {
        foundation::cppmicroservices::startFramework();
        ExchangeConfig config;
        config.name = "matrixrefremote-client-" + std::to_string(::getpid());
        config.transport = makeZmqTransport();
        ExchangeApi::configure(config);
        ExchangeApi::instance();
        quorl::matrixref::detail::refInitMatrixReferences({}, &anythingConverts);
    }
};
[[maybe_unused]] auto* const environment =
    ::testing::AddGlobalTestEnvironment(new ClientEnvironment);

std::unique_ptr<ServerProcess> startServer(std::string const& endpoint) {
    auto p = std::make_unique<ServerProcess>(QUORL_SERVER,
                                             std::vector<std::string>{"--listen", endpoint});
    EXPECT_TRUE(p->waitForLine("listening on " + endpoint)) << p->errors();
    return p;
}

quorl::matrixref::MatrixRefTable& clientTable() {
    return *quorl::matrixref::detail::refTable();
}

// What code prints, run in the server's workspace or the client's.
std::u16string shown(Remote& remote, std::u16string const& code,
                     boost::shared_ptr<ClientWorkspace> const& ws = nullptr) {
    Sink out;
    remote.eval(code, ws, &out);
    return out.buffer->text();
}

// A number the server's code displays.
double serverNumber(Remote& remote, std::u16string const& expression) {
    std::u16string const text = shown(remote, u"disp(" + expression + u")");
    return std::stod(std::string(text.begin(), text.end()));
}

// Polls a server count until it is `wanted`: the releases travel on their own, and each poll is
// a round trip, so this waits without sleeping. The last value seen.
double awaitServerNumber(Remote& remote, std::u16string const& expression, double wanted) {
    double value = serverNumber(remote, expression);
    for (int i = 0; i < 2000 && value != wanted; ++i)
        value = serverNumber(remote, expression);
    return value;
}

} // namespace

TEST(MatrixRefRemote, AServerObjectTravelsAsAReferenceComesBackAsItselfAndDiesWithTheLastCopy) {
    PrivateDir dir;
    std::string const endpoint = "ipc://" + dir.path() + "/server";
    auto server = startServer(endpoint);
    Remote remote(endpoint, 3);
    ASSERT_EQ(shown(remote, u"disp(refMetrics('ActiveRefCount'))"), u"0\n");
    ASSERT_EQ(clientTable().countActive(false), 0u);
    double const served = serverNumber(remote, u"releasesServed()");

    auto ws = boost::make_shared<ClientWorkspace>();
    remote.eval(u"x = RefBox(42, liveToken());", ws);
    EXPECT_EQ(serverNumber(remote, u"liveTokens()"), 1.0);
    {
        auto x = ws->find("x");
        ASSERT_TRUE(x);
        EXPECT_TRUE(refIsExternalRef(*x)) << "an object that cannot travel arrives as a reference";
        // One remote entry here, one local entry there, each counted once for the client.
        EXPECT_EQ(clientTable().countActive(false), 1u);
        EXPECT_EQ(clientTable().countTotal(false), 1u);
        EXPECT_EQ(shown(remote, u"disp(refMetrics('TotalRefCount'))"), u"1\n");

        // The client copies it and keeps a copy in a cell: copies share the one reference.
        Array copy = *x;
        ws->set("c", Array::createCell({1, 2}, {copy, Array::createScalar(7.0)}));
        EXPECT_EQ(clientTable().countTotal(false), 1u);
    }

    // Sent back, both resolve to the server's own object: a change made through one (a handle
    // passed to a function, no variable written back) is seen through the other.
    EXPECT_EQ(shown(remote,
                    u"disp(x.Value); poke(x); disp(c{1}.Value); disp(c{2})\n"
                    u"function poke(b)\n"
                    u"  b.Value = 43;\n"
                    u"end\n",
                    ws),
              u"42\n43\n7\n");
    EXPECT_EQ(shown(remote, u"disp(refMetrics('TotalRefCount'))"), u"1\n")
        << "references that came home left the counts as they were";

    // The client's last copies die (the workspace, and the holder's record of what it sent).
    ws->erase("x");
    ws->erase("c");
    EXPECT_EQ(clientTable().countActive(false), 1u) << "the holder still remembers them";
    quorl::workspace::WorkspaceHolder::workspaceDeleted(ws);
    ws.reset();
    EXPECT_EQ(clientTable().countActive(false), 0u);
    EXPECT_EQ(awaitServerNumber(remote, u"liveTokens()", 0.0), 0.0)
        << "the server destroyed its object";
    EXPECT_EQ(serverNumber(remote, u"refMetrics('ActiveRefCount')"), 0.0);
    // One more round trip after the object died: a second release would have crossed by now.
    EXPECT_EQ(serverNumber(remote, u"releasesServed()"), served + 1) << "exactly one release";
}

TEST(MatrixRefRemote, AClientThatDiesHoldingReferencesLeavesNothingOnceItsContextIsCleared) {
    PrivateDir dir;
    std::string const endpoint = "ipc://" + dir.path() + "/orphans";
    auto server = startServer(endpoint);
    Remote remote(endpoint, 5);
    ServerProcess client(QUORL_REF_CLIENT, {endpoint});
    ASSERT_TRUE(client.waitForLine("holding")) << client.errors() << server->errors();
    client.signal(SIGKILL);
    EXPECT_EQ(client.wait(), 128 + SIGKILL);

    // Nobody will release the object; it lives on until its context is cleared.
    EXPECT_EQ(serverNumber(remote, u"liveTokens()"), 1.0);
    EXPECT_EQ(serverNumber(remote, u"refMetrics('ActiveRefCount')"), 1.0);
    double const served = serverNumber(remote, u"releasesServed()");
    remote.eval(u"clearContextRefs()");
    EXPECT_EQ(serverNumber(remote, u"liveTokens()"), 0.0);
    EXPECT_EQ(serverNumber(remote, u"refMetrics('TotalRefCount')"), 0.0);
    EXPECT_EQ(serverNumber(remote, u"releasesServed()"), served);

    // The server serves on: references handed out after the clear work as before.
    auto ws = boost::make_shared<ClientWorkspace>();
    remote.eval(u"y = RefBox(5, liveToken());", ws);
    EXPECT_EQ(shown(remote, u"disp(y.Value)", ws), u"5\n");
    quorl::workspace::WorkspaceHolder::workspaceDeleted(ws);
    ws.reset();
    EXPECT_EQ(awaitServerNumber(remote, u"liveTokens()", 0.0), 0.0);
}

TEST(MatrixRefRemote, AServerThatDiesLeavesTheClientsReferencesAsCleanFailures) {
    PrivateDir dir;
    std::string const endpoint = "ipc://" + dir.path() + "/dying";
    auto server = startServer(endpoint);
    Remote remote(endpoint, 4);
    auto ws = boost::make_shared<ClientWorkspace>();
    remote.eval(u"x = RefBox(1, 'doomed'); y = {RefBox(2, 'in a cell'), 3};", ws);
    ASSERT_TRUE(ws->find("x"));
    ASSERT_TRUE(ws->find("y"));
    EXPECT_EQ(clientTable().countActive(false), 2u);

    server->signal(SIGKILL);
    EXPECT_EQ(server->wait(), 128 + SIGKILL);
    // Sending a reference back fails as the request does; dropping the references sends
    // releases that go nowhere, and nothing breaks.
    auto f = remote.start(u"disp(x.Value)", IDType(), ws);
    EXPECT_EQ(statusOf(f), quorl::cmddistributor::ExecutionCommunicationError);
    ws->erase("x");
    ws->erase("y");
    EXPECT_EQ(clientTable().countActive(false), 0u);
}
