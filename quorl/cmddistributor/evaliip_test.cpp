// Eval packets and requests on their own: construction, the holder they share, the wire form in
// every archive family, and the distributor's naming of the exchanges.
#include <tests/support/archivetesting.hpp>

#include <quorl/cmddistributor/defaultdistributor.hpp>
#include <quorl/cmddistributor/evalcmdrequest.hpp>
#include <quorl/cmddistributor/evaliip.hpp>
#include <quorl/eventmgr/eventmgraccess.hpp>
#include <quorl/workspace/clientworkspace.hpp>
#include <quorl/workspace/workspaceholder.hpp>
#include <quorl/workspace/workspacestorescope.hpp>

#include <foundation/msg_svc/exchange/exchangeapi.hpp>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <algorithm>

using namespace cmddistributor;
using quorl::workspace::ClientWorkspace;
using quorl::workspace::WorkspaceHolder;
using quorl_testing::Family;

namespace {

std::vector<std::string> only(std::vector<std::string> const& names,
                              std::vector<std::string> const& wanted) {
    std::vector<std::string> kept;
    std::copy_if(names.begin(), names.end(), std::back_inserter(kept), [&](std::string const& n) {
        return std::find(wanted.begin(), wanted.end(), n) != wanted.end();
    });
    return kept;
}

boost::shared_ptr<EvalIIP> packetOf(CmdRequest const& request) {
    auto eval = boost::dynamic_pointer_cast<EvalIIP>(request.getIIP());
    EXPECT_TRUE(eval);
    return eval;
}

} // namespace

TEST(EvalPackets, ConstructorsFindOrMakeOneHolderPerWorkspace) {
    quorl::workspace::WorkspaceStoreScope scope;
    EvalIIP const plain("user eval", DefaultIqmStreamID, nullptr, nullptr, u"x = 1");
    EXPECT_EQ(plain.getCodeType(), ConventionalType);
    EXPECT_FALSE(plain.getWorkspaceHolder());
    EXPECT_FALSE(plain.getExternalWorkspace());

    EvalIIP noWorkspace("user eval", DefaultIqmStreamID, nullptr, nullptr, nullptr, u"y",
                        ScriptType);
    EXPECT_FALSE(noWorkspace.getWorkspaceHolder()) << "a null workspace gives no holder";
    noWorkspace.setExchangeNames("far", "near"); // no holder: nothing to tell, and no failure
    EXPECT_EQ(noWorkspace.getCodeType(), ScriptType);

    auto ws = boost::make_shared<ClientWorkspace>();
    EvalIIP first("user eval", DefaultIqmStreamID, ws, nullptr, nullptr, u"z", CodeBlockType);
    ASSERT_TRUE(first.getWorkspaceHolder() && *first.getWorkspaceHolder());
    EXPECT_EQ(first.getExternalWorkspace(), ws);
    EvalIIP unpublished("user eval", DefaultIqmStreamID, ws, nullptr, nullptr, u"z", CodeBlockType);
    EXPECT_NE(*unpublished.getWorkspaceHolder(), *first.getWorkspaceHolder());

    (*first.getWorkspaceHolder())->saveClientWorkspace();
    EvalIIP later("user eval", DefaultIqmStreamID, ws, nullptr, nullptr, u"z", CodeBlockType);
    EXPECT_EQ(*later.getWorkspaceHolder(), *first.getWorkspaceHolder()) << "shared, none made";
    later.setExchangeNames("far", "near");
    later.setExchangeNames("farther", "near2");
    auto const& holder = **first.getWorkspaceHolder();
    EXPECT_EQ(holder.getClientExchangeName(), "near2");
    EXPECT_EQ((*first.getWorkspaceHolder())->getDestNames(),
              (std::set<std::string>{"far", "farther"}));

    EvalIIP archived;
    EXPECT_EQ(archived.getCodeType(), UndefinedCodeType);
    EXPECT_TRUE(archived.getCommand().empty());
    EXPECT_FALSE(archived.getExternalWorkspace());
}

TEST(EvalPackets, RequestsMakeTheirPacketByKind) {
    quorl::workspace::WorkspaceStoreScope scope;
    auto ws = boost::make_shared<ClientWorkspace>();
    EvalCmdRequest const internal(false, DefaultIqmStreamID, ws, nullptr, nullptr, u"a+1",
                                  ScriptType);
    auto packet = packetOf(internal);
    EXPECT_EQ(packet->getPluginType(), "internal eval");
    EXPECT_EQ(packet->getCommand(), u"a+1");
    EXPECT_EQ(packet->getCodeType(), ScriptType);
    EXPECT_EQ(packet->getExternalWorkspace(), ws);
    EXPECT_EQ(packet->getOutputSink(), internal.getOutputSink()) << "the request's sinks";

    EvalCmdRequest const user(true, DefaultIqmStreamID, nullptr, nullptr, u"disp(1)");
    EXPECT_EQ(user.getCodeType(), ConventionalType);
    EXPECT_FALSE(user.getExternalWorkspace());
    EXPECT_TRUE(user.isUserEval());
    EXPECT_EQ(packetOf(user)->getPluginType(), "user eval");
    EXPECT_FALSE(packetOf(user)->getWorkspaceHolder());
}

