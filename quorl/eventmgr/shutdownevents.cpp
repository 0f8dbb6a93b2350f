#include <foundation/msg_svc/serialization/archives.hpp>

#include <quorl/eventmgr/preshutdownevent.hpp>
#include <quorl/eventmgr/tarnshutdownevent.hpp>

#include <boost/serialization/base_object.hpp>

namespace quorl {
namespace eventmgr {

using foundation::msg_svc::eventmgr::BaseEvent;
using foundation::msg_svc::eventmgr::ShutdownEvent;
using foundation::msg_svc::eventmgr::typeInformationOf;

TARNShutdownEvent::TARNShutdownEvent() : ShutdownEvent(typeInformationOf<TARNShutdownEvent>()) {}
TARNShutdownEvent::~TARNShutdownEvent() = default;

BaseEvent* TARNShutdownEvent::clone() const {
    return new TARNShutdownEvent(*this);
}

std::ostream& TARNShutdownEvent::fillStream(std::ostream& os) const {
    return BaseEvent::fillStream(os);
}

template <class Archive> void TARNShutdownEvent::serializeExplicit(Archive& ar, unsigned int) {
    ar& boost::serialization::make_nvp("ShutdownEvent",
                                       boost::serialization::base_object<ShutdownEvent>(*this));
}
ZN_SERIALIZE_EXPLICIT(TARNShutdownEvent)

} // namespace eventmgr

namespace tarnshutdown {

using foundation::msg_svc::eventmgr::BaseEvent;

PreShutdownEvent::PreShutdownEvent()
    : BaseEvent(foundation::msg_svc::eventmgr::typeInformationOf<PreShutdownEvent>()) {}
PreShutdownEvent::~PreShutdownEvent() = default;

BaseEvent* PreShutdownEvent::clone() const {
    return new PreShutdownEvent(*this);
}

std::ostream& PreShutdownEvent::fillStream(std::ostream& os) const {
    return BaseEvent::fillStream(os);
}

} // namespace tarnshutdown
} // namespace quorl

BOOST_CLASS_EXPORT_IMPLEMENT(quorl::eventmgr::TARNShutdownEvent)
