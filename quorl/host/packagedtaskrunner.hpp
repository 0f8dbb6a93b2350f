#pragma once
// PackagedTaskRunner: the runner of "packaged_task" packets. It calls the packet's function and
// completes with a PackagedTaskCompletedEvent that holds the function's result; a function that
// throws completes with the event's RuntimeException form. Stateless; any interpreter thread.
// A packet of another type gives std::invalid_argument.
#include <quorl/host/packetrunner.hpp>

namespace quorl {
namespace host {

class PackagedTaskRunner : public PacketRunner {
public:
    boost::shared_ptr<::cmddistributor::IIPCompletedEvent> run(PacketExecution& execution) override;
    boost::shared_ptr<::cmddistributor::IIPCompletedEvent>
    failure(foundation::msg_svc::exchange::IDType const& id,
            ::cmddistributor::RuntimeException const& error) override;
};

} // namespace host
} // namespace quorl