TEST(EvalPackets, WireFormInEveryFamilyGivesTheClientItsOwnWorkspaceBack) {
    quorl::workspace::WorkspaceStoreScope scope;
    auto ws = boost::make_shared<ClientWorkspace>();
    ws->set("b", foundation::extdata::Array());
    ws->set("a", foundation::extdata::Array());
    EvalIIP packet("user eval", DefaultIqmStreamID, ws, nullptr, nullptr, u"b = a \u00b2",
                   ScriptType);
    packet.setExchangeNames("far", "near");
    EvalIIP const bare("internal eval", DefaultIqmStreamID, nullptr, nullptr, u"1");

    foundation::msg_svc::exchange::IDType id(0, 0);
    for (Family f : quorl_testing::allFamilies()) {
        SCOPED_TRACE(quorl_testing::familyName(f));
        auto eval = quorl_testing::roundTripThroughBase<IIP>(f, packet);
        ASSERT_TRUE(eval);
        EXPECT_TRUE(eval->wasSerialized());
        EXPECT_EQ(eval->getPluginType(), "user eval");
        EXPECT_EQ(eval->getCommand(), u"b = a \u00b2");
        EXPECT_EQ(eval->getCodeType(), ScriptType);
        EXPECT_EQ(eval->getExternalWorkspace(), ws) << "the very workspace, no proxy";

        auto const& holder = *packet.getWorkspaceHolder();
        if (id.isNull())
            id = holder->getWorkspaceId();
        EXPECT_FALSE(id.isNull()) << "saving published the workspace";
        EXPECT_EQ(holder->getWorkspaceId(), id) << "and keeps its id on every later save";
        EXPECT_EQ(holder->getNames(), (std::vector<std::string>{"a", "b"}));
        auto const& loaded = *eval->getWorkspaceHolder();
        EXPECT_EQ(loaded->getWorkspaceId(), id);
        EXPECT_EQ(loaded->getClientExchangeName(), "near");
        EXPECT_EQ(loaded->getNames(), holder->getNames());
        EXPECT_TRUE(loaded->getDestNames().empty()) << "destinations stay with the client";

        auto bareEval = quorl_testing::roundTripThroughBase<IIP>(f, bare);
        ASSERT_TRUE(bareEval);
        EXPECT_FALSE(bareEval->getWorkspaceHolder());
        EXPECT_EQ(bareEval->getCodeType(), ConventionalType);
    }
    EXPECT_EQ(WorkspaceHolder::getWorkspaceHolder(id), *packet.getWorkspaceHolder());

    std::vector<std::string> const fields{
        "EvalIIP",        "streamid",        "plugintype",   "evalstring", "codeType",
        "wsHolder",       "initialized",     "item_version", "value",      "wsId",
        "clientExchange", "variableEntries", "varNames"};
    EXPECT_EQ(only(quorl_testing::xmlElementNames(
                       quorl_testing::write(Family::Xml, static_cast<IIP const*>(&packet))),
                   fields),
              (std::vector<std::string>{"EvalIIP", "streamid", "plugintype", "evalstring",
                                        "codeType", "wsHolder", "initialized", "item_version",
                                        "value", "wsId", "clientExchange", "variableEntries",
                                        "item_version", "varNames", "item_version"}));
    EXPECT_EQ(only(quorl_testing::xmlElementNames(
                       quorl_testing::write(Family::Xml, static_cast<IIP const*>(&bare))),
                   fields),
              (std::vector<std::string>{"EvalIIP", "streamid", "plugintype", "evalstring",
                                        "codeType", "wsHolder", "initialized"}));
}

TEST(EvalPackets, ARemoteDistributorNamesTheExchangesOnTheHolder) {
    quorl::workspace::WorkspaceStoreScope scope;
    auto mgr = quorl::eventmgr::createLocalEventMgr(boost::none);
    auto local = foundation::msg_svc::exchange::ExchangeApi::instance()->getExchangeName();
    auto ws = boost::make_shared<ClientWorkspace>();

    auto remote =
        CmdDistributor::create(quorl::contextmgr::FennID{4711}, "far-exchange", boost::none, mgr);
    auto request = boost::make_shared<EvalCmdRequest>(true, DefaultIqmStreamID, ws, nullptr,
                                                      nullptr, u"1", ConventionalType);
    auto future = remote->enqueueWithFuture(request); // unreachable: only the naming matters
    auto const& holder = *packetOf(*request)->getWorkspaceHolder();
    EXPECT_EQ(holder->getDestNames(), (std::set<std::string>{"far-exchange"}));
    EXPECT_EQ(holder->getClientExchangeName(), local);

    // On the local exchange the packet goes unchanged.
    auto near = CmdDistributor::create(quorl::contextmgr::FennID{4712}, local, boost::none, mgr);
    auto localRequest = boost::make_shared<EvalCmdRequest>(true, DefaultIqmStreamID, ws, nullptr,
                                                           nullptr, u"2", ConventionalType);
    near->enqueue(localRequest, quorl::cmddistributor::WhenToDequeue::DequeueDefault);
    EXPECT_EQ(holder->getDestNames().size(), 1u) << "a local packet adds no destination";
}
