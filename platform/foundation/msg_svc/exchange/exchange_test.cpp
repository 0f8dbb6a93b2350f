#include <foundation/msg_svc/serialization/archives.hpp>

#include <tests/support/zmqexchanges.hpp>

#include <foundation/msg_svc/eventmgr/eventmgrfront.hpp>
#include <foundation/msg_svc/exchange/communicationerrorevent.hpp>
#include <foundation/msg_svc/exchange/exchangeapi.hpp>
#include <foundation/msg_svc/exchange/lanes.hpp>
#include <foundation/msg_svc/exchange/zmqtransport.hpp>

#include <boost/serialization/base_object.hpp>
#include <boost/serialization/string.hpp>
#include <boost/serialization/vector.hpp>
#include <gtest/gtest.h>
#include <zmq.hpp>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

using namespace foundation::msg_svc;
using namespace foundation::msg_svc::exchange;
using std::chrono::seconds;

namespace {

// Records the thread and order of deliveries.
struct Journal {
    std::mutex mutex;
    std::vector<int> order;
    std::vector<bool> onDeliveryThread;
};
Journal journal;

class TestReply : public Reply {
public:
    explicit TestReply(int v = 0) : value(v) {}
    int value;
    static void
    assignToPromise(boost::shared_ptr<boost::promise<boost::shared_ptr<TestReply const>>> const& p,
                    boost::shared_ptr<Reply const> const& r) {
        p->set_value(boost::dynamic_pointer_cast<TestReply const>(r));
    }

private:
    friend class boost::serialization::access;
    template <class A> void serialize(A& ar, unsigned) {
        ar& boost::serialization::make_nvp("reply",
                                           boost::serialization::base_object<Reply>(*this));
        ar& boost::serialization::make_nvp("value", value);
    }
};

// Echoes its number times ten; records where it was delivered; optionally blocks on a gate.
class EchoMessage : public Message {
public:
    explicit EchoMessage(int n = 0, bool fail = false) : n_(n), fail_(fail) {}
    boost::shared_ptr<Reply const> deliver(Routing const&) const override {
        {
            std::lock_guard<std::mutex> lock(journal.mutex);
            journal.order.push_back(n_);
            journal.onDeliveryThread.push_back(ExchangeApi::instance()->isDeliveryThread());
        }
        if (fail_)
            throw std::runtime_error("echo refused " + std::to_string(n_));
        return boost::make_shared<TestReply>(n_ * 10);
    }

private:
    friend class boost::serialization::access;
    template <class A> void serialize(A& ar, unsigned) {
        ar& boost::serialization::make_nvp("message",
                                           boost::serialization::base_object<Message>(*this));
        ar& boost::serialization::make_nvp("n", n_);
        ar& boost::serialization::make_nvp("fail", fail_);
    }
    int n_;
    bool fail_;
};

// Blocks its delivery until released.
struct Gate {
    std::mutex m;
    std::condition_variable cv;
    bool open = false;
    void release() {
        {
            std::lock_guard<std::mutex> l(m);
            open = true;
        }
        cv.notify_all();
    }
    void wait() {
        std::unique_lock<std::mutex> l(m);
        cv.wait(l, [&] { return open; });
    }
    bool waitFor(std::chrono::seconds limit) {
        std::unique_lock<std::mutex> l(m);
        return cv.wait_for(l, limit, [&] { return open; });
    }
};

class GateMessage : public Message {
public:
    explicit GateMessage(std::shared_ptr<Gate> g, bool fail = false)
        : gate(std::move(g)), fail_(fail) {}
    boost::shared_ptr<Reply const> deliver(Routing const&) const override {
        gate->wait();
        if (fail_)
            throw std::runtime_error("the gate refused");
        return boost::make_shared<TestReply>(1);
    }
    std::shared_ptr<Gate> gate;

private:
    bool fail_;
};

// Sends a message to its own exchange on the unordered lane and waits for the reply while
// being delivered itself: must not stall delivery.
class NestedMessage : public Message {
public:
    boost::shared_ptr<Reply const> deliver(Routing const&) const override {
        auto ex = ExchangeApi::instance();
        auto f = ex->submitWithReply(
            boost::make_shared<EchoMessage>(7),
            Address(ex->getExchangeName(), Address::SpecializedQueues::unordered()));
        return f.get();
    }
};

// Gates by number, for messages that cross an exchange.
struct NumberedGates {
    std::mutex m;
    std::map<int, std::shared_ptr<Gate>> gates;
    std::shared_ptr<Gate> at(int n) {
        std::lock_guard<std::mutex> lock(m);
        auto& g = gates[n];
        if (!g)
            g = std::make_shared<Gate>();
        return g;
    }
};
NumberedGates numberedGates;

// Waits at a gate (replying with its number), opens gates, or stops an exchange and then opens
// gates: WaitMessage(n) is delivered once OpenMessage({n}) has been.
ExchangeApi* stopTarget = nullptr;
class GatesMessage : public Message {
public:
    enum Action { Wait, Open, StopThenOpen };
    GatesMessage() = default;
    GatesMessage(Action action, std::vector<int> gates)
        : action_(action), gates_(std::move(gates)) {}
    boost::shared_ptr<Reply const> deliver(Routing const&) const override {
        if (action_ == Wait) {
            numberedGates.at(gates_.at(0))->wait();
            return boost::make_shared<TestReply>(gates_.at(0));
        }
        if (action_ == StopThenOpen)
            stopTarget->stop();
        for (int n : gates_)
            numberedGates.at(n)->release();
        return Reply::defaultReply();
    }

private:
    friend class boost::serialization::access;
    template <class A> void serialize(A& ar, unsigned) {
        ar& boost::serialization::make_nvp("message",
                                           boost::serialization::base_object<Message>(*this));
        ar& boost::serialization::make_nvp("action", action_);
        ar& boost::serialization::make_nvp("gates", gates_);
    }
    Action action_ = Open;
    std::vector<int> gates_;
};
boost::shared_ptr<GatesMessage> WaitMessage(int n) {
    return boost::make_shared<GatesMessage>(GatesMessage::Wait, std::vector<int>{n});
}
boost::shared_ptr<GatesMessage> OpenMessage(std::vector<int> n) {
    return boost::make_shared<GatesMessage>(GatesMessage::Open, std::move(n));
}

struct TestActorApi {
    virtual ~TestActorApi() = default;
    virtual boost::shared_ptr<Reply const> serve(class ActorPing const& m) = 0;
};

class ActorPing : public ActorMessage<ActorPing, TestActorApi> {
public:
    explicit ActorPing(int v = 0) : value(v) {}
    int value;
};

struct CountingActor : TestActorApi {
    std::atomic<int> sum{0};
    std::thread::id thread;
    boost::shared_ptr<Reply const> serve(ActorPing const& m) override {
        sum += m.value;
        thread = std::this_thread::get_id();
        return boost::make_shared<TestReply>(sum.load());
    }
};

// Blocks of bytes whose content follows from their index and position; the reply counts the
// blocks that arrived whole.
std::string patternBlock(std::size_t index, std::size_t size) {
    std::string b(size, '\0');
    for (std::size_t i = 0; i < size; ++i)
        b[i] = static_cast<char>((i * 31 + index * 7 + i / 4096) & 0xFF);
    return b;
}

class BlocksMessage : public Message {
public:
    BlocksMessage() = default;
    explicit BlocksMessage(std::vector<std::size_t> const& sizes) {
        for (std::size_t i = 0; i < sizes.size(); ++i)
            blocks_.push_back(patternBlock(i, sizes[i]));
    }
    boost::shared_ptr<Reply const> deliver(Routing const&) const override {
        int whole = 0;
        for (std::size_t i = 0; i < blocks_.size(); ++i)
            whole += blocks_[i] == patternBlock(i, blocks_[i].size());
        return boost::make_shared<TestReply>(whole);
    }
    std::size_t bytes() const {
        std::size_t n = 0;
        for (auto const& b : blocks_)
            n += b.size();
        return n;
    }

private:
    friend class boost::serialization::access;
    template <class A> void serialize(A& ar, unsigned) {
        ar& boost::serialization::make_nvp("message",
                                           boost::serialization::base_object<Message>(*this));
        ar& boost::serialization::make_nvp("blocks", blocks_);
    }
    std::vector<std::string> blocks_;
};

Address own(std::string const& queue = Address::SpecializedQueues::noqueue()) {
    return Address(ExchangeApi::instance()->getExchangeName(), queue);
}

} // namespace

