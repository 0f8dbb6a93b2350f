#include <quorl/host/host.hpp>
#include <quorl/host/packetexecution.hpp>
#include <tests/support/textbuffer.hpp>

#include <quorl/cmddistributor/cmddistributor.hpp>
#include <quorl/cmddistributor/defaultdistributor.hpp>
#include <quorl/cmddistributor/fcncmdrequest.hpp>
#include <quorl/cmddistributor/futureexception.hpp>
#include <quorl/cmddistributor/iipcancelreply.hpp>
#include <quorl/cmddistributor/iipenqueuemessage.hpp>
#include <quorl/cmddistributor/iiprunnowmessage.hpp>
#include <quorl/cmddistributor/iipsinkevent.hpp>
#include <quorl/cmddistributor/lockbflhelper.hpp>
#include <quorl/cmddistributor/packagedtaskcompletedevent.hpp>
#include <quorl/cmddistributor/requestidadapter.hpp>
#include <quorl/contextmgr/contextregistry.hpp>
#include <quorl/eventmgr/eventmgraccess.hpp>
#include <quorl/io/cmdwinhostaccess.hpp>
#include <quorl/utils/fennmutex.hpp>

#include <cpp11compat/u16streams.hpp>
#include <foundation/usm/context.hpp>

#include <boost/make_shared.hpp>
#include <boost/thread/future.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <future>
#include <mutex>
#include <streambuf>
#include <thread>

using namespace cmddistributor;
using foundation::msg_svc::eventmgr::BaseEvent;
using foundation::msg_svc::exchange::IDType;
using foundation::msg_svc::exchange::Reply;
using foundation::msg_svc::exchange::Routing;
using quorl::contextmgr::FennID;
using quorl::host::Host;

namespace {

constexpr auto kPatience = std::chrono::seconds(20);

// A packet that loops through safe points until it is interrupted or let go. An interrupt is a
// flag that only a safe point reads, so the loop passes one every millisecond, like a program at
// work; letting it go wakes it at once.
struct LoopRunner : quorl::host::PacketRunner {
    void letGo() {
        {
            std::lock_guard<std::mutex> l(m);
            released = true;
        }
        cv.notify_all();
    }
    // Whether the packet has reached its first safe point within kPatience.
    bool waitStarted() { return startedFuture.wait_for(kPatience) == std::future_status::ready; }

