#pragma once
// Session: the road from a client program to an interpreter, the same on both of its forms. By
// default the reference host runs in this process (the embedded interpreter); given an endpoint,
// the process's exchange is configured as a ZeroMQ client and requests go to the `quorl serve`
// (or any interpreter host server) listening there. Code and function calls go as requests
// through the context's distributor; output reaches the sinks given with each request as it is
// produced; a running request is stopped by interrupt.
//
// One session per process: it configures and starts the process's exchange (for a remote one)
// or the reference host (embedded), and close() stops them. Requests, interrupts and close may
// come from any thread; close() waits for nothing that is still running, so end or interrupt
// requests first. Throws SessionError when the session cannot be opened (a bad endpoint, an
// unreadable server key); request failures come out of the futures as
// cmddistributor::RuntimeException (status 5 when the server cannot be reached or went away).
//
//   quorl::cli::Session session(quorl::cli::SessionOptions{}); // embedded interpreter
//   foundation::msg_svc::exchange::IDType id;
//   session.evaluate(u"disp(6 * 7)", out, err, id).get();       // out, err: VeldraSinks
//   session.close();
#include <quorl/cmddistributor/cmddistributor.hpp>
#include <quorl/io/veldrasink.hpp>

#include <foundation/msg_svc/exchange/idtype.hpp>

#include <boost/shared_ptr.hpp>
#include <boost/thread/future.hpp>

#include <stdexcept>
#include <string>
#include <vector>

namespace quorl {
namespace cli {

class SessionError : public std::runtime_error {
public:
    enum Kind { BadOptions, Unreachable };
    SessionError(Kind kind, std::string const& what) : std::runtime_error(what), kind_(kind) {}
    Kind kind() const { return kind_; }

private:
    Kind kind_;
};

struct SessionOptions {
    // Empty: the embedded interpreter. Else an ipc:// or tcp:// endpoint of a server.
    std::string connect;
    // For tcp: the server's public key file (KEYFILE.pub or the key file itself). Empty:
    // $QUORL_SERVER_KEY, else $QUORL_SERVER_KEY_FILE, as the transport reads them.
    std::string serverKeyFile;
};

class Session {
public:
    typedef boost::shared_ptr<io::VeldraSink> SinkPtr;
    typedef foundation::msg_svc::exchange::IDType RequestID;

    explicit Session(SessionOptions const& options);
    ~Session(); // closes
    Session(Session const&) = delete;
    Session& operator=(Session const&) = delete;

    bool isRemote() const { return !options_.connect.empty(); }
    // The server's endpoint, or "embedded".
    std::string where() const;

    // Code of the reference language, run in the interpreter's workspace.
    boost::unique_future<void> evaluate(std::u16string const& code, SinkPtr const& out,
                                        SinkPtr const& err, RequestID const& id);
    // The function `name` called with arguments written as literals of the language; its results
    // are displayed on `out`. Throws std::invalid_argument for a name that is not a name.
    boost::unique_future<void> callFunction(std::string const& name,
                                            std::vector<std::string> const& args,
                                            SinkPtr const& out, SinkPtr const& err,
                                            RequestID const& id);
    // Cancels the request with interrupt: a queued one is dropped, a running one stopped at its
    // next safe point. The future answers how it ended.
    boost::unique_future<::cmddistributor::CmdDistributor::CancelStatus>
    interrupt(RequestID const& id);

    // Stops the embedded host or the client exchange; later requests fail. Idempotent.
    void close();

private:
    SessionOptions options_;
    boost::shared_ptr<::cmddistributor::CmdDistributor> distributor_;
    bool closed_ = false;
};

// True for a name a function may have: a letter, then letters, digits and underscores.
bool isFunctionName(std::string const& name);

} // namespace cli
} // namespace quorl
