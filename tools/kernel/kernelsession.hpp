#pragma once
// KernelSession: where the kernel's code runs. By default the reference host runs in this
// process (the embedded interpreter); given a server endpoint, the process's exchange is set up
// as a ZeroMQ client and requests go to that server. Either way the kernel talks to the
// interpreter through the distributor this session hands out.
//
// Ownership: the session owns the distributor and, when embedded, the running host; stop() (or
// the destructor) stops the host. Construct it once per process, before any other use of the
// exchange, on the main thread. distributor() may be used from any thread.
// Throws: the constructor passes on what the host or the exchange throws when they cannot start
// (std::exception), and std::runtime_error for an unreadable server key file.
#include <quorl/cmddistributor/cmddistributor.hpp>

#include <boost/shared_ptr.hpp>

#include <string>

namespace quorl {
namespace kernel {

struct SessionOptions {
    // An ipc:// or tcp:// endpoint of a running server; empty for the embedded host.
    std::string connect;
    // The server's public key file (tcp://); empty: QUORL_SERVER_KEY / QUORL_SERVER_KEY_FILE.
    std::string serverKeyFile;
};

class KernelSession {
public:
    explicit KernelSession(SessionOptions const& options);
    ~KernelSession();
    KernelSession(KernelSession const&) = delete;
    KernelSession& operator=(KernelSession const&) = delete;

    ::cmddistributor::CmdDistributor& distributor() const { return *distributor_; }
    bool embedded() const { return embedded_; }
    // Where code runs, for the kernel's banner: "embedded" or the endpoint.
    std::string const& where() const { return where_; }
    // Stops the embedded host; nothing to do for a server. Idempotent.
    void stop();

private:
    boost::shared_ptr<::cmddistributor::CmdDistributor> distributor_;
    bool embedded_;
    bool stopped_ = false;
    std::string where_;
};

} // namespace kernel
} // namespace quorl
