#include <tools/quorl/cli.hpp>

#include <tools/quorl/commandwindow.hpp>
#include <tools/quorl/console.hpp>
#include <tools/quorl/interrupts.hpp>
#include <tools/quorl/requestrunner.hpp>
#include <tools/quorl/session.hpp>
#include <tools/server/serverapp.hpp>

#include <quorl/utils/processutils.hpp>

#include <foundation/msg_svc/exchange/zmqtransport.hpp>

#include <fl/i18n/conversions.hpp>

#include <CLI/CLI.hpp>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

namespace quorl {
namespace cli {

namespace {

char const* const kProgram = "quorl";

int usageError(std::string const& message) {
    std::cerr << kProgram << ": " << message << " (see '" << kProgram << " --help')\n";
    return ExitUsage;
}

int exitCodeOf(Outcome outcome) {
    switch (outcome) {
    case Outcome::Success:
        return ExitOk;
    case Outcome::CodeError:
        return ExitCodeError;
    case Outcome::Interrupted:
        return ExitInterrupted;
    case Outcome::Unreachable:
        return ExitUnreachable;
    }
    return ExitCodeError;
}

// Reads a whole file or standard input ("-"); false when it cannot.
bool readText(std::string const& path, std::string& text) {
    std::ostringstream all;
    if (path == "-") {
        all << std::cin.rdbuf();
    } else {
        std::ifstream in(path, std::ios::binary);
        if (!in)
            return false;
        all << in.rdbuf();
        if (in.bad())
            return false;
    }
    text = all.str();
    return true;
}

// Function files are looked for in `folder` (if any) first, then on QUORL_PATH, then in the
// current folder; the embedded interpreter reads the path when it starts.
void putOnSearchPath(std::string const& folder) {
    char const* existing = std::getenv("QUORL_PATH");
    std::string path = folder;
    if (existing && *existing)
        path += (path.empty() ? "" : ":") + std::string(existing);
    path += path.empty() ? "." : ":.";
    ::setenv("QUORL_PATH", path.c_str(), 1);
}

std::string folderOf(std::string const& file) {
    std::size_t const slash = file.rfind('/');
    if (slash == std::string::npos)
        return ".";
    return slash == 0 ? "/" : file.substr(0, slash);
}

struct Choices {
    SessionOptions session;
    std::string code;
    std::string file;
    std::string function;
    std::vector<std::string> args;
    std::string diary, log, history;
    double timeout = 0;
    server::ServerOptions server;
};

// Everything but serve: a session, the console and Ctrl-C, then the subcommand's work.
int runClient(CLI::App const& app, Choices const& choices) {
    bool const isRepl = app.got_subcommand("repl") || app.get_subcommands().empty();
    bool const interactive = isRepl && ::isatty(STDIN_FILENO);

    std::string code;
    if (app.got_subcommand("run")) {
        if (!readText(choices.file, code))
            return usageError("cannot read " + choices.file + ": " + std::strerror(errno));
        if (choices.file != "-")
            putOnSearchPath(folderOf(choices.file));
        else
            putOnSearchPath("");
    } else {
        if (isRepl && !interactive && !readText("-", code))
            return usageError("cannot read standard input");
        if (app.got_subcommand("eval"))
            code = choices.code;
        putOnSearchPath("");
    }
    std::u16string code16;
    try {
        code16 = fl::i18n::to_ustring(code);
    } catch (std::exception const&) {
        return usageError("the code is not valid UTF-8 text");
    }
    if (app.got_subcommand("feval") && !isFunctionName(choices.function))
        return usageError("'" + choices.function + "' is not a function name");

    Console console;
    try {
        if (!choices.diary.empty())
            console.openDiary(choices.diary);
        if (!choices.log.empty())
            console.openLog(choices.log);
    } catch (std::exception const& e) {
        return usageError(e.what());
    }
    std::unique_ptr<Session> session;
    try {
        session = std::make_unique<Session>(choices.session);
    } catch (SessionError const& e) {
        std::cerr << kProgram << ": " << e.what() << "\n";
        return e.kind() == SessionError::BadOptions ? ExitUsage : ExitUnreachable;
    }
    int result = ExitOk;
    {
        Interrupts interrupts(*session);
        RequestRunner runner(*session, console, interrupts);
        runner.setTimeLimit(
            std::chrono::milliseconds(static_cast<long long>(choices.timeout * 1000)));
        if (interactive) {
            CommandWindowOptions options;
            options.historyFile = choices.history;
            result = CommandWindow(runner, console, interrupts, options).run();
        } else if (app.got_subcommand("feval")) {
            result = exitCodeOf(runner.run([&](Session::RequestID const& id) {
                return session->callFunction(choices.function, choices.args, console.out(),
                                             console.err(), id);
            }));
        } else {
            result = exitCodeOf(runner.run([&](Session::RequestID const& id) {
                return session->evaluate(code16, console.out(), console.err(), id);
            }));
        }
    }
    session->close();
    return result;
}

std::string defaultHistoryFile() {
    char const* home = std::getenv("HOME");
    return home && *home ? std::string(home) + "/.quorl_history" : std::string();
}

} // namespace

int runCli(int argc, char** argv) {
    CLI::App app{"quorl: evaluates code of the reference language, in this process or on a "
                 "`quorl serve` (--connect)."};
    app.name(kProgram);
    app.fallthrough(); // global options may follow the subcommand too
    app.set_version_flag("--version", std::string(kProgram) + " " + quorl_version);
    app.footer("Without a subcommand: the command window on a terminal; commands on standard "
               "input run as a script.\nExit status: 0 success, 1 error in the evaluated code, "
               "2 usage error, 3 server not reached or lost, 130 interrupted.");
    Choices choices;
    app.add_option("--connect", choices.session.connect,
                   "send the requests to the quorl serve at ENDPOINT (ipc://... or tcp://...)")
        ->type_name("ENDPOINT");
    app.add_option("--server-key", choices.session.serverKeyFile,
                   "public key file of a tcp:// server (its KEYFILE.pub)")
        ->type_name("FILE");

    app.add_option("--timeout", choices.timeout,
                   "interrupt a request still running after SECONDS (as Ctrl-C does)")
        ->type_name("SECONDS")
        ->check(CLI::NonNegativeNumber);

    auto* eval = app.add_subcommand("eval", "evaluate CODE and exit");
    eval->add_option("CODE", choices.code, "code of the reference language")->required();
    auto* run = app.add_subcommand("run", "run the script FILE (- for standard input) and exit");
    run->add_option("FILE", choices.file, "script file (.qrl)")->required();
    auto* feval =
        app.add_subcommand("feval", "call the function NAME with ARGs and show its result");
    feval->add_option("NAME", choices.function, "function name")->required();
    // The arguments are taken as they stand, as extras of the command line (CLI11 would read
    // "[1 2]" given to an option as a list of its own).
    feval->footer(
        "ARG...: arguments, each a literal of the language: 2, 'text', [1 2; 3 4], {1, 'a'}");
    auto* repl = app.add_subcommand("repl", "the command window (line editing, history, Ctrl-C)");
    repl->add_option("--diary", choices.diary, "copy the session's text to FILE")
        ->type_name("FILE");
    repl->add_option("--log", choices.log, "copy the command window's output to FILE")
        ->type_name("FILE");
    choices.history = defaultHistoryFile();
    repl->add_option("--history", choices.history, "history file (default ~/.quorl_history)")
        ->type_name("FILE");
    auto* serve =
        app.add_subcommand("serve", "serve the interpreter over ZeroMQ until SIGINT/SIGTERM");
    serve
        ->add_option("--listen,-l", choices.server.listen,
                     "endpoint: ipc://NAME, ipc:///PATH or tcp://HOST:PORT")
        ->type_name("ENDPOINT")
        ->required();
    serve
        ->add_option(
            "--key-file,-k", choices.server.keyFile,
            "CURVE key pair for tcp (made on first start, mode 0600; public key in FILE.pub)")
        ->type_name("FILE");
    serve
        ->add_option("--ipc-dir", choices.server.ipcDirectory,
                     "directory of relative ipc:// names (mode 0700)")
        ->type_name("DIR");
    serve
        ->add_option("--max-frame-size", choices.server.maxFrameSize,
                     "largest message accepted or sent, in bytes")
        ->type_name("BYTES")
        ->check(CLI::PositiveNumber);
    app.require_subcommand(0, 1);
    app.allow_extras(); // for feval's arguments; refused below for everything else

    try {
        app.parse(argc, argv);
    } catch (CLI::CallForHelp const& e) {
        return app.exit(e);
    } catch (CLI::CallForAllHelp const& e) {
        return app.exit(e);
    } catch (CLI::CallForVersion const& e) {
        return app.exit(e);
    } catch (CLI::ParseError const& e) {
        return usageError(e.what());
    }

    if (app.got_subcommand(feval))
        choices.args = app.remaining();
    else if (!app.remaining().empty())
        return usageError("unexpected argument '" + app.remaining().front() + "'");
    if (app.got_subcommand(serve)) {
        if (!choices.session.connect.empty())
            return usageError("serve does not take --connect");
        if (!foundation::msg_svc::exchange::isZmqEndpoint(choices.server.listen))
            return usageError("'" + choices.server.listen +
                              "' is not an ipc:// or tcp:// endpoint");
        return server::serve(choices.server, kProgram);
    }
    if (!choices.session.serverKeyFile.empty() && choices.session.connect.empty())
        return usageError("--server-key needs --connect");
    return runClient(app, choices);
}

} // namespace cli
} // namespace quorl
