// The default distributor against a scripted interpreter side: the test installs the host
// functions, sees each packet arrive, and finishes it the way a host would (through the bypass,
// through events, or not at all).
#include <quorl/cmddistributor/defaultdistributor.hpp>
#include <quorl/cmddistributor/futureexception.hpp>
#include <quorl/cmddistributor/iipcancelmessage.hpp>
#include <quorl/cmddistributor/iipcancelreply.hpp>
#include <quorl/cmddistributor/iipcompletedevent.hpp>
#include <quorl/cmddistributor/iipenqueuemessage.hpp>
#include <quorl/cmddistributor/iiprunnowmessage.hpp>
#include <quorl/cmddistributor/iipsinkevent.hpp>
#include <quorl/contextmgr/contextregistry.hpp>
#include <quorl/eventmgr/eventmgraccess.hpp>
#include <quorl/eventmgr/tarnshutdownevent.hpp>
#include <quorl/utils/fennmutex.hpp>
#include <quorl/utils/scopedfactoryregistration.hpp>

#include <cpp11compat/u16streams.hpp>
#include <foundation/msg_svc/exchange/exchangeapi.hpp>
#include <foundation/usm/context.hpp>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <future>
#include <map>
#include <mutex>
#include <thread>

using namespace cmddistributor;
using foundation::msg_svc::eventmgr::DeliverQueued;
using foundation::msg_svc::eventmgr::EventMgr;
using foundation::msg_svc::exchange::IDType;
using foundation::msg_svc::exchange::Reply;
using quorl::contextmgr::FennID;
namespace WTD = quorl::cmddistributor::WhenToDequeue;

namespace {

class TestIIP : public IIP {
public:
    TestIIP() : IIP("test", DefaultIqmStreamID, quorl::io::SinkTraits(), quorl::io::SinkTraits()) {}
    bool canBeSerialized() const override { return false; }
};

class TestRequest : public CmdRequest {
public:
    explicit TestRequest(boost::shared_ptr<quorl::io::VeldraSink> out = nullptr,
                         boost::shared_ptr<quorl::io::VeldraSink> err = nullptr)
        : CmdRequest(DefaultIqmStreamID, out, err) {}

protected:
    boost::shared_ptr<IIP> createIIP() override { return boost::make_shared<TestIIP>(); }
};

// A request whose packet may travel to another exchange.
class TravellingRequest : public CmdRequest {
public:
    TravellingRequest() : CmdRequest(DefaultIqmStreamID, nullptr, nullptr) {}

protected:
    boost::shared_ptr<IIP> createIIP() override {
        return boost::make_shared<IIP>("test", DefaultIqmStreamID, quorl::io::SinkTraits(),
                                       quorl::io::SinkTraits());
    }
};

} // namespace

namespace cmddistributor {
template <> struct CmdRequestTraits<TestRequest> : CmdRequestTraits<CmdRequest> {};
template <> struct CmdRequestTraits<TravellingRequest> : CmdRequestTraits<CmdRequest> {};
} // namespace cmddistributor

namespace {

class StringSink : public quorl::io::VeldraSink {
public:
    StringSink() : VeldraSink(boost::make_shared<cpp11compat::u16stringbuf>()) {}
    std::u16string text() const {
        return static_cast<cpp11compat::u16stringbuf&>(*getUnicodeOutStreamBuffer()).str();
    }
};

// The scripted interpreter side.
struct Arrival {
    boost::shared_ptr<IIP> iip;
    IDType id;
    boost::shared_ptr<EventMgr> eventMgr;
    bool hasFuture;
};

struct Side {
    std::mutex m;
    std::condition_variable cv;
    std::deque<Arrival> arrived;
    std::atomic<int> cancelReply{0};
    std::atomic<int> cancels{0};
    std::atomic<int> runNows{0};
    // What run-now does: finish the packet through its bypass, when set.
    std::atomic<bool> runNowCompletes{true};
    std::map<IDType, Arrival> byId;
    // What the host does when a cancel reaches it, before it replies; guarded by m.
    std::function<void(IDType const&)> onCancel;

    void setOnCancel(std::function<void(IDType const&)> f) {
        std::lock_guard<std::mutex> l(m);
        onCancel = std::move(f);
    }

