// The workspace exchange with real array payloads: every message and the holder in every archive
// family, and a client workspace read and written from a serving side on another exchange, with
// the bytes on the wire counted.
#include <tests/support/archivetesting.hpp>
#include <tests/support/stopexchange.hpp>

#include <quorl/cmddistributor/evaliip.hpp>
#include <quorl/workspace/clientworkspace.hpp>
#include <quorl/workspace/localvariableprovider.hpp>
#include <quorl/workspace/onevariablegetmessage.hpp>
#include <quorl/workspace/variablesgetmessage.hpp>
#include <quorl/workspace/variablesgetreply.hpp>
#include <quorl/workspace/variablessetmessage.hpp>
#include <quorl/workspace/workspacedeletedmessage.hpp>
#include <quorl/workspace/workspaceholder.hpp>
#include <quorl/workspace/workspacestorescope.hpp>

#include <foundation/cppmicroservices/framework.hpp>
#include <foundation/msg_svc/exchange/exchangeapi.hpp>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <thread>

using foundation::extdata::Array;
using foundation::msg_svc::exchange::ExchangeApi;
using foundation::msg_svc::exchange::ExchangeConfig;
using foundation::msg_svc::exchange::IDType;
using foundation::msg_svc::exchange::Message;
using foundation::msg_svc::exchange::Reply;
using quorl_testing::Family;
using namespace quorl::workspace;

namespace {

// The loopback transport, counting the bytes this exchange sends.
class CountingTransport : public foundation::msg_svc::exchange::Transport {
public:
    void start(std::string const& ownName,
               foundation::msg_svc::exchange::TransportSink& sink) override {
        inner_->start(ownName, sink);
    }
    void send(std::string const& to, std::string const& frame) override {
        sent += frame.size();
        ++frames;
        inner_->send(to, frame);
    }
    void stop() override { inner_->stop(); }

    std::atomic<std::size_t> sent{0};
    std::atomic<std::size_t> frames{0};

private:
    boost::shared_ptr<Transport> inner_ = foundation::msg_svc::exchange::makeLoopbackTransport();
};

std::string const servingName = "ws-serving";
std::string const clientName = "ws-client";
auto const servingWire = boost::make_shared<CountingTransport>();
auto const clientWire = boost::make_shared<CountingTransport>();

// The process's exchange is the serving side (the provider sends through it); the client has an
// exchange of its own. The data-array bundle is found under the installation root.
class TwoSides : public ::testing::Environment {
public:
    void SetUp() override {
        foundation::cppmicroservices::startFramework();
        ExchangeConfig serving;
        serving.name = servingName;
        serving.transport = servingWire;
        ExchangeApi::configure(serving);
        ExchangeApi::instance();
        ExchangeConfig client;
        client.name = clientName;
        client.transport = clientWire;
        clientExchange = ExchangeApi::create(client);
    }
    void TearDown() override {
        EXPECT_TRUE(quorl_testing::stopExchangeAndWaitForReport(clientExchange));
    }
    static boost::shared_ptr<ExchangeApi> clientExchange;
};
boost::shared_ptr<ExchangeApi> TwoSides::clientExchange;
auto* const environment = ::testing::AddGlobalTestEnvironment(new TwoSides);

Array numbers(std::size_t count, double start) {
    std::vector<double> v(count);
    for (std::size_t i = 0; i < count; ++i)
        v[i] = start + double(i);
    return Array::create<double>({1, count}, v);
}

Array mixed() {
    return Array::createCell({1, 3}, {Array::createChar(u"caf\u00e9"),
                                      Array::createLogical({1, 2}, {true, false}), Array()});
}

std::vector<std::string> only(std::vector<std::string> const& names,
                              std::vector<std::string> const& wanted) {
    std::vector<std::string> kept;
    for (auto const& n : names)
        if (std::find(wanted.begin(), wanted.end(), n) != wanted.end())
            kept.push_back(n);
    return kept;
}

// The client's bytes of the packet, as an exchange would send them.
std::string clientPacket(boost::shared_ptr<ClientWorkspace> const& ws) {
    cmddistributor::EvalIIP packet("user eval", cmddistributor::DefaultIqmStreamID, ws, nullptr,
                                   nullptr, u"y = x;", cmddistributor::ConventionalType);
    packet.setExchangeNames(servingName, clientName);
    return quorl_testing::write(Family::Binary, static_cast<cmddistributor::IIP const*>(&packet));
}

// The serving side's load of a packet; the caller stands in the serving side's store.
std::unique_ptr<cmddistributor::IIP> servingLoad(std::string const& bytes) {
    cmddistributor::IIP* back = nullptr;
    quorl_testing::read(Family::Binary, bytes, back);
    return std::unique_ptr<cmddistributor::IIP>(back);
}

} // namespace

