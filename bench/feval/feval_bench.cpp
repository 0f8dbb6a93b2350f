// Function calls, each figure beside its floor in the same run:
//  - `sum` of a 100 MB double argument in a server process over ipc://, beside raw ZeroMQ
//    (DEALER/ROUTER) carrying the same 100 MB one way, answered by a few bytes; both change one
//    element of what they send in every iteration;
//  - a small call (`power` of two scalars) in a server process over ipc://, beside a raw ZeroMQ
//    round trip of a small frame;
//  - the same small call to the reference host in this process, beside a round trip to another
//    thread through a promise (the plainest hand-off there is).
// The far sides are child processes forked before any thread starts.
#include <quorl/cmddistributor/cmddistributor.hpp>
#include <quorl/cmddistributor/fevalcmdrequest.hpp>
#include <quorl/eventmgr/eventmgraccess.hpp>
#include <quorl/host/host.hpp>
#include <quorl/matrixref/matrixref.hpp>

#include <foundation/msg_svc/exchange/exchangeapi.hpp>
#include <foundation/msg_svc/exchange/zmqtransport.hpp>

#include <benchmark/benchmark.h>
#include <boost/make_shared.hpp>
#include <boost/thread/future.hpp>
#include <zmq.hpp>

#include <condition_variable>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <functional>
#include <mutex>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace ex = foundation::msg_svc::exchange;
using namespace cmddistributor;

namespace {

typedef boost::shared_ptr<quorl::cmddistributor::ManagedArrayVector> Results;
typedef std::vector<boost::shared_ptr<const hvArray>> Arguments;
typedef FEvalCmdRequest<Results, Arguments> ArrayCall;

std::size_t const kDoubles = (100u << 20) / sizeof(double);
std::string dir, serverEndpoint, rawEndpoint;
std::vector<pid_t> children;
quorl::contextmgr::TarnID const kTarn{1};

[[noreturn]] void serveHost() {
    ex::ExchangeConfig c;
    c.name = serverEndpoint;
    c.transport = ex::makeZmqTransport();
    ex::ExchangeApi::configure(c);
    ex::ExchangeApi::instance();
    quorl::matrixref::detail::refInitMatrixReferences({}, [](hvArray_tag const*) { return true; });
    quorl::host::Host::start();
    for (;;)
        ::pause();
}

[[noreturn]] void serveRaw() {
    zmq::context_t ctx;
    zmq::socket_t s(ctx, ZMQ_ROUTER);
    s.bind(rawEndpoint);
    for (;;) {
        zmq::message_t id, body;
        (void)s.recv(id);
        (void)s.recv(body);
        s.send(id, zmq::send_flags::sndmore);
        s.send(zmq::buffer(std::string("ok")));
    }
}

pid_t forkServing(std::function<void()> serve) {
    pid_t pid = ::fork();
    if (pid == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        serve();
        ::_exit(0);
    }
    children.push_back(pid);
    return pid;
}

boost::shared_ptr<CmdDistributor> remote() {
    static auto d = CmdDistributor::create(
        quorl::contextmgr::FennID{0}, serverEndpoint, boost::none,
        quorl::eventmgr::createRemoteEventMgr(serverEndpoint, boost::none, boost::none));
    return d;
}

double callOnce(CmdDistributor& d, std::string const& name, Arguments const& args) {
    auto request = boost::make_shared<ArrayCall>(name, 1, args, nullptr, nullptr, kTarn, kTarn);
    Results r = d.enqueueWithFuture(request).get();
    if (r->size() != 1)
        throw std::runtime_error("no result");
    return hvGetScalar((*r)[0].get());
}

hvArray* bigArgument() {
    hvArray* a = hvCreateNumericMatrix(hvDOUBLE_CLASS, 1, kDoubles);
    auto* data = static_cast<double*>(hvGetData(a));
    for (std::size_t i = 0; i < kDoubles; ++i)
        data[i] = 1.0;
    return a;
}

Arguments smallArguments() {
    return {boost::shared_ptr<const hvArray>(hvCreateDoubleScalar(2), hvDestroyArray),
            boost::shared_ptr<const hvArray>(hvCreateDoubleScalar(3), hvDestroyArray)};
}

// Each iteration sends another argument (one element changed, outside the timed part), so that
// nothing on the way can recognise a block it has carried before.
void BM_FEvalSum100MB_Ipc(benchmark::State& state) {
    hvArray* const a = bigArgument();
    Arguments const args{boost::shared_ptr<const hvArray>(a, hvDestroyArray)};
    auto d = remote();
    double expected = static_cast<double>(kDoubles);
    std::size_t changed = 0;
    for (auto _ : state) {
        state.PauseTiming();
        // A copy of the data still shared with the previous call is made here, untimed.
        static_cast<double*>(hvGetData(a))[changed++ % kDoubles] += 1.0;
        expected += 1.0;
        state.ResumeTiming();
        if (callOnce(*d, "sum", args) != expected)
            state.SkipWithError("wrong sum");
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kDoubles * 8));
}

