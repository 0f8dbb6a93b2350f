#pragma once
// CommandWindow: the interactive loop of `quorl repl`. Lines are read with libedit (line
// editing, history recalled with the arrow keys and kept in a history file); a line that leaves
// a block or a matrix open continues on the next one; the finished command runs through the
// session with its output shown as it comes. Ctrl-C drops the line being typed, or interrupts the
// running command; Ctrl-D (end of input) leaves.
//
// Borrows the runner's session, console and interrupts. Runs on the calling thread, which must be
// the only one reading standard input. Throws nothing of its own; returns the exit code.
//
//   CommandWindow window(runner, console, interrupts, {historyFile});
//   return window.run();
#include <tools/quorl/console.hpp>
#include <tools/quorl/interrupts.hpp>
#include <tools/quorl/requestrunner.hpp>

#include <string>

namespace quorl {
namespace cli {

struct CommandWindowOptions {
    // Where the history is read from and saved to; empty: no history file.
    std::string historyFile;
};

class CommandWindow {
public:
    CommandWindow(RequestRunner& runner, Console& console, Interrupts& interrupts,
                  CommandWindowOptions options);

    // Reads and runs commands until end of input; 0, or 3 when the server was lost.
    int run();

private:
    RequestRunner& runner_;
    Console& console_;
    Interrupts& interrupts_;
    CommandWindowOptions options_;
};

} // namespace cli
} // namespace quorl