BOOST_CLASS_EXPORT(TestReply)
BOOST_CLASS_EXPORT(EchoMessage)
BOOST_CLASS_EXPORT(BlocksMessage)
BOOST_CLASS_EXPORT(GatesMessage)

TEST(Exchange, DeliversInOrderOnTheDeliveryThreadAndAnswers) {
    auto ex = ExchangeApi::instance();
    EXPECT_EQ(ex, ExchangeApi::instance());
    EXPECT_FALSE(ex->isDeliveryThread());
    {
        std::lock_guard<std::mutex> lock(journal.mutex);
        journal.order.clear();
        journal.onDeliveryThread.clear();
    }
    std::vector<boost::unique_future<boost::shared_ptr<Reply const>>> futures;
    for (int i = 0; i < 200; ++i)
        futures.push_back(ex->submitWithReply(boost::make_shared<EchoMessage>(i), own()));
    for (int i = 0; i < 200; ++i) {
        auto reply = boost::dynamic_pointer_cast<TestReply const>(futures[i].get());
        ASSERT_TRUE(reply);
        EXPECT_EQ(reply->value, i * 10);
    }
    std::lock_guard<std::mutex> lock(journal.mutex);
    ASSERT_EQ(journal.order.size(), 200u);
    for (int i = 0; i < 200; ++i) {
        EXPECT_EQ(journal.order[i], i);
        EXPECT_TRUE(journal.onDeliveryThread[i]);
    }
}

