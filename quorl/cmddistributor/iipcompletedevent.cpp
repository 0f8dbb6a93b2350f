#include <foundation/msg_svc/serialization/archives.hpp>

#include <quorl/cmddistributor/iipcompletedevent.hpp>

#include <boost/serialization/base_object.hpp>
#include <foundation/msg_svc/serialization/optional.hpp>

namespace cmddistributor {

using foundation::msg_svc::eventmgr::BaseEvent;
using foundation::msg_svc::eventmgr::TypeInformation;
using foundation::msg_svc::eventmgr::typeInformationOf;
using foundation::msg_svc::exchange::IDType;
using quorl::cmddistributor::inExecutionStatus;

namespace {
boost::optional<RuntimeException> fromStatus(inExecutionStatus status) {
    if (status == 0)
        return boost::none;
    return RuntimeException(status, ustring(), std::string(), std::string(), {}, {});
}
} // namespace

IIPCompletedEvent::IIPCompletedEvent(IDType const& id, inExecutionStatus status)
    : BaseCompletedEventType(typeInformationOf<IIPCompletedEvent>(), id),
      exception_(fromStatus(status)) {}

IIPCompletedEvent::IIPCompletedEvent(IDType const& id, RuntimeException const& exception)
    : BaseCompletedEventType(typeInformationOf<IIPCompletedEvent>(), id), exception_(exception) {}

IIPCompletedEvent::IIPCompletedEvent(IDType const& id,
                                     boost::optional<RuntimeException> const& exception)
    : BaseCompletedEventType(typeInformationOf<IIPCompletedEvent>(), id), exception_(exception) {}

IIPCompletedEvent::IIPCompletedEvent()
    : BaseCompletedEventType(typeInformationOf<IIPCompletedEvent>(), IDType(0, 0)) {}

IIPCompletedEvent::IIPCompletedEvent(boost::shared_ptr<TypeInformation> const& info)
    : BaseCompletedEventType(info, IDType(0, 0)) {}

IIPCompletedEvent::IIPCompletedEvent(boost::shared_ptr<TypeInformation> const& info,
                                     IDType const& id,
                                     boost::optional<RuntimeException> const& exception)
    : BaseCompletedEventType(info, id), exception_(exception) {}

IIPCompletedEvent::IIPCompletedEvent(boost::shared_ptr<TypeInformation> const& info,
                                     IDType const& id, inExecutionStatus status)
    : BaseCompletedEventType(info, id), exception_(fromStatus(status)) {}

IIPCompletedEvent::~IIPCompletedEvent() = default;

BaseEvent* IIPCompletedEvent::clone() const {
    return new IIPCompletedEvent(*this);
}

std::ostream& IIPCompletedEvent::fillStream(std::ostream& os) const {
    BaseCompletedEventType::fillStream(os);
    return os << "EXECUTION_STATUS " << static_cast<int>(getExecutionStatus()) << '\n';
}

inExecutionStatus IIPCompletedEvent::getExecutionStatus() const {
    return exception_ ? exception_->getExecutionStatus() : quorl::cmddistributor::ExecutionSuccess;
}

bool IIPCompletedEvent::fieldsEqual(IIPCompletedEvent const& o) const {
    if (!IIPStateEvent::fieldsEqual(o) || bool(exception_) != bool(o.exception_))
        return false;
    return !exception_ || *exception_ == *o.exception_;
}

template <class Archive>
void IIPCompletedEvent::serializeExplicit(Archive& ar, unsigned int version) {
    ar& boost::serialization::make_nvp(
        "IIPEvent", boost::serialization::base_object<BaseCompletedEventType>(*this));
    if (version == 2) {
        ar& boost::serialization::make_nvp("exception", exception_);
    } else if (version == 1) {
        int status = static_cast<int>(getExecutionStatus());
        ar& boost::serialization::make_nvp("status", status);
        if (Archive::is_loading::value && status != 0)
            exception_ = fromStatus(static_cast<inExecutionStatus>(status));
    }
}
ZN_SERIALIZE_EXPLICIT(IIPCompletedEvent)

} // namespace cmddistributor

BOOST_CLASS_EXPORT_IMPLEMENT(cmddistributor::IIPCompletedEvent)
