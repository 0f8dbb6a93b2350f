// The exchange's round trip and the event manager's delivery, each beside a floor doing the same
// thread handoffs with a plain queue, mutex and condition variable.
#include <foundation/msg_svc/eventmgr/eventmgrfront.hpp>
#include <foundation/msg_svc/exchange/exchangeapi.hpp>

#include <bench/support/latch.hpp>
#include <bench/support/plainworker.hpp>

#include <benchmark/benchmark.h>
#include <boost/make_shared.hpp>

#include <condition_variable>
#include <deque>
#include <functional>
#include <future>
#include <mutex>
#include <thread>

using namespace foundation::msg_svc;

namespace {

class PingMessage : public exchange::Message {
public:
    boost::shared_ptr<exchange::Reply const> deliver(exchange::Routing const&) const override {
        return exchange::Reply::defaultReply();
    }
};

class TickEvent : public eventmgr::BaseEvent {
public:
    typedef eventmgr::BaseEvent EventBaseType;
    static ustring eventTypeName() { return u"bench::TickEvent"; }
    explicit TickEvent(int v) : BaseEvent(eventmgr::typeInformationOf<TickEvent>()), value(v) {}
    BaseEvent* clone() const override { return new TickEvent(*this); }
    int value;
};

using quorl_bench::PlainWorker;

using quorl_bench::Latch;

void BM_ExchangeRoundTrip(benchmark::State& state) {
    auto ex = exchange::ExchangeApi::instance();
    exchange::Address const to(ex->getExchangeName(),
                               exchange::Address::SpecializedQueues::noqueue());
    auto msg = boost::make_shared<PingMessage const>();
    for (auto _ : state)
        benchmark::DoNotOptimize(ex->submitWithReply(msg, to).get());
}
BENCHMARK(BM_ExchangeRoundTrip)->UseRealTime();

void BM_FloorRoundTrip(benchmark::State& state) {
    PlainWorker worker;
    for (auto _ : state) {
        auto p = std::make_shared<std::promise<int>>();
        auto f = p->get_future();
        worker.post([p] { p->set_value(1); });
        benchmark::DoNotOptimize(f.get());
    }
}
BENCHMARK(BM_FloorRoundTrip)->UseRealTime();

void BM_EventPublishToSubscriber(benchmark::State& state) {
    eventmgr::EventMgrFront mgr(nullptr, eventmgr::EmID(4242));
    Latch latch;
    auto conn = mgr.subscribe<TickEvent>([&](TickEvent const&) { latch.add(); });
    long n = 0;
    for (auto _ : state) {
        mgr.notify<TickEvent>(eventmgr::DeliverQueued, 1);
        latch.waitFor(++n);
    }
}
BENCHMARK(BM_EventPublishToSubscriber)->UseRealTime();

void BM_FloorPublishToSubscriber(benchmark::State& state) {
    PlainWorker worker;
    Latch latch;
    long n = 0;
    for (auto _ : state) {
        auto ev = std::make_shared<int const>(1);
        worker.post([ev, &latch] { latch.add(); });
        latch.waitFor(++n);
    }
}
BENCHMARK(BM_FloorPublishToSubscriber)->UseRealTime();

// Throughput: a burst of 1000 events, then wait until the subscriber has seen them all.
void BM_EventBurst1000(benchmark::State& state) {
    eventmgr::EventMgrFront mgr(nullptr, eventmgr::EmID(4243));
    Latch latch;
    auto conn = mgr.subscribe<TickEvent>([&](TickEvent const&) { latch.add(); });
    long n = 0;
    for (auto _ : state) {
        for (int i = 0; i < 1000; ++i)
            mgr.notify<TickEvent>(eventmgr::DeliverQueued, i);
        latch.waitFor(n += 1000);
    }
    state.SetItemsProcessed(state.iterations() * 1000);
}
BENCHMARK(BM_EventBurst1000)->UseRealTime();

void BM_FloorBurst1000(benchmark::State& state) {
    PlainWorker worker;
    Latch latch;
    long n = 0;
    for (auto _ : state) {
        for (int i = 0; i < 1000; ++i) {
            auto ev = std::make_shared<int const>(i);
            worker.post([ev, &latch] { latch.add(); });
        }
        latch.waitFor(n += 1000);
    }
    state.SetItemsProcessed(state.iterations() * 1000);
}
BENCHMARK(BM_FloorBurst1000)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