TEST(Exchange, FailuresReachTheSender) {
    auto ex = ExchangeApi::instance();
    auto f = ex->submitWithReply(boost::make_shared<EchoMessage>(3, true), own());
    EXPECT_THROW(f.get(), std::runtime_error);
    auto typed = submitForReply<TestReply>(*ex, boost::make_shared<EchoMessage>(4), own());
    EXPECT_EQ(typed.get()->value, 40);
    auto failed = submitForReply<TestReply>(*ex, boost::make_shared<EchoMessage>(5, true), own());
    EXPECT_THROW(failed.get(), std::runtime_error);
    // Fire and forget still delivers.
    std::atomic<int> got{0};
    ex->submitWithHandler(boost::make_shared<EchoMessage>(6), own(),
                          [&](boost::shared_ptr<Reply const> const&) { got = 1; });
    ex->submitWithReply(boost::make_shared<EchoMessage>(0), own()).get(); // in-order barrier
    EXPECT_EQ(got.load(), 1);
    EXPECT_THROW(ExchangeApi::configure(ExchangeConfig()), std::logic_error);
}

// Waiters that would poll for an hour are ended by the reply, a value or a failure, on either
// road to a future.
TEST(Exchange, AReplyEndsTheSpinOfItsWaiter) {
    ExchangeConfig config;
    config.replySpin = std::chrono::hours(1);
    auto ex = ExchangeApi::create(config);
    Address const to(ex->getExchangeName(), Address::SpecializedQueues::unordered());
    for (bool fail : {false, true}) {
        auto gate = std::make_shared<Gate>();
        auto typed =
            submitForReply<TestReply>(*ex, boost::make_shared<GateMessage>(gate, fail), to);
        auto plain = ex->submitWithReply(boost::make_shared<GateMessage>(gate, fail), to);
        std::promise<void> waiting;
        auto waiter = std::async(std::launch::async, [&] {
            waiting.set_value();
            typed.wait();
            plain.wait();
        });
        waiting.get_future().wait();
        gate->release();
        waiter.get();
        if (fail) {
            EXPECT_THROW(typed.get(), std::runtime_error);
            EXPECT_THROW(plain.get(), std::runtime_error);
        } else {
            EXPECT_EQ(typed.get()->value, 1);
            EXPECT_TRUE(plain.get());
        }
    }

    // A loop that polls a future spins once, not at every poll (200 spins would take 10 s).
    config.replySpin = std::chrono::milliseconds(50);
    auto polled = ExchangeApi::create(config);
    auto gate = std::make_shared<Gate>();
    auto f = polled->submitWithReply(
        boost::make_shared<GateMessage>(gate),
        Address(polled->getExchangeName(), Address::SpecializedQueues::unordered()));
    auto const start = std::chrono::steady_clock::now();
    for (int i = 0; i < 200; ++i)
        ASSERT_FALSE(f.timed_wait(boost::posix_time::milliseconds(0)));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    gate->release();
    EXPECT_TRUE(f.get());
}

