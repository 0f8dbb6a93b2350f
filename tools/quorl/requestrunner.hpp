#pragma once
// RequestRunner: runs one request of the quorl program to its end and says how it ended. Output
// reaches the console as the request produces it; Ctrl-C interrupts it; an error of the code is
// printed with its stack and causes; a time limit interrupts it as Ctrl-C does; a server that
// cannot be reached, or went away, is one line.
//
// Borrows the session, console and interrupts, which must outlive it. Used by the one thread
// that runs requests. Throws what the request's start function throws before it enqueues.
#include <tools/quorl/console.hpp>
#include <tools/quorl/interrupts.hpp>
#include <tools/quorl/session.hpp>

#include <chrono>
#include <functional>

namespace quorl {
namespace cli {

enum class Outcome { Success, CodeError, Interrupted, Unreachable };

class RequestRunner {
public:
    typedef std::function<boost::unique_future<void>(Session::RequestID const&)> Start;

    RequestRunner(Session& session, Console& console, Interrupts& interrupts)
        : session_(session), console_(console), interrupts_(interrupts) {}

    Outcome run(Start const& start);
    // A request still running after `limit` is interrupted (zero: no limit).
    void setTimeLimit(std::chrono::milliseconds limit) { limit_ = limit; }
    Session& session() const { return session_; }

private:
    Session& session_;
    Console& console_;
    Interrupts& interrupts_;
    std::chrono::milliseconds limit_{0};
    bool reached_ = false; // a request has come back from the interpreter
};

} // namespace cli
} // namespace quorl
