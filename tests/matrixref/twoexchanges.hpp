#pragma once
// Two exchanges in one process standing for two processes: the process's own exchange (the
// client side, which sends releases) and a server exchange reached through the loopback
// transport, on which the release service of the reference table is registered. Both sides
// share the process's one reference table, as entries of two kinds: the server's local entries
// and the client's remote ones.
#include <quorl/matrixref/matrixref.hpp>
#include <quorl/matrixref/matrixrefservice.hpp>
#include <quorl/matrixref/matrixreftable.hpp>
#include <tests/matrixref/countedarrays.hpp>
#include <tests/support/stopexchange.hpp>

#include <foundation/msg_svc/exchange/exchangeapi.hpp>

#include <gtest/gtest.h>

namespace quorl_testing {

// The server's context, and the name by which the client knows it.
quorl::contextmgr::TarnID const ServerTarn{3};
quorl::contextmgr::TarnID const ServerAsClientKnowsIt{7};
char const* const ServerExchange = "mref-server";

inline bool anythingConverts(hvArray_tag const*) {
    return true;
}

class TwoExchanges : public ::testing::Environment {
public:
    void SetUp() override {
        using namespace foundation::msg_svc::exchange;
        ExchangeConfig client;
        client.name = "mref-client";
        client.transport = makeLoopbackTransport();
        ExchangeApi::configure(client);
        table = quorl::matrixref::detail::refInitMatrixReferences({}, &anythingConverts);
        ExchangeConfig serverConfig;
        serverConfig.name = ServerExchange;
        serverConfig.transport = makeLoopbackTransport();
        server = ExchangeApi::create(serverConfig);
        quorl::matrixref::MatrixRefService::registerWith(*server);
        quorl::matrixref::detail::refRegisterExchange(ServerAsClientKnowsIt, ServerExchange);
    }
    void TearDown() override { EXPECT_TRUE(quorl_testing::stopExchangeAndWaitForReport(server)); }

    static boost::shared_ptr<quorl::matrixref::MatrixRefTable> table;
    static boost::shared_ptr<foundation::msg_svc::exchange::ExchangeApi> server;
};

inline boost::shared_ptr<quorl::matrixref::MatrixRefTable> TwoExchanges::table;
inline boost::shared_ptr<foundation::msg_svc::exchange::ExchangeApi> TwoExchanges::server;

inline HvArrayPtr serialize(hvArray_tag const* array) {
    return HvArrayPtr(hvSerialize(array));
}

inline HvArrayPtr deserialize(HvArrayPtr const& bytes) {
    return HvArrayPtr(
        hvDeserialize(hvGetReadOnlyData(bytes.get()), hvGetNumberOfElements(bytes.get())));
}

} // namespace quorl_testing
