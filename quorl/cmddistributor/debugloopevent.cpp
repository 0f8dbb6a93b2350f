#include <foundation/msg_svc/serialization/archives.hpp>

#include <quorl/cmddistributor/debugloopevent.hpp>

#include <boost/serialization/base_object.hpp>

namespace cmddistributor {

using foundation::msg_svc::eventmgr::BaseEvent;
using foundation::msg_svc::eventmgr::typeInformationOf;

DebugLoopEvent::DebugLoopEvent(State state, quorl::prompt::InputRequester loop)
    : BaseEvent(typeInformationOf<DebugLoopEvent>()), state_(state), loop_(loop) {}

DebugLoopEvent::DebugLoopEvent()
    : BaseEvent(typeInformationOf<DebugLoopEvent>()), state_(Entered),
      loop_(quorl::prompt::CommandPrompt) {}

DebugLoopEvent::DebugLoopEvent(
    boost::shared_ptr<foundation::msg_svc::eventmgr::TypeInformation> const& info, State state,
    quorl::prompt::InputRequester loop)
    : BaseEvent(info), state_(state), loop_(loop) {}

DebugLoopEvent::~DebugLoopEvent() = default;

BaseEvent* DebugLoopEvent::clone() const {
    return new DebugLoopEvent(*this);
}

std::ostream& DebugLoopEvent::fillStream(std::ostream& os) const {
    BaseEvent::fillStream(os);
    return os << "state " << static_cast<int>(state_) << "\n"
              << "loop " << static_cast<int>(loop_) << '\n';
}

template <class Archive> void DebugLoopEvent::serializeExplicit(Archive& ar, unsigned int) {
    ar& boost::serialization::make_nvp("DebugLoopEvent",
                                       boost::serialization::base_object<BaseEvent>(*this));
    ar& boost::serialization::make_nvp("DebugLoopEvent_RequestIdAdapter",
                                       boost::serialization::base_object<RequestIdAdapter>(*this));
    int state = state_;
    int loop = loop_;
    ar& boost::serialization::make_nvp("state", state);
    ar& boost::serialization::make_nvp("loop", loop);
    state_ = static_cast<State>(state);
    loop_ = static_cast<quorl::prompt::InputRequester>(loop);
}
ZN_SERIALIZE_EXPLICIT(DebugLoopEvent)

} // namespace cmddistributor

BOOST_CLASS_EXPORT_IMPLEMENT(cmddistributor::DebugLoopEvent)
