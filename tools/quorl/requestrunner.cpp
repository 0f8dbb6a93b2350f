#include <tools/quorl/requestrunner.hpp>

#include <quorl/cmddistributor/futureexception.hpp>

#include <unistd.h>

namespace quorl {
namespace cli {

Outcome RequestRunner::run(Start const& start) {
    Session::RequestID const id;
    boost::unique_future<void> future = start(id);
    interrupts_.start(id);
    Outcome outcome = Outcome::Success;
    if (limit_.count() > 0 && future.wait_for(boost::chrono::milliseconds(limit_.count())) ==
                                  boost::future_status::timeout) {
        console_.message("quorl: time limit reached, interrupting");
        session_.interrupt(id);
    }
    try {
        future.get();
    } catch (::cmddistributor::RuntimeException const& e) {
        switch (e.getExecutionStatus()) {
        case quorl::cmddistributor::ExecutionInterrupted:
            outcome = Outcome::Interrupted;
            break;
        case quorl::cmddistributor::ExecutionCommunicationError:
            outcome = Outcome::Unreachable;
            console_.message(
                "quorl: " + std::string(reached_ ? "lost the server at " : "cannot reach ") +
                session_.where() + ": " + e.what());
            break;
        default:
            outcome = Outcome::CodeError;
            console_.printError(e);
        }
    } catch (::cmddistributor::AlreadyCancelledException const&) {
        outcome = Outcome::Interrupted;
    }
    bool const byCtrlC = interrupts_.finish();
    if (outcome == Outcome::Interrupted) {
        // After the ^C a terminal echoes, on a line of its own.
        console_.message(byCtrlC && ::isatty(STDERR_FILENO) ? "\ninterrupted" : "interrupted");
    }
    if (outcome != Outcome::Unreachable)
        reached_ = true;
    return outcome;
}

} // namespace cli
} // namespace quorl
