// Eval requests, each figure beside its floor in the same run:
//  - a 100 MB variable of the client's workspace read by code on a quorl-server, by two requests
//    one after the other: the bytes each read puts on the wire, counted at the client's transport;
//  - a trivial eval across processes (ipc) beside raw ZeroMQ carrying the same frames (count and
//    sizes, each way) in one round trip to a raw echo process;
//  - the same eval in one process beside a packaged task (FcnCmdRequest) on the same road.
// The cross-process figures also give the processor time per round trip of each side (all
// threads of the process), which on a machine with few cores bounds the round trip as much as
// the wake-ups on its way do.
// The quorl-server and the raw echo process are children of the benchmark; the raw one is this
// program again, started with --raw-echo ENDPOINT.
#include <quorl/host/host.hpp>
#include <tests/crossprocess/serverprocess.hpp>

#include <quorl/cmddistributor/cmddistributor.hpp>
#include <quorl/cmddistributor/evalcmdrequest.hpp>
#include <quorl/cmddistributor/fcncmdrequest.hpp>
#include <quorl/eventmgr/eventmgraccess.hpp>
#include <quorl/workspace/clientworkspace.hpp>
#include <quorl/workspace/workspaceholder.hpp>

#include <foundation/cppmicroservices/framework.hpp>
#include <foundation/msg_svc/exchange/exchangeapi.hpp>
#include <foundation/msg_svc/exchange/zmqtransport.hpp>

#include <benchmark/benchmark.h>
#include <boost/make_shared.hpp>

#include <zmq.hpp>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <mutex>
#include <sstream>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace ex = foundation::msg_svc::exchange;
using cmddistributor::CmdDistributor;
using cmddistributor::EvalCmdRequest;
using foundation::extdata::Array;

namespace {

std::size_t const kBigElements = (100u << 20) / sizeof(double); // 100 MiB of doubles

// The ZeroMQ transport, counting the frames and bytes this exchange sends and receives; while
// recording, it also keeps the size of every frame in each direction.
class CountingTransport : public ex::Transport, private ex::TransportSink {
public:
    explicit CountingTransport(boost::shared_ptr<ex::Transport> inner) : inner_(std::move(inner)) {}

    void start(std::string const& ownName, ex::TransportSink& sink) override {
        sink_ = &sink;
        inner_->start(ownName, *this);
    }
    void send(std::string const& to, std::string const& frame) override {
        count(sent, sentSizes, frame.size());
        inner_->send(to, frame);
    }
    void sendOwned(std::string const& to, std::string&& frame) override {
        count(sent, sentSizes, frame.size());
        inner_->sendOwned(to, std::move(frame));
    }
    void sendSoon(std::string const& to, std::string&& frame) override {
        count(sent, sentSizes, frame.size());
        inner_->sendSoon(to, std::move(frame));
    }
    void stop() override { inner_->stop(); }

    void record(bool on) {
        std::lock_guard<std::mutex> lock(mutex_);
        recording_ = on;
        if (on) {
            sentSizes.clear();
            receivedSizes.clear();
        }
    }
    std::size_t total() const { return sent.load() + received.load(); }

    std::atomic<std::size_t> sent{0};
    std::atomic<std::size_t> received{0};
    std::vector<std::size_t> sentSizes;     // guarded by mutex_, while recording
    std::vector<std::size_t> receivedSizes; // guarded by mutex_, while recording

private:
    void receiveFrame(std::string const& from, char const* frame, std::size_t size) override {
        count(received, receivedSizes, size);
        sink_->receiveFrame(from, frame, size);
    }
    void receiveHeldFrame(std::string const& from, boost::shared_ptr<void const> const& holder,
                          char const* frame, std::size_t size) override {
        count(received, receivedSizes, size);
        sink_->receiveHeldFrame(from, holder, frame, size);
    }
    void peerFailed(std::string const& peer, boost::exception_ptr const& cause) override {
        sink_->peerFailed(peer, cause);
    }
    void count(std::atomic<std::size_t>& total, std::vector<std::size_t>& sizes, std::size_t n) {
        total += n;
        std::lock_guard<std::mutex> lock(mutex_);
        if (recording_)
            sizes.push_back(n);
    }

