#pragma once
// IIPCancelMessage: asks the interpreter side to cancel a packet. Its `deliver` (on a delivery
// thread of the interpreter's exchange) calls the cancel handler the host installed with
// setCancelFuncPtr, or answers IIPCancelReply(0) when none is installed. An exception from the
// handler fails the sender's future. Immutable once submitted.
#include <foundation/msg_svc/exchange/idtype.hpp>
#include <foundation/msg_svc/exchange/message.hpp>

namespace cmddistributor {

typedef boost::shared_ptr<foundation::msg_svc::exchange::Reply const> (*CancelFuncPtr)(
    foundation::msg_svc::exchange::IDType const& id, bool interrupt);

// Installs the host's cancel handler. The first caller wins (atomic compare-and-exchange from
// null); later calls are ignored.
void setCancelFuncPtr(CancelFuncPtr handler);

class IIPCancelMessage : public foundation::msg_svc::exchange::Message {
public:
    IIPCancelMessage(foundation::msg_svc::exchange::IDType const& id, bool interrupt);
    IIPCancelMessage(IIPCancelMessage const&) = default;
    IIPCancelMessage(IIPCancelMessage&&) = default;
    ~IIPCancelMessage() override;

    boost::shared_ptr<foundation::msg_svc::exchange::Reply const>
    deliver(foundation::msg_svc::exchange::Routing const& routing) const override;
    std::ostream& toString(std::ostream& os, int indent) const override;

    foundation::msg_svc::exchange::IDType const& getId() const { return id_; }
    bool getInterrupt() const { return interrupt_; }

protected:
    bool protectedEquals(foundation::msg_svc::exchange::Message const& other) const override;

private:
    IIPCancelMessage() : id_(0, 0), interrupt_(false) {}
    ZN_SERIALIZABLE()
    foundation::msg_svc::exchange::IDType id_;
    bool interrupt_;
};

} // namespace cmddistributor

ZN_SERIALIZATION_TRAITS(cmddistributor::IIPCancelMessage, 1)
BOOST_CLASS_EXPORT_KEY2(cmddistributor::IIPCancelMessage, "cmddistributor::IIPCancelMessage")
