// The workspace component in one process: the client workspace, the store, the variable
// messages' deliver with both caches' rules, and their equality. Wire forms and the road across
// exchanges are in tests/workspace.
#include <quorl/workspace/clientworkspace.hpp>
#include <quorl/workspace/onevariablegetmessage.hpp>
#include <quorl/workspace/variablesgetmessage.hpp>
#include <quorl/workspace/variablesgetreply.hpp>
#include <quorl/workspace/variablessetmessage.hpp>
#include <quorl/workspace/workspacedeletedmessage.hpp>
#include <quorl/workspace/workspaceholder.hpp>
#include <quorl/workspace/workspacestorescope.hpp>

#include <foundation/msg_svc/exchange/routing.hpp>

#include <boost/make_shared.hpp>
#include <boost/thread/latch.hpp>
#include <gtest/gtest.h>

#include <thread>

using foundation::extdata::Array;
using foundation::msg_svc::exchange::IDType;
using foundation::msg_svc::exchange::Reply;
using foundation::msg_svc::exchange::Routing;
using namespace quorl::workspace;

namespace {

Routing here() {
    return Routing("client", "unordered");
}

Array row(std::initializer_list<double> values) {
    return Array::create<double>({1, values.size()}, std::vector<double>(values));
}

// A client workspace published under a fresh id in the calling thread's own store.
struct Published {
    boost::shared_ptr<ClientWorkspace> workspace = boost::make_shared<ClientWorkspace>();
    boost::shared_ptr<WorkspaceHolder> holder = boost::make_shared<WorkspaceHolder>(workspace);
    Published() { holder->saveClientWorkspace(); }
    IDType id() const { return holder->getWorkspaceId(); }
};

boost::shared_ptr<VariablesGetReply const> getMany(IDType id, std::vector<std::string> names) {
    auto reply = VariablesGetMessage(std::move(names), id).deliver(here());
    auto typed = boost::dynamic_pointer_cast<VariablesGetReply const>(reply);
    EXPECT_TRUE(typed);
    return typed;
}

VariableValue getOne(IDType id, std::string name) {
    auto reply = boost::dynamic_pointer_cast<VariablesGetReply const>(
        OneVariableGetMessage(name, id).deliver(here()));
    EXPECT_TRUE(reply);
    EXPECT_EQ(reply->getVarInfo().size(), 1u);
    EXPECT_EQ(reply->getVarInfo().at(0).first, name);
    return reply->getVarInfo().at(0).second;
}

} // namespace

TEST(ClientWorkspace, VariablesByNameWithStatusesAndCleanErrors) {
    ClientWorkspace ws;
    ws.setVariables({"b", "a"}, {row({1, 2}), Array::createChar(u"x")});
    ws.set("c", row({3}));
    EXPECT_EQ(ws.getVariableNames(), (std::vector<std::string>{"a", "b", "c"}));
    EXPECT_EQ(ws.getVariable("b"), row({1, 2}));
    EXPECT_EQ(ws.getVariable("none"), Array());

    auto info = ws.getVariables({"c", "none", "a"});
    ASSERT_EQ(info.size(), 3u);
    EXPECT_STREQ(info.getName(1), "none");
    EXPECT_EQ(info.getStatus(0), IVariableInfo::StatusValue);
    EXPECT_EQ(info.getStatus(1), IVariableInfo::StatusAbsent);
    EXPECT_EQ(info.getValue(1), Array());
    EXPECT_EQ(info.getValue(2), Array::createChar(u"x"));

    ws.clearVariable("b");
    ws.clearVariable("never there");
    EXPECT_FALSE(ws.find("b"));
    EXPECT_EQ(ws.size(), 2u);

    EXPECT_THROW(ws.setVariables({"p", "q"}, {row({1})}), std::invalid_argument);
    EXPECT_THROW(ws.setVariables({"p", nullptr}, {row({1}), row({2})}), std::invalid_argument);
    EXPECT_THROW(ws.getVariable(nullptr), std::invalid_argument);
    EXPECT_FALSE(ws.find("p")) << "a refused set changes nothing";
}

