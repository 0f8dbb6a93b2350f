#pragma once
// IIPCompletedEvent: a packet has finished, and how. Success is the absence of an exception; a
// failure carries a RuntimeException whole, so that the client can rethrow it with message,
// stack and causes. Subclasses add results through the protected constructors. Immutable once
// published; copies share the exception's data.
#include <quorl/cmddistributor/defaultiipstateevent.hpp>
#include <quorl/cmddistributor/inexecutionstatus.hpp>
#include <quorl/cmddistributor/runtimeexception.hpp>

#include <boost/optional.hpp>

namespace cmddistributor {

class IIPCompletedEvent : public BaseCompletedEventType {
public:
    typedef BaseCompletedEventType EventBaseType;
    static ustring eventTypeName() { return u"::cmddistributor::IIPCompletedEvent"; }

    // Status 0 is success; any other status makes an exception with that status and nothing else.
    IIPCompletedEvent(foundation::msg_svc::exchange::IDType const& id,
                      quorl::cmddistributor::inExecutionStatus status);
    IIPCompletedEvent(foundation::msg_svc::exchange::IDType const& id,
                      RuntimeException const& exception);
    IIPCompletedEvent(foundation::msg_svc::exchange::IDType const& id,
                      boost::optional<RuntimeException> const& exception);
    ~IIPCompletedEvent() override;

    foundation::msg_svc::eventmgr::BaseEvent* clone() const override;
    // The base chain's text, then "EXECUTION_STATUS " and the status, and a line end.
    std::ostream& fillStream(std::ostream& os) const override;

    // 0 without an exception, else the exception's status.
    quorl::cmddistributor::inExecutionStatus getExecutionStatus() const;
    // A copy of the optional exception.
    boost::optional<RuntimeException> getException() const { return exception_; }

    bool fieldsEqual(IIPCompletedEvent const& o) const;

protected:
    IIPCompletedEvent();
    IIPCompletedEvent(IIPCompletedEvent const&) = default;
    explicit IIPCompletedEvent(
        boost::shared_ptr<foundation::msg_svc::eventmgr::TypeInformation> const& info);
    IIPCompletedEvent(boost::shared_ptr<foundation::msg_svc::eventmgr::TypeInformation> const& info,
                      foundation::msg_svc::exchange::IDType const& id,
                      boost::optional<RuntimeException> const& exception);
    IIPCompletedEvent(boost::shared_ptr<foundation::msg_svc::eventmgr::TypeInformation> const& info,
                      foundation::msg_svc::exchange::IDType const& id,
                      quorl::cmddistributor::inExecutionStatus status);

private:
    ZN_SERIALIZABLE()
    boost::optional<RuntimeException> exception_;
};

} // namespace cmddistributor

ZN_SERIALIZATION_TRAITS(cmddistributor::IIPCompletedEvent, 2)
BOOST_CLASS_EXPORT_KEY2(cmddistributor::IIPCompletedEvent, "cmddistributor::IIPCompletedEvent")
