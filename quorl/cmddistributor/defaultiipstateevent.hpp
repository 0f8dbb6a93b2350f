#pragma once
// DefaultIIPStateEvent<TypeName>: the state event types, one per transition, told apart by the
// function that gives the type name. Subscribe to IIPStateEvent for all of them, or to one type
// (or its name as a tag) for one transition. Immutable once published.
#include <quorl/cmddistributor/iipstateevent.hpp>

namespace cmddistributor {

namespace IIPStateEventTypes {
// Each returns its ASCII name as ustring, converted at each call.
ustring getStartedEventType();
ustring getSuspendedEventType();
ustring getResumedEventType();
ustring getDiscardedEventType();
ustring getRequeuedEventType();
ustring getReactivatedEventType();
ustring getCompletedEventType();
} // namespace IIPStateEventTypes

template <ustring (*TypeName)()> class DefaultIIPStateEvent : public IIPStateEvent {
public:
    typedef IIPStateEvent EventBaseType;
    static ustring eventTypeName() { return TypeName(); }

    explicit DefaultIIPStateEvent(foundation::msg_svc::exchange::IDType const& id);
    ~DefaultIIPStateEvent() override;
    foundation::msg_svc::eventmgr::BaseEvent* clone() const override;
    std::ostream& fillStream(std::ostream& os) const override;

protected:
    DefaultIIPStateEvent();
    DefaultIIPStateEvent(DefaultIIPStateEvent const&) = default;
    DefaultIIPStateEvent(
        boost::shared_ptr<foundation::msg_svc::eventmgr::TypeInformation> const& info,
        foundation::msg_svc::exchange::IDType const& id);

private:
    ZN_SERIALIZABLE()
};

typedef DefaultIIPStateEvent<&IIPStateEventTypes::getStartedEventType> IIPStartedEvent;
typedef DefaultIIPStateEvent<&IIPStateEventTypes::getSuspendedEventType> IIPSuspendedEvent;
typedef DefaultIIPStateEvent<&IIPStateEventTypes::getResumedEventType> IIPResumedEvent;
typedef DefaultIIPStateEvent<&IIPStateEventTypes::getDiscardedEventType> IIPDiscardedEvent;
typedef DefaultIIPStateEvent<&IIPStateEventTypes::getRequeuedEventType> IIPRequeuedEvent;
typedef DefaultIIPStateEvent<&IIPStateEventTypes::getReactivatedEventType> IIPReactivatedEvent;
typedef DefaultIIPStateEvent<&IIPStateEventTypes::getCompletedEventType> BaseCompletedEventType;

extern template class DefaultIIPStateEvent<&IIPStateEventTypes::getStartedEventType>;
extern template class DefaultIIPStateEvent<&IIPStateEventTypes::getSuspendedEventType>;
extern template class DefaultIIPStateEvent<&IIPStateEventTypes::getResumedEventType>;
extern template class DefaultIIPStateEvent<&IIPStateEventTypes::getDiscardedEventType>;
extern template class DefaultIIPStateEvent<&IIPStateEventTypes::getRequeuedEventType>;
extern template class DefaultIIPStateEvent<&IIPStateEventTypes::getReactivatedEventType>;
extern template class DefaultIIPStateEvent<&IIPStateEventTypes::getCompletedEventType>;

} // namespace cmddistributor

#define QUORL_STATE_EVENT_TRAITS(Type, Key)                                                        \
    ZN_SERIALIZATION_TRAITS(cmddistributor::Type, 1)                                               \
    BOOST_CLASS_EXPORT_KEY2(cmddistributor::Type, Key)

QUORL_STATE_EVENT_TRAITS(IIPStartedEvent, "cmddistributor::IIPStartedEvent")
QUORL_STATE_EVENT_TRAITS(IIPSuspendedEvent, "cmddistributor::IIPSuspendedEvent")
QUORL_STATE_EVENT_TRAITS(IIPResumedEvent, "cmddistributor::IIPResumedEvent")
QUORL_STATE_EVENT_TRAITS(IIPDiscardedEvent, "cmddistributor::IIPDiscardedEvent")
QUORL_STATE_EVENT_TRAITS(IIPRequeuedEvent, "cmddistributor::IIPRequeuedEvent")
QUORL_STATE_EVENT_TRAITS(IIPReactivatedEvent, "cmddistributor::IIPReactivatedEvent")
QUORL_STATE_EVENT_TRAITS(BaseCompletedEventType, "cmddistributor::BaseCompletedEventType")
#undef QUORL_STATE_EVENT_TRAITS