    Arrival next() {
        std::unique_lock<std::mutex> l(m);
        EXPECT_TRUE(cv.wait_for(l, std::chrono::seconds(10), [&] { return !arrived.empty(); }));
        Arrival a = arrived.front();
        arrived.pop_front();
        return a;
    }
};
Side side;
thread_local bool isRunNowThreadHere = false;

boost::shared_ptr<Reply const>
deliverHere(foundation::msg_svc::exchange::Routing const&, boost::shared_ptr<IIP> iip,
            IDType const& id, FennID const&, boost::optional<quorl::contextmgr::TarnID> const&,
            boost::shared_ptr<EventMgr> mgr, WTD::WhenToDequeue, bool hasFuture) {
    {
        std::lock_guard<std::mutex> l(side.m);
        Arrival a{iip, id, mgr, hasFuture};
        side.arrived.push_back(a);
        side.byId[id] = a;
    }
    side.cv.notify_all();
    return Reply::defaultReply();
}

boost::shared_ptr<Reply const> cancelHere(IDType const& id, bool) {
    ++side.cancels;
    std::function<void(IDType const&)> hook;
    {
        std::lock_guard<std::mutex> l(side.m);
        hook = side.onCancel;
    }
    if (hook)
        hook(id);
    return boost::make_shared<IIPCancelReply const>(
        static_cast<IIPCancelReply::CancelStatus>(side.cancelReply.load()));
}

void runNowHere(IDType const& id) {
    ++side.runNows;
    if (!side.runNowCompletes)
        return;
    Arrival a;
    {
        std::lock_guard<std::mutex> l(side.m);
        a = side.byId[id];
    }
    if (a.iip)
        (*a.iip->getEventMgrBypass())(
            IIPCompletedEvent(id, quorl::cmddistributor::ExecutionSuccess));
}

bool isRunNowThreadTest(FennID const&) {
    return isRunNowThreadHere;
}

struct InstallHost {
    InstallHost() {
        setDeliverFuncPtr(&deliverHere);
        setCancelFuncPtr(&cancelHere);
        setRunNowFuncPtr(&runNowHere);
        setIsRunNowThreadFuncPtr(&isRunNowThreadTest);
    }
};

void complete(Arrival const& a, quorl::cmddistributor::inExecutionStatus status, bool viaBypass) {
    IIPCompletedEvent e(a.id, status);
    if (viaBypass)
        (*a.iip->getEventMgrBypass())(e);
    else
        a.eventMgr->publish(boost::make_shared<IIPCompletedEvent const>(a.id, status));
}

FennID nextFenn() {
    static std::atomic<int> n{100};
    return FennID{n++};
}

} // namespace

class Distributor : public ::testing::Test {
protected:
    static void SetUpTestSuite() { static InstallHost install; }
};

TEST_F(Distributor, FindsAndCreatesDistributors) {
    auto& def = CmdDistributor::instance();
    EXPECT_EQ(&def, &CmdDistributor::instance());
    EXPECT_EQ(def.getFennID(), quorl::contextmgr::AnyFennID);
    FennID const id = nextFenn();
    auto a = CmdDistributor::instance(id);
    EXPECT_EQ(a, CmdDistributor::instance(id));
    auto local = foundation::msg_svc::exchange::ExchangeApi::instance()->getExchangeName();
    FennID const created = nextFenn();
    auto mgr = quorl::eventmgr::createLocalEventMgr(boost::none);
    auto c1 = CmdDistributor::create(created, local, boost::none, mgr);
    auto c2 = CmdDistributor::create(created, local, boost::none, mgr);
    EXPECT_EQ(c1, c2);
    EXPECT_EQ(CmdDistributor::instance(created), c1); // a live created one is preferred
    auto r1 = CmdDistributor::create(created, "elsewhere", boost::none, mgr);
    auto r2 = CmdDistributor::create(created, "elsewhere", boost::none, mgr);
    EXPECT_NE(r1, r2);
    EXPECT_FALSE(boost::static_pointer_cast<DefaultDistributor>(r1)->isLocal());
    c1.reset();
    c2.reset();
    EXPECT_FALSE(CmdDistributor::create(created, local, boost::none, mgr)); // died: null
    EXPECT_NE(CmdDistributor::instance(created), nullptr); // instance makes one of its own
}

