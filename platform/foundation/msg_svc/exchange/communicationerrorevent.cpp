#include <foundation/msg_svc/exchange/communicationerrorevent.hpp>

#include <fl/i18n/conversions.hpp>

namespace foundation {
namespace msg_svc {
namespace exchange {

CommunicationErrorEvent::CommunicationErrorEvent(std::string const& exchangeName,
                                                 boost::exception_ptr const& cause)
    : eventmgr::BaseEvent(eventmgr::typeInformationOf<CommunicationErrorEvent>()),
      exchangeName_(exchangeName), cause_(cause) {
    addTag(ExchangeSpecificEventType(exchangeName));
}

CommunicationErrorEvent::~CommunicationErrorEvent() = default;

eventmgr::BaseEvent* CommunicationErrorEvent::clone() const {
    return new CommunicationErrorEvent(*this);
}

std::ostream& CommunicationErrorEvent::fillStream(std::ostream& os) const {
    BaseEvent::fillStream(os);
    os << "EXCHANGE " << exchangeName_ << '\n';
    try {
        if (cause_)
            boost::rethrow_exception(cause_);
    } catch (std::exception const& e) {
        os << "CAUSE " << e.what() << '\n';
    } catch (...) {
        os << "CAUSE unknown\n";
    }
    return os;
}

ustring CommunicationErrorEvent::ExchangeSpecificEventType(std::string const& exchangeName) {
    return u"foundation::msg_svc::exchange::CommunicationErrorEvent@" +
           fl::i18n::to_ustring(exchangeName);
}

} // namespace exchange
} // namespace msg_svc
} // namespace foundation
