// Publishing a state event with notifyIfWatched, with and without a watcher. The unwatched path
// must not allocate: every benchmark reports heap allocations per iteration ("allocs"), counted
// by this program's operator new.
#include <quorl/cmddistributor/defaultiipstateevent.hpp>
#include <quorl/eventmgr/eventmgraccess.hpp>

#include <bench/support/latch.hpp>

#include <benchmark/benchmark.h>

#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <functional>
#include <mutex>
#include <new>
#include <thread>

namespace {
std::atomic<long> allocations{0};
}

void* operator new(std::size_t n) {
    allocations.fetch_add(1, std::memory_order_relaxed);
    if (void* p = std::malloc(n ? n : 1))
        return p;
    throw std::bad_alloc();
}
void operator delete(void* p) noexcept {
    std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
    std::free(p);
}

using namespace cmddistributor;
using foundation::msg_svc::eventmgr::DeliverQueued;
using foundation::msg_svc::exchange::IDType;

namespace {

using quorl_bench::Latch;

void reportAllocations(benchmark::State& state, long before) {
    state.counters["allocs"] =
        static_cast<double>(allocations.load() - before) / static_cast<double>(state.iterations());
}

void BM_NotifyIfWatched_Unwatched(benchmark::State& state) {
    auto mgr = quorl::eventmgr::createLocalEventMgr(quorl::contextmgr::TarnID{9001});
    IDType const id;
    mgr->notifyIfWatched<IIPSuspendedEvent>(DeliverQueued, id); // warm the per-thread cache
    long const before = allocations.load();
    for (auto _ : state)
        mgr->notifyIfWatched<IIPSuspendedEvent>(DeliverQueued, id);
    reportAllocations(state, before);
}
BENCHMARK(BM_NotifyIfWatched_Unwatched);

// Floor of the unwatched path: the plainest "does anyone listen" test, one atomic load.
void BM_Floor_AtomicCheck(benchmark::State& state) {
    static std::atomic<long> listeners{0};
    long const before = allocations.load();
    for (auto _ : state)
        benchmark::DoNotOptimize(listeners.load(std::memory_order_relaxed) != 0);
    reportAllocations(state, before);
}
BENCHMARK(BM_Floor_AtomicCheck);

void BM_NotifyIfWatched_Watched(benchmark::State& state) {
    auto mgr = quorl::eventmgr::createLocalEventMgr(quorl::contextmgr::TarnID{9002});
    Latch latch;
    auto conn = mgr->subscribe<IIPResumedEvent>([&](IIPResumedEvent const&) { latch.add(); });
    IDType const id;
    long n = 0;
    long const before = allocations.load();
    for (auto _ : state) {
        mgr->notifyIfWatched<IIPResumedEvent>(DeliverQueued, id);
        latch.waitFor(++n);
    }
    reportAllocations(state, before);
}
BENCHMARK(BM_NotifyIfWatched_Watched)->UseRealTime();

// Floor of the watched path: the same handoff to a worker thread through a plain queue.
void BM_Floor_Handoff(benchmark::State& state) {
    std::mutex m;
    std::condition_variable cv;
    std::deque<std::function<void()>> q;
    bool stop = false;
    std::thread worker([&] {
        for (;;) {
            std::function<void()> job;
            {
                std::unique_lock<std::mutex> l(m);
                cv.wait(l, [&] { return stop || !q.empty(); });
                if (stop)
                    return;
                job = std::move(q.front());
                q.pop_front();
            }
            job();
        }
    });
    Latch latch;
    long n = 0;
    long const before = allocations.load();
    for (auto _ : state) {
        auto ev = std::make_shared<IDType const>();
        {
            std::lock_guard<std::mutex> l(m);
            q.push_back([ev, &latch] { latch.add(); });
        }
        cv.notify_one();
        latch.waitFor(++n);
    }
    reportAllocations(state, before);
    {
        std::lock_guard<std::mutex> l(m);
        stop = true;
    }
    cv.notify_one();
    worker.join();
}
BENCHMARK(BM_Floor_Handoff)->UseRealTime();

} // namespace

BENCHMARK_MAIN();