TEST_F(Distributor, CompletesThroughTheBypassAndThroughEvents) {
    auto d = CmdDistributor::instance(nextFenn());
    auto request = boost::make_shared<TestRequest>();
    IDType const id;
    auto future = d->enqueueWithFuture(request, id);
    Arrival a = side.next();
    EXPECT_EQ(a.id, id);
    EXPECT_TRUE(a.hasFuture);
    EXPECT_TRUE(bool(*a.iip->getEventMgrBypass())); // same exchange and a promise
    complete(a, quorl::cmddistributor::ExecutionSuccess, true);
    EXPECT_NO_THROW(future.get());
    complete(a, quorl::cmddistributor::ExecutionSuccess, false); // a second completion: harmless

    // A continuation-bearing request through events, with an error.
    std::atomic<int> continued{0};
    auto f2 = d->enqueueWithContinuation(boost::make_shared<TestRequest>(), [&] { ++continued; });
    Arrival b = side.next();
    RuntimeException error(quorl::cmddistributor::ExecutionError, ustring(u"boom"), "test:boom",
                           "f", {}, {});
    b.eventMgr->publish(boost::make_shared<IIPCompletedEvent const>(b.id, error));
    try {
        f2.get();
        FAIL() << "expected the request's error";
    } catch (RuntimeException const& e) {
        EXPECT_EQ(e.GetUnicodeMessageTxt(), u"boom");
    }
    b.eventMgr->flush();
    EXPECT_EQ(continued.load(), 1);

    // Fire and forget: no future, no bypass.
    d->enqueue(boost::make_shared<TestRequest>(), WTD::DequeueWhenIdle);
    Arrival c = side.next();
    EXPECT_FALSE(c.hasFuture);
    EXPECT_FALSE(bool(*c.iip->getEventMgrBypass()));
    complete(c, quorl::cmddistributor::ExecutionSuccess, false);

    // The same id twice.
    IDType const twice;
    auto f3 = d->enqueueWithFuture(boost::make_shared<TestRequest>(), twice);
    try {
        d->enqueueWithFuture(boost::make_shared<TestRequest>(), twice);
        FAIL();
    } catch (std::logic_error const& e) {
        EXPECT_STREQ(e.what(), "attempting to enqueue the same CmdRequest twice.");
    }
    Arrival t = side.next();
    complete(t, quorl::cmddistributor::ExecutionSuccess, true);
    f3.get();
    EXPECT_THROW(d->enqueueWithFuture(boost::shared_ptr<TestRequest>()), std::invalid_argument);
}

TEST_F(Distributor, RoutesSinkTextToTheRequestsSinks) {
    auto d = CmdDistributor::instance(nextFenn());
    auto out = boost::make_shared<StringSink>();
    auto err = boost::make_shared<StringSink>();
    auto future = d->enqueueWithFuture(boost::make_shared<TestRequest>(out, err));
    Arrival a = side.next();
    a.eventMgr->publish(
        boost::make_shared<IIPSinkEvent const>(a.id, quorl::io::OutputStream, u"hello "));
    a.eventMgr->publish(
        boost::make_shared<IIPSinkEvent const>(a.id, quorl::io::ErrorStream, u"oops"));
    a.eventMgr->publish(
        boost::make_shared<IIPSinkEvent const>(a.id, quorl::io::OutputStream, u"world"));
    a.eventMgr->publish(
        boost::make_shared<IIPCompletedEvent const>(a.id, quorl::cmddistributor::ExecutionSuccess));
    future.get();
    a.eventMgr->publish(
        boost::make_shared<IIPSinkEvent const>(a.id, quorl::io::OutputStream, u"late"));
    a.eventMgr->flush();
    EXPECT_EQ(out->text(), u"hello world"); // text after the end is dropped
    EXPECT_EQ(err->text(), u"oops");
    EXPECT_TRUE(out->isDirty());
}

