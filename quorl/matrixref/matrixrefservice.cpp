#include <quorl/matrixref/matrixrefservice.hpp>

#include <quorl/matrixref/matrixref.hpp>
#include <quorl/matrixref/releaserefmessage.hpp>

#include <boost/make_shared.hpp>

namespace quorl {
namespace matrixref {

boost::shared_ptr<foundation::msg_svc::exchange::Reply const>
MatrixRefService::serve(ReleaseRefMessage const& message) {
    detail::refReleaseServiceTag(message.serverTag());
    return boost::shared_ptr<foundation::msg_svc::exchange::Reply const>();
}

void MatrixRefService::registerWith(foundation::msg_svc::exchange::ExchangeApi& exchange) {
    foundation::msg_svc::exchange::registerActor<MatrixRefServiceAPI>(
        exchange, serviceName, boost::make_shared<MatrixRefService>());
}

} // namespace matrixref
} // namespace quorl
