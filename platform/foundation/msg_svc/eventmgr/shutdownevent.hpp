#pragma once
// ShutdownEvent: base of the events that announce the end of a context. Abstract: publishers use
// a concrete subclass. Immutable once published.
#include <foundation/msg_svc/eventmgr/baseevent.hpp>

namespace foundation {
namespace msg_svc {
namespace eventmgr {

class ShutdownEvent : public BaseEvent {
public:
    typedef BaseEvent EventBaseType;
    static ustring eventTypeName() { return u"foundation::msg_svc::eventmgr::ShutdownEvent"; }
    ~ShutdownEvent() override;

protected:
    explicit ShutdownEvent(boost::shared_ptr<TypeInformation> const& typeInfo);
    ShutdownEvent(ShutdownEvent const&) = default;

private:
    ZN_SERIALIZABLE()
};

} // namespace eventmgr
} // namespace msg_svc
} // namespace foundation

ZN_SERIALIZATION_TRAITS(foundation::msg_svc::eventmgr::ShutdownEvent, 1)
BOOST_SERIALIZATION_ASSUME_ABSTRACT(foundation::msg_svc::eventmgr::ShutdownEvent)
BOOST_CLASS_EXPORT_KEY2(foundation::msg_svc::eventmgr::ShutdownEvent,
                        "foundation::msg_svc::eventmgr::ShutdownEvent")
