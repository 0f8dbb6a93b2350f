#pragma once
// convertBaseEventToHvArray: any event as a nested struct, so that interpreted code can inspect
// events. The event's own serialization is driven through an output archive that builds arrays
// instead of bytes: every pair name becomes a field, primitive values become arrays of their
// class (repeated values of one type collect into a row vector, mixed ones into a cell), text
// becomes char rows, and the counts Boost writes for containers ("count", "item_version") show
// up as fields. The archive's bookkeeping (class ids, versions, tracking) is left out.
//
// Ownership: the result is a new array owned by the caller. Threads: any; the event is only
// read. Errors: never throws for a conversion problem; the result is then a 1-by-1 struct with
// one field "ERROR" holding a message that starts with the event's type name (for an event
// class without an export key it names BOOST_CLASS_EXPORT).
//
//   HvArrayPtr fields = quorl::eventmgr::detail::convertBaseEventToHvArray(event);
//   const hvArray* base = hvGetField(fields.get(), 0, "BaseEvent");
#include <foundation/msg_svc/eventmgr/baseevent.hpp>

#include <hv/matrix.hpp>

namespace quorl {
namespace eventmgr {
namespace detail {

std::unique_ptr<hvArray_tag, matrix::detail::hvDestroy_deleter>
convertBaseEventToHvArray(const foundation::msg_svc::eventmgr::BaseEvent& event);

} // namespace detail
} // namespace eventmgr
} // namespace quorl
