#include <tools/server/serverapp.hpp>

#include <quorl/host/host.hpp>

#include <quorl/eventmgr/eventmgraccess.hpp>
#include <quorl/eventmgr/tarnshutdownevent.hpp>

#include <foundation/msg_svc/exchange/exchangeapi.hpp>
#include <foundation/msg_svc/exchange/zmqtransport.hpp>

#include <boost/program_options.hpp>

#include <csignal>
#include <cstdio>
#include <iostream>
#include <pthread.h>
#include <string>
#include <vector>

namespace quorl {
namespace server {

namespace po = boost::program_options;
namespace ex = foundation::msg_svc::exchange;

namespace {

char const* const kProgram = "quorl-server";

int usageError(std::string const& program, std::string const& message) {
    std::cerr << program << ": " << message << "\n"
              << "Try '" << program << " --help' for more information.\n";
    return ExitUsage;
}

void blockStopSignals(sigset_t& signals) {
    // Taken by sigwait; every thread started from here on inherits the mask.
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

void flushAll(std::vector<boost::shared_ptr<eventmgr::EventMgr>> const& managers) {
    for (auto const& manager : managers) {
        try {
            manager->flush();
        } catch (std::exception const&) {
            // A client that went away needs no shutdown news.
        }
    }
}

// Tells every client in touch with this exchange, and the session here, that the server is
// going away; waits (bounded by the transport's failure detection) until each has it.
std::vector<boost::shared_ptr<eventmgr::EventMgr>> publishShutdown(ex::Transport const& transport,
                                                                   std::string const& program) {
    eventmgr::createLocalEventMgr(boost::none)
        ->notify<eventmgr::TARNShutdownEvent>(foundation::msg_svc::eventmgr::DeliverQueued);
    std::vector<boost::shared_ptr<eventmgr::EventMgr>> managers;
    for (auto const& peer : ex::connectedPeers(transport)) {
        try {
            auto manager = eventmgr::createRemoteEventMgr(peer, boost::none, boost::none);
            manager->notify<eventmgr::TARNShutdownEvent>(
                foundation::msg_svc::eventmgr::DeliverQueued);
            managers.push_back(manager);
        } catch (std::exception const& e) {
            std::cerr << program << ": could not tell " << peer << " of the shutdown: " << e.what()
                      << "\n";
        }
    }
    flushAll(managers);
    return managers;
}

} // namespace

int runServer(int argc, char** argv, std::function<void()> const& beforeStart) {
    std::string listen, keyFile, ipcDir;
    std::int64_t maxFrame = 0;
    po::options_description options("Options");
    options.add_options()("help,h", "print this help and exit")(
        "listen,l", po::value(&listen)->value_name("ENDPOINT"),
        "endpoint to serve on: ipc://NAME, ipc:///PATH or tcp://HOST:PORT")(
        "key-file,k", po::value(&keyFile)->value_name("FILE"),
        "CURVE key pair for tcp (made on first start, mode 0600; public key in FILE.pub); "
        "default $QUORL_KEY_FILE or ~/.config/quorl/server.key")(
        "ipc-dir", po::value(&ipcDir)->value_name("DIR"),
        "directory of relative ipc:// names (mode 0700); default $XDG_RUNTIME_DIR/quorl")(
        "max-frame-size", po::value(&maxFrame)->value_name("BYTES"),
        "largest message accepted or sent, in bytes");
    po::variables_map vm;
    try {
        po::store(po::command_line_parser(argc, argv).options(options).run(), vm);
        po::notify(vm);
    } catch (po::error const& e) {
        return usageError(kProgram, e.what());
    }
    if (vm.count("help")) {
        std::cout
            << "Usage: " << kProgram << " --listen ENDPOINT [--key-file FILE]\n"
            << "Serves the reference interpreter host on ENDPOINT until SIGINT or "
               "SIGTERM.\n\n"
            << options << "\n"
            << "Clients of a tcp:// server need its public key: QUORL_SERVER_KEY_FILE=FILE.pub"
               " or QUORL_SERVER_KEY=KEY.\n";
        return ExitOk;
    }
    if (vm.count("max-frame-size") && maxFrame <= 0)
        return usageError(kProgram, "--max-frame-size must be positive");
    ServerOptions parsed;
    parsed.listen = listen;
    parsed.keyFile = keyFile;
    parsed.ipcDirectory = ipcDir;
    parsed.maxFrameSize = maxFrame;
    return serve(parsed, kProgram, beforeStart);
}

int serve(ServerOptions const& options, std::string const& program,
          std::function<void()> const& beforeStart) {
    sigset_t signals;
    blockStopSignals(signals);
    std::string const& listen = options.listen;
    std::string const& keyFile = options.keyFile;
    if (listen.empty())
        return usageError(program, "--listen ENDPOINT is required");
    if (!ex::isZmqEndpoint(listen))
        return usageError(program, "'" + listen + "' is not an ipc:// or tcp:// endpoint");
    if (options.maxFrameSize < 0)
        return usageError(program, "--max-frame-size must be positive");

    ex::ZmqTransportOptions transportOptions;
    transportOptions.keyFile = keyFile;
    transportOptions.ipcDirectory = options.ipcDirectory;
    if (options.maxFrameSize > 0)
        transportOptions.maxFrameSize = options.maxFrameSize;
    auto transport = ex::makeZmqTransport(transportOptions);
    boost::shared_ptr<ex::ExchangeApi> exchange;
    try {
        ex::ExchangeConfig config;
        config.name = listen;
        config.transport = transport;
        ex::ExchangeApi::configure(config);
        exchange = ex::ExchangeApi::instance();
        if (beforeStart)
            beforeStart();
        host::Host::start();
    } catch (std::exception const& e) {
        std::cerr << program << ": cannot serve on " << listen << ": " << e.what() << "\n";
        return ExitFailure;
    }

    std::cout << program << ": listening on " << listen << std::endl;
    if (listen.compare(0, 6, "tcp://") == 0)
        std::cout << program << ": public key in "
                  << (keyFile.empty() ? ex::defaultKeyFile() : keyFile) << ".pub" << std::endl;

    int signal = 0;
    while (sigwait(&signals, &signal) != 0) {
    }
    std::cout << program << ": " << (signal == SIGINT ? "interrupted" : "terminated")
              << ", shutting down" << std::endl;

    int code = ExitOk;
    try {
        auto clients = publishShutdown(*transport, program);
        host::Host::stop();
        flushAll(clients); // the discards of packets still queued are out too
        exchange->stop();
    } catch (std::exception const& e) {
        std::cerr << program << ": during shutdown: " << e.what() << "\n";
        code = ExitFailure;
    }
    return code;
}

} // namespace server
} // namespace quorl