TEST(Exchange, UnorderedOvertakesQueuedWorkAndMayBlockOnReplies) {
    auto ex = ExchangeApi::instance();
    auto gate = std::make_shared<Gate>();
    // Block the ordered queue, then queue more behind it.
    auto blocked = ex->submitWithReply(boost::make_shared<GateMessage>(gate), own());
    auto queued = ex->submitWithReply(boost::make_shared<EchoMessage>(1), own());
    // An unordered message is delivered although the ordered queue is stuck...
    auto fast = ex->submitWithReply(boost::make_shared<EchoMessage>(2),
                                    own(Address::SpecializedQueues::unordered()));
    ASSERT_EQ(fast.wait_for(boost::chrono::seconds(10)), boost::future_status::ready);
    EXPECT_EQ(boost::dynamic_pointer_cast<TestReply const>(fast.get())->value, 20);
    // ...and one that blocks on a reply of another unordered message does not stall the lane.
    auto nested = ex->submitWithReply(boost::make_shared<NestedMessage>(),
                                      own(Address::SpecializedQueues::unordered()));
    ASSERT_EQ(nested.wait_for(boost::chrono::seconds(10)), boost::future_status::ready);
    EXPECT_EQ(boost::dynamic_pointer_cast<TestReply const>(nested.get())->value, 70);
    EXPECT_FALSE(queued.is_ready());
    gate->release();
    blocked.get();
    EXPECT_EQ(boost::dynamic_pointer_cast<TestReply const>(queued.get())->value, 10);
}

TEST(Exchange, ActorsServeTheirMessagesOnTheirOwnThread) {
    auto ex = ExchangeApi::instance();
    auto actor = boost::make_shared<CountingActor>();
    registerActor<TestActorApi>(*ex, "TestActor", actor);
    EXPECT_THROW(registerActor<TestActorApi>(*ex, "TestActor", actor), std::invalid_argument);
    EXPECT_THROW(ex->registerActor(Address::SpecializedQueues::unordered(),
                                   [](Message const&) { return Reply::defaultReply(); }),
                 std::invalid_argument);
    for (int i = 1; i <= 10; ++i)
        ex->submit(boost::make_shared<ActorPing>(i), own("TestActor"));
    auto last = ex->submitWithReply(boost::make_shared<ActorPing>(0), own("TestActor"));
    EXPECT_EQ(boost::dynamic_pointer_cast<TestReply const>(last.get())->value, 55);
    EXPECT_NE(actor->thread, std::this_thread::get_id());
    // A message that is not for the actor fails instead of being lost.
    EXPECT_THROW(ex->submitWithReply(boost::make_shared<EchoMessage>(1), own("TestActor")).get(),
                 DeliveryError);
    ex->unregisterActor("TestActor");
}

