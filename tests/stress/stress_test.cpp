// Several client threads send packaged tasks to the reference host through the distributor: with
// and without futures, with and without continuations. Other threads cancel requests at random
// while they run, and a shutdown is announced in the middle. Every future must end exactly once
// (a value, the request's error, a discard or broken_promise), every cancel must get a status,
// and every continuation must run at most once, exactly once for a request that ended normally.
// Bounded in count and in time.
#include <quorl/host/host.hpp>

#include <quorl/cmddistributor/cmddistributor.hpp>
#include <quorl/cmddistributor/defaultdistributor.hpp>
#include <quorl/cmddistributor/fcncmdrequest.hpp>
#include <quorl/cmddistributor/futureexception.hpp>
#include <quorl/cmddistributor/runtimeexception.hpp>
#include <quorl/eventmgr/eventmgraccess.hpp>
#include <quorl/eventmgr/tarnshutdownevent.hpp>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <future>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

using namespace cmddistributor;
using foundation::msg_svc::exchange::IDType;

namespace {

enum Outcome { Pending, Value, Error, Cancelled, Broken };

struct Slot {
    IDType id;
    bool withFuture = false;
    bool withContinuation = false;
    boost::unique_future<void> future;
    std::atomic<int> continuations{0};
    Outcome outcome = Pending;
};

#if defined(__SANITIZE_THREAD__)
#define QUORL_STRESS_UNDER_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define QUORL_STRESS_UNDER_TSAN 1
#endif
#endif

long stressCount() {
    if (char const* env = std::getenv("QUORL_STRESS_COUNT"))
        return std::max(1000L, std::atol(env));
#ifdef QUORL_STRESS_UNDER_TSAN
    // ThreadSanitizer's shadow call stack of a thread grows with each exception that thread
    // catches (more than 32,000 entries on the main thread, whose real stack is 20 frames deep,
    // after some 100,000 failed futures), and every later allocation or mutex event copies it:
    // the run slows to a crawl and, where the shadow stack is bounded, ends in a crash. A tenth
    // of the requests keeps it small.
    return 20000;
#else
    return 200000;
#endif
}

} // namespace