    boost::shared_ptr<IIPCompletedEvent> run(quorl::host::PacketExecution& execution) override {
        execution.output(quorl::io::StreamTypeEnum(0), u"looping");
        execution.output(quorl::io::StreamTypeEnum(1), u"on error");
        for (;;) {
            if (!startedOnce.exchange(true))
                started.set_value();
            execution.safePoint();
            std::unique_lock<std::mutex> l(m);
            if (cv.wait_for(l, std::chrono::milliseconds(1), [this] { return released; }))
                break;
        }
        return boost::make_shared<IIPCompletedEvent>(execution.getId(),
                                                     quorl::cmddistributor::ExecutionSuccess);
    }

private:
    std::mutex m;
    std::condition_variable cv;
    bool released = false; // guarded by m
    std::atomic<bool> startedOnce{false};
    std::promise<void> started;
    std::future<void> startedFuture = started.get_future();
};

// A packet that writes ten chunks of 100 units ("AAA...", "BBB...", ...) and ends.
struct WriteRunner : quorl::host::PacketRunner {
    static ustring chunk(int k) { return ustring(100, static_cast<char16_t>(u'A' + k)); }
    static ustring all() {
        ustring text;
        for (int k = 0; k < 10; ++k)
            text += chunk(k);
        return text;
    }
    boost::shared_ptr<IIPCompletedEvent> run(quorl::host::PacketExecution& execution) override {
        for (int k = 0; k < 10; ++k)
            execution.output(quorl::io::OutputStream, chunk(k));
        return boost::make_shared<IIPCompletedEvent>(execution.getId(),
                                                     quorl::cmddistributor::ExecutionSuccess);
    }
};

class StringSink : public quorl::io::VeldraSink {
public:
    StringSink() : VeldraSink(boost::make_shared<cpp11compat::u16stringbuf>()) {}
    ustring text() const {
        return static_cast<cpp11compat::u16stringbuf&>(*getUnicodeOutStreamBuffer()).str();
    }
};

// A request for a packet of the runner registered under `plugin` ("test_loop", "test_write").
class RunnerRequest : public CmdRequest {
public:
    RunnerRequest(std::string plugin, boost::shared_ptr<quorl::io::VeldraSink> const& out = nullptr,
                  boost::shared_ptr<quorl::io::VeldraSink> const& err = nullptr)
        : CmdRequest(UnsetIqmStreamID, out, err), plugin_(std::move(plugin)) {}

protected:
    boost::shared_ptr<IIP> createIIP() override {
        return boost::make_shared<IIP>(plugin_, UnsetIqmStreamID, getOutputSink(), getErrorSink());
    }

private:
    std::string plugin_;
};

boost::shared_ptr<CmdRequest> writeRequest(boost::shared_ptr<quorl::io::VeldraSink> const& out) {
    return boost::make_shared<RunnerRequest>("test_write", out);
}

// The completion or discard that reached a packet's bypass, and the thread it came on.
struct BypassProbe {
    std::promise<boost::shared_ptr<BaseEvent>> ended;
    std::thread::id thread;
    // The event, as a T, once it has come within `patience`; null otherwise.
    template <class T = BaseEvent>
    boost::shared_ptr<T> end(std::chrono::seconds patience = kPatience) {
        auto f = ended.get_future();
        return f.wait_for(patience) == std::future_status::ready
                   ? boost::dynamic_pointer_cast<T>(f.get())
                   : nullptr;
    }
    IIP::EventMgrBypass bypass() {
        return IIP::EventMgrBypass(
            [this](IIPCompletedEvent const& e) {
                thread = std::this_thread::get_id();
                ended.set_value(boost::shared_ptr<BaseEvent>(e.clone()));
            },
            [this](IIPDiscardedEvent const& e) {
                thread = std::this_thread::get_id();
                ended.set_value(boost::shared_ptr<BaseEvent>(e.clone()));
            });
    }
};

boost::shared_ptr<IIP> taskPacket(boost::function<void()> f) {
    return FcnCmdRequest<void>(std::move(f), nullptr, nullptr).getIIP();
}

void deliverTo(FennID fenn, boost::shared_ptr<IIP> const& iip, IDType const& id,
               boost::shared_ptr<foundation::msg_svc::eventmgr::EventMgr> mgr = nullptr) {
    Host::deliver(Routing("test", "noqueue"), iip, id, fenn, boost::none, std::move(mgr),
                  quorl::cmddistributor::WhenToDequeue::DequeueWhenIdle, true);
}

class HostTest : public ::testing::Test {
protected:
    void SetUp() override {
        loop = boost::make_shared<LoopRunner>();
        Host::registerRunner("test_loop", loop);
        Host::registerRunner("test_write", boost::make_shared<WriteRunner>());
        Host::start();
    }
    void TearDown() override {
        loop->letGo();
        Host::stop();
    }
    boost::shared_ptr<LoopRunner> loop;
};

} // namespace

TEST_F(HostTest, PackagedTaskRunsInItsContextAndItsFutureCompletes) {
    FennID const fenn{3};
    std::thread::id ranOn;
    FennID seenFenn = quorl::contextmgr::UndefinedFennID;
    bool heldMutex = false;
    IDType seenRequest(0, 0);
    auto request = boost::make_shared<FcnCmdRequest<void>>(
        [&] {
            ranOn = std::this_thread::get_id();
            seenFenn = quorl::contextmgr::ContextRegistry::getFennID();
            heldMutex = quorl::utils::getFennMutex()->isLockedByCaller();
            seenRequest = RequestIdAdapter::currentRequestId();
        },
        nullptr, nullptr);
    IDType const id;
    auto future = CmdDistributor::instance(fenn)->enqueueWithFuture(request, id);
    ASSERT_TRUE(future.timed_wait(boost::posix_time::seconds(20)));
    EXPECT_NO_THROW(future.get());
    EXPECT_TRUE(*request->getIIP()->getEventMgrBypass()) << "one process: the bypass is set";
    EXPECT_NE(ranOn, std::this_thread::get_id());
    EXPECT_EQ(seenFenn, fenn);
    EXPECT_TRUE(heldMutex);
    EXPECT_EQ(seenRequest, id);
    EXPECT_EQ(Host::interpreter(fenn)->queuedCount(), 0u);
}

