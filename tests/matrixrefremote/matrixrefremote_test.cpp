// Matrix references between a client (this test) and a quorl-server process: code run on the
// server in the client's workspace stores an object there; the client holds a reference, copies
// it, keeps it in a cell and sends it back; the server sees its original object, and frees it
// when the client's last copy dies. A server that dies leaves the client's references as clean
// failures.
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

} // namespace

TEST(MatrixRefRemote, AServerObjectTravelsAsAReferenceComesBackAsItselfAndDiesWithTheLastCopy) {
    PrivateDir dir;
    std::string const endpoint = "ipc://" + dir.path() + "/server";
    auto server = startServer(endpoint);
    Remote remote(endpoint, 3);
    ASSERT_EQ(shown(remote, u"disp(refMetrics('ActiveRefCount'))"), u"0\n");
    ASSERT_EQ(clientTable().countActive(false), 0u);

    auto ws = boost::make_shared<ClientWorkspace>();
    remote.eval(u"x = RefBox(42, 'answer');", ws);
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
                    u"disp(x.Value); poke(x); disp(c{1}.Value); disp(c{2}); disp(c{1}.Label)\n"
                    u"function poke(b)\n"
                    u"  b.Value = 43;\n"
                    u"end\n",
                    ws),
              u"42\n43\n7\nanswer\n");
    EXPECT_EQ(shown(remote, u"disp(refMetrics('TotalRefCount'))"), u"1\n")
        << "references that came home left the counts as they were";

    // The client's last copies die (the workspace, and the holder's record of what it sent).
    ws->erase("x");
    ws->erase("c");
    EXPECT_EQ(clientTable().countActive(false), 1u) << "the holder still remembers them";
    quorl::workspace::WorkspaceHolder::workspaceDeleted(ws);
    ws.reset();
    EXPECT_EQ(clientTable().countActive(false), 0u);
    // The release travels on its own; each poll is a round trip, so this waits without sleeping.
    std::u16string count;
    for (int i = 0; i < 2000 && count != u"0\n"; ++i)
        count = shown(remote, u"disp(refMetrics('ActiveRefCount'))");
    EXPECT_EQ(count, u"0\n") << "the server freed its object";
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