TEST(Exchange, OtherExchangesAreReachedSerializedAndFailuresAreReported) {
    auto local = ExchangeApi::instance()->getExchangeName();
    ExchangeConfig a;
    a.name = "test-peer-a";
    a.transport = makeLoopbackTransport();
    ExchangeConfig b;
    b.name = "test-peer-b";
    b.transport = makeLoopbackTransport();
    auto exA = ExchangeApi::create(a);
    auto exB = ExchangeApi::create(b);
    EXPECT_THROW(ExchangeApi::create(a), std::invalid_argument);

    // A reply crosses back by its correlation id; the far side's failure comes back as text.
    auto f = exA->submitWithReply(boost::make_shared<EchoMessage>(9),
                                  Address("test-peer-b", Address::SpecializedQueues::noqueue()));
    auto reply = boost::dynamic_pointer_cast<TestReply const>(f.get());
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->value, 90);
    auto bad = exA->submitWithReply(boost::make_shared<EchoMessage>(9, true),
                                    Address("test-peer-b", Address::SpecializedQueues::noqueue()));
    try {
        bad.get();
        FAIL() << "expected a failure";
    } catch (DeliveryError const& e) {
        EXPECT_NE(std::string(e.what()).find("echo refused 9"), std::string::npos);
    }
    // A message that cannot be serialized fails at the sender.
    auto gate = std::make_shared<Gate>();
    EXPECT_THROW(exA->submitWithReply(boost::make_shared<GateMessage>(gate),
                                      Address("test-peer-b", "noqueue"))
                     .get(),
                 std::exception);

    // Communication errors: a subscriber of one exchange's failures hears of it.
    eventmgr::EventMgrFront mgr(nullptr, eventmgr::SessionEmId);
    std::atomic<int> errors{0};
    auto conn = mgr.subscribe<CommunicationErrorEvent>(
        [&](CommunicationErrorEvent const& e) {
            EXPECT_EQ(e.getExchangeName(), "test-peer-missing");
            EXPECT_TRUE(e.getException());
            ++errors;
        },
        {CommunicationErrorEvent::ExchangeSpecificEventType("test-peer-missing")});
    auto lost = exA->submitWithReply(boost::make_shared<EchoMessage>(1),
                                     Address("test-peer-missing", "noqueue"));
    EXPECT_THROW(lost.get(), DeliveryError);
    mgr.flush();
    EXPECT_EQ(errors.load(), 1);

    // A peer that stops fails what is pending there.
    auto gate2 = std::make_shared<Gate>();
    exB.reset();
    auto afterStop =
        exA->submitWithReply(boost::make_shared<EchoMessage>(2), Address("test-peer-b", "noqueue"));
    EXPECT_THROW(afterStop.get(), DeliveryError);
    // Without a transport another exchange cannot be reached at all.
    EXPECT_THROW(
        ExchangeApi::instance()
            ->submitWithReply(boost::make_shared<EchoMessage>(1), Address("elsewhere", "q"))
            .get(),
        DeliveryError);
    EXPECT_NE(local, "test-peer-a");
}

// Jobs queued behind a running one are taken as one batch; a stop while the batch runs must still
// discard the jobs of that batch not yet started, and release what they hold.
TEST(SerialLane, StopDiscardsTheRestOfARunningBatch) {
    detail::SerialLane lane;
    std::promise<void> gateOpen, firstEntered, firstRelease;
    std::shared_future<void> gate = gateOpen.get_future().share();
    std::shared_future<void> release = firstRelease.get_future().share();
    std::vector<int> ran; // touched on the lane's thread only, read after the join
    auto held = std::make_shared<int>(0);

    ASSERT_TRUE(lane.post([gate] { gate.wait(); }));
    ASSERT_TRUE(lane.post([&, release] {
        ran.push_back(1);
        firstEntered.set_value();
        release.wait();
    }));
    for (int i = 2; i <= 4; ++i)
        ASSERT_TRUE(lane.post([&ran, i, held] { ran.push_back(i); }));
    gateOpen.set_value(); // the lane now takes jobs 1 to 4 together and blocks in job 1
    firstEntered.get_future().wait();

    std::thread stopper([&lane] { lane.stop(); });
    while (lane.post([] {})) // refused once the stop has begun
        std::this_thread::yield();
    firstRelease.set_value();
    stopper.join();

    EXPECT_EQ(ran, std::vector<int>{1});
    EXPECT_EQ(held.use_count(), 1); // the discarded jobs are gone
    EXPECT_FALSE(lane.post([] {}));
}

TEST(Exchange, UnnamedExchangesMadeAtOnceGetDistinctNames) {
    // Two threads making unnamed exchanges at once: a generated name that repeats would make
    // create() refuse the second exchange of that name.
    constexpr int perThread = 100;
    std::vector<boost::shared_ptr<ExchangeApi>> made[2];
    std::promise<void> go;
    std::shared_future<void> start = go.get_future().share();
    auto maker = [&start](std::vector<boost::shared_ptr<ExchangeApi>>& into) {
        start.wait();
        for (int i = 0; i < perThread; ++i)
            into.push_back(ExchangeApi::create(ExchangeConfig()));
    };
    auto a = std::async(std::launch::async, maker, std::ref(made[0]));
    auto b = std::async(std::launch::async, maker, std::ref(made[1]));
    go.set_value();
    EXPECT_NO_THROW(a.get());
    EXPECT_NO_THROW(b.get());
    std::set<std::string> names;
    for (auto const& list : made)
        for (auto const& e : list)
            names.insert(e->getExchangeName());
    EXPECT_EQ(names.size(), made[0].size() + made[1].size());
}

