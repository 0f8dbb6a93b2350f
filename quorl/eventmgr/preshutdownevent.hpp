#pragma once
// PreShutdownEvent: shutdown of a virtual-machine context is coming. Stays in the process: it
// cannot be serialized and carries no user tags. Immutable once published.
#include <foundation/msg_svc/eventmgr/baseevent.hpp>

namespace quorl {
namespace tarnshutdown {

class PreShutdownEvent : public foundation::msg_svc::eventmgr::BaseEvent,
                         public foundation::msg_svc::eventmgr::NoUserEventTags {
public:
    typedef foundation::msg_svc::eventmgr::BaseEvent EventBaseType;
    static ustring eventTypeName() { return u"quorl::tarnshutdown::PreShutdownEvent"; }

    PreShutdownEvent();
    ~PreShutdownEvent() override;
    foundation::msg_svc::eventmgr::BaseEvent* clone() const override;
    bool canBeSerialized() const override { return false; }
    std::ostream& fillStream(std::ostream& os) const override;

protected:
    PreShutdownEvent(PreShutdownEvent const&) = default;
};

} // namespace tarnshutdown
} // namespace quorl
