#pragma once
// MatrixRefServiceAPI: the actor that receives the releases of references held by peers. An
// exchange registers one under `serviceName` ("TarnServer"); a ReleaseRefMessage addressed to
// that service is handed to its `serve` on the actor's own thread, in order of arrival.
//
// Ownership: the exchange holds the registered actor through boost::shared_ptr.
// Threads: `serve` runs on the actor's thread of the exchange it is registered with.
// Errors: what `serve` throws is the exchange's to log; a release expects no reply.
#include <foundation/msg_svc/exchange/reply.hpp>

#include <boost/shared_ptr.hpp>

#include <string>

namespace quorl {
namespace matrixref {

class ReleaseRefMessage;

class MatrixRefServiceAPI {
public:
    // "TarnServer": the service part of the address of every release.
    static std::string const serviceName;

    MatrixRefServiceAPI() = default;
    MatrixRefServiceAPI(MatrixRefServiceAPI const&) = default;
    MatrixRefServiceAPI& operator=(MatrixRefServiceAPI const&) = default;
    virtual ~MatrixRefServiceAPI();

    // A peer's last reference to the array of `message.serverTag()` has died.
    virtual boost::shared_ptr<foundation::msg_svc::exchange::Reply const>
    serve(ReleaseRefMessage const& message) = 0;
};

} // namespace matrixref
} // namespace quorl