    boost::shared_ptr<ex::Transport> inner_;
    ex::TransportSink* sink_ = nullptr;
    std::mutex mutex_;
    bool recording_ = false;
};

boost::shared_ptr<CountingTransport> wire;
std::string serverEndpoint;
std::string rawEndpoint;
pid_t serverPid = -1;
pid_t rawPid = -1;

// Processor time (user and system, all threads) of this process, and of a child, in seconds.
double ownCpuSeconds() {
    rusage u{};
    ::getrusage(RUSAGE_SELF, &u);
    return static_cast<double>(u.ru_utime.tv_sec + u.ru_stime.tv_sec) +
           static_cast<double>(u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
}
double childCpuSeconds(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    auto const end = text.rfind(')'); // the command name may hold spaces
    if (end == std::string::npos)
        return 0;
    std::istringstream fields(text.substr(end + 2));
    std::string field;
    double ticks = 0;
    for (int i = 3; i <= 15 && fields >> field; ++i) {
        if (i >= 14)
            ticks += std::stod(field); // utime, stime
    }
    return ticks / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

// Reports the processor time per iteration of both sides since construction.
class CpuPerIteration {
public:
    explicit CpuPerIteration(pid_t far) : far_(far), own_(ownCpuSeconds()), farStart_(now()) {}
    void report(benchmark::State& state) const {
        auto const perIteration = [&](double seconds) {
            return benchmark::Counter(seconds * 1e6, benchmark::Counter::kAvgIterations);
        };
        state.counters["client_cpu_us"] = perIteration(ownCpuSeconds() - own_);
        state.counters["far_cpu_us"] = perIteration(now() - farStart_);
    }

private:
    double now() const { return childCpuSeconds(far_); }
    pid_t far_;
    double own_;
    double farStart_;
};

void finish(boost::unique_future<void> f) {
    if (!f.timed_wait(boost::posix_time::seconds(120)))
        throw std::runtime_error("no completion within two minutes");
    f.get();
}

// The distributors, made on first use and dropped by main before the libraries' statics end.
boost::shared_ptr<CmdDistributor> remoteDistributor;
boost::shared_ptr<CmdDistributor> localDistributor;

boost::shared_ptr<CmdDistributor> const& remote() {
    if (!remoteDistributor)
        remoteDistributor = CmdDistributor::create(
            quorl::contextmgr::FennID{2}, serverEndpoint, boost::none,
            quorl::eventmgr::createRemoteEventMgr(serverEndpoint, boost::none, boost::none));
    return remoteDistributor;
}

void evalOn(CmdDistributor& d, std::u16string const& code,
            boost::shared_ptr<quorl::workspace::ClientWorkspace> const& ws = nullptr) {
    auto request =
        boost::make_shared<EvalCmdRequest>(true, cmddistributor::UnsetIqmStreamID, ws, nullptr,
                                           nullptr, code, cmddistributor::ConventionalType);
    finish(d.enqueueWithFuture(request));
}

// (a) Two requests read the same 100 MB variable; the bytes of each, both directions.
void BM_ClientVariable100MB_ReadTwice(benchmark::State& state) {
    auto ws = boost::make_shared<quorl::workspace::ClientWorkspace>();
    // Zeros but for the first element, which differs from one run to the next: the first read
    // of a run is a transfer of its own.
    static double run = 0;
    run += 1;
    std::string bytes(kBigElements * sizeof(double), '\0');
    std::memcpy(&bytes[0], &run, sizeof run);
    ws->set("big",
            Array::adoptBytes(foundation::extdata::DOUBLE, {kBigElements, 1}, std::move(bytes)));
    std::size_t first = 0, second = 0, secondPacket = 0;
    for (auto _ : state) {
        std::size_t const before = wire->total();
        evalOn(*remote(), u"n = numel(big);", ws);
        std::size_t const middle = wire->total();
        wire->record(true);
        evalOn(*remote(), u"m = numel(big) + 1;", ws);
        wire->record(false);
        first = middle - before;
        second = wire->total() - middle;
        // The first frame out is the packet: the holder in it carries a snapshot of its cache.
        secondPacket = wire->sentSizes.empty() ? 0 : wire->sentSizes.front();
    }
    if (ws->find("m")->get<double>(0) != static_cast<double>(kBigElements) + 1)
        state.SkipWithError("the server read a wrong value");
    state.counters["first_read_bytes"] = static_cast<double>(first);
    state.counters["second_read_bytes"] = static_cast<double>(second);
    state.counters["second_pct_of_first"] = 100.0 * static_cast<double>(second) / first;
    state.counters["second_packet_bytes"] = static_cast<double>(secondPacket);
    state.counters["second_other_bytes"] = static_cast<double>(second - secondPacket);
    quorl::workspace::WorkspaceHolder::workspaceDeleted(ws);
}

// (b) A trivial eval in the server's workspace, one at a time.
void BM_RemoteEval_Trivial(benchmark::State& state) {
    evalOn(*remote(), u"x = 1;");
    std::size_t const before = wire->total();
    CpuPerIteration cpu(serverPid);
    for (auto _ : state)
        evalOn(*remote(), u"x = 1;");
    cpu.report(state);
    state.counters["bytes_per_eval"] = benchmark::Counter(
        static_cast<double>(wire->total() - before), benchmark::Counter::kAvgIterations);
}

// The frames one trivial eval puts on the wire, each way, recorded from a real one.
struct Frames {
    std::vector<std::size_t> out, in;
};
Frames const& evalFrames() {
    static Frames frames = [] {
        evalOn(*remote(), u"x = 1;");
        // A frame of an eval may arrive after its result (the enqueue's answer may follow the
        // completion): count over many evals, and keep as many of each way as one eval has.
        int const evals = 20;
        wire->record(true);
        for (int i = 0; i < evals; ++i)
            evalOn(*remote(), u"x = 1;");
        wire->record(false);
        auto const perEval = [&](std::vector<std::size_t> const& all) {
            std::size_t const n = (all.size() + evals / 2) / evals;
            return std::vector<std::size_t>(all.begin(), all.begin() + std::min(n, all.size()));
        };
        Frames f;
        f.out = perEval(wire->sentSizes);
        f.in = perEval(wire->receivedSizes);
        return f;
    }();
    return frames;
}

// Floor of (b): the client sends frames of the eval's outgoing sizes; the echo process answers
// the last of them with frames of the eval's incoming sizes; the round trip ends with the last.
// The first frame tells the echo process the sizes to answer with. `polling`: the client polls
// for the first answer as a waiter on a result from another process does (up to the same bound,
// yielding) before it blocks, so that the two differ only in the work they do.
void rawSameFrames(benchmark::State& state, bool polling) {
    Frames const& f = evalFrames();
    zmq::context_t ctx;
    zmq::socket_t s(ctx, ZMQ_DEALER);
    s.set(zmq::sockopt::linger, 0);
    s.connect(rawEndpoint);
    if (f.out.empty() || f.in.empty()) {
        state.SkipWithError("no frames were recorded");
        return;
    }
    std::vector<std::string> out;
    for (std::size_t size : f.out)
        out.emplace_back(size, 'q');
    // The first frame opens with how many frames the client sends, then the answer sizes.
    std::vector<std::uint64_t> header{f.out.size(), f.in.size()};
    header.insert(header.end(), f.in.begin(), f.in.end());
    std::size_t const headerBytes = header.size() * sizeof(std::uint64_t);
    if (out[0].size() < headerBytes)
        out[0].resize(headerBytes);
    std::memcpy(&out[0][0], header.data(), headerBytes);
    auto const bound = ex::ExchangeConfig().replySpin;
    auto roundTrip = [&] {
        for (auto const& frame : out)
            s.send(zmq::buffer(frame));
        zmq::message_t in;
        std::size_t i = 0;
        if (polling) {
            auto const until = std::chrono::steady_clock::now() + bound;
            while (std::chrono::steady_clock::now() < until) {
                if (s.recv(in, zmq::recv_flags::dontwait)) {
                    ++i;
                    break;
                }
                std::this_thread::yield();
            }
        }
        for (; i < f.in.size(); ++i)
            (void)s.recv(in);
    };
    roundTrip();
    CpuPerIteration cpu(rawPid);
    for (auto _ : state)
        roundTrip();
    cpu.report(state);
    state.counters["frames_out"] = static_cast<double>(f.out.size());
    state.counters["frames_in"] = static_cast<double>(f.in.size());
}

void BM_RawZmq_SameFrames(benchmark::State& state) {
    rawSameFrames(state, false);
}
void BM_RawZmqPolling_SameFrames(benchmark::State& state) {
    rawSameFrames(state, true);
}

// The echo process of the floor: ROUTER on `endpoint`, answering as the first frame says.
int rawEcho(std::string const& endpoint) {
    zmq::context_t ctx;
    zmq::socket_t s(ctx, ZMQ_ROUTER);
    s.bind(endpoint);
    std::cout << "raw echo on " << endpoint << std::endl;
    for (;;) {
        zmq::message_t id, body;
        (void)s.recv(id);
        (void)s.recv(body);
        std::uint64_t header[2];
        std::memcpy(header, body.data(), sizeof header);
        std::vector<std::uint64_t> sizes(header[1]);
        std::memcpy(sizes.data(), static_cast<char const*>(body.data()) + 16, 8 * sizes.size());
        for (std::uint64_t i = 1; i < header[0]; ++i) {
            (void)s.recv(id);
            (void)s.recv(body);
        }
        for (std::uint64_t n : sizes) {
            s.send(zmq::buffer(id.data(), id.size()), zmq::send_flags::sndmore);
            s.send(zmq::buffer(std::string(n, 'r')));
        }
    }
}

// (c) In one process: the same eval, and the packaged-task road, on the host's interpreter.
boost::shared_ptr<CmdDistributor> const& local() {
    if (!localDistributor) {
        if (!quorl::host::Host::isRunning())
            quorl::host::Host::start();
        localDistributor = CmdDistributor::instance(quorl::contextmgr::BlessedFennID);
    }
    return localDistributor;
}

void BM_LocalEval_Trivial(benchmark::State& state) {
    auto d = local();
    for (auto _ : state)
        evalOn(*d, u"x = 1;");
}

void BM_LocalPackagedTask(benchmark::State& state) {
    auto d = local();
    for (auto _ : state) {
        auto request =
            boost::make_shared<cmddistributor::FcnCmdRequest<void>>([] {}, nullptr, nullptr);
        finish(d->enqueueWithFuture(request));
    }
}

} // namespace

BENCHMARK(BM_ClientVariable100MB_ReadTwice)
    ->Iterations(1)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RemoteEval_Trivial)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_RawZmq_SameFrames)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_RawZmqPolling_SameFrames)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_LocalEval_Trivial)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_LocalPackagedTask)->UseRealTime()->Unit(benchmark::kMicrosecond);