TEST(ClientWorkspace, WritersAndReadersOnManyThreads) {
    ClientWorkspace ws;
    int const threads = 6, rounds = 300;
    boost::latch start(threads);
    std::vector<std::thread> pool;
    std::atomic<int> torn{0};
    for (int t = 0; t < threads; ++t) {
        pool.emplace_back([&, t] {
            start.count_down_and_wait();
            std::string const mine = "v" + std::to_string(t);
            for (int i = 0; i < rounds; ++i) {
                ws.setVariables({mine.c_str(), "shared"},
                                {row({double(i), double(i)}), row({double(t)})});
                auto info = ws.getVariables({mine.c_str(), "shared"});
                if (info.getValue(0) != row({double(i), double(i)}))
                    ++torn;
                if (i % 50 == 0)
                    ws.getVariableNames();
            }
        });
    }
    for (auto& t : pool)
        t.join();
    EXPECT_EQ(torn.load(), 0);
    EXPECT_EQ(ws.size(), std::size_t(threads + 1));
    for (int t = 0; t < threads; ++t)
        EXPECT_EQ(ws.getVariable(("v" + std::to_string(t)).c_str()),
                  row({rounds - 1.0, rounds - 1.0}));
}

TEST(WorkspaceStore, PublicationLookupAndForgetting) {
    WorkspaceStoreScope scope;
    auto ws = boost::make_shared<ClientWorkspace>();
    auto holder = boost::make_shared<WorkspaceHolder>(ws);
    EXPECT_TRUE(holder->getWorkspaceId().isNull());
    EXPECT_FALSE(WorkspaceHolder::lookupHolder(ws));

    holder->saveClientWorkspace();
    IDType const id = holder->getWorkspaceId();
    EXPECT_FALSE(id.isNull());
    holder->saveClientWorkspace();
    EXPECT_EQ(holder->getWorkspaceId(), id) << "saving twice keeps the id";
    EXPECT_EQ(WorkspaceHolder::lookupHolder(ws), holder);
    EXPECT_EQ(WorkspaceHolder::getStoredClientWorkspace(id), ws);
    EXPECT_EQ(WorkspaceHolder::getWorkspaceHolder(id), holder);
    EXPECT_EQ(WorkspaceHolder(id).getClientWorkspace(), ws);
    EXPECT_FALSE(WorkspaceHolder(IDType()).getClientWorkspace());

    // A second holder of a published workspace is not published: its id stays null.
    auto second = boost::make_shared<WorkspaceHolder>(ws);
    second->saveClientWorkspace();
    EXPECT_TRUE(second->getWorkspaceId().isNull());
    EXPECT_EQ(WorkspaceHolder::lookupHolder(ws), holder);

    {
        // An inner scope sees nothing of the outer store.
        WorkspaceStoreScope inner;
        EXPECT_FALSE(WorkspaceHolder::getStoredClientWorkspace(id));
        EXPECT_FALSE(WorkspaceHolder::lookupHolder(ws));
    }
    EXPECT_EQ(WorkspaceHolder::getStoredClientWorkspace(id), ws);

    // The serving side's notice forgets both maps' entries; unknown ids are no error.
    auto reply = WorkspaceDeletedMessage(id).deliver(here());
    EXPECT_EQ(reply, Reply::defaultReply());
    EXPECT_FALSE(WorkspaceHolder::getStoredClientWorkspace(id));
    EXPECT_FALSE(WorkspaceHolder::lookupHolder(ws));
    WorkspaceHolder::workspaceDeleted(id);

    // The client's side: a workspace told to no exchange is forgotten and nothing is sent.
    Published other;
    WorkspaceHolder::workspaceDeleted(other.workspace);
    EXPECT_FALSE(WorkspaceHolder::getWorkspaceHolder(other.id()));
    EXPECT_NO_THROW(WorkspaceHolder::workspaceDeleted(other.workspace));
}