TEST(Exchange, OverZeroMQSendersOnManyThreadsKeepTheirOrderAndLoseNothing) {
    // Senders hand frames to the socket themselves while the I/O thread reads replies from it.
    quorl_testing::ZmqExchanges zmq("zmq-test-client");
    auto const& client = zmq.client;
    std::string const& serverName = zmq.serverName;

    constexpr int threads = 4, perThread = 150;
    std::mutex m;
    std::condition_variable allIn;
    std::vector<std::vector<int>> replies(threads); // guarded by m
    int answered = 0, failed = 0;                   // guarded by m
    std::promise<void> go;
    std::shared_future<void> start = go.get_future().share();
    std::vector<std::thread> senders;
    for (int t = 0; t < threads; ++t) {
        senders.emplace_back([&, t] {
            start.wait();
            // Even threads on the ordered queue, odd ones on the unordered lane (answered from
            // the lane's own threads, so in any order).
            std::string const queue = t % 2 ? Address::SpecializedQueues::unordered()
                                            : Address::SpecializedQueues::noqueue();
            for (int i = 0; i < perThread; ++i) {
                client->submitWithHandler(
                    boost::make_shared<EchoMessage>(t * 1000 + i), Address(serverName, queue),
                    [&, t](boost::shared_ptr<Reply const> const& r) {
                        std::lock_guard<std::mutex> lock(m);
                        replies[t].push_back(
                            boost::dynamic_pointer_cast<TestReply const>(r)->value);
                        ++answered;
                        allIn.notify_all();
                    },
                    [&](boost::exception_ptr const&) {
                        std::lock_guard<std::mutex> lock(m);
                        ++failed;
                        allIn.notify_all();
                    });
            }
        });
    }
    go.set_value();
    for (auto& s : senders)
        s.join();
    {
        std::unique_lock<std::mutex> lock(m);
        ASSERT_TRUE(allIn.wait_for(lock, seconds(30),
                                   [&] { return answered + failed == threads * perThread; }));
        EXPECT_EQ(failed, 0);
        for (int t = 0; t < threads; ++t) {
            std::vector<int> expected(perThread);
            for (int i = 0; i < perThread; ++i)
                expected[i] = (t * 1000 + i) * 10;
            std::vector<int> got = replies[t];
            if (t % 2)
                std::sort(got.begin(), got.end());
            EXPECT_EQ(got, expected) << "thread " << t;
        }
    }
}

