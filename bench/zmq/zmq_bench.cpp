// The exchange across processes on ZeroMQ, each figure beside raw ZeroMQ doing the same in the
// same run:
//  - an IIPCancelMessage and its IIPCancelReply over ipc:// and over tcp:// (CURVE on both
//    sides), beside a raw DEALER/ROUTER round trip of the same frame bytes, whose client blocks
//    in its receive, and beside the same raw round trip with a client that polls before it
//    blocks, as the exchange's waiters do;
//  - a 100 MB frame one way (answered by a few bytes), beside raw ZeroMQ sending the same.
// The far sides are child processes forked before any thread starts: two exchanges (ipc, tcp)
// and one raw ROUTER serving both transports.
#include <boost/archive/polymorphic_binary_iarchive.hpp>
#include <boost/archive/polymorphic_binary_oarchive.hpp>

#include <quorl/cmddistributor/iipcancelmessage.hpp>
#include <quorl/cmddistributor/iipcancelreply.hpp>

#include <foundation/msg_svc/exchange/exchangeapi.hpp>
#include <foundation/msg_svc/exchange/wire.hpp>
#include <foundation/msg_svc/exchange/zmqtransport.hpp>

#include <benchmark/benchmark.h>
#include <boost/make_shared.hpp>
#include <boost/serialization/base_object.hpp>
#include <boost/serialization/export.hpp>
#include <boost/serialization/string.hpp>

#include <zmq.hpp>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace ex = foundation::msg_svc::exchange;
namespace wire = foundation::msg_svc::exchange::wire;

namespace {

// A large payload one way; the answer is its size.
class BlobMessage : public ex::Message {
public:
    BlobMessage() = default;
    explicit BlobMessage(std::string b) : blob(std::move(b)) {}
    boost::shared_ptr<ex::Reply const> deliver(ex::Routing const&) const override {
        return ex::Reply::defaultReply();
    }
    std::string blob;
    template <class A> void serialize(A& ar, unsigned) {
        ar& boost::serialization::make_nvp("message",
                                           boost::serialization::base_object<ex::Message>(*this));
        ar& boost::serialization::make_nvp("blob", blob);
    }
};

std::size_t const kBlob = 100u << 20;
std::string dir;
std::string ipcExchange, tcpExchange, rawIpc, rawTcp;
ex::CurveKeyPair serverKeys;
std::vector<pid_t> children;

[[noreturn]] void serveExchange(std::string const& endpoint) {
    ex::ZmqTransportOptions o;
    o.keyFile = dir + "/server.key";
    ex::ExchangeConfig c;
    c.name = endpoint;
    c.transport = ex::makeZmqTransport(o);
    ex::ExchangeApi::configure(c);
    ex::ExchangeApi::instance();
    for (;;)
        ::pause();
}

// Answers every request with `reply` (or, for a large request, with a few bytes).
[[noreturn]] void serveRaw(std::string const& reply) {
    zmq::context_t ctx;
    zmq::socket_t ipc(ctx, ZMQ_ROUTER), tcp(ctx, ZMQ_ROUTER);
    ipc.bind(rawIpc);
    tcp.set(zmq::sockopt::curve_server, 1);
    tcp.set(zmq::sockopt::curve_secretkey, serverKeys.secretKey);
    tcp.bind(rawTcp);
    zmq::pollitem_t items[] = {{ipc.handle(), 0, ZMQ_POLLIN, 0}, {tcp.handle(), 0, ZMQ_POLLIN, 0}};
    for (;;) {
        zmq::poll(items, 2);
        for (int i = 0; i < 2; ++i) {
            if (!(items[i].revents & ZMQ_POLLIN))
                continue;
            zmq::socket_t& s = i == 0 ? ipc : tcp;
            zmq::message_t id, body;
            (void)s.recv(id);
            (void)s.recv(body);
            s.send(id, zmq::send_flags::sndmore);
            s.send(zmq::buffer(body.size() > 1024 ? std::string("ok") : reply));
        }
    }
}

std::string cancelFrame() {
    wire::Frame f;
    f.kind = wire::FrameKind::Message;
    f.correlation = 1;
    f.queue = "unordered";
    f.payload = wire::encodeMessage(cmddistributor::IIPCancelMessage(ex::IDType(), false));
    return wire::encodeFrame(f);
}

std::string cancelReplyFrame() {
    wire::Frame f;
    f.kind = wire::FrameKind::Reply;
    f.correlation = 1;
    f.payload = wire::encodeReply(
        cmddistributor::IIPCancelReply(cmddistributor::IIPCancelReply::CancelNotFound));
    return wire::encodeFrame(f);
}

void exchangeCancel(benchmark::State& state, std::string const& to) {
    auto exchange = ex::ExchangeApi::instance();
    auto const message = boost::make_shared<cmddistributor::IIPCancelMessage>(ex::IDType(), false);
    ex::Address const address(to, ex::Address::SpecializedQueues::unordered());
    ex::submitForReply<cmddistributor::IIPCancelReply>(*exchange, message, address).get();
    for (auto _ : state) {
        auto reply =
            ex::submitForReply<cmddistributor::IIPCancelReply>(*exchange, message, address).get();
        benchmark::DoNotOptimize(reply);
    }
}

zmq::context_t& rawContext() {
    static zmq::context_t ctx;
    return ctx;
}

zmq::socket_t rawDealer(std::string const& endpoint) {
    zmq::socket_t s(rawContext(), ZMQ_DEALER);
    s.set(zmq::sockopt::linger, 0);
    if (endpoint.compare(0, 6, "tcp://") == 0) {
        char pub[41], sec[41];
        zmq_curve_keypair(pub, sec);
        s.set(zmq::sockopt::curve_serverkey, serverKeys.publicKey);
        s.set(zmq::sockopt::curve_publickey, std::string(pub));
        s.set(zmq::sockopt::curve_secretkey, std::string(sec));
    }
    s.connect(endpoint);
    return s;
}

// Raw ZeroMQ; `polling`: the client polls for the answer as the exchange's waiters do (up to the
// same bound, yielding) before it blocks, so that the two differ only in the work they do.
void rawRoundTrip(benchmark::State& state, std::string const& endpoint, bool polling) {
    auto s = rawDealer(endpoint);
    std::string const request = cancelFrame();
    auto const bound = ex::ExchangeConfig().replySpin;
    zmq::message_t in;
    auto receive = [&] {
        if (polling) {
            auto const until = std::chrono::steady_clock::now() + bound;
            do {
                if (s.recv(in, zmq::recv_flags::dontwait))
                    return;
                std::this_thread::yield();
            } while (std::chrono::steady_clock::now() < until);
        }
        (void)s.recv(in);
    };
    s.send(zmq::buffer(request));
    receive();
    for (auto _ : state) {
        s.send(zmq::buffer(request));
        receive();
        benchmark::DoNotOptimize(in.data());
    }
}

void BM_ExchangeCancelRoundTrip_Ipc(benchmark::State& state) {
    exchangeCancel(state, ipcExchange);
}
void BM_RawRoundTrip_Ipc(benchmark::State& state) {
    rawRoundTrip(state, rawIpc, false);
}
void BM_RawPollingRoundTrip_Ipc(benchmark::State& state) {
    rawRoundTrip(state, rawIpc, true);
}
void BM_ExchangeCancelRoundTrip_TcpCurve(benchmark::State& state) {
    exchangeCancel(state, tcpExchange);
}
void BM_RawRoundTrip_TcpCurve(benchmark::State& state) {
    rawRoundTrip(state, rawTcp, false);
}
void BM_RawPollingRoundTrip_TcpCurve(benchmark::State& state) {
    rawRoundTrip(state, rawTcp, true);
}

void BM_Exchange100MB_Ipc(benchmark::State& state) {
    auto exchange = ex::ExchangeApi::instance();
    ex::Address const address(ipcExchange, "noqueue");
    std::string blob(kBlob, 'q');
    std::size_t n = 0;
    for (auto _ : state) {
        // A message is immutable once sent: each is made anew, outside the time, one byte
        // different from the one before, so that each is a transfer of its own.
        state.PauseTiming();
        blob[n % kBlob] = static_cast<char>('a' + n % 26);
        ++n;
        auto const message = boost::make_shared<BlobMessage>(blob);
        state.ResumeTiming();
        exchange->submitWithReply(message, address).get();
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kBlob));
}

