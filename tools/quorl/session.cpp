#include <tools/quorl/session.hpp>

#include <quorl/cmddistributor/evalcmdrequest.hpp>
#include <quorl/contextmgr/fennid.hpp>
#include <quorl/eventmgr/eventmgraccess.hpp>
#include <quorl/host/host.hpp>

#include <foundation/msg_svc/exchange/exchangeapi.hpp>
#include <foundation/msg_svc/exchange/zmqtransport.hpp>

#include <fl/i18n/conversions.hpp>

#include <boost/make_shared.hpp>

#include <cctype>
#include <unistd.h>

namespace quorl {
namespace cli {

namespace ex = foundation::msg_svc::exchange;

Session::Session(SessionOptions const& options) : options_(options) {
    if (!isRemote()) {
        if (!options_.serverKeyFile.empty())
            throw SessionError(SessionError::BadOptions, "--server-key needs --connect");
        host::Host::start();
        distributor_ = ::cmddistributor::CmdDistributor::instance(contextmgr::BlessedFennID);
        return;
    }
    std::string const& endpoint = options_.connect;
    if (!ex::isZmqEndpoint(endpoint))
        throw SessionError(SessionError::BadOptions,
                           "'" + endpoint + "' is not an ipc:// or tcp:// endpoint");
    ex::ZmqTransportOptions transport;
    if (!options_.serverKeyFile.empty()) {
        try {
            transport.serverPublicKey = ex::readPublicKeyFile(options_.serverKeyFile);
        } catch (std::exception const& e) {
            throw SessionError(SessionError::BadOptions, "cannot read the server key " +
                                                             options_.serverKeyFile + ": " +
                                                             e.what());
        }
    }
    try {
        ex::ExchangeConfig config;
        config.name = "quorl-client-" + std::to_string(::getpid());
        config.transport = ex::makeZmqTransport(transport);
        ex::ExchangeApi::configure(config);
        ex::ExchangeApi::instance();
        distributor_ = ::cmddistributor::CmdDistributor::create(
            contextmgr::BlessedFennID, endpoint, boost::none,
            eventmgr::createRemoteEventMgr(endpoint, boost::none, boost::none));
    } catch (std::exception const& e) {
        throw SessionError(SessionError::Unreachable,
                           "cannot connect to " + endpoint + ": " + e.what());
    }
}

Session::~Session() {
    close();
}

std::string Session::where() const {
    return isRemote() ? options_.connect : "embedded";
}

boost::unique_future<void> Session::evaluate(std::u16string const& code, SinkPtr const& out,
                                             SinkPtr const& err, RequestID const& id) {
    return distributor_->enqueueWithFuture(
        boost::make_shared<::cmddistributor::EvalCmdRequest>(
            true, ::cmddistributor::UnsetIqmStreamID, out, err, code),
        id);
}

boost::unique_future<void> Session::callFunction(std::string const& name,
                                                 std::vector<std::string> const& args,
                                                 SinkPtr const& out, SinkPtr const& err,
                                                 RequestID const& id) {
    if (!isFunctionName(name))
        throw std::invalid_argument("'" + name + "' is not a function name");
    // The call as code, its results shown as `ans`; a function-call request can take this
    // place without changing the callers.
    std::string call = name + "(";
    for (std::size_t i = 0; i < args.size(); ++i)
        call += (i ? ", " : "") + args[i];
    call += ")";
    return evaluate(fl::i18n::to_ustring(call), out, err, id);
}

boost::unique_future<::cmddistributor::CmdDistributor::CancelStatus>
Session::interrupt(RequestID const& id) {
    return distributor_->cancelRequest(id, true);
}

void Session::close() {
    if (closed_)
        return;
    closed_ = true;
    if (isRemote())
        ex::ExchangeApi::instance()->stop();
    else
        host::Host::stop();
}

bool isFunctionName(std::string const& name) {
    if (name.empty() || !std::isalpha(static_cast<unsigned char>(name[0])))
        return false;
    for (char c : name)
        if (!std::isalnum(static_cast<unsigned char>(c)) && c != '_')
            return false;
    return true;
}

} // namespace cli
} // namespace quorl
