#pragma once
// The interpreter host server: binds the process's exchange to an endpoint, starts the reference
// host, and serves until SIGINT or SIGTERM; then it publishes shutdown to the session here and
// to every connected client, stops the host and returns 0.
//
// runServer is the whole program behind `quorl-server` (and serve() behind `quorl serve`); a
// program that needs more packet runners registers them in `beforeStart`, which runs after the
// exchange is bound and before the host starts. Call it from main, before any other thread exists:
// it blocks SIGINT and SIGTERM in the calling thread so that every thread started later inherits
// the mask and the signals are taken synchronously.
//
// Exit codes: 0 after a signal, 1 when the server cannot start, 2 for a bad command line.
#include <cstdint>
#include <functional>
#include <string>

namespace quorl {
namespace server {

enum ExitCode { ExitOk = 0, ExitFailure = 1, ExitUsage = 2 };

int runServer(int argc, char** argv, std::function<void()> const& beforeStart = nullptr);

// What the command line of a server says.
struct ServerOptions {
    std::string listen;            // ipc:// or tcp:// endpoint
    std::string keyFile;           // CURVE key pair for tcp; empty: the transport's default
    std::string ipcDirectory;      // of relative ipc:// names; empty: the transport's default
    std::int64_t maxFrameSize = 0; // 0: the transport's default
};

// The server behind parsed options: checks them (2 and a message on standard error when they
// are wrong), then serves as runServer does. `program` names the messages' sender. The same
// signal rules as runServer: call it before any other thread exists.
int serve(ServerOptions const& options, std::string const& program,
          std::function<void()> const& beforeStart = nullptr);

} // namespace server
} // namespace quorl