TEST(Exchange, OverZeroMQDeliveriesThatBlockNeitherStopTheReadingNorOvertakeInOrder) {
    // A delivery may run on the thread that read its frame, once another thread reads instead;
    // the threads that may do so are few, so later ones go to the lanes.
    quorl_testing::ZmqExchanges zmq("zmq-blocking-client");
    auto const& client = zmq.client;
    Address const ordered(zmq.serverName, Address::SpecializedQueues::noqueue());
    Address const unordered(zmq.serverName, Address::SpecializedQueues::unordered());
    auto const ready = [](auto& f) {
        return f.wait_for(boost::chrono::seconds(10)) == boost::future_status::ready;
    };

    auto stuck = client->submitWithReply(WaitMessage(1), ordered);
    auto behind = client->submitWithReply(boost::make_shared<EchoMessage>(5), ordered);
    std::vector<boost::unique_future<boost::shared_ptr<Reply const>>> waiting;
    std::vector<int> numbers;
    for (int n = 100; n < 120; ++n) {
        numbers.push_back(n);
        waiting.push_back(client->submitWithReply(WaitMessage(n), unordered));
    }
    // Twenty blocked deliveries later, frames are still read and delivered...
    auto echo = client->submitWithReply(boost::make_shared<EchoMessage>(6), unordered);
    ASSERT_TRUE(ready(echo));
    EXPECT_EQ(boost::dynamic_pointer_cast<TestReply const>(echo.get())->value, 60);
    // ...but nothing overtakes the blocked delivery on the ordered queue.
    EXPECT_FALSE(behind.is_ready());
    auto opened = client->submitWithReply(OpenMessage(numbers), unordered);
    ASSERT_TRUE(ready(opened));
    for (std::size_t i = 0; i < waiting.size(); ++i) {
        ASSERT_TRUE(ready(waiting[i]));
        EXPECT_EQ(boost::dynamic_pointer_cast<TestReply const>(waiting[i].get())->value,
                  numbers[i]);
    }
    EXPECT_FALSE(behind.is_ready());
    client->submitWithReply(OpenMessage(std::vector<int>{1}), unordered).get();
    ASSERT_TRUE(ready(stuck));
    ASSERT_TRUE(ready(behind));
    EXPECT_EQ(boost::dynamic_pointer_cast<TestReply const>(behind.get())->value, 50);

    // An exchange stopped by a delivery its transport's thread runs ends cleanly.
    stopTarget = zmq.server.get();
    client->submit(
        boost::make_shared<GatesMessage>(GatesMessage::StopThenOpen, std::vector<int>{3}),
        unordered);
    ASSERT_TRUE(numberedGates.at(3)->waitFor(seconds(10)));
    zmq.server.reset();
}

