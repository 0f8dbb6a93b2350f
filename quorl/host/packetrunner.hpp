#pragma once
// PacketRunner: runs the packets of one plug-in type (IIP::getPluginType()) on an interpreter
// thread. The host keeps one runner per plug-in type (Host::registerRunner); evaluation of code
// and function calls plug in here.
//
// run() is called on the interpreter thread, inside the packet's context, with the fenn mutex
// held; it returns the completion event of a packet that ended normally. What it throws becomes a
// failed completion made by failure(): PacketInterrupted gives status 4, a RuntimeException is
// passed on whole, any other exception gives status 2 with its what() as message. Runners are
// shared by all interpreters and must not keep per-packet state in themselves.
#include <quorl/cmddistributor/iipcompletedevent.hpp>
#include <quorl/cmddistributor/runtimeexception.hpp>

#include <boost/shared_ptr.hpp>

namespace quorl {
namespace host {

class PacketExecution;

class PacketRunner {
public:
    virtual ~PacketRunner() = default;

    virtual boost::shared_ptr<::cmddistributor::IIPCompletedEvent>
    run(PacketExecution& execution) = 0;

    // The completion of a packet of this type that failed with `error`.
    virtual boost::shared_ptr<::cmddistributor::IIPCompletedEvent>
    failure(foundation::msg_svc::exchange::IDType const& id,
            ::cmddistributor::RuntimeException const& error) {
        return boost::shared_ptr<::cmddistributor::IIPCompletedEvent>(
            new ::cmddistributor::IIPCompletedEvent(id, error));
    }
};

} // namespace host
} // namespace quorl