TEST_F(Distributor, CancelTable) {
    auto d = CmdDistributor::instance(nextFenn());
    // Unknown: a ready 0, no message.
    int const before = side.cancels.load();
    EXPECT_EQ(d->cancelRequest(IDType(), true).get(), CmdDistributor::CancelNotFound);
    EXPECT_EQ(side.cancels.load(), before);

    // The interpreter replies 0 or 1: the request runs on.
    for (int reply : {0, 1}) {
        side.cancelReply = reply;
        auto f = d->enqueueWithFuture(boost::make_shared<TestRequest>());
        Arrival a = side.next();
        EXPECT_EQ(d->cancelRequest(a.id, false).get(), reply);
        complete(a, quorl::cmddistributor::ExecutionSuccess, true);
        EXPECT_NO_THROW(f.get());
    }

    // Reply 2, then a discard: the request reports AlreadyCancelledException, cancel says true.
    side.cancelReply = 2;
    {
        auto f = d->enqueueWithFuture(boost::make_shared<TestRequest>());
        Arrival a = side.next();
        // The host ends the packet once the cancel has reached it (had it ended before, there
        // would be nothing to cancel); the end and the reply may then come in either order.
        std::promise<void> reached;
        side.setOnCancel([&](IDType const&) { reached.set_value(); });
        std::thread host([a, r = reached.get_future()] {
            EXPECT_EQ(r.wait_for(std::chrono::seconds(20)), std::future_status::ready);
            a.eventMgr->publish(boost::make_shared<IIPDiscardedEvent const>(a.id));
        });
        EXPECT_TRUE(d->cancel(a.id));
        host.join();
        side.setOnCancel(nullptr);
        EXPECT_THROW(f.get(), AlreadyCancelledException);
    }
    // Reply 2, then a completion of status 4: the cancel ends with 3.
    {
        auto f = d->enqueueWithFuture(boost::make_shared<TestRequest>());
        Arrival a = side.next();
        std::promise<void> reached;
        side.setOnCancel([&](IDType const&) { reached.set_value(); });
        std::thread host([a, r = reached.get_future()] {
            EXPECT_EQ(r.wait_for(std::chrono::seconds(20)), std::future_status::ready);
            complete(a, quorl::cmddistributor::ExecutionInterrupted, true);
        });
        EXPECT_EQ(d->cancelRequest(a.id, true).get(), CmdDistributor::CancelEndedByStatus4);
        host.join();
        side.setOnCancel(nullptr);
        EXPECT_THROW(f.get(), RuntimeException);
    }
    // A second cancel while the first is pending throws, and the first goes on.
    side.cancelReply = 1;
    {
        auto f = d->enqueueWithFuture(boost::make_shared<TestRequest>());
        Arrival a = side.next();
        auto tracked = boost::static_pointer_cast<DefaultDistributor>(d);
        // A cancel is pending from when its promise is in the request's record (before its
        // message goes) until the host's reply answers it. The host holds its first reply back
        // until the second cancel has been tried.
        std::promise<void> reached, replyGate;
        std::atomic<bool> held{false};
        side.setOnCancel([&, gate = replyGate.get_future().share()](IDType const&) {
            if (held.exchange(true))
                return;
            reached.set_value();
            EXPECT_EQ(gate.wait_for(std::chrono::seconds(20)), std::future_status::ready);
        });
        CmdDistributor::CancelStatus firstStatus = CmdDistributor::CancelNotFound;
        std::thread first([&] { firstStatus = d->cancelRequest(a.id, false).get(); });
        EXPECT_EQ(reached.get_future().wait_for(std::chrono::seconds(20)),
                  std::future_status::ready);
        // The record takes one cancel promise at a time: cancelRequest itself throws (not its
        // future), and no cancel message goes to the host.
        int const messages = side.cancels.load();
        EXPECT_THROW(d->cancelRequest(a.id, false), AlreadyCancelledException);
        EXPECT_EQ(side.cancels.load(), messages);
        replyGate.set_value();
        first.join();
        side.setOnCancel(nullptr);
        EXPECT_EQ(firstStatus, CmdDistributor::CancelNotCancelled); // the host's reply 1
        // The reply answered the first cancel: the record takes a new one.
        EXPECT_EQ(d->cancelRequest(a.id, false).get(), CmdDistributor::CancelNotCancelled);
        complete(a, quorl::cmddistributor::ExecutionSuccess, true);
        f.get();
        EXPECT_EQ(tracked->trackedCount(), 0u);
    }
}

