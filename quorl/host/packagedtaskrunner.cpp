#include <quorl/host/packagedtaskrunner.hpp>
#include <quorl/host/packetexecution.hpp>

#include <quorl/cmddistributor/packagedtaskcompletedevent.hpp>
#include <quorl/cmddistributor/packagedtaskiip.hpp>

#include <foundation/core/memory/poolallocator.hpp>

#include <boost/make_shared.hpp>
#include <boost/ref.hpp>

#include <stdexcept>

namespace quorl {
namespace host {

using ::cmddistributor::IIPCompletedEvent;
using ::cmddistributor::PackagedTaskCompletedEvent;

boost::shared_ptr<IIPCompletedEvent> PackagedTaskRunner::run(PacketExecution& execution) {
    auto task = boost::dynamic_pointer_cast<::cmddistributor::PackagedTaskIIP>(execution.getIIP());
    if (!task)
        throw std::invalid_argument("not a packaged task.");
    boost::any result = task->getFunction()();
    return foundation::core::memory::makePooledBoostShared<PackagedTaskCompletedEvent>(
        execution.getId(), boost::ref(result));
}

boost::shared_ptr<IIPCompletedEvent>
PackagedTaskRunner::failure(foundation::msg_svc::exchange::IDType const& id,
                            ::cmddistributor::RuntimeException const& error) {
    return boost::make_shared<PackagedTaskCompletedEvent>(id, error);
}

} // namespace host
} // namespace quorl
