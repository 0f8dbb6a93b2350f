#pragma once
// RequestIdAdapter: a mixin that stamps an event with the request on whose behalf it is raised.
// The id is taken from the active context's slot when the event is made (IDType(0, 0) outside
// any context); the host sets the slot with setRequestId when it starts a request's work.
// Events made earlier keep their id. No lock: the slot belongs to the context.
#include <foundation/msg_svc/exchange/idtype.hpp>
#include <foundation/msg_svc/serialization/serializable.hpp>

#include <boost/serialization/export.hpp>

namespace cmddistributor {

class RequestIdAdapter {
public:
    RequestIdAdapter();

    foundation::msg_svc::exchange::IDType getRequestId() const { return requestId_; }

    // Sets the active context's request id; outside a context it does nothing.
    static void setRequestId(foundation::msg_svc::exchange::IDType const& id);
    // The active context's request id; IDType(0, 0) outside a context or before any is set.
    static foundation::msg_svc::exchange::IDType currentRequestId();

protected:
    RequestIdAdapter(RequestIdAdapter const&) = default;
    RequestIdAdapter& operator=(RequestIdAdapter const&) = default;
    ~RequestIdAdapter() = default;

private:
    ZN_SERIALIZABLE()
    foundation::msg_svc::exchange::IDType requestId_;
};

} // namespace cmddistributor

ZN_SERIALIZATION_TRAITS(cmddistributor::RequestIdAdapter, 1)
BOOST_CLASS_EXPORT_KEY2(cmddistributor::RequestIdAdapter, "cmddistributor::RequestIdAdapter")