TEST(WorkspaceStore, ForgettingBeforeAnythingWasPublished) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    // A fresh process, so that the process-wide store has not been made yet.
    EXPECT_EXIT(
        {
            auto ws = boost::make_shared<ClientWorkspace>();
            WorkspaceHolder::workspaceDeleted(ws);
            WorkspaceHolder::workspaceDeleted(IDType());
            bool const clean = !WorkspaceHolder::lookupHolder(ws) &&
                               !WorkspaceHolder::getWorkspaceHolder(IDType(0, 0));
            std::exit(clean ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}

TEST(VariableMessages, ABatchGetSendsAnUnchangedValueOnce) {
    WorkspaceStoreScope scope;
    Published p;
    p.workspace->set("x", row({1, 2, 3}));
    p.workspace->set("y", Array::createChar(u"text"));

    auto first = getMany(p.id(), {"x", "y", "z"});
    ASSERT_EQ(first->getVarInfo().size(), 3u);
    EXPECT_EQ(first->getVarInfo()[0],
              VariableEntry("x", {IVariableInfo::StatusValue, row({1, 2, 3})}));
    EXPECT_EQ(first->getVarInfo()[2], VariableEntry("z", {IVariableInfo::StatusAbsent, Array()}));

    p.workspace->set("y", Array::createChar(u"changed"));
    auto second = getMany(p.id(), {"x", "y", "z"});
    ASSERT_EQ(second->getVarInfo().size(), 3u);
    EXPECT_EQ(second->getVarInfo()[0],
              VariableEntry("x", {IVariableInfo::StatusUnchanged, Array()}));
    EXPECT_EQ(second->getVarInfo()[1],
              VariableEntry("y", {IVariableInfo::StatusValue, Array::createChar(u"changed")}));
    EXPECT_EQ(second->getVarInfo()[2], VariableEntry("z", {IVariableInfo::StatusAbsent, Array()}));

    // The cache holds the workspace's own statuses, never "unchanged".
    auto const& cache = p.holder->getVariableStore();
    EXPECT_EQ(cache.at("x"), VariableValue(IVariableInfo::StatusValue, row({1, 2, 3})));
    EXPECT_EQ(cache.at("z").first, IVariableInfo::StatusAbsent);

    // No names: the empty reply, and the cache is left alone.
    auto const before = cache;
    EXPECT_TRUE(getMany(p.id(), {})->getVarInfo().empty());
    EXPECT_EQ(p.holder->getVariableStore(), before);

    // A workspace the client does not know: the empty reply.
    EXPECT_TRUE(getMany(IDType(), {"x"})->getVarInfo().empty());
}

TEST(VariableMessages, ASingleGetReadsTheCacheButNeverFillsIt) {
    WorkspaceStoreScope scope;
    Published p;
    p.workspace->set("a", row({4}));
    p.workspace->set("b", row({5}));

    // Uncached: always the value, also on a second ask, and the cache stays empty.
    EXPECT_EQ(getOne(p.id(), "a"), VariableValue(IVariableInfo::StatusValue, row({4})));
    EXPECT_EQ(getOne(p.id(), "a"), VariableValue(IVariableInfo::StatusValue, row({4})));
    EXPECT_EQ(getOne(p.id(), "none"), VariableValue(IVariableInfo::StatusValue, Array()));
    EXPECT_TRUE(p.holder->getVariableStore().empty());

    getMany(p.id(), {"a", "b"});
    // Cached and unchanged: "unchanged", with the value still in the entry.
    EXPECT_EQ(getOne(p.id(), "a"), VariableValue(IVariableInfo::StatusUnchanged, row({4})));
    p.workspace->erase("b");
    EXPECT_EQ(getOne(p.id(), "b"), VariableValue(IVariableInfo::StatusAbsent, Array()));
    p.workspace->set("a", row({6}));
    EXPECT_EQ(getOne(p.id(), "a"), VariableValue(IVariableInfo::StatusValue, row({6})));
    EXPECT_EQ(p.holder->getVariableStore().at("a").second, row({4})) << "not updated by it";

    // An unknown workspace gets the default reply, which the typed promise turns into bad_cast.
    auto reply = OneVariableGetMessage("a", IDType()).deliver(here());
    EXPECT_EQ(reply, Reply::defaultReply());
    auto promise = boost::make_shared<VariablesGetReply::Promise>();
    auto future = promise->get_future();
    VariablesGetReply::assignToPromise(promise, reply);
    EXPECT_THROW(future.get(), std::bad_cast);

    auto nullPromise = boost::make_shared<VariablesGetReply::Promise>();
    auto nullFuture = nullPromise->get_future();
    VariablesGetReply::assignToPromise(nullPromise, nullptr);
    EXPECT_FALSE(nullFuture.get());
}

TEST(VariableMessages, SetAndClearReachTheWorkspaceOnlyByTheirOpcodes) {
    WorkspaceStoreScope scope;
    Published p;
    p.workspace->set("keep", row({1}));
    getMany(p.id(), {"keep"});
    auto const cacheBefore = p.holder->getVariableStore();
    auto deliver = [&](std::vector<std::string> names, std::vector<Array> data, int op) {
        return VariablesSetMessage(std::move(names), std::move(data),
                                   static_cast<VariablesSetMessage::OpCode>(op), p.id())
            .deliver(here());
    };

    EXPECT_EQ(deliver({"n", "m"}, {row({7}), row({8})}, VariablesSetMessage::VAR_SET),
              Reply::defaultReply());
    EXPECT_EQ(p.workspace->getVariable("m"), row({8}));
    EXPECT_EQ(deliver({"n", "keep"}, {}, VariablesSetMessage::VAR_CLEAR), Reply::defaultReply());
    EXPECT_EQ(p.workspace->getVariableNames(), (std::vector<std::string>{"m"}));
    for (int op : {0, 7}) {
        EXPECT_EQ(deliver({"m"}, {row({9})}, op), Reply::defaultReply());
        EXPECT_EQ(deliver({"m"}, {}, op), Reply::defaultReply());
    }
    EXPECT_EQ(p.workspace->getVariable("m"), row({8}));
    EXPECT_EQ(p.holder->getVariableStore(), cacheBefore) << "sets and clears leave the cache";

    // The workspace's own errors come out of deliver; an unknown workspace is left alone.
    EXPECT_THROW(deliver({"a", "b"}, {row({1})}, VariablesSetMessage::VAR_SET),
                 std::invalid_argument);
    EXPECT_EQ(
        VariablesSetMessage({"m"}, {}, VariablesSetMessage::VAR_CLEAR, IDType()).deliver(here()),
        Reply::defaultReply());
}

TEST(VariableMessages, EqualityLooksAtEveryField) {
    IDType const id(1, 2);
    EXPECT_TRUE(OneVariableGetMessage("x", id) == OneVariableGetMessage("x", id));
    EXPECT_FALSE(OneVariableGetMessage("x", id) == OneVariableGetMessage("y", id));
    EXPECT_FALSE(OneVariableGetMessage("x", id) == OneVariableGetMessage("x", IDType(1, 3)));
    EXPECT_FALSE(VariablesGetMessage({"x"}, id) == VariablesGetMessage({"x", "y"}, id));
    EXPECT_FALSE(OneVariableGetMessage("x", id) == WorkspaceDeletedMessage(id));
    EXPECT_FALSE(WorkspaceDeletedMessage(id) == WorkspaceDeletedMessage(IDType(0, 0)));
    VariablesSetMessage const set({"x"}, {row({1})}, VariablesSetMessage::VAR_SET, id);
    EXPECT_TRUE(set == VariablesSetMessage({"x"}, {row({1})}, VariablesSetMessage::VAR_SET, id));
    EXPECT_FALSE(set == VariablesSetMessage({"x"}, {row({2})}, VariablesSetMessage::VAR_SET, id));
    EXPECT_FALSE(set == VariablesSetMessage({"x"}, {row({1})}, VariablesSetMessage::VAR_CLEAR, id));
    VariablesGetReply const reply({{"x", {IVariableInfo::StatusValue, row({1})}}});
    EXPECT_TRUE(reply == reply);
    EXPECT_TRUE(reply == VariablesGetReply({{"x", {IVariableInfo::StatusValue, row({1})}}}));
    EXPECT_FALSE(reply == VariablesGetReply({{"x", {IVariableInfo::StatusOther, row({1})}}}));
    EXPECT_FALSE(reply == VariablesGetReply());
}