TEST_F(HostTest, CompletesThroughTheBypassOrElseThroughEventsAndReportsThrowingTasks) {
    FennID const fenn{4};
    // With a bypass: the completion comes on the interpreter thread, no event is published.
    auto mgr = quorl::eventmgr::createLocalEventMgr(quorl::contextmgr::TarnID{4004});
    std::atomic<int> published{0};
    auto sub = mgr->subscribe<IIPCompletedEvent>([&](IIPCompletedEvent const&) { ++published; });
    BypassProbe probe;
    auto iip = taskPacket([] { throw std::runtime_error("task failed"); });
    iip->setEventMgrBypass(probe.bypass());
    IDType const failing;
    deliverTo(fenn, iip, failing, mgr);
    auto event = probe.end<PackagedTaskCompletedEvent>();
    ASSERT_TRUE(event);
    EXPECT_EQ(event->getIdOfChangedIIP(), failing);
    EXPECT_EQ(event->getExecutionStatus(), quorl::cmddistributor::ExecutionError);
    ASSERT_TRUE(event->getException());
    EXPECT_EQ(event->getException()->GetMessageTxt(), "task failed");
    EXPECT_TRUE(Host::isRunNowThread(fenn) == false);

    // Without one: the completion is published on the message's manager, with the task's result.
    std::promise<boost::shared_ptr<BaseEvent>> viaEvent;
    auto sub2 =
        mgr->subscribe<PackagedTaskCompletedEvent>([&](PackagedTaskCompletedEvent const& e) {
            viaEvent.set_value(boost::shared_ptr<BaseEvent>(e.clone()));
        });
    IDType const plain;
    deliverTo(fenn, taskPacket([] {}), plain, mgr);
    auto second = viaEvent.get_future();
    ASSERT_EQ(second.wait_for(kPatience), std::future_status::ready);
    auto done = boost::dynamic_pointer_cast<PackagedTaskCompletedEvent>(second.get());
    ASSERT_TRUE(done);
    EXPECT_EQ(done->getIdOfChangedIIP(), plain);
    EXPECT_EQ(done->getExecutionStatus(), 0);
    EXPECT_TRUE(done->type() == typeid(boost::shared_ptr<boost::unique_future<void>>));
    // A plug-in type without a runner completes with an error.
    BypassProbe orphanProbe;
    auto orphan = boost::make_shared<IIP>("no such plug-in", UnsetIqmStreamID, nullptr, nullptr);
    orphan->setEventMgrBypass(orphanProbe.bypass());
    deliverTo(fenn, orphan, IDType(), mgr);
    auto orphanEvent = orphanProbe.end<IIPCompletedEvent>();
    ASSERT_TRUE(orphanEvent);
    EXPECT_EQ(orphanEvent->getExecutionStatus(), quorl::cmddistributor::ExecutionError);
    EXPECT_EQ(orphanEvent->getException()->GetMessageTxt(),
              "no runner for packets of plug-in type \"no such plug-in\".");

    mgr->flush();
    EXPECT_EQ(published.load(), 1) << "only the packet without a bypass is published";
}