TEST(Stress, EveryRequestEndsExactlyOnce) {
    quorl::host::HostOptions options;
    options.fennIDs = {quorl::contextmgr::FennID{1}, quorl::contextmgr::FennID{2}};
    quorl::host::Host::start(options);

    long const total = stressCount();
    int const clients = 4;
    long const perClient = total / clients;
    std::vector<std::unique_ptr<Slot>> slots(static_cast<std::size_t>(perClient * clients));
    for (auto& s : slots)
        s.reset(new Slot);
    std::atomic<long> sent{0};
    std::promise<void> halfway; // set by the client that sends request total / 2
    std::atomic<long> ran{0};
    std::atomic<bool> shutdownDone{false};
    auto const deadline = std::chrono::steady_clock::now() + std::chrono::minutes(5);

    // Clients: each sends its share to one of two contexts, in bursts, then waits for its share.
    std::vector<std::thread> threads;
    for (int c = 0; c < clients; ++c) {
        threads.emplace_back([&, c] {
            std::mt19937 rng(static_cast<unsigned>(c) * 7919u + 17u);
            auto distributor = CmdDistributor::instance(quorl::contextmgr::FennID{1 + (c % 2)});
            for (long i = 0; i < perClient; ++i) {
                Slot& s = *slots[static_cast<std::size_t>(c * perClient + i)];
                unsigned const kind = rng() % 4;
                s.withFuture = kind != 0;
                s.withContinuation = kind == 2 || kind == 3;
                auto request = boost::make_shared<FcnCmdRequest<void>>(
                    [&ran, fail = (rng() % 50 == 0)] {
                        ++ran;
                        if (fail)
                            throw std::runtime_error("task failed on purpose");
                    },
                    nullptr, nullptr);
                if (!s.withFuture) {
                    distributor->enqueue(request, s.id,
                                         quorl::cmddistributor::WhenToDequeue::DequeueDefault);
                } else if (s.withContinuation) {
                    Slot* slot = &s;
                    s.future = distributor->enqueueWithContinuation(
                        request, [slot] { ++slot->continuations; }, s.id);
                } else {
                    s.future = distributor->enqueueWithFuture(request, s.id);
                }
                if (sent.fetch_add(1) + 1 == total / 2)
                    halfway.set_value();
                if (std::chrono::steady_clock::now() > deadline)
                    break;
            }
        });
    }

    // Cancellers: random ids among those sent, racing their completions.
    std::atomic<long> cancelsAnswered{0};
    std::atomic<long> cancelsAsked{0};
    std::atomic<bool> clientsDone{false};
    for (int k = 0; k < 2; ++k) {
        threads.emplace_back([&, k] {
            std::mt19937 rng(1234u + static_cast<unsigned>(k));
            auto distributor = CmdDistributor::instance(quorl::contextmgr::FennID{1 + k});
            while (!clientsDone.load()) {
                long const n = sent.load();
                if (n == 0) {
                    std::this_thread::yield();
                    continue;
                }
                // Only the ids of this canceller's context: clients k and k + 2.
                long const client = k + 2 * static_cast<long>(rng() % 2);
                long const index = client * perClient + static_cast<long>(rng() % perClient);
                if (index >= static_cast<long>(slots.size()))
                    continue;
                ++cancelsAsked;
                try {
                    auto f = distributor->cancelRequest(slots[static_cast<std::size_t>(index)]->id,
                                                        rng() % 2 == 0);
                    f.get();
                } catch (AlreadyCancelledException const&) {
                    // a cancel of the same request was pending already
                }
                ++cancelsAnswered;
                std::this_thread::sleep_for(std::chrono::microseconds(50)); // paces the load
            }
        });
    }

    // A shutdown in the middle.
    std::thread shutdown([&, half = halfway.get_future()] {
        half.wait_until(deadline);
        auto session = quorl::eventmgr::createLocalEventMgr(boost::none);
        session->notify<quorl::eventmgr::TARNShutdownEvent>(
            foundation::msg_svc::eventmgr::DeliverQueued);
        session->flush();
        shutdownDone = true;
    });

    for (int c = 0; c < clients; ++c)
        threads[static_cast<std::size_t>(c)].join();
    shutdown.join();

    // Every future ends exactly once.
    long counts[5] = {0, 0, 0, 0, 0};
    for (auto& sp : slots) {
        Slot& s = *sp;
        if (!s.withFuture || !s.future.valid())
            continue;
        if (!s.future.is_ready()) {
            // Wait without the future's wait callback, which would block without a bound: every
            // wait on the future runs it, so readiness can only be polled, up to a deadline.
            auto const until = std::chrono::steady_clock::now() + std::chrono::minutes(2);
            while (!s.future.is_ready() && std::chrono::steady_clock::now() < until)
                std::this_thread::yield();
        }
        ASSERT_TRUE(s.future.is_ready())
            << "a future never ended: request " << s.id.toString()
            << (s.withContinuation ? " with" : " without")
            << " continuation; tracked by its distributor: "
            << boost::static_pointer_cast<DefaultDistributor>(
                   CmdDistributor::instance(quorl::contextmgr::FennID{1}))
                   ->trackedCount()
            << " and "
            << boost::static_pointer_cast<DefaultDistributor>(
                   CmdDistributor::instance(quorl::contextmgr::FennID{2}))
                   ->trackedCount();
        try {
            s.future.get();
            s.outcome = Value;
        } catch (RuntimeException const&) {
            s.outcome = Error;
        } catch (AlreadyCancelledException const&) {
            s.outcome = Cancelled;
        } catch (boost::broken_promise const&) {
            s.outcome = Broken;
        }
        ++counts[s.outcome];
    }
    clientsDone = true;
    for (std::size_t t = static_cast<std::size_t>(clients); t < threads.size(); ++t)
        threads[t].join();

    // Continuations run once for a request that ended normally, never for a dropped one.
    quorl::eventmgr::createLocalEventMgr(boost::none)->flush();
    for (auto& sp : slots) {
        Slot& s = *sp;
        if (!s.withContinuation || s.outcome == Pending)
            continue;
        if (s.outcome == Broken)
            EXPECT_EQ(s.continuations.load(), 0);
        else
            EXPECT_EQ(s.continuations.load(), 1);
    }
    EXPECT_TRUE(shutdownDone.load());
    EXPECT_EQ(cancelsAnswered.load(), cancelsAsked.load()); // every cancel got its status
    EXPECT_GT(counts[Value], 0);
    EXPECT_GT(counts[Broken], 0); // the shutdown dropped the requests it found
    std::printf("stress: %ld sent, %ld ran; futures: %ld values, %ld errors, %ld cancelled, "
                "%ld broken; %ld cancels\n",
                sent.load(), ran.load(), counts[Value], counts[Error], counts[Cancelled],
                counts[Broken], cancelsAnswered.load());
    quorl::host::Host::stop();
}
