#pragma once
// Interrupts: what Ctrl-C (SIGINT) does in the quorl program. The signal handler only writes a
// byte to a pipe; a watcher thread takes it from there. While a request runs, it interrupts that
// request through the session (the distributor's cancel with interrupt); at the prompt it makes
// promptFd() readable, so that the line editor can drop the line being typed. A Ctrl-C that comes
// just before a request starts interrupts it as soon as it does.
//
// One per process (it owns the SIGINT handler, restored on destruction). start/finish and
// interruptedRun are for the one thread that runs requests; the watcher is the only other
// thread. Throws std::system_error when the pipes or the thread cannot be made.
#include <tools/quorl/session.hpp>

#include <atomic>
#include <csignal>
#include <mutex>
#include <thread>

namespace quorl {
namespace cli {

class Interrupts {
public:
    explicit Interrupts(Session& session);
    ~Interrupts();
    Interrupts(Interrupts const&) = delete;
    Interrupts& operator=(Interrupts const&) = delete;

    // `id` runs until finish(); a Ctrl-C meanwhile interrupts it.
    void start(Session::RequestID const& id);
    // No request runs; returns whether a Ctrl-C came while the last one ran.
    bool finish();

    // Readable after a Ctrl-C at the prompt; takeAtPrompt() consumes it.
    int promptFd() const { return promptPipe_[0]; }
    bool takeAtPrompt();

private:
    void watch();

    Session& session_;
    int signalPipe_[2] = {-1, -1};
    int promptPipe_[2] = {-1, -1};
    struct sigaction previous_ {};
    std::mutex mutex_; // guards running_, id_, pending_, interrupted_
    bool running_ = false;
    Session::RequestID id_;
    bool pending_ = false; // a Ctrl-C with no request running yet
    bool interrupted_ = false;
    std::thread watcher_;
};

} // namespace cli
} // namespace quorl
