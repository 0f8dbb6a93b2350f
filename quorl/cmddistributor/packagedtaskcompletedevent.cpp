#include <foundation/msg_svc/serialization/archives.hpp>

#include <quorl/cmddistributor/packagedtaskcompletedevent.hpp>

#include <foundation/core/diag/terminate.hpp>

#include <boost/serialization/base_object.hpp>
#include <boost/serialization/string.hpp>

#include <stdexcept>

namespace cmddistributor {

using foundation::core::diag::detail::demangle_typeid_name;
using foundation::msg_svc::eventmgr::BaseEvent;
using foundation::msg_svc::eventmgr::typeInformationOf;
using foundation::msg_svc::exchange::IDType;

PackagedTaskCompletedEvent::PackagedTaskCompletedEvent()
    : IIPCompletedEvent(typeInformationOf<PackagedTaskCompletedEvent>(), IDType(0, 0),
                        boost::optional<RuntimeException>()) {}

PackagedTaskCompletedEvent::PackagedTaskCompletedEvent(
    IDType const& id, boost::optional<RuntimeException> const& exception)
    : IIPCompletedEvent(typeInformationOf<PackagedTaskCompletedEvent>(), id, exception) {}

PackagedTaskCompletedEvent::PackagedTaskCompletedEvent(IDType const& id,
                                                       RuntimeException const& exception)
    : IIPCompletedEvent(typeInformationOf<PackagedTaskCompletedEvent>(), id,
                        boost::optional<RuntimeException>(exception)) {}

PackagedTaskCompletedEvent::PackagedTaskCompletedEvent(IDType const& id, boost::any result)
    : IIPCompletedEvent(typeInformationOf<PackagedTaskCompletedEvent>(), id,
                        boost::optional<RuntimeException>()),
      taskResult_(std::move(result)) {}

PackagedTaskCompletedEvent::PackagedTaskCompletedEvent(
    IDType const& id, boost::reference_wrapper<boost::any> const& result)
    : IIPCompletedEvent(typeInformationOf<PackagedTaskCompletedEvent>(), id,
                        boost::optional<RuntimeException>()) {
    taskResult_.swap(result.get());
}

PackagedTaskCompletedEvent::~PackagedTaskCompletedEvent() = default;

BaseEvent* PackagedTaskCompletedEvent::clone() const {
    return new PackagedTaskCompletedEvent(*this);
}

bool PackagedTaskCompletedEvent::canBeSerialized() const {
    return false;
}

std::ostream& PackagedTaskCompletedEvent::fillStream(std::ostream& os) const {
    BaseCompletedEventType::fillStream(os);
    os << "EXECUTION_STATUS " << static_cast<int>(getExecutionStatus()) << '\n';
    return os << "contains " << demangle_typeid_name(taskResult_.type());
}

template <class Archive>
void PackagedTaskCompletedEvent::serializeExplicit(Archive& ar, unsigned int) {
    ar& boost::serialization::make_nvp("IIPCompletedEvent",
                                       boost::serialization::base_object<IIPCompletedEvent>(*this));
    std::string resultType = demangle_typeid_name(taskResult_.type());
    ar& boost::serialization::make_nvp("result_type", resultType);
    if (Archive::is_loading::value)
        throw std::logic_error("cannot deserialize cmddistributor::PackagedTaskCompletedEvent");
}
ZN_SERIALIZE_EXPLICIT(PackagedTaskCompletedEvent)

} // namespace cmddistributor

BOOST_CLASS_EXPORT_IMPLEMENT(cmddistributor::PackagedTaskCompletedEvent)
