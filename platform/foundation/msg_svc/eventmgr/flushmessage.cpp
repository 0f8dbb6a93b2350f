#include <foundation/msg_svc/serialization/archives.hpp>

#include <foundation/msg_svc/eventmgr/eventmgrfront.hpp>
#include <foundation/msg_svc/eventmgr/flushmessage.hpp>
#include <foundation/msg_svc/exchange/reply.hpp>

#include <boost/serialization/split_member.hpp>

#include <iomanip>

namespace foundation {
namespace msg_svc {
namespace eventmgr {
namespace detail {

FlushMessage::FlushMessage(EmID const& emId) : emId_(emId) {}
FlushMessage::~FlushMessage() = default;

boost::shared_ptr<exchange::Reply const> FlushMessage::deliver(exchange::Routing const&) const {
    flushLocally(emId_);
    return exchange::Reply::defaultReply();
}

std::ostream& FlushMessage::toString(std::ostream& os, int indent) const {
    Message::toString(os, indent);
    return os << std::setw(indent + 2) << ' ' << "EMID: " << emId_.value() << '\n';
}

bool FlushMessage::protectedEquals(exchange::Message const& other) const {
    return Message::protectedEquals(other) &&
           static_cast<FlushMessage const&>(other).emId_ == emId_;
}

template <class Archive> void FlushMessage::serializeExplicit(Archive& ar, unsigned int) {
    ar& boost::serialization::make_nvp("message",
                                       boost::serialization::base_object<exchange::Message>(*this));
    std::uint64_t id = emId_.value();
    ar& boost::serialization::make_nvp("emId", id);
    emId_ = EmID(id);
}
ZN_SERIALIZE_EXPLICIT(FlushMessage)

EventMessage::EventMessage(EmID const& emId, boost::shared_ptr<BaseEvent const> const& event,
                           int mode)
    : emId_(emId), event_(event), mode_(mode) {}
EventMessage::~EventMessage() = default;

boost::shared_ptr<exchange::Reply const> EventMessage::deliver(exchange::Routing const&) const {
    if (event_)
        publishLocally(emId_, event_);
    return exchange::Reply::defaultReply();
}

std::ostream& EventMessage::toString(std::ostream& os, int indent) const {
    Message::toString(os, indent);
    os << std::setw(indent + 2) << ' ' << "EMID: " << emId_.value() << '\n';
    if (event_)
        event_->fillStream(os);
    return os;
}

bool EventMessage::protectedEquals(exchange::Message const& other) const {
    auto const& o = static_cast<EventMessage const&>(other);
    return Message::protectedEquals(other) && o.emId_ == emId_ && o.mode_ == mode_ &&
           (o.event_ == event_ || (o.event_ && event_ && *o.event_ == *event_));
}

template <class Archive> void EventMessage::serializeExplicit(Archive& ar, unsigned int) {
    ar& boost::serialization::make_nvp("message",
                                       boost::serialization::base_object<exchange::Message>(*this));
    std::uint64_t id = emId_.value();
    ar& boost::serialization::make_nvp("emId", id);
    emId_ = EmID(id);
    ar& boost::serialization::make_nvp("mode", mode_);
    if (Archive::is_saving::value) {
        BaseEvent* p = const_cast<BaseEvent*>(event_.get());
        ar& boost::serialization::make_nvp("event", p);
    } else {
        BaseEvent* p = nullptr;
        ar& boost::serialization::make_nvp("event", p);
        event_.reset(p);
    }
}
ZN_SERIALIZE_EXPLICIT(EventMessage)

} // namespace detail
} // namespace eventmgr
} // namespace msg_svc
} // namespace foundation

BOOST_CLASS_EXPORT_IMPLEMENT(foundation::msg_svc::eventmgr::detail::FlushMessage)
BOOST_CLASS_EXPORT_IMPLEMENT(foundation::msg_svc::eventmgr::detail::EventMessage)