TEST_F(HostTest, CancelDiscardsAQueuedPacketAndInterruptsARunningOne) {
    FennID const fenn{5};
    auto distributor = CmdDistributor::instance(fenn);
    boost::shared_ptr<CmdRequest> looping = boost::make_shared<RunnerRequest>("test_loop");
    IDType const loopId;
    auto loopFuture = distributor->enqueueWithFuture(looping, loopId);
    ASSERT_TRUE(loop->waitStarted());

    std::atomic<bool> queuedRan{false};
    auto queued =
        boost::make_shared<FcnCmdRequest<void>>([&] { queuedRan = true; }, nullptr, nullptr);
    IDType const queuedId;
    auto queuedFuture = distributor->enqueueWithFuture(queued, queuedId);
    // The enqueue travels through the exchange: wait until the packet is in the queue. The
    // interpreter tells no one when its queue changes, so this polls, up to a deadline.
    auto interpreter = Host::interpreter(fenn);
    auto until = std::chrono::steady_clock::now() + kPatience;
    while (interpreter->queuedCount() == 0 && std::chrono::steady_clock::now() < until)
        std::this_thread::yield();
    ASSERT_EQ(interpreter->queuedCount(), 1u);

    // Without interrupt a running packet runs on.
    auto reply = boost::dynamic_pointer_cast<IIPCancelReply const>(Host::cancel(loopId, false));
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->getStatus(), IIPCancelReply::CancelNotCancelled);

    auto status = distributor->cancelRequest(queuedId, false);
    ASSERT_TRUE(status.timed_wait(boost::posix_time::seconds(20)));
    EXPECT_EQ(status.get(), CmdDistributor::CancelDone);
    ASSERT_TRUE(queuedFuture.timed_wait(boost::posix_time::seconds(20)));
    EXPECT_THROW(queuedFuture.get(), AlreadyCancelledException);

    auto interrupted = distributor->cancelRequest(loopId, true);
    ASSERT_TRUE(interrupted.timed_wait(boost::posix_time::seconds(20)));
    EXPECT_EQ(interrupted.get(), CmdDistributor::CancelEndedByStatus4);
    ASSERT_TRUE(loopFuture.timed_wait(boost::posix_time::seconds(20)));
    try {
        loopFuture.get();
        ADD_FAILURE() << "an interrupted packet completed normally";
    } catch (RuntimeException const& e) {
        EXPECT_EQ(e.getExecutionStatus(), quorl::cmddistributor::ExecutionInterrupted);
    }
    EXPECT_FALSE(queuedRan.load());

    // Ended and unknown packets.
    reply = boost::dynamic_pointer_cast<IIPCancelReply const>(Host::cancel(loopId, true));
    EXPECT_EQ(reply->getStatus(), IIPCancelReply::CancelNotCancelled);
    reply = boost::dynamic_pointer_cast<IIPCancelReply const>(Host::cancel(IDType(), true));
    EXPECT_EQ(reply->getStatus(), IIPCancelReply::CancelNotFound);
}

TEST_F(HostTest, OutputOfARunningPacketReachesTheRequestsOwnSinks) {
    auto outBuffer = boost::make_shared<quorl_testing::TextBuffer>();
    auto errBuffer = boost::make_shared<quorl_testing::TextBuffer>();
    auto out = boost::make_shared<quorl::io::VeldraSink>(outBuffer);
    auto err = boost::make_shared<quorl::io::VeldraSink>(errBuffer);
    boost::shared_ptr<CmdRequest> request =
        boost::make_shared<RunnerRequest>("test_loop", out, err);
    auto future = CmdDistributor::instance(FennID{8})->enqueueWithFuture(request);
    EXPECT_EQ(outBuffer->waitForLength(7), u"looping");
    EXPECT_EQ(errBuffer->waitForLength(8), u"on error");
    loop->letGo();
    ASSERT_TRUE(future.timed_wait(boost::posix_time::seconds(20)));
    EXPECT_NO_THROW(future.get());
}

