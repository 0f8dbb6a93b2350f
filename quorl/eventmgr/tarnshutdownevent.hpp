#pragma once
// TARNShutdownEvent: a virtual-machine context is shutting down now. May cross exchanges.
// Immutable once published.
#include <foundation/msg_svc/eventmgr/shutdownevent.hpp>

namespace quorl {
namespace eventmgr {

class TARNShutdownEvent : public foundation::msg_svc::eventmgr::ShutdownEvent {
public:
    typedef foundation::msg_svc::eventmgr::ShutdownEvent EventBaseType;
    static ustring eventTypeName() { return u"quorl::eventmgr::TARNShutdownEvent"; }

    TARNShutdownEvent();
    ~TARNShutdownEvent() override;
    foundation::msg_svc::eventmgr::BaseEvent* clone() const override;
    std::ostream& fillStream(std::ostream& os) const override;

protected:
    TARNShutdownEvent(TARNShutdownEvent const&) = default;

private:
    ZN_SERIALIZABLE()
};

} // namespace eventmgr
} // namespace quorl

ZN_SERIALIZATION_TRAITS(quorl::eventmgr::TARNShutdownEvent, 1)
BOOST_CLASS_EXPORT_KEY2(quorl::eventmgr::TARNShutdownEvent, "quorl::eventmgr::TARNShutdownEvent")