TEST(WorkspaceWire, EveryMessageAndTheHolderRoundTripWithTheirPairNames) {
    IDType const id(3, 4);
    // Payload sizes that leave 0, 1 and 2 bytes over a base64 group, one over many lines.
    std::vector<Array> data{numbers(1, 1), numbers(2, 5), mixed(), numbers(3000, -7), Array()};
    OneVariableGetMessage const one("x", id);
    VariablesGetMessage const many({"x", "y", "z"}, id);
    VariablesSetMessage const set({"a", "b", "c", "d", "e"}, data, VariablesSetMessage::VAR_SET,
                                  id);
    WorkspaceDeletedMessage const deleted(id);
    VariablesGetReply const reply({{"x", {IVariableInfo::StatusValue, numbers(100, 0)}},
                                   {"y", {IVariableInfo::StatusUnchanged, Array()}},
                                   {"z", {IVariableInfo::StatusAbsent, Array()}},
                                   {"w", {IVariableInfo::StatusOther, mixed()}}});
    for (Family f : quorl_testing::allFamilies()) {
        SCOPED_TRACE(quorl_testing::familyName(f));
        for (Message const* m : std::vector<Message const*>{&one, &many, &set, &deleted}) {
            auto back = quorl_testing::roundTripThroughBase<Message>(f, *m);
            ASSERT_TRUE(back);
            EXPECT_TRUE(*back == *m) << *m;
        }
        auto typed = quorl_testing::roundTripThroughBase<Reply>(f, reply);
        ASSERT_TRUE(typed);
        EXPECT_EQ(typed->getVarInfo(), reply.getVarInfo());
        auto setBack = quorl_testing::roundTripThroughBase<Message>(f, set);
        ASSERT_TRUE(setBack);
        EXPECT_EQ(setBack->getVarData(), data);
    }

    auto names = [](auto const& object) {
        return quorl_testing::xmlElementNames(quorl_testing::write(Family::Xml, object));
    };
    VariablesSetMessage const small({"a"}, {numbers(2, 0)}, VariablesSetMessage::VAR_CLEAR, id);
    VariablesGetReply const oneEntry({{"x", {IVariableInfo::StatusValue, numbers(2, 0)}}});
    // Each form's pair names in order, among the names that any of them should have.
    std::vector<std::pair<std::vector<std::string>, std::vector<std::string>>> const forms{
        {names(one), {"OneVariableGetMessage", "wsId", "varName"}},
        {names(many), {"VariablesGetMessage", "wsId", "varNames"}},
        {names(deleted), {"WorkspaceDeletedMessage", "wsId"}},
        {names(small),
         {"VariablesSetMessage", "wsId", "varNames", "OpCode", "Data", "PayLoadLength"}},
        {names(oneEntry),
         {"VariablesGetReply", "VarInfo", "Name", "Info", "status", "value", "PayLoadLength"}}};
    std::vector<std::string> fields;
    for (auto const& form : forms)
        fields.insert(fields.end(), form.second.begin(), form.second.end());
    for (auto const& form : forms)
        EXPECT_EQ(only(form.first, fields), form.second);
}

TEST(WorkspaceWire, AHolderLoadedWhereItsIdIsUnknownBuildsAProvider) {
    // The wire form of a holder with entries, as a client writes it after a batch read.
    auto ws = boost::make_shared<ClientWorkspace>();
    ws->set("m", numbers(10, 1));
    ws->set("n", mixed());
    std::map<Family, std::string> bytes;
    {
        WorkspaceStoreScope client;
        auto holder = boost::make_shared<WorkspaceHolder>(ws);
        holder->saveClientWorkspace();
        VariablesGetMessage({"m"}, holder->getWorkspaceId()).deliver({clientName, "unordered"});
        holder->setExchangeNames(servingName, clientName);
        for (Family f : quorl_testing::allFamilies())
            bytes[f] = quorl_testing::write(f, holder);
        EXPECT_EQ(only(quorl_testing::xmlElementNames(bytes[Family::Xml]),
                       {"wsId", "clientExchange", "variableEntries", "varNames", "Name", "Info"}),
                  (std::vector<std::string>{"wsId", "clientExchange", "variableEntries", "Name",
                                            "Info", "varNames"}));
        boost::shared_ptr<WorkspaceHolder> same;
        quorl_testing::read(Family::Xml, bytes[Family::Xml], same);
        EXPECT_EQ(same->getClientWorkspace(), ws) << "the publishing process gets its own back";
    }
    for (Family f : quorl_testing::allFamilies()) {
        SCOPED_TRACE(quorl_testing::familyName(f));
        WorkspaceStoreScope serving;
        boost::shared_ptr<WorkspaceHolder> loaded;
        quorl_testing::read(f, bytes[f], loaded);
        ASSERT_TRUE(loaded);
        auto provider =
            boost::dynamic_pointer_cast<LocalVariableProvider>(loaded->getClientWorkspace());
        ASSERT_TRUE(provider);
        EXPECT_EQ(provider->getClientExchangeName(), clientName);
        EXPECT_EQ(provider->getWorkspaceId(), loaded->getWorkspaceId());
        EXPECT_EQ(provider->getVariableNames(), (std::vector<std::string>{"m", "n"}));
        ASSERT_EQ(provider->getCache().size(), 1u);
        EXPECT_EQ(provider->getCache().at("m"),
                  VariableValue(IVariableInfo::StatusValue, numbers(10, 1)));
        EXPECT_TRUE(loaded->getVariableStore().empty()) << "loading fills no holder cache";
    }
}

