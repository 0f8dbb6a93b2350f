// quorl-kernel: the Jupyter kernel of the reference language. `quorl-kernel -f CONNECTION_FILE`
// is how Jupyter starts it (see the kernel spec); `quorl-kernel install` registers the spec.
//
//   quorl-kernel install --user                       # then: jupyter console --kernel quorl
//   quorl-kernel install --prefix /opt/quorl --connect tcp://127.0.0.1:5555 --server-key K.pub
#include <tools/kernel/interruptingserver.hpp>
#include <tools/kernel/kernelhistory.hpp>
#include <tools/kernel/kernelsession.hpp>
#include <tools/kernel/kernelspec.hpp>
#include <tools/kernel/quorlinterpreter.hpp>

#include <xeus/xkernel.hpp>
#include <xeus/xkernel_configuration.hpp>
#include <xeus/xserver_control_main.hpp>

#include <boost/algorithm/string/split.hpp>
#include <boost/filesystem.hpp>
#include <boost/program_options.hpp>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <pthread.h>
#include <thread>
#include <zmq.hpp>

namespace po = boost::program_options;
using namespace quorl::kernel;

namespace {

enum ExitCode { ExitOk = 0, ExitFailure = 1, ExitUsage = 2 };

char const* const kProgram = "quorl-kernel";

// The interpreter that interrupt requests on the control channel reach; set before the kernel
// starts, read on the control thread.
std::atomic<QuorlInterpreter*> interruptTarget{nullptr};

std::unique_ptr<xeus::xserver> makeServer(xeus::xcontext& context,
                                          xeus::xconfiguration const& config,
                                          nl::json::error_handler_t eh) {
    // Control on the main thread, shell on its own: an interrupt is heard while code runs.
    return std::make_unique<InterruptingServer>(
        xeus::make_xserver_control_main(context, config, eh), [] {
            if (QuorlInterpreter* target = interruptTarget.load()) {
                target->interrupt();
            }
        });
}

int usageError(std::string const& what) {
    std::cerr << kProgram << ": " << what << " (see --help)\n";
    return ExitUsage;
}

std::vector<std::string> searchPath(std::vector<std::string> folders) {
    if (char const* env = std::getenv("QUORL_PATH")) {
        std::vector<std::string> parts;
        std::string const text = env;
        boost::algorithm::split(parts, text, [](char c) { return c == ':'; });
        for (auto& p : parts) {
            if (!p.empty()) {
                folders.push_back(p);
            }
        }
    }
    return folders;
}

po::options_description sessionOptions(SessionOptions& session, std::vector<std::string>& path) {
    po::options_description o("Where code runs");
    o.add_options()("connect", po::value(&session.connect)->value_name("ENDPOINT"),
                    "run code on a quorl server at ENDPOINT (ipc:// or tcp://) instead of the "
                    "embedded interpreter")("server-key",
                                            po::value(&session.serverKeyFile)->value_name("FILE"),
                                            "the server's public key file (tcp://)")(
        "path", po::value(&path)->value_name("DIR")->composing(),
        "a folder of function files for completion and help (repeatable; QUORL_PATH adds "
        "more, separated by ':')");
    return o;
}

// Parses the command line into `vm`; a bad one is reported and gives false.
bool parseOptions(po::options_description const& o, int argc, char** argv, po::variables_map& vm) {
    try {
        po::store(po::command_line_parser(argc, argv).options(o).run(), vm);
        po::notify(vm);
        return true;
    } catch (po::error const& e) {
        usageError(e.what());
        return false;
    }
}

int install(int argc, char** argv) {
    SessionOptions session;
    std::vector<std::string> path;
    std::string prefix;
    po::options_description o("quorl-kernel install [--user | --prefix P] [options]");
    o.add_options()("help,h", "show this help")("user", "install for the current user")(
        "prefix", po::value(&prefix)->value_name("P"), "install into P/share/jupyter");
    o.add(sessionOptions(session, path));
    po::variables_map vm;
    if (!parseOptions(o, argc, argv, vm))
        return ExitUsage;
    if (vm.count("help")) {
        std::cout << "Registers the quorl Jupyter kernel (default: system-wide, "
                     "/usr/local/share/jupyter).\n\n"
                  << o;
        return ExitOk;
    }
    if (vm.count("user") && vm.count("prefix")) {
        return usageError("--user and --prefix exclude each other");
    }
    std::vector<std::string> args;
    if (!session.connect.empty()) {
        args.insert(args.end(), {"--connect", session.connect});
    }
    if (!session.serverKeyFile.empty()) {
        args.insert(args.end(),
                    {"--server-key", boost::filesystem::absolute(session.serverKeyFile).string()});
    }
    for (auto const& p : path) {
        args.insert(args.end(), {"--path", boost::filesystem::absolute(p).string()});
    }
    auto const where = vm.count("prefix") ? KernelSpec::Location::Prefix
                       : vm.count("user") ? KernelSpec::Location::User
                                          : KernelSpec::Location::System;
    try {
        std::string const program = boost::filesystem::canonical("/proc/self/exe").string();
        std::cout << kProgram << ": kernel spec installed in "
                  << KernelSpec::install(where, prefix, program, args) << std::endl;
    } catch (std::exception const& e) {
        std::cerr << kProgram << ": " << e.what() << "\n";
        return ExitFailure;
    }
    return ExitOk;
}

int serve(int argc, char** argv) {
    SessionOptions sessionOpts;
    std::vector<std::string> path;
    std::string connectionFile;
    po::options_description o("quorl-kernel -f CONNECTION_FILE [options]");
    o.add_options()("help,h", "show this help")("connection-file,f",
                                                po::value(&connectionFile)->value_name("FILE"),
                                                "the connection file Jupyter gives");
    o.add(sessionOptions(sessionOpts, path));
    po::variables_map vm;
    if (!parseOptions(o, argc, argv, vm))
        return ExitUsage;
    if (vm.count("help")) {
        std::cout << "The Jupyter kernel of the quorl language. Jupyter starts it with a "
                     "connection file; register it with `quorl-kernel install`.\n\n"
                  << o;
        return ExitOk;
    }
    if (connectionFile.empty()) {
        return usageError("-f CONNECTION_FILE is required");
    }

    // SIGINT is taken by a thread of its own: every thread made from here on inherits the mask.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    xeus::xconfiguration config;
    try {
        config = xeus::load_configuration(connectionFile);
    } catch (std::exception const& e) {
        std::cerr << kProgram << ": cannot read " << connectionFile << ": " << e.what() << "\n";
        return ExitFailure;
    }
    std::unique_ptr<KernelSession> session;
    try {
        session = std::make_unique<KernelSession>(sessionOpts);
    } catch (std::exception const& e) {
        std::cerr << kProgram << ": cannot start the interpreter: " << e.what() << "\n";
        return ExitFailure;
    }

    auto interpreter = std::make_unique<QuorlInterpreter>(*session, searchPath(path));
    QuorlInterpreter* target = interpreter.get();
    interruptTarget = target;
    std::thread signalThread([target, signals] {
        for (;;) {
            int signal = 0;
            if (sigwait(&signals, &signal) != 0 || signal != SIGINT) {
                return;
            }
            target->interrupt();
        }
    });

    int code = ExitOk;
    try {
        xeus::xkernel kernel(config, xeus::get_user_name(), xeus::make_context<zmq::context_t>(),
                             std::move(interpreter), &makeServer,
                             std::make_unique<KernelHistory>());
        kernel.start(); // returns after a shutdown request
    } catch (std::exception const& e) {
        std::cerr << kProgram << ": " << e.what() << "\n";
        code = ExitFailure;
    }
    interruptTarget = nullptr;
    pthread_kill(signalThread.native_handle(), SIGUSR1);
    signalThread.join();
    session->stop();
    return code;
}

} // namespace

int main(int argc, char** argv) {
    if (argc > 1 && std::string(argv[1]) == "install") {
        return install(argc - 1, argv + 1);
    }
    return serve(argc, argv);
}