TEST_F(Distributor, CommunicationErrorAndShutdown) {
    // A distributor towards an exchange that cannot be reached: the failure ends its requests
    // with status 5, and the distributor stays usable.
    auto mgr = quorl::eventmgr::createLocalEventMgr(boost::none);
    auto d = CmdDistributor::create(nextFenn(), "unreachable-exchange", boost::none, mgr);
    auto f = d->enqueueWithFuture(boost::make_shared<TravellingRequest>());
    try {
        f.get();
        FAIL() << "expected a communication failure";
    } catch (RuntimeException const& e) {
        EXPECT_EQ(e.getExecutionStatus(), quorl::cmddistributor::ExecutionCommunicationError);
        EXPECT_FALSE(e.GetUnicodeMessageTxt().empty());
    }
    auto again = d->enqueueWithFuture(boost::make_shared<TravellingRequest>());
    EXPECT_THROW(again.get(), RuntimeException);

    // Shutdown drops tracked requests (broken_promise); later ones are sent but not tracked.
    // The same event undoes a registration made inside an interpreter's context.
    auto local = CmdDistributor::instance(nextFenn());
    auto pending = local->enqueueWithFuture(boost::make_shared<TestRequest>());
    Arrival a = side.next();
    std::atomic<int> undone{0};
    auto target = boost::make_shared<int>(0);
    std::unique_ptr<quorl::ScopedFactoryRegistration> registration;
    std::thread([&] {
        foundation::usm::ContextScope scope(foundation::usm::Context::create("interpreter"));
        quorl::contextmgr::ContextRegistry::setIDs(FennID{7}, quorl::contextmgr::TarnID{7});
        registration.reset(new quorl::ScopedFactoryRegistration(
            boost::make_shared<quorl::ScopedFactoryRegistration::Impl>(
                target, [&undone] { ++undone; }, true)));
    }).join();
    auto shutdownMgr = quorl::eventmgr::createShutdownEventMgr();
    shutdownMgr->notify<quorl::eventmgr::TARNShutdownEvent>(DeliverQueued);
    shutdownMgr->flush();
    EXPECT_EQ(undone.load(), 1);
    EXPECT_THROW(pending.get(), boost::broken_promise);
    IDType const id;
    auto after = local->enqueueWithFuture(boost::make_shared<TestRequest>(), id);
    EXPECT_NO_THROW(local->enqueueWithFuture(boost::make_shared<TestRequest>(), id));
    EXPECT_THROW(after.get(), boost::broken_promise);
    side.next();
    side.next();
    (void)a;
}

TEST_F(Distributor, WaitersNeitherDeadlockNorHoldTheFennMutex) {
    auto d = CmdDistributor::instance(nextFenn());
    // A waiter that holds the fenn mutex gives it up while it waits and holds it again after.
    {
        auto f = d->enqueueWithFuture(boost::make_shared<TestRequest>());
        Arrival a = side.next();
        fenn_acquire_mutex();
        fenn_acquire_mutex();
        std::atomic<bool> freeDuringWait{false};
        std::thread host([&] {
            // The waiter holds the mutex from before this thread starts until it waits in get():
            // taking it shows that the wait gave it up. The mutex tells no one when it is freed,
            // so this polls, up to a deadline, and ends the request either way.
            auto const until = std::chrono::steady_clock::now() + std::chrono::seconds(20);
            while (!freeDuringWait && std::chrono::steady_clock::now() < until) {
                if (quorl::utils::getFennMutex()->try_lock()) {
                    freeDuringWait = true;
                    quorl::utils::getFennMutex()->unlock();
                } else {
                    std::this_thread::yield();
                }
            }
            complete(a, quorl::cmddistributor::ExecutionSuccess, true);
        });
        f.get();
        EXPECT_EQ(quorl::utils::getFennMutex()->depthOfCaller(), 2u);
        fenn_release_mutex();
        fenn_release_mutex();
        host.join();
        EXPECT_TRUE(freeDuringWait.load());
    }
    // On the run-now thread: run-now completes the request, and the value comes back.
    isRunNowThreadHere = true;
    {
        side.runNowCompletes = true;
        auto f = d->enqueueWithFuture(boost::make_shared<TestRequest>());
        side.next();
        int const runNows = side.runNows.load();
        EXPECT_NO_THROW(f.get());
        EXPECT_EQ(side.runNows.load(), runNows + 1);
    }
    // On the run-now thread, a request that stays undone: WrongThreadException.
    {
        side.runNowCompletes = false;
        auto f = d->enqueueWithFuture(boost::make_shared<TestRequest>());
        Arrival a = side.next();
        EXPECT_THROW(f.get(), WrongThreadException);
        isRunNowThreadHere = false;
        complete(a, quorl::cmddistributor::ExecutionSuccess, true);
        EXPECT_NO_THROW(f.get());
    }
    // On the run-now thread, a request already done: no run-now message.
    isRunNowThreadHere = true;
    {
        auto f = d->enqueueWithFuture(boost::make_shared<TestRequest>());
        Arrival a = side.next();
        complete(a, quorl::cmddistributor::ExecutionSuccess, true);
        int const runNows = side.runNows.load();
        f.get();
        EXPECT_EQ(side.runNows.load(), runNows);
    }
    isRunNowThreadHere = false;
    side.runNowCompletes = true;
}