TEST(SerialLane, AClaimedLaneRunsLaterJobsOnlyAfterTheClaimIsReleased) {
    detail::SerialLane lane;
    ASSERT_TRUE(lane.tryClaim());
    EXPECT_FALSE(lane.tryClaim());
    std::promise<void> ran;
    auto done = ran.get_future();
    std::atomic<bool> released{false};
    std::atomic<bool> orderKept{false};
    lane.post([&] {
        orderKept = released.load();
        ran.set_value();
    });
    EXPECT_EQ(done.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    released = true;
    lane.release();
    done.get();
    EXPECT_TRUE(orderKept.load());
    // Busy with queued work: no claim.
    std::promise<void> hold;
    auto held = hold.get_future().share();
    std::promise<void> started;
    lane.post([&] {
        started.set_value();
        held.wait();
    });
    started.get_future().get();
    EXPECT_FALSE(lane.tryClaim());
    hold.set_value();
    lane.stop();
    EXPECT_FALSE(lane.tryClaim());
}

TEST(Exchange, LargeMessagesArriveWholeOverEitherTransport) {
    // Blocks below, at and far above the size a frame is built and sent differently from, many
    // of them, so that the frame grows past several large blocks.
    std::vector<std::size_t> sizes{1, 65535, 65536, 3 << 20, 0, 200000, 70000, 1 << 20};
    for (int i = 0; i < 12; ++i)
        sizes.push_back(100000 + 9973 * static_cast<std::size_t>(i));
    auto const message = boost::make_shared<BlocksMessage>(sizes);
    ASSERT_GT(message->bytes(), std::size_t(5) << 20);

    auto a = quorl_testing::loopbackExchange("large-loop-a");
    auto b = quorl_testing::loopbackExchange("large-loop-b");
    quorl_testing::ZmqExchanges zmq("large-zmq-client");

    std::pair<ExchangeApi*, std::string> const routes[] = {{a.get(), "large-loop-b"},
                                                           {zmq.client.get(), zmq.serverName}};
    for (auto const& route : routes) {
        for (std::string const& queue :
             {Address::SpecializedQueues::noqueue(), Address::SpecializedQueues::unordered()}) {
            auto reply = boost::dynamic_pointer_cast<TestReply const>(
                route.first->submitWithReply(message, Address(route.second, queue)).get());
            ASSERT_TRUE(reply);
            EXPECT_EQ(reply->value, static_cast<int>(sizes.size())) << route.second << " " << queue;
        }
    }
}

TEST(Exchange, OverZeroMQAReaderThatPollsAfterInputStillAnswersAndStops) {
    // Polling for an hour after each frame: a frame that comes meanwhile ends the poll, and so
    // does a stop.
    ZmqTransportOptions options;
    options.pollAfterInput = std::chrono::hours(1);
    auto zmq = std::make_unique<quorl_testing::ZmqExchanges>("zmq-polling-client", options);
    Address const to(zmq->serverName, Address::SpecializedQueues::noqueue());
    for (int n = 0; n < 50; ++n) {
        auto f = zmq->client->submitWithReply(boost::make_shared<EchoMessage>(n), to);
        ASSERT_EQ(f.wait_for(boost::chrono::seconds(10)), boost::future_status::ready);
        EXPECT_EQ(boost::dynamic_pointer_cast<TestReply const>(f.get())->value, n * 10);
    }
    auto const stopping = std::chrono::steady_clock::now();
    zmq.reset();
    EXPECT_LT(std::chrono::steady_clock::now() - stopping, std::chrono::seconds(10));
}

namespace {
// The frames a transport hands its exchange, in order, as text.
class FrameLog : public TransportSink {
public:
    std::function<void(std::string const& from, std::string const& frame)> onFrame;

    void receiveFrame(std::string const& from, char const* frame, std::size_t size) override {
        std::string text(frame, size);
        {
            std::lock_guard<std::mutex> lock(mutex_);
            frames_.push_back(text);
        }
        changed_.notify_all();
        if (onFrame)
            onFrame(from, text);
    }
    void peerFailed(std::string const&, boost::exception_ptr const&) override {}

    // The frames once there are `n` of them; fewer if they do not come within ten seconds.
    std::vector<std::string> awaitCount(std::size_t n) {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait_for(lock, seconds(10), [&] { return frames_.size() >= n; });
        return frames_;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::string> frames_;
};
} // namespace

TEST(ZmqTransport, AnAnswerThatMayWaitGoesAheadOfTheNextFrameOrAloneAndPeersMayBatchFrames) {
    quorl_testing::TempDir dir;
    boost::filesystem::permissions(dir.path(), boost::filesystem::owner_all);
    std::string const serverName = "ipc://" + dir.str() + "/server";
    ZmqTransportOptions options;
    options.pollAfterInput = std::chrono::hours(1); // a held answer must not wait for its end
    auto server = makeZmqTransport(options);
    auto client = makeZmqTransport(options);
    FrameLog atServer, atClient;
    std::promise<std::string> answered;
    atServer.onFrame = [&](std::string const& from, std::string const& frame) {
        if (frame.front() != 'q')
            return;
        server->sendSoon(from, "a" + frame.substr(1)); // on the reading thread: held
        if (frame == "q1")
            answered.set_value(from);
    };
    server->start(serverName, atServer);
    client->start("zmq-batch-client", atClient);

    // The answer goes before the frame sent after it from another thread...
    client->sendOwned(serverName, "q1");
    std::string const peer = answered.get_future().get();
    server->sendOwned(peer, "e1");
    EXPECT_EQ(atClient.awaitCount(2), (std::vector<std::string>{"a1", "e1"}));
    // ...and goes alone when nothing follows it.
    client->sendOwned(serverName, "q2");
    EXPECT_EQ(atClient.awaitCount(3), (std::vector<std::string>{"a1", "e1", "a2"}));

    // A peer's message of several parts is that many frames, in order; one of more parts than
    // any batch has is dropped whole, and the peer is still heard.
    zmq::context_t context;
    zmq::socket_t raw(context, ZMQ_DEALER);
    raw.set(zmq::sockopt::linger, 0);
    raw.set(zmq::sockopt::routing_id, "raw-peer");
    raw.connect(serverName);
    auto const sendParts = [&](int n, char tag) {
        for (int i = 0; i < n; ++i)
            raw.send(zmq::buffer(std::string(1, tag) + std::to_string(i)),
                     i + 1 < n ? zmq::send_flags::sndmore : zmq::send_flags::none);
    };
    sendParts(3, 'x');
    sendParts(1000, 'y');
    sendParts(1, 'z');
    EXPECT_EQ(atServer.awaitCount(6),
              (std::vector<std::string>{"q1", "q2", "x0", "x1", "x2", "z0"}));
    client->stop();
    server->stop();
}