TEST_F(HostTest, EveryRequestsOutputIsInItsSinkWhenItsFutureIsReady) {
    // Completed through the bypass, on the interpreter thread, while the sink events travel on
    // the event thread: 1,000 requests of 1,000 units each, all in flight at once.
    auto distributor = CmdDistributor::instance(FennID{11});
    std::vector<boost::shared_ptr<StringSink>> sinks;
    std::vector<boost::unique_future<void>> futures;
    for (int i = 0; i < 1000; ++i) {
        sinks.push_back(boost::make_shared<StringSink>());
        futures.push_back(distributor->enqueueWithFuture(writeRequest(sinks.back())));
    }
    ustring const expected = WriteRunner::all();
    int complete = 0;
    for (std::size_t i = 0; i < futures.size(); ++i) {
        ASSERT_TRUE(futures[i].timed_wait(boost::posix_time::seconds(20)));
        futures[i].get();
        complete += sinks[i]->text() == expected;
    }
    EXPECT_EQ(complete, 1000) << "requests whose text was whole and in order when they ended";
}

TEST_F(HostTest, OutputOfARequestThatNamesNoSinkReachesTheCommandWindowOfItsContext) {
    foundation::usm::ContextScope client(foundation::usm::Context::create("client"));
    auto window = boost::make_shared<StringSink>();
    quorl::io::CmdWinHostAccess::setCmdWinSink(quorl::io::OutputStream, window);
    auto future = CmdDistributor::instance(FennID{12})->enqueueWithFuture(writeRequest(nullptr));
    ASSERT_TRUE(future.timed_wait(boost::posix_time::seconds(20)));
    future.get();
    EXPECT_EQ(window->text(), WriteRunner::all());
    quorl::io::CmdWinHostAccess::setCmdWinSink(quorl::io::OutputStream, nullptr);
}

TEST_F(HostTest, RunNowRunsAQueuedPacketNestedOnTheCallingInterpreterThread) {
    FennID const fenn{6};
    std::vector<std::string> order;
    std::thread::id outerThread, innerThread;
    BypassProbe innerProbe;
    IDType const innerId;
    auto inner = taskPacket([&] {
        innerThread = std::this_thread::get_id();
        order.push_back("inner");
    });
    inner->setEventMgrBypass(innerProbe.bypass());
    bool wasRunNowThread = false;
    auto outer = boost::make_shared<FcnCmdRequest<void>>(
        [&] {
            outerThread = std::this_thread::get_id();
            wasRunNowThread = isRunNowThread(fenn);
            deliverTo(fenn, inner, innerId);
            order.push_back("outer before");
            IIPRunNowMessage(innerId).deliver(Routing("test", "noqueue"));
            order.push_back("outer after");
        },
        nullptr, nullptr);
    auto future = CmdDistributor::instance(fenn)->enqueueWithFuture(outer);
    ASSERT_TRUE(future.timed_wait(boost::posix_time::seconds(20)));
    future.get();
    EXPECT_TRUE(wasRunNowThread);
    EXPECT_FALSE(isRunNowThread(fenn));
    EXPECT_EQ(order, (std::vector<std::string>{"outer before", "inner", "outer after"}));
    EXPECT_EQ(innerThread, outerThread);
    EXPECT_TRUE(innerProbe.end<IIPCompletedEvent>());
}

TEST_F(HostTest, WaitingOnItsOwnContextFromTheInterpreterThreadRunsThePacketAtOnce) {
    FennID const fenn{9};
    auto distributor = CmdDistributor::instance(fenn);
    std::vector<std::string> order; // written on the interpreter thread only
    boost::unique_future<void> laterFuture;
    bool wrongThread = false;
    auto outer = boost::make_shared<FcnCmdRequest<void>>(
        [&] {
            laterFuture = distributor->enqueueWithFuture(boost::make_shared<FcnCmdRequest<void>>(
                [&] { order.push_back("later"); }, nullptr, nullptr));
            // Waited for at once: its enqueue message may not have arrived yet.
            auto awaited = distributor->enqueueWithFuture(boost::make_shared<FcnCmdRequest<void>>(
                [&] { order.push_back("awaited"); }, nullptr, nullptr));
            try {
                awaited.get();
            } catch (WrongThreadException const&) {
                wrongThread = true;
            }
            order.push_back("outer");
        },
        nullptr, nullptr);
    for (int round = 0; round < 20; ++round) {
        SCOPED_TRACE(round);
        order.clear();
        wrongThread = false;
        auto outerFuture = distributor->enqueueWithFuture(outer);
        ASSERT_TRUE(outerFuture.timed_wait(boost::posix_time::seconds(20)));
        outerFuture.get();
        ASSERT_TRUE(laterFuture.timed_wait(boost::posix_time::seconds(20)));
        EXPECT_FALSE(wrongThread);
        EXPECT_EQ(order, (std::vector<std::string>{"awaited", "outer", "later"}));
    }
}

