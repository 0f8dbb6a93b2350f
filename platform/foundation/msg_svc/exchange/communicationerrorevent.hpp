#pragma once
// CommunicationErrorEvent: published in this process when an exchange fails or cannot be
// reached. It carries the failure and, as a user tag, ExchangeSpecificEventType(name) of the
// exchange, so that a subscriber can listen to one exchange only. Immutable once published;
// it never leaves the process (the exception it holds cannot be serialized).
#include <foundation/msg_svc/eventmgr/baseevent.hpp>

#include <boost/exception_ptr.hpp>

#include <string>

namespace foundation {
namespace msg_svc {
namespace exchange {

class CommunicationErrorEvent : public eventmgr::BaseEvent {
public:
    typedef eventmgr::BaseEvent EventBaseType;
    static ustring eventTypeName() {
        return u"foundation::msg_svc::exchange::CommunicationErrorEvent";
    }

    CommunicationErrorEvent(std::string const& exchangeName, boost::exception_ptr const& cause);
    ~CommunicationErrorEvent() override;

    eventmgr::BaseEvent* clone() const override;
    bool canBeSerialized() const override { return false; }
    std::ostream& fillStream(std::ostream& os) const override;

    boost::exception_ptr const& getException() const { return cause_; }
    std::string const& getExchangeName() const { return exchangeName_; }
    bool fieldsEqual(CommunicationErrorEvent const& o) const {
        return exchangeName_ == o.exchangeName_ && cause_ == o.cause_;
    }

    // The tag naming this event for one exchange.
    static ustring ExchangeSpecificEventType(std::string const& exchangeName);

private:
    std::string exchangeName_;
    boost::exception_ptr cause_;
};

} // namespace exchange
} // namespace msg_svc
} // namespace foundation