zmq::context_t& context() {
    static zmq::context_t ctx;
    return ctx;
}

void BM_Raw100MB_Ipc(benchmark::State& state) {
    zmq::socket_t s(context(), ZMQ_DEALER);
    s.connect(rawEndpoint);
    std::string blob(kDoubles * 8, 'q');
    zmq::message_t in;
    std::size_t changed = 0;
    for (auto _ : state) {
        state.PauseTiming();
        ++blob[changed++ % blob.size()];
        state.ResumeTiming();
        s.send(zmq::buffer(blob));
        (void)s.recv(in);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kDoubles * 8));
}

void BM_FEvalSmall_Ipc(benchmark::State& state) {
    Arguments const args = smallArguments();
    auto d = remote();
    callOnce(*d, "power", args);
    for (auto _ : state)
        benchmark::DoNotOptimize(callOnce(*d, "power", args));
}

void BM_RawSmallRoundTrip_Ipc(benchmark::State& state) {
    zmq::socket_t s(context(), ZMQ_DEALER);
    s.connect(rawEndpoint);
    std::string const frame(256, 'f');
    zmq::message_t in;
    s.send(zmq::buffer(frame));
    (void)s.recv(in);
    for (auto _ : state) {
        s.send(zmq::buffer(frame));
        (void)s.recv(in);
    }
}

void BM_FEvalSmall_InProcess(benchmark::State& state) {
    Arguments const args = smallArguments();
    auto d = CmdDistributor::instance(quorl::contextmgr::FennID{3});
    callOnce(*d, "power", args);
    for (auto _ : state)
        benchmark::DoNotOptimize(callOnce(*d, "power", args));
}

// A request to another thread and its answer, by promise and future.
void BM_ThreadHandoffRoundTrip(benchmark::State& state) {
    std::mutex m;
    std::condition_variable cv;
    boost::promise<double>* pending = nullptr;
    bool stop = false;
    std::thread worker([&] {
        std::unique_lock<std::mutex> lock(m);
        for (;;) {
            cv.wait(lock, [&] { return stop || pending; });
            if (stop)
                return;
            pending->set_value(5.0);
            pending = nullptr;
        }
    });
    for (auto _ : state) {
        boost::promise<double> p;
        auto f = p.get_future();
        {
            std::lock_guard<std::mutex> lock(m);
            pending = &p;
        }
        cv.notify_one();
        benchmark::DoNotOptimize(f.get());
    }
    {
        std::lock_guard<std::mutex> lock(m);
        stop = true;
    }
    cv.notify_one();
    worker.join();
}

} // namespace

BENCHMARK(BM_FEvalSum100MB_Ipc)->UseRealTime()->Unit(benchmark::kMillisecond)->Iterations(10);
BENCHMARK(BM_Raw100MB_Ipc)->UseRealTime()->Unit(benchmark::kMillisecond)->Iterations(10);
BENCHMARK(BM_FEvalSmall_Ipc)->UseRealTime();
BENCHMARK(BM_RawSmallRoundTrip_Ipc)->UseRealTime();
BENCHMARK(BM_FEvalSmall_InProcess)->UseRealTime();
BENCHMARK(BM_ThreadHandoffRoundTrip)->UseRealTime();

int main(int argc, char** argv) {
    char tmpl[] = "/tmp/quorl-fevalbench-XXXXXX";
    dir = ::mkdtemp(tmpl);
    serverEndpoint = "ipc://" + dir + "/server";
    rawEndpoint = "ipc://" + dir + "/raw";
    forkServing([] { serveHost(); });
    forkServing([] { serveRaw(); });

    ex::ExchangeConfig c;
    c.name = "feval-bench-client-" + std::to_string(::getpid());
    c.transport = ex::makeZmqTransport();
    ex::ExchangeApi::configure(c);
    ex::ExchangeApi::instance();
    quorl::matrixref::detail::refInitMatrixReferences({}, [](hvArray_tag const*) { return true; });
    quorl::host::Host::start();
    // Wait until the server answers before measuring.
    for (int attempt = 0;; ++attempt) {
        try {
            callOnce(*remote(), "power", smallArguments());
            break;
        } catch (std::exception const&) {
            if (attempt > 100)
                throw;
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
    }

    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    quorl::host::Host::stop();
    for (pid_t p : children) {
        ::kill(p, SIGKILL);
        ::waitpid(p, nullptr, 0);
    }
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);
    return 0;
}
