// Eval requests through the distributor to the reference host in one process: the interpreter's
// own workspace per context, the client's workspace, output, errors and interrupts.
#include <quorl/host/evalrunner.hpp>
#include <quorl/host/host.hpp>
#include <tests/support/nestederror.hpp>
#include <tests/support/textbuffer.hpp>

#include <quorl/cmddistributor/cmddistributor.hpp>
#include <quorl/cmddistributor/evalcmdrequest.hpp>
#include <quorl/io/veldrasink.hpp>
#include <quorl/utils/fennmutex.hpp>
#include <quorl/workspace/clientworkspace.hpp>

#include <boost/make_shared.hpp>
#include <boost/thread/future.hpp>

#include <gtest/gtest.h>

#include <future>
#include <mutex>

using namespace cmddistributor;
using foundation::extdata::Array;
using foundation::msg_svc::exchange::IDType;
using quorl::contextmgr::FennID;
using quorl::host::Host;

namespace {

using quorl_testing::TextBuffer;

struct Sink {
    boost::shared_ptr<TextBuffer> buffer = boost::make_shared<TextBuffer>();
    boost::shared_ptr<quorl::io::VeldraSink> sink =
        boost::make_shared<quorl::io::VeldraSink>(buffer);
};

class EvalRunnerTest : public ::testing::Test {
protected:
    void SetUp() override { Host::start(); }
    void TearDown() override { Host::stop(); }

    // Runs code in the interpreter's own workspace of `fenn` and waits for its end; what the
    // future throws comes out.
    static void eval(FennID fenn, std::u16string const& code, Sink* out = nullptr,
                     Sink* err = nullptr, bool user = true) {
        auto request = boost::make_shared<EvalCmdRequest>(
            user, UnsetIqmStreamID, out ? out->sink : nullptr, err ? err->sink : nullptr, code);
        finish(CmdDistributor::instance(fenn)->enqueueWithFuture(request));
    }
    // The same in a client's workspace.
    static void evalIn(FennID fenn, boost::shared_ptr<quorl::workspace::ClientWorkspace> const& ws,
                       std::u16string const& code, Sink* out = nullptr) {
        auto request = boost::make_shared<EvalCmdRequest>(
            true, UnsetIqmStreamID, ws, out ? out->sink : nullptr, nullptr, code, ConventionalType);
        finish(CmdDistributor::instance(fenn)->enqueueWithFuture(request));
    }
    static void finish(boost::unique_future<void> future) {
        ASSERT_TRUE(future.timed_wait(boost::posix_time::seconds(20)));
        future.get();
    }
    // The error that evaluating `code` ends with.
    static RuntimeException failure(FennID fenn, std::u16string const& code) {
        try {
            eval(fenn, code);
        } catch (RuntimeException const& e) {
            return e;
        }
        ADD_FAILURE() << "the code ended without an error";
        return RuntimeException();
    }
};

} // namespace

TEST_F(EvalRunnerTest, TheInterpretersWorkspaceKeepsValuesPerContextForBothEvalKinds) {
    FennID const first{21};
    FennID const second{22};
    eval(first, u"x = 6 * 7;");
    Sink out;
    eval(first, u"disp(x)", &out, nullptr, /*user=*/false);
    EXPECT_EQ(out.buffer->text(), u"42\n");
    eval(first, u"x = x + 1;", nullptr, nullptr, /*user=*/false);
    Sink again;
    eval(first, u"disp(x)", &again);
    EXPECT_EQ(again.buffer->text(), u"43\n");

    // Another context has a workspace of its own.
    RuntimeException e = failure(second, u"disp(x)");
    EXPECT_EQ(e.getExecutionStatus(), quorl::cmddistributor::ExecutionError);
    EXPECT_EQ(e.GetID(), "quorl:undefinedFunctionOrVariable");
}

