#include <tools/kernel/kernelsession.hpp>

#include <quorl/contextmgr/fennid.hpp>
#include <quorl/eventmgr/eventmgraccess.hpp>
#include <quorl/host/host.hpp>

#include <foundation/msg_svc/exchange/exchangeapi.hpp>
#include <foundation/msg_svc/exchange/zmqtransport.hpp>

#include <boost/none.hpp>

#include <stdexcept>
#include <unistd.h>

namespace quorl {
namespace kernel {

namespace ex = foundation::msg_svc::exchange;

KernelSession::KernelSession(SessionOptions const& options) : embedded_(options.connect.empty()) {
    if (embedded_) {
        host::Host::start();
        distributor_ = ::cmddistributor::CmdDistributor::instance(contextmgr::BlessedFennID);
        where_ = "embedded";
        return;
    }
    if (!ex::isZmqEndpoint(options.connect)) {
        throw std::invalid_argument("'" + options.connect +
                                    "' is not an ipc:// or tcp:// endpoint");
    }
    ex::ZmqTransportOptions transport;
    if (!options.serverKeyFile.empty()) {
        transport.serverPublicKey = ex::readPublicKeyFile(options.serverKeyFile);
    }
    ex::ExchangeConfig config;
    config.name = "quorl-kernel-" + std::to_string(::getpid());
    config.transport = ex::makeZmqTransport(transport);
    ex::ExchangeApi::configure(config);
    ex::ExchangeApi::instance();
    distributor_ = ::cmddistributor::CmdDistributor::create(
        contextmgr::BlessedFennID, options.connect, boost::none,
        eventmgr::createRemoteEventMgr(options.connect, boost::none, boost::none));
    if (!distributor_) {
        throw std::runtime_error("cannot reach " + options.connect);
    }
    where_ = options.connect;
}

KernelSession::~KernelSession() {
    stop();
}

void KernelSession::stop() {
    if (stopped_) {
        return;
    }
    stopped_ = true;
    if (embedded_) {
        host::Host::stop();
    }
}

} // namespace kernel
} // namespace quorl