TEST_F(HostTest, RunNowFromAnotherThreadMovesThePacketToTheHeadOfItsQueue) {
    FennID const fenn{10};
    std::promise<void> gate;
    auto gateFuture = gate.get_future().share();
    std::vector<std::string> order;
    std::atomic<bool> blocking{false};
    BypassProbe last;
    auto blocker = taskPacket([gateFuture, &blocking] {
        blocking = true;
        gateFuture.wait();
    });
    auto first = taskPacket([&] { order.push_back("first"); });
    auto second = taskPacket([&] { order.push_back("second"); });
    first->setEventMgrBypass(last.bypass());
    IDType const secondId;
    deliverTo(fenn, blocker, IDType());
    deliverTo(fenn, first, IDType());
    deliverTo(fenn, second, secondId);
    while (!blocking.load())
        std::this_thread::yield();
    Host::runNow(secondId);
    EXPECT_EQ(Host::interpreter(fenn)->queuedIds().front(), secondId);
    gate.set_value();
    ASSERT_TRUE(last.end());
    EXPECT_EQ(order, (std::vector<std::string>{"second", "first"}));
}

TEST_F(HostTest, LockBFLHelperTakesTheFennMutexFromABusyInterpreter) {
    // The default context's interpreter holds the mutex in a packet without safe points. It runs
    // the helper's task nested (run-now) as soon as it is queued, so the only way for this thread
    // to get the mutex is the task's release.
    auto interpreter = Host::interpreter(quorl::contextmgr::BlessedFennID);
    std::atomic<bool> started{false}, helperHasLock{false}, sawHelperLock{false};
    std::atomic<bool> helperLeaving{false}, wentOnWhileHeld{false};
    std::atomic<bool> nextRan{false};
    auto busy = boost::make_shared<FcnCmdRequest<void>>(
        [&] {
            started = true;
            auto until = std::chrono::steady_clock::now() + kPatience;
            while (interpreter->queuedCount() == 0 && std::chrono::steady_clock::now() < until)
                std::this_thread::yield();
            auto ids = interpreter->queuedIds();
            if (!ids.empty())
                IIPRunNowMessage(ids.front()).deliver(Routing("test", "noqueue"));
            sawHelperLock = helperHasLock.load();
            wentOnWhileHeld = !helperLeaving.load();
        },
        nullptr, nullptr);
    auto& distributor = CmdDistributor::instance();
    auto busyFuture = distributor.enqueueWithFuture(busy);
    boost::unique_future<void> nextFuture;
    while (!started.load())
        std::this_thread::yield();
    {
        quorl::cmddistributor::LockBFLHelper helper;
        EXPECT_TRUE(helper.ownsLock());
        EXPECT_TRUE(quorl::utils::getFennMutex()->isLockedByCaller());
        helperHasLock = true;
        // A packet queued now waits behind the busy one, which waits for this lock.
        auto next =
            boost::make_shared<FcnCmdRequest<void>>([&] { nextRan = true; }, nullptr, nullptr);
        IDType const nextId;
        nextFuture = distributor.enqueueWithFuture(next, nextId);
        // Once the packet is queued it can only wait. The interpreter tells no one when its queue
        // changes, so this polls, up to a deadline.
        auto const until = std::chrono::steady_clock::now() + kPatience;
        auto queued = [&] {
            auto const ids = interpreter->queuedIds();
            return std::find(ids.begin(), ids.end(), nextId) != ids.end();
        };
        while (!queued() && !nextRan.load() && std::chrono::steady_clock::now() < until)
            std::this_thread::yield();
        EXPECT_TRUE(queued());
        EXPECT_FALSE(nextRan.load());
        EXPECT_FALSE(busyFuture.is_ready());
        helperLeaving = true; // the helper lets the lock go after this
    }
    EXPECT_FALSE(quorl::utils::getFennMutex()->isLockedByCaller());
    ASSERT_TRUE(busyFuture.timed_wait(boost::posix_time::seconds(20)));
    EXPECT_TRUE(sawHelperLock.load())
        << "the busy packet went on only after the helper had the lock";
    EXPECT_FALSE(wentOnWhileHeld.load())
        << "the busy packet went on while the helper held the lock";
    ASSERT_TRUE(nextFuture.timed_wait(boost::posix_time::seconds(20)));
    EXPECT_TRUE(nextRan.load());

    // A free mutex: no task is posted.
    {
        quorl::cmddistributor::LockBFLHelper helper;
        EXPECT_TRUE(helper.ownsLock());
        auto* concrete = dynamic_cast<DefaultDistributor*>(&distributor);
        ASSERT_TRUE(concrete);
        EXPECT_EQ(concrete->trackedCount(), 0u) << "a request was enqueued";
    }
}