TEST_F(EvalRunnerTest, CodeRunsInTheClientsWorkspaceAndLeavesTheInterpretersAlone) {
    FennID const fenn{23};
    auto ws = boost::make_shared<quorl::workspace::ClientWorkspace>();
    ws->set("a", Array::createScalar(5.0));
    ws->set("gone", Array::createChar(u"old"));
    Sink out;
    evalIn(fenn, ws, u"b = a * 2; clear gone; fprintf('%g\\n', b)", &out);
    EXPECT_EQ(out.buffer->text(), u"10\n");
    auto b = ws->find("b");
    ASSERT_TRUE(b);
    EXPECT_EQ(b->get<double>(0), 10.0);
    EXPECT_FALSE(ws->find("gone"));

    // The client's later change is what the next request sees.
    ws->set("a", Array::createScalar(7.0));
    evalIn(fenn, ws, u"b = a + 1;");
    EXPECT_EQ(ws->find("b")->get<double>(0), 8.0);

    // Neither a nor b went into the interpreter's own workspace, nor does its x reach the client.
    eval(fenn, u"x = 1;");
    EXPECT_EQ(failure(fenn, u"disp(a)").GetID(), "quorl:undefinedFunctionOrVariable");
    EXPECT_FALSE(ws->find("x"));
}

TEST_F(EvalRunnerTest, OutputAndErrorTextReachTheRequestsOwnSinksInOrder) {
    FennID const fenn{24};
    Sink out;
    Sink err;
    Sink other;
    eval(fenn, u"for k = 1:5, fprintf('%d,', k); end\nfprintf(2, 'to err %d\\n', 2);\ndisp('end')",
         &out, &err);
    eval(fenn, u"disp('other')", &other);
    EXPECT_EQ(out.buffer->text(), u"1,2,3,4,5,end\n");
    EXPECT_EQ(err.buffer->text(), u"to err 2\n");
    EXPECT_EQ(other.buffer->text(), u"other\n");

    // Text written before an error still arrives, ahead of the failed completion.
    Sink partial;
    EXPECT_THROW(eval(fenn, u"disp('before'); undefinedThing; disp('after')", &partial),
                 RuntimeException);
    EXPECT_EQ(partial.buffer->text(), u"before\n");
}

TEST_F(EvalRunnerTest, AnErrorComesBackWithItsIdentifierStackAndCause) {
    quorl_testing::expectNestedError(failure(FennID{25}, quorl_testing::nestedErrorCode));
}

TEST_F(EvalRunnerTest, CancelWithInterruptStopsARunningLoopAndTheContextServesOn) {
    FennID const fenn{26};
    auto distributor = CmdDistributor::instance(fenn);
    Sink out;
    auto looping = boost::make_shared<EvalCmdRequest>(true, UnsetIqmStreamID, out.sink, nullptr,
                                                      u"n = 0; disp('started'); while true, end");
    IDType const id;
    auto future = distributor->enqueueWithFuture(looping, id);
    // The output arrives while the loop runs: then the packet is surely running.
    ASSERT_TRUE(out.buffer->waitFor(u"started\n"));
    EXPECT_FALSE(future.is_ready());

    auto status = distributor->cancelRequest(id, true);
    ASSERT_TRUE(status.timed_wait(boost::posix_time::seconds(20)));
    EXPECT_EQ(status.get(), CmdDistributor::CancelEndedByStatus4);
    ASSERT_TRUE(future.timed_wait(boost::posix_time::seconds(20)));
    try {
        future.get();
        ADD_FAILURE() << "an interrupted loop completed normally";
    } catch (RuntimeException const& e) {
        EXPECT_EQ(e.getExecutionStatus(), quorl::cmddistributor::ExecutionInterrupted);
    }

    // The interrupt ended that packet only: the next one runs, in the same workspace.
    Sink after;
    eval(fenn, u"disp(n + 1)", &after);
    EXPECT_EQ(after.buffer->text(), u"1\n");
}

