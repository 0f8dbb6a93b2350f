#pragma once
// detail::FlushMessage: sent by a remote event manager's flush. Delivered at the far exchange,
// it waits until every event published there to its identity before it arrived has reached its
// subscribers, then answers the default reply.
#include <foundation/msg_svc/eventmgr/baseevent.hpp>
#include <foundation/msg_svc/eventmgr/emid.hpp>
#include <foundation/msg_svc/exchange/message.hpp>

namespace foundation {
namespace msg_svc {
namespace eventmgr {
namespace detail {

class FlushMessage : public exchange::Message {
public:
    explicit FlushMessage(EmID const& emId);
    ~FlushMessage() override;

    boost::shared_ptr<exchange::Reply const>
    deliver(exchange::Routing const& routing) const override;
    std::ostream& toString(std::ostream& os, int indent) const override;
    EmID const& getEmId() const { return emId_; }

protected:
    FlushMessage() = default;
    bool protectedEquals(exchange::Message const& other) const override;

private:
    ZN_SERIALIZABLE()
    EmID emId_;
};

// Carries a published event to the exchange of a remote event manager.
class EventMessage : public exchange::Message {
public:
    EventMessage(EmID const& emId, boost::shared_ptr<BaseEvent const> const& event, int mode);
    ~EventMessage() override;

    boost::shared_ptr<exchange::Reply const>
    deliver(exchange::Routing const& routing) const override;
    std::ostream& toString(std::ostream& os, int indent) const override;
    boost::shared_ptr<BaseEvent const> const& getEvent() const { return event_; }

protected:
    EventMessage() = default;
    bool protectedEquals(exchange::Message const& other) const override;

private:
    ZN_SERIALIZABLE()
    EmID emId_;
    boost::shared_ptr<BaseEvent const> event_;
    int mode_ = 0;
};

} // namespace detail
} // namespace eventmgr
} // namespace msg_svc
} // namespace foundation

ZN_SERIALIZATION_TRAITS(foundation::msg_svc::eventmgr::detail::FlushMessage, 1)
BOOST_CLASS_EXPORT_KEY2(foundation::msg_svc::eventmgr::detail::FlushMessage,
                        "foundation::msg_svc::eventmgr::detail::FlushMessage")
ZN_SERIALIZATION_TRAITS(foundation::msg_svc::eventmgr::detail::EventMessage, 1)
BOOST_CLASS_EXPORT_KEY2(foundation::msg_svc::eventmgr::detail::EventMessage,
                        "foundation::msg_svc::eventmgr::detail::EventMessage")
