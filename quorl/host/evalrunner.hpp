#pragma once
// EvalRunner: the runner of "user eval" and "internal eval" packets (cmddistributor::EvalIIP). It
// evaluates the packet's code with the reference language: in the interpreter's own workspace
// when the packet carries no client workspace, otherwise in that workspace (the client's own
// object in this process, its provider across processes). Output and error text reach the
// packet's sinks as the code produces it; a cancel with interrupt ends the evaluation at its next
// statement (PacketInterrupted, status 4), and at those points the evaluation gives the fenn
// mutex up for a moment about once a millisecond, so that code which prints nothing does not
// keep other threads from it; an error of the language completes the packet with a
// RuntimeException of status 2 holding its message, identifier, call stack (innermost first)
// and causes. Code run in a client's workspace in another process may store values that have no
// external form (objects, function handles): the client gets references to them, which resolve
// to the very arrays here when they come back.
//
// Ownership and threads: one runner serves every interpreter thread. The language interpreter,
// with its own workspace, belongs to the interpreter thread that made it (one per thread, so one
// per runtime context) and lives as long as that thread. run() is called on interpreter threads
// only. Throws PacketInterrupted, RuntimeException, or std::invalid_argument for a packet that is
// not an eval packet.
#include <quorl/host/packetrunner.hpp>

#include <quorl/language/interpreter.hpp>
#include <quorl/language/languageerror.hpp>

namespace quorl {
namespace host {

class EvalRunner : public PacketRunner {
public:
    // Makes the reference table's metrics callable from code: refMetrics('ActiveRefCount'), the
    // number of entries, and refMetrics('TotalRefCount'), the sum of their counts.
    EvalRunner();

    boost::shared_ptr<::cmddistributor::IIPCompletedEvent> run(PacketExecution& execution) override;

    // The language interpreter of the calling interpreter thread, made on first use; eval and
    // function-call packets of a context share it, so functions defined by one are seen by the
    // other.
    static language::Interpreter& threadInterpreter();

    // The RuntimeException form of an error of the language (status 2), causes included.
    static ::cmddistributor::RuntimeException toRuntimeException(language::LanguageError const& e);
};

} // namespace host
} // namespace quorl