void BM_Raw100MB_Ipc(benchmark::State& state) {
    auto s = rawDealer(rawIpc);
    std::string blob(kBlob, 'q');
    zmq::message_t in;
    std::size_t n = 0;
    for (auto _ : state) {
        blob[n % kBlob] = static_cast<char>('a' + n % 26); // as the exchange's: each one differs
        ++n;
        s.send(zmq::buffer(blob));
        (void)s.recv(in);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kBlob));
}

pid_t forkServing(std::function<void()> serve) {
    pid_t pid = ::fork();
    if (pid == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL); // never outlive the benchmark
        serve();
        ::_exit(0);
    }
    children.push_back(pid);
    return pid;
}

} // namespace

BOOST_CLASS_EXPORT(BlobMessage)

BENCHMARK(BM_ExchangeCancelRoundTrip_Ipc)->UseRealTime();
BENCHMARK(BM_RawRoundTrip_Ipc)->UseRealTime();
BENCHMARK(BM_RawPollingRoundTrip_Ipc)->UseRealTime();
BENCHMARK(BM_ExchangeCancelRoundTrip_TcpCurve)->UseRealTime();
BENCHMARK(BM_RawRoundTrip_TcpCurve)->UseRealTime();
BENCHMARK(BM_RawPollingRoundTrip_TcpCurve)->UseRealTime();
BENCHMARK(BM_Exchange100MB_Ipc)->UseRealTime()->Unit(benchmark::kMillisecond)->Iterations(10);
BENCHMARK(BM_Raw100MB_Ipc)->UseRealTime()->Unit(benchmark::kMillisecond)->Iterations(10);

int main(int argc, char** argv) {
    char tmpl[] = "/tmp/quorl-zmqbench-XXXXXX";
    dir = ::mkdtemp(tmpl);
    serverKeys = ex::loadOrCreateKeyFile(dir + "/server.key");
    std::string const port1 = std::to_string(47000 + ::getpid() % 5000);
    std::string const port2 = std::to_string(52000 + ::getpid() % 5000);
    ipcExchange = "ipc://" + dir + "/exchange";
    tcpExchange = "tcp://127.0.0.1:" + port1;
    rawIpc = "ipc://" + dir + "/raw";
    rawTcp = "tcp://127.0.0.1:" + port2;
    std::string const reply = cancelReplyFrame();
    forkServing([] { serveExchange(ipcExchange); });
    forkServing([] { serveExchange(tcpExchange); });
    forkServing([&] { serveRaw(reply); });

    ex::ZmqTransportOptions client;
    client.serverPublicKey = serverKeys.publicKey;
    client.connectTimeout = std::chrono::seconds(10);
    ex::ExchangeConfig c;
    c.name = "zmq-bench-client-" + std::to_string(::getpid());
    c.transport = ex::makeZmqTransport(client);
    ex::ExchangeApi::configure(c);

    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    for (pid_t p : children) {
        ::kill(p, SIGKILL);
        ::waitpid(p, nullptr, 0);
    }
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);
    return 0;
}
