#pragma once
// The quorl program: its command line and what each subcommand does.
//
//   quorl eval CODE | run FILE | feval NAME ARG... | repl | serve --listen ENDPOINT
//   quorl --connect ENDPOINT [--server-key FILE] SUBCOMMAND ...
//
// Call runCli from main before any other thread exists (serve blocks its stop signals, and the
// command window installs the SIGINT handler). Returns the exit code; throws nothing.
namespace quorl {
namespace cli {

enum ExitCode {
    ExitOk = 0,
    ExitCodeError = 1,   // an error in the evaluated code
    ExitUsage = 2,       // a bad command line, or a file that cannot be read
    ExitUnreachable = 3, // the server cannot be reached, or went away
    ExitInterrupted = 130,
};

int runCli(int argc, char** argv);

} // namespace cli
} // namespace quorl