int main(int argc, char** argv) {
    if (argc == 3 && std::strcmp(argv[1], "--raw-echo") == 0)
        return rawEcho(argv[2]);

    crossprocess::PrivateDir dir;
    serverEndpoint = "ipc://" + dir.path() + "/server";
    rawEndpoint = "ipc://" + dir.path() + "/raw";
    crossprocess::ServerProcess server(QUORL_SERVER, {"--listen", serverEndpoint});
    crossprocess::ServerProcess raw("/proc/self/exe", {"--raw-echo", rawEndpoint});
    if (!server.waitForLine("listening on") || !raw.waitForLine("raw echo on")) {
        std::cerr << "the far sides did not start: " << server.errors() << raw.errors() << "\n";
        return 1;
    }
    serverPid = server.pid();
    rawPid = raw.pid();

    foundation::cppmicroservices::startFramework();
    wire = boost::make_shared<CountingTransport>(ex::makeZmqTransport());
    ex::ExchangeConfig config;
    config.name = "eval-bench-client-" + std::to_string(::getpid());
    config.transport = wire;
    ex::ExchangeApi::configure(config);
    ex::ExchangeApi::instance();

    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    remoteDistributor.reset();
    localDistributor.reset();
    if (quorl::host::Host::isRunning())
        quorl::host::Host::stop();
    return 0;
}