TEST(HostLifecycle, StopDiscardsQueuedPacketsAndLaterOnesAndStartAgainServes) {
    Host::start();
    EXPECT_THROW(Host::start(), std::logic_error);
    FennID const fenn{7};
    // The running packet goes on until stop asks it to end, and then ends normally, like a packet
    // without safe points: stop waits for it. Stop's request is a flag that nothing signals, so
    // the packet polls it, up to a deadline.
    struct UntilStopRunner : quorl::host::PacketRunner {
        std::promise<void> started;
        boost::shared_ptr<IIPCompletedEvent> run(quorl::host::PacketExecution& execution) override {
            started.set_value();
            auto const until = std::chrono::steady_clock::now() + kPatience;
            while (!execution.isInterruptRequested() && std::chrono::steady_clock::now() < until)
                std::this_thread::yield();
            return boost::make_shared<IIPCompletedEvent>(execution.getId(),
                                                         quorl::cmddistributor::ExecutionSuccess);
        }
    };
    auto untilStop = boost::make_shared<UntilStopRunner>();
    auto untilStopStarted = untilStop->started.get_future();
    Host::registerRunner("test_until_stop", untilStop);
    BypassProbe running, queued, late;
    auto first = boost::make_shared<IIP>("test_until_stop", UnsetIqmStreamID, nullptr, nullptr);
    first->setEventMgrBypass(running.bypass());
    auto second = taskPacket([] {});
    second->setEventMgrBypass(queued.bypass());
    deliverTo(fenn, first, IDType());
    deliverTo(fenn, second, IDType());
    ASSERT_EQ(untilStopStarted.wait_for(kPatience), std::future_status::ready);
    Host::stop();
    EXPECT_FALSE(Host::isRunning());
    auto const atOnce = std::chrono::seconds(0); // stop has ended every packet
    auto ran = running.end<IIPCompletedEvent>(atOnce);
    ASSERT_TRUE(ran);
    EXPECT_EQ(ran->getExecutionStatus(), quorl::cmddistributor::ExecutionSuccess);
    EXPECT_TRUE(queued.end<IIPDiscardedEvent>(atOnce));

    auto third = taskPacket([] {});
    third->setEventMgrBypass(late.bypass());
    deliverTo(fenn, third, IDType());
    EXPECT_TRUE(late.end<IIPDiscardedEvent>(atOnce));

    Host::start();
    auto future = CmdDistributor::instance(fenn)->enqueueWithFuture(
        boost::make_shared<FcnCmdRequest<void>>([] {}, nullptr, nullptr));
    EXPECT_TRUE(future.timed_wait(boost::posix_time::seconds(20)));
    Host::stop();
}
