#pragma once
// QuorlInterpreter: the kernel's side of the Jupyter protocol, as xeus asks for it. An execute
// request becomes eval requests through the session's distributor: the code up to the statement
// whose value shows, then that statement alone, so that its display text can become the
// execute_result while everything else the code writes becomes stdout/stderr streams as it is
// produced. An error of the code becomes an error reply and an iopub error (ename the error's
// identifier, evalue its message, traceback its stack and causes).
//
// Completion offers the workspace's variables (asked of the interpreter), built-ins, keywords
// and the function files on the kernel's search path; inspection shows the leading comment of a
// function file; completeness comes from the language's parser.
//
// Threads: xeus calls the *_impl functions on its shell thread, one at a time, and everything
// that publishes on iopub runs there: text from the request's sinks (written on the library's
// delivery threads) is queued and published by the shell thread while it waits for the request.
// interrupt() may be called from any thread (the control thread, the signal thread).
// Ownership: borrows the session, which must outlive it. Throws nothing into xeus: failures of
// a request become error replies.
#include <tools/kernel/kernelsession.hpp>

#include <foundation/msg_svc/exchange/idtype.hpp>

#include <xeus/xinterpreter.hpp>

#include <boost/optional.hpp>

#include <mutex>
#include <string>
#include <vector>

namespace quorl {
namespace kernel {

class RequestChannel;

class QuorlInterpreter : public xeus::xinterpreter {
public:
    QuorlInterpreter(KernelSession& session, std::vector<std::string> searchPath);

    // Cancels the running request with interrupt and keeps the rest of the current execute
    // request from starting.
    void interrupt();

private:
    // What a request's output is for.
    enum class OutputUse { Publish, Display, Capture };
    struct Outcome {
        bool ok = true;
        std::string ename;
        std::string evalue;
        std::vector<std::string> traceback;
        std::string display; // Display: the value's text; Capture: all output
    };

    void configure_impl() override;
    nl::json execute_request_impl(int execution_counter, std::string const& code, bool silent,
                                  bool store_history, nl::json user_expressions,
                                  bool allow_stdin) override;
    nl::json complete_request_impl(std::string const& code, int cursor_pos) override;
    nl::json inspect_request_impl(std::string const& code, int cursor_pos,
                                  int detail_level) override;
    nl::json is_complete_request_impl(std::string const& code) override;
    nl::json kernel_info_request_impl() override;
    void shutdown_request_impl() override;

    Outcome run(std::string const& code, bool userEval, OutputUse use, bool silent);
    std::vector<std::string> variables();
    void startRequest();

    KernelSession& session_;
    std::vector<std::string> searchPath_;

    std::mutex mutex_;
    boost::optional<foundation::msg_svc::exchange::IDType> running_; // guarded by mutex_
    bool interrupted_ = false;                                       // guarded by mutex_
};

} // namespace kernel
} // namespace quorl
