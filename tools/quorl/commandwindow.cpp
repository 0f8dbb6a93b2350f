#include <tools/quorl/commandwindow.hpp>

#include <quorl/language/codeanalysis.hpp>

#include <fl/i18n/conversions.hpp>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <memory>
#include <poll.h>
#include <unistd.h>

#include <editline/readline.h>

namespace quorl {
namespace cli {

namespace {

char const* const kPrompt = ">> ";
char const* const kContinuation = ".. ";

// The prompt's Ctrl-C: set when the line being typed was dropped.
bool droppedLine = false;
Interrupts* activeInterrupts = nullptr;
// Where the characters are read. A terminal's Ctrl-C throws away the input not yet read, so a
// blocking read after poll saw input could wait for ever while the signal goes to another
// thread: a terminal is read through a descriptor of its own that does not block.
int inputFd = STDIN_FILENO;
// Characters read for the line being edited.
std::size_t charsOfLine = 0;

// libedit's character source: standard input, or an end of the line at Ctrl-C (the signal, or
// the character itself when the terminal passes it on).
int readCharacter(FILE*) {
    pollfd fds[2] = {{inputFd, POLLIN, 0}, {activeInterrupts->promptFd(), POLLIN, 0}};
    for (;;) {
        int const ready = ::poll(fds, 2, -1);
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready < 0)
            return EOF;
        if (fds[1].revents & POLLIN) {
            if (activeInterrupts->takeAtPrompt()) {
                droppedLine = true;
                return EOF;
            }
            continue;
        }
        unsigned char c = 0;
        ssize_t const got = ::read(inputFd, &c, 1);
        if (got < 0 && (errno == EINTR || errno == EAGAIN))
            continue;
        if (got <= 0)
            return EOF;
        if (c == 3) { // ^C as a character
            droppedLine = true;
            return EOF;
        }
        // A Ctrl-D typed while the terminal was still in its ordinary mode (a command running,
        // or the prompt just printed) ends a line there; the editor's mode then hands it over as
        // a NUL. At the start of a line it still means the end of input.
        if (c == 0 && charsOfLine == 0)
            return EOF;
        ++charsOfLine;
        return c;
    }
}

// The character source of a run's prompts, put back however the run ends.
struct InputScope {
    explicit InputScope(Interrupts& interrupts) {
        activeInterrupts = &interrupts;
        inputFd = STDIN_FILENO;
        if (::isatty(STDIN_FILENO)) {
            int const own = ::open("/proc/self/fd/0", O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
            if (own >= 0)
                inputFd = own;
        }
    }
    ~InputScope() {
        if (inputFd != STDIN_FILENO)
            ::close(inputFd);
        inputFd = STDIN_FILENO;
        activeInterrupts = nullptr;
    }
    InputScope(InputScope const&) = delete;
    InputScope& operator=(InputScope const&) = delete;
};

struct FreeLine {
    void operator()(char* line) const { std::free(line); }
};

} // namespace

CommandWindow::CommandWindow(RequestRunner& runner, Console& console, Interrupts& interrupts,
                             CommandWindowOptions options)
    : runner_(runner), console_(console), interrupts_(interrupts), options_(std::move(options)) {}

int CommandWindow::run() {
    InputScope const input(interrupts_);
    rl_catch_signals = 0;
    rl_getc_function = readCharacter;
    rl_readline_name = "quorl";
    using_history();
    if (!options_.historyFile.empty())
        read_history(options_.historyFile.c_str());

    int code = 0;
    std::string command;
    for (;;) {
        char const* const prompt = command.empty() ? kPrompt : kContinuation;
        droppedLine = false;
        charsOfLine = 0;
        std::unique_ptr<char, FreeLine> line(readline(prompt));
        if (droppedLine) {
            std::fputs("^C\n", stdout);
            std::fflush(stdout);
            command.clear();
            continue;
        }
        if (!line) { // Ctrl-D
            std::fputs("\n", stdout);
            break;
        }
        std::string const text = line.get();
        if (!text.empty() && text.find_first_not_of(" \t") != std::string::npos)
            add_history(line.get());
        console_.echo(prompt, text);
        command += text;
        command += "\n";
        if (language::CodeAnalysis::completeness(command) ==
            language::CodeAnalysis::Completeness::Incomplete)
            continue;
        std::u16string code16;
        try {
            code16 = fl::i18n::to_ustring(command);
        } catch (std::exception const&) {
            console_.message("quorl: the command is not valid UTF-8 text");
            command.clear();
            continue;
        }
        command.clear();
        Outcome const outcome = runner_.run([&](Session::RequestID const& id) {
            return runner_.session().evaluate(code16, console_.out(), console_.err(), id);
        });
        code = outcome == Outcome::Unreachable ? 3 : 0;
    }
    if (!options_.historyFile.empty())
        write_history(options_.historyFile.c_str());
    return code;
}

} // namespace cli
} // namespace quorl
