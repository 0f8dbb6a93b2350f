// The request road in one process: a FcnCmdRequest<void> with a future, enqueued, run on the
// interpreter thread, completed through the bypass, get(). Beside it the floor: the same thread
// handoffs (client -> delivery thread -> interpreter thread -> client) through plain queues and
// std::promise. Latency (one request at a time), throughput (batches), and the cost per request
// with 10 and with 100,000 requests in flight.
#include <bench/support/latch.hpp>
#include <bench/support/plainworker.hpp>
#include <host/host.hpp>

#include <quorl/cmddistributor/cmddistributor.hpp>
#include <quorl/cmddistributor/fcncmdrequest.hpp>

#include <benchmark/benchmark.h>
#include <boost/make_shared.hpp>

#include <condition_variable>
#include <deque>
#include <functional>
#include <future>
#include <mutex>
#include <thread>
#include <vector>

namespace {

using quorl_bench::PlainWorker;

struct Road {
    Road() {
        if (!quorl::host::Host::isRunning())
            quorl::host::Host::start();
        distributor = cmddistributor::CmdDistributor::instance(quorl::contextmgr::BlessedFennID);
    }
    boost::unique_future<void> send() {
        auto request =
            boost::make_shared<cmddistributor::FcnCmdRequest<void>>([] {}, nullptr, nullptr);
        return distributor->enqueueWithFuture(request);
    }
    boost::shared_ptr<cmddistributor::CmdDistributor> distributor;
};

Road& road() {
    static Road r;
    return r;
}

struct Floor {
    PlainWorker delivery;
    PlainWorker interpreter;
    std::future<void> send() {
        auto done = std::make_shared<std::promise<void>>();
        auto future = done->get_future();
        auto task = std::make_shared<std::function<void()>>([] {});
        delivery.post([this, done, task] {
            interpreter.post([done, task] {
                (*task)();
                done->set_value();
            });
        });
        return future;
    }
};

void BM_Road_Latency(benchmark::State& state) {
    Road& r = road();
    for (auto _ : state)
        r.send().get();
}
BENCHMARK(BM_Road_Latency)->UseRealTime();

void BM_Floor_Latency(benchmark::State& state) {
    Floor f;
    for (auto _ : state)
        f.send().get();
}
BENCHMARK(BM_Floor_Latency)->UseRealTime();

// Batches of `in flight` requests: all sent, then all awaited.
void BM_Road_InFlight(benchmark::State& state) {
    Road& r = road();
    std::size_t const n = static_cast<std::size_t>(state.range(0));
    std::vector<boost::unique_future<void>> futures;
    futures.reserve(n);
    for (auto _ : state) {
        for (std::size_t i = 0; i < n; ++i)
            futures.push_back(r.send());
        for (auto& f : futures)
            f.get();
        futures.clear();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_Road_InFlight)
    ->Arg(10)
    ->Arg(1000)
    ->Arg(100000)
    ->UseRealTime()
    ->Unit(benchmark::kMicrosecond);

void BM_Floor_InFlight(benchmark::State& state) {
    Floor fl;
    std::size_t const n = static_cast<std::size_t>(state.range(0));
    std::vector<std::future<void>> futures;
    futures.reserve(n);
    for (auto _ : state) {
        for (std::size_t i = 0; i < n; ++i)
            futures.push_back(fl.send());
        for (auto& f : futures)
            f.get();
        futures.clear();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_Floor_InFlight)
    ->Arg(10)
    ->Arg(1000)
    ->Arg(100000)
    ->UseRealTime()
    ->Unit(benchmark::kMicrosecond);

} // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    quorl::host::Host::stop();
    return 0;
}
