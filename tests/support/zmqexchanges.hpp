#pragma once
// Exchanges for a test: loopbackExchange() makes one that reaches the others of this process;
// ZmqExchanges makes two over ZeroMQ: `server` binds an ipc endpoint in a folder of its own
// (mode 0700, as the transport wants), `client` only connects out. Both are stopped, and the
// folder removed, when the pair goes.
#include <tests/support/tempdir.hpp>

#include <foundation/msg_svc/exchange/exchangeapi.hpp>
#include <foundation/msg_svc/exchange/zmqtransport.hpp>

#include <string>

namespace quorl_testing {

inline boost::shared_ptr<foundation::msg_svc::exchange::ExchangeApi>
loopbackExchange(std::string const& name) {
    foundation::msg_svc::exchange::ExchangeConfig config;
    config.name = name;
    config.transport = foundation::msg_svc::exchange::makeLoopbackTransport();
    return foundation::msg_svc::exchange::ExchangeApi::create(config);
}

class ZmqExchanges {
public:
    explicit ZmqExchanges(std::string const& clientName,
                          foundation::msg_svc::exchange::ZmqTransportOptions const& options = {}) {
        namespace ex = foundation::msg_svc::exchange;
        boost::filesystem::permissions(dir_.path(), boost::filesystem::owner_all);
        ex::ExchangeConfig serverConfig, clientConfig;
        serverConfig.name = "ipc://" + dir_.str() + "/server";
        serverConfig.transport = ex::makeZmqTransport(options);
        clientConfig.name = clientName;
        clientConfig.transport = ex::makeZmqTransport(options);
        server = ex::ExchangeApi::create(serverConfig);
        client = ex::ExchangeApi::create(clientConfig);
        serverName = serverConfig.name;
    }
    ~ZmqExchanges() {
        client->stop();
        if (server) // a test may have stopped and dropped it
            server->stop();
    }
    ZmqExchanges(ZmqExchanges const&) = delete;
    ZmqExchanges& operator=(ZmqExchanges const&) = delete;

private:
    TempDir dir_; // made first, removed last

public:
    boost::shared_ptr<foundation::msg_svc::exchange::ExchangeApi> server;
    boost::shared_ptr<foundation::msg_svc::exchange::ExchangeApi> client;
    std::string serverName;
};

} // namespace quorl_testing
