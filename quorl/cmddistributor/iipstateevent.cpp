#include <foundation/msg_svc/serialization/archives.hpp>

#include <quorl/cmddistributor/defaultiipstateevent.hpp>

#include <fl/i18n/conversions.hpp>

#include <boost/serialization/base_object.hpp>

namespace cmddistributor {

using foundation::msg_svc::eventmgr::BaseEvent;
using foundation::msg_svc::eventmgr::TypeInformation;
using foundation::msg_svc::eventmgr::typeInformationOf;
using foundation::msg_svc::exchange::IDType;

IIPStateEvent::IIPStateEvent(boost::shared_ptr<TypeInformation> const& info, IDType const& id)
    : BaseEvent(info), iipId_(id), iipWasSerialized_(false) {}

IIPStateEvent::~IIPStateEvent() = default;

bool IIPStateEvent::canBeSerialized() const {
    return iipWasSerialized_ || iipId_ == IDType(0, 0);
}

std::ostream& IIPStateEvent::fillStream(std::ostream& os) const {
    BaseEvent::fillStream(os);
    return os << "IIP_ID " << iipId_.toString() << '\n';
}

template <class Archive> void IIPStateEvent::serializeExplicit(Archive& ar, unsigned int version) {
    ar& boost::serialization::make_nvp("BaseEvent",
                                       boost::serialization::base_object<BaseEvent>(*this));
    if (version != 0)
        ar& boost::serialization::make_nvp("IIP", iipId_);
    if (Archive::is_loading::value)
        iipWasSerialized_ = true;
}
ZN_SERIALIZE_EXPLICIT(IIPStateEvent)

namespace IIPStateEventTypes {
namespace {
ustring ascii(char const* name) {
    return fl::i18n::converter(fl::i18n::codecvt_ascii_to_ustring(), std::string(name));
}
} // namespace
ustring getStartedEventType() {
    return ascii("iipStarted");
}
ustring getSuspendedEventType() {
    return ascii("iipSuspended");
}
ustring getResumedEventType() {
    return ascii("iipResumed");
}
ustring getDiscardedEventType() {
    return ascii("iipDiscarded");
}
ustring getRequeuedEventType() {
    return ascii("iipRequeued");
}
ustring getReactivatedEventType() {
    return ascii("iipReactivated");
}
ustring getCompletedEventType() {
    return ascii("iipCompleted");
}
} // namespace IIPStateEventTypes

template <ustring (*N)()>
DefaultIIPStateEvent<N>::DefaultIIPStateEvent(IDType const& id)
    : IIPStateEvent(typeInformationOf<DefaultIIPStateEvent>(), id) {}

template <ustring (*N)()>
DefaultIIPStateEvent<N>::DefaultIIPStateEvent()
    : IIPStateEvent(typeInformationOf<DefaultIIPStateEvent>(), IDType(0, 0)) {}

template <ustring (*N)()>
DefaultIIPStateEvent<N>::DefaultIIPStateEvent(boost::shared_ptr<TypeInformation> const& info,
                                              IDType const& id)
    : IIPStateEvent(info, id) {}

template <ustring (*N)()> DefaultIIPStateEvent<N>::~DefaultIIPStateEvent() = default;

template <ustring (*N)()> BaseEvent* DefaultIIPStateEvent<N>::clone() const {
    return new DefaultIIPStateEvent(*this);
}

template <ustring (*N)()>
std::ostream& DefaultIIPStateEvent<N>::fillStream(std::ostream& os) const {
    return IIPStateEvent::fillStream(os);
}

template <ustring (*N)()>
template <class Archive>
void DefaultIIPStateEvent<N>::serializeExplicit(Archive& ar, unsigned int) {
    ar& boost::serialization::make_nvp("IIPEvent",
                                       boost::serialization::base_object<IIPStateEvent>(*this));
}

#define QUORL_STATE_EVENT(Type)                                                                    \
    template class DefaultIIPStateEvent<&IIPStateEventTypes::get##Type>;                           \
    ZN_SERIALIZE_EXPLICIT(DefaultIIPStateEvent<&IIPStateEventTypes::get##Type>)

QUORL_STATE_EVENT(StartedEventType)
QUORL_STATE_EVENT(SuspendedEventType)
QUORL_STATE_EVENT(ResumedEventType)
QUORL_STATE_EVENT(DiscardedEventType)
QUORL_STATE_EVENT(RequeuedEventType)
QUORL_STATE_EVENT(ReactivatedEventType)
QUORL_STATE_EVENT(CompletedEventType)
#undef QUORL_STATE_EVENT

} // namespace cmddistributor

BOOST_CLASS_EXPORT_IMPLEMENT(cmddistributor::IIPStateEvent)
BOOST_CLASS_EXPORT_IMPLEMENT(cmddistributor::IIPStartedEvent)
BOOST_CLASS_EXPORT_IMPLEMENT(cmddistributor::IIPSuspendedEvent)
BOOST_CLASS_EXPORT_IMPLEMENT(cmddistributor::IIPResumedEvent)
BOOST_CLASS_EXPORT_IMPLEMENT(cmddistributor::IIPDiscardedEvent)
BOOST_CLASS_EXPORT_IMPLEMENT(cmddistributor::IIPRequeuedEvent)
BOOST_CLASS_EXPORT_IMPLEMENT(cmddistributor::IIPReactivatedEvent)
BOOST_CLASS_EXPORT_IMPLEMENT(cmddistributor::BaseCompletedEventType)