// A client workspace that tells when code first asks for one name; a gated one then holds that
// read, inside the interpreter and with the fenn mutex held, until the test opens the gate.
class WatchedWorkspace : public quorl::workspace::ClientWorkspace {
public:
    explicit WatchedWorkspace(std::string name, bool gated = false) : name_(std::move(name)) {
        if (!gated)
            openPromise_.set_value();
    }
    foundation::extdata::array::VariableInfo
    getVariables(std::vector<char const*> const& names) override {
        for (char const* n : names)
            if (n == name_ && !asked_.exchange(true)) {
                heldWhenAsked = quorl::utils::getFennMutex()->isLocked();
                askedPromise_.set_value();
                open_.wait();
            }
        return ClientWorkspace::getVariables(names);
    }
    std::future<void> asked() { return askedPromise_.get_future(); }
    void open() { openPromise_.set_value(); }
    bool heldWhenAsked = false; // written before `asked` is signalled

private:
    std::string name_;
    std::atomic<bool> asked_{false};
    std::promise<void> askedPromise_, openPromise_;
    std::shared_future<void> open_ = openPromise_.get_future().share();
};

TEST_F(EvalRunnerTest, ATimedWaitEndsAtItsLimitWhileTheInterpreterHoldsTheFennMutex) {
    FennID const fenn{28};
    // The code's read of `gate` waits, with the fenn mutex held, until the test lets it go.
    auto ws = boost::make_shared<WatchedWorkspace>("gate", /*gated=*/true);
    ws->set("gate", Array::createScalar(1.0));
    auto reached = ws->asked();
    auto future =
        CmdDistributor::instance(fenn)->enqueueWithFuture(boost::make_shared<EvalCmdRequest>(
            true, UnsetIqmStreamID, ws, nullptr, nullptr, u"x = gate + 1;", ConventionalType));
    ASSERT_EQ(reached.wait_for(std::chrono::seconds(20)), std::future_status::ready);
    EXPECT_TRUE(ws->heldWhenAsked);
    auto timedWait = std::async(
        std::launch::async, [&] { return future.timed_wait(boost::posix_time::milliseconds(20)); });
    bool const ended = timedWait.wait_for(std::chrono::seconds(20)) == std::future_status::ready;
    ws->open();
    ASSERT_TRUE(ended) << "the timed wait lasted as long as the request";
    EXPECT_FALSE(timedWait.get());
    finish(std::move(future));
    EXPECT_EQ(ws->find("x")->get<double>(0), 2.0);
}

TEST_F(EvalRunnerTest, CodeThatPrintsNothingLetsOtherThreadsTakeTheFennMutex) {
    FennID const fenn{27};
    auto ws = boost::make_shared<WatchedWorkspace>("go");
    auto asked = ws->asked();
    // The loop ends only when another thread, holding the fenn mutex, sets `go`. That thread
    // starts once the loop runs (it asks for `go`), and gets the mutex only if the loop gives
    // it up now and then.
    auto looping = boost::make_shared<EvalCmdRequest>(
        true, UnsetIqmStreamID, ws, nullptr, nullptr,
        u"n = 0; while ~exist('go', 'var'), n = n + 1; end", ConventionalType);
    IDType const id;
    auto future = CmdDistributor::instance(fenn)->enqueueWithFuture(looping, id);
    ASSERT_EQ(asked.wait_for(std::chrono::seconds(20)), std::future_status::ready);
    auto other = std::async(std::launch::async, [&] {
        std::lock_guard<foundation::msg_svc::threadutil::CountedMutex> hold(
            *quorl::utils::getFennMutex());
        ws->set("go", Array::createScalar(1.0));
    });
    if (other.wait_for(std::chrono::seconds(20)) != std::future_status::ready) {
        ADD_FAILURE() << "the loop kept the fenn mutex";
        CmdDistributor::instance(fenn)->cancelRequest(id, true).wait();
        other.wait();
        return;
    }
    future.get();
    EXPECT_GT(ws->find("n")->get<double>(0), 0.0) << "the loop ran before it was let go";
}
