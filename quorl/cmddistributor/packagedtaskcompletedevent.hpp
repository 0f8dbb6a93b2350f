#pragma once
// PackagedTaskCompletedEvent: the completion of a packaged task, carrying what the task returned
// (a boost::any; empty when it returned nothing or failed) beside the optional RuntimeException
// of its base. The result lives in memory only: canBeSerialized() is false, saving writes the
// base and the name of the result's type ("result_type"), and loading reads them and then throws
// std::logic_error. Immutable once published; the interpreter thread that ran the task builds it.
#include <quorl/cmddistributor/iipcompletedevent.hpp>

#include <boost/any.hpp>
#include <boost/ref.hpp>

#include <typeinfo>

namespace cmddistributor {

class PackagedTaskCompletedEvent : public IIPCompletedEvent {
public:
    typedef IIPCompletedEvent EventBaseType;
    static ustring eventTypeName() { return u"::cmddistributor::PackagedTaskCompletedEvent"; }

    PackagedTaskCompletedEvent(foundation::msg_svc::exchange::IDType const& id,
                               boost::optional<RuntimeException> const& exception);
    PackagedTaskCompletedEvent(foundation::msg_svc::exchange::IDType const& id,
                               RuntimeException const& exception);
    PackagedTaskCompletedEvent(foundation::msg_svc::exchange::IDType const& id, boost::any result);
    // Swaps the value out of `result`, which is left empty.
    PackagedTaskCompletedEvent(foundation::msg_svc::exchange::IDType const& id,
                               boost::reference_wrapper<boost::any> const& result);
    ~PackagedTaskCompletedEvent() override;

    foundation::msg_svc::eventmgr::BaseEvent* clone() const override;
    bool canBeSerialized() const override;
    // The state event's text, "EXECUTION_STATUS " and the status, then "contains " and the
    // result's type name (no line end after it).
    std::ostream& fillStream(std::ostream& os) const override;

    // The result's type; typeid(void) when there is none.
    std::type_info const& type() const { return taskResult_.type(); }
    boost::any const& getTaskResult() const { return taskResult_; }

private:
    PackagedTaskCompletedEvent();
    PackagedTaskCompletedEvent(PackagedTaskCompletedEvent const&) = default;

    ZN_SERIALIZABLE()
    boost::any taskResult_;
};

} // namespace cmddistributor

ZN_SERIALIZATION_TRAITS(cmddistributor::PackagedTaskCompletedEvent, 2)
BOOST_CLASS_EXPORT_KEY2(cmddistributor::PackagedTaskCompletedEvent,
                        "cmddistributor::PackagedTaskCompletedEvent")