TEST(WorkspaceAcrossExchanges, AProviderReadsAndWritesTheClientsVariablesByTheMessages) {
    auto ws = boost::make_shared<ClientWorkspace>();
    Array const big = numbers(1 << 17, 0.5); // 1 MiB of doubles
    ws->set("x", big);
    ws->set("y", Array::createChar(u"small"));
    ws->set("onlyClient", numbers(3, 9));

    std::string const first = clientPacket(ws);
    auto const holder = WorkspaceHolder::lookupHolder(ws);
    ASSERT_TRUE(holder) << "saving the packet published the workspace";
    EXPECT_EQ(holder->getDestNames(), (std::set<std::string>{servingName}));

    WorkspaceStoreScope serving; // from here on this thread is the serving process
    auto packet = servingLoad(first);
    auto* eval = dynamic_cast<cmddistributor::EvalIIP*>(packet.get());
    ASSERT_TRUE(eval);
    auto provider =
        boost::dynamic_pointer_cast<LocalVariableProvider>(eval->getExternalWorkspace());
    ASSERT_TRUE(provider) << "the serving side reaches the workspace through messages";
    EXPECT_EQ(provider->getVariableNames(), (std::vector<std::string>{"onlyClient", "x", "y"}));

    // A batch read carries the big value once; the second read of it sends no data.
    std::size_t const before = clientWire->sent;
    auto info = provider->getVariables({"x", "y", "nothing"});
    std::size_t const firstRead = clientWire->sent - before;
    EXPECT_EQ(info.getValue(0), big);
    EXPECT_EQ(info.getStatus(2), IVariableInfo::StatusAbsent);
    EXPECT_GT(firstRead, big.getRawByteCount());
    auto again = provider->getVariables({"x", "y"});
    std::size_t const secondRead = clientWire->sent - before - firstRead;
    EXPECT_LT(secondRead * 100, firstRead) << firstRead << " then " << secondRead << " bytes";
    RecordProperty("firstReadBytes", std::to_string(firstRead));
    RecordProperty("secondReadBytes", std::to_string(secondRead));
    EXPECT_EQ(again.getStatus(0), IVariableInfo::StatusValue) << "never 'unchanged' to a caller";
    EXPECT_EQ(again.getValue(0), big) << "taken from the provider's cache";
    EXPECT_EQ(provider->getVariableNames(),
              (std::vector<std::string>{"onlyClient", "x", "y", "nothing"}));

    // A single read of an unchanged, cached value answers from the cache too.
    EXPECT_EQ(provider->getVariable("x"), big);
    ws->set("y", Array::createChar(u"changed by the client"));
    EXPECT_EQ(provider->getVariable("y"), Array::createChar(u"changed by the client"));

    // Writes and clears reach the client; a clear of a name unknown here sends nothing.
    provider->setVariables({"z"}, {numbers(4, 2)});
    EXPECT_EQ(ws->getVariable("z"), numbers(4, 2));
    EXPECT_EQ(provider->getVariableNames().back(), "z");
    provider->clearVariable("y");
    EXPECT_FALSE(ws->find("y"));
    std::size_t const framesBefore = servingWire->frames;
    provider->clearVariable("neverSeenHere");
    EXPECT_EQ(servingWire->frames, framesBefore);
    ws->set("neverSeenHere", numbers(1, 1));
    provider->clearVariable("neverSeenHere");
    EXPECT_TRUE(ws->find("neverSeenHere")) << "the client's variable stays";

    // A later packet of the same workspace reuses the provider and refreshes its cache with
    // what the client's holder has recorded.
    // The client's store is the process-wide one: another thread, outside every scope, is the
    // client.
    std::string second;
    std::thread([&] { second = clientPacket(ws); }).join();
    auto later = servingLoad(second);
    auto* laterEval = dynamic_cast<cmddistributor::EvalIIP*>(later.get());
    ASSERT_TRUE(laterEval);
    EXPECT_EQ(laterEval->getExternalWorkspace(), provider) << "the same provider";

    // The client ends the workspace: the serving exchange hears of it, and the provider, still
    // held here, finds every variable absent.
    std::size_t const noticeFrames = clientWire->frames;
    std::thread([&] { WorkspaceHolder::workspaceDeleted(ws); }).join();
    EXPECT_GT(clientWire->frames + servingWire->frames, noticeFrames);
    EXPECT_FALSE(WorkspaceHolder::lookupHolder(ws));
    auto gone = provider->getVariables({"x"});
    EXPECT_EQ(gone.getStatus(0), IVariableInfo::StatusAbsent);
    EXPECT_THROW(provider->getVariable("x"), std::bad_cast);
}
