// The request road in one process: a FcnCmdRequest<void> with a future, enqueued, run on the
// interpreter thread, completed through the bypass, get(). Beside it the floor: the same thread
// handoffs (client -> delivery thread -> interpreter thread -> client) through plain queues and
// std::promise. Latency (one request at a time), throughput (batches), and the cost per request
// with 10 and with 100,000 requests in flight. Last, the fixed per-request primitives alone.
#include <bench/support/latch.hpp>
#include <bench/support/plainworker.hpp>
#include <quorl/host/host.hpp>

#include <quorl/cmddistributor/cmddistributor.hpp>
#include <quorl/cmddistributor/fcncmdrequest.hpp>

#include <foundation/msg_svc/threadutil/concurrenttbbhashmap.hpp>

#include <benchmark/benchmark.h>

#include <boost/make_shared.hpp>
#include <boost/thread/locks.hpp>
#include <boost/thread/shared_mutex.hpp>

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

// The fixed part of a request, on one thread with nothing in flight: the Boost and TBB primitives
// that every request of the road goes through (the request's shared mutex made and taken for the
// packet's creation, a Boost promise with a wait callback, fulfilled and read, and the tracking
// map's insert and remove under its shared mutex), beside the floor's std::promise and task.
// It shows how much of the road's cost no change inside the road can remove.
struct NoWait {
    typedef void result_type;
    void operator()(boost::promise<void>&) const {}
};

void BM_Road_FixedPrimitives(benchmark::State& state) {
    using foundation::msg_svc::exchange::IDType;
    foundation::msg_svc::threadutil::ConcurrentTBBHashMap<
        foundation::msg_svc::threadutil::ConcurrentMap<IDType, std::shared_ptr<int>>>
        tracking;
    for (auto _ : state) {
        {
            boost::shared_mutex packetMutex;
            boost::upgrade_lock<boost::shared_mutex> up(packetMutex);
            boost::upgrade_to_unique_lock<boost::shared_mutex> unique(up);
        }
        boost::promise<void> promise;
        boost::unique_future<void> future = promise.get_future();
        promise.set_wait_callback(NoWait());
        IDType const id;
        tracking.insert(std::make_pair(id, std::make_shared<int>(0)));
        benchmark::DoNotOptimize(tracking.remove(id));
        promise.set_value();
        future.get();
    }
}
BENCHMARK(BM_Road_FixedPrimitives);

void BM_Floor_FixedPrimitives(benchmark::State& state) {
    for (auto _ : state) {
        std::promise<void> promise;
        std::future<void> future = promise.get_future();
        auto task = std::make_shared<std::function<void()>>([] {});
        (*task)();
        promise.set_value();
        future.get();
    }
}
BENCHMARK(BM_Floor_FixedPrimitives);

} // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    quorl::host::Host::stop();
    return 0;
}
