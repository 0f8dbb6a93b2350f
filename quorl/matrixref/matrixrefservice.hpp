#pragma once
// MatrixRefService: the release service of this process's reference table. Each
// ReleaseRefMessage it serves takes one count off the named local entry of the table made by
// refInitMatrixReferences (refReleaseServiceTag); late, repeated and unknown releases do
// nothing. A host registers it on each exchange that peers send releases to.
//
// Ownership: the exchange holds the registered service. Threads: `serve` runs on the actor
// thread of its exchange. Errors: registerWith throws what ExchangeApi::registerActor throws
// (std::invalid_argument when "TarnServer" is already taken on that exchange).
#include <quorl/matrixref/matrixrefserviceapi.hpp>

#include <foundation/msg_svc/exchange/exchangeapi.hpp>

namespace quorl {
namespace matrixref {

class MatrixRefService : public MatrixRefServiceAPI {
public:
    boost::shared_ptr<foundation::msg_svc::exchange::Reply const>
    serve(ReleaseRefMessage const& message) override;

    // Registers a service under MatrixRefServiceAPI::serviceName on `exchange`.
    static void registerWith(foundation::msg_svc::exchange::ExchangeApi& exchange);
};

} // namespace matrixref
} // namespace quorl
