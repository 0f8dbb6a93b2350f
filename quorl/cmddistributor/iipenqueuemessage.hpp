#pragma once
// IIPEnqueueMessage: hands a packet to the interpreter side. Its `deliver` (on the delivery
// thread) passes everything to the enqueue handler the host installed with setDeliverFuncPtr.
// With no handler installed the packet has nowhere to go: a discarded state event is published
// for it (to whoever watches) and the default reply returned, so the client sees a discard and
// not a hang; the first such discard in the process logs a warning on the channel
// "cmddistributor::IIPEnqueueMessage". Immutable once submitted.
#include <quorl/cmddistributor/iip.hpp>
#include <quorl/cmddistributor/whentodequeue.hpp>
#include <quorl/contextmgr/fennid.hpp>
#include <quorl/contextmgr/tarnid.hpp>

#include <foundation/msg_svc/eventmgr/eventmgr.hpp>
#include <foundation/msg_svc/exchange/idtype.hpp>
#include <foundation/msg_svc/exchange/message.hpp>

#include <boost/optional.hpp>

namespace cmddistributor {

typedef boost::shared_ptr<foundation::msg_svc::exchange::Reply const> (*DeliverFuncPtr)(
    foundation::msg_svc::exchange::Routing const& routing, boost::shared_ptr<IIP> iip,
    foundation::msg_svc::exchange::IDType const& iipId, quorl::contextmgr::FennID const& fennId,
    boost::optional<quorl::contextmgr::TarnID> const& tarnId,
    boost::shared_ptr<foundation::msg_svc::eventmgr::EventMgr> eventMgr,
    quorl::cmddistributor::WhenToDequeue::WhenToDequeue dequeueMode, bool hasFuture);

// Installs the host's enqueue handler; the first caller wins, later calls are ignored.
void setDeliverFuncPtr(DeliverFuncPtr handler);

class IIPEnqueueMessage : public foundation::msg_svc::exchange::Message {
public:
    IIPEnqueueMessage(boost::shared_ptr<IIP const> const& iip,
                      foundation::msg_svc::exchange::IDType const& iipId,
                      quorl::contextmgr::FennID const& fennId,
                      boost::optional<quorl::contextmgr::TarnID> const& tarnId,
                      boost::shared_ptr<foundation::msg_svc::eventmgr::EventMgr> const& eventMgr,
                      quorl::cmddistributor::WhenToDequeue::WhenToDequeue dequeueMode,
                      bool hasFuture);
    IIPEnqueueMessage(IIPEnqueueMessage const&) = default;
    IIPEnqueueMessage(IIPEnqueueMessage&&) = default;
    ~IIPEnqueueMessage() override;

    boost::shared_ptr<foundation::msg_svc::exchange::Reply const>
    deliver(foundation::msg_svc::exchange::Routing const& routing) const override;
    // The client waits on the packet's events, which follow; the answer only reports a failure.
    bool answerMayWait() const override { return true; }
    std::ostream& toString(std::ostream& os, int indent) const override;

    boost::shared_ptr<IIP const> const& getIIP() const { return iip_; }
    foundation::msg_svc::exchange::IDType const& getIIPId() const { return iipId_; }
    quorl::contextmgr::FennID const& getFennId() const { return fennId_; }
    boost::optional<quorl::contextmgr::TarnID> const& getTarnId() const { return tarnId_; }
    quorl::cmddistributor::WhenToDequeue::WhenToDequeue getDequeueMode() const {
        return dequeueMode_;
    }
    bool getHasFuture() const { return hasFuture_; }

protected:
    bool protectedEquals(foundation::msg_svc::exchange::Message const& other) const override;

private:
    IIPEnqueueMessage();
    bool privateEquals(IIPEnqueueMessage const& other) const;
    ZN_SERIALIZABLE()
    boost::shared_ptr<IIP const> iip_;
    foundation::msg_svc::exchange::IDType iipId_;
    quorl::contextmgr::FennID fennId_;
    boost::optional<quorl::contextmgr::TarnID> tarnId_;
    boost::shared_ptr<foundation::msg_svc::eventmgr::EventMgr> eventMgr_;
    quorl::cmddistributor::WhenToDequeue::WhenToDequeue dequeueMode_;
    bool hasFuture_;
};

} // namespace cmddistributor

ZN_SERIALIZATION_TRAITS(cmddistributor::IIPEnqueueMessage, 5)
BOOST_CLASS_EXPORT_KEY2(cmddistributor::IIPEnqueueMessage, "cmddistributor::IIPEnqueueMessage")
