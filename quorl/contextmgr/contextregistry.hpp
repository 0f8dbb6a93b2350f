#pragma once
// ContextRegistry: which contexts the calling code runs in. Two layers: the values stored in the
// active context (set by setIDs inside it), and a process-wide default pair that applies when no
// context is active (setDefaultIDs).
//
// Any thread may call any function; there is no lock. The defaults are written by atomic
// exchange, the slot numbers are assigned once per process. Only the slot store can fail:
// reading an active context whose IDs were never set throws foundation::usm::SlotNotFound
// (getFennID, getTarnID, and getEffectiveFennID(AnyFennID)).
#include <quorl/contextmgr/fennid.hpp>
#include <quorl/contextmgr/tarnid.hpp>

#include <boost/optional.hpp>

namespace quorl {
namespace contextmgr {
namespace ContextRegistry {

FennID getFennID();
TarnID getTarnID();
// The identifier to use for a requested one: real ids as they are, AnyFennID as the current
// context's, every other reserved value as UndefinedFennID.
FennID getEffectiveFennID(FennID const& requested);
// Outside a context: the default, always engaged (even when it is UndefinedFennID). Inside one:
// the stored value, or empty when none was set. Never throws for want of a value.
boost::optional<FennID> getFennIDIfFennActive();
// Stores both ids in the active context, FennID first; outside a context it throws
// foundation::usm::NoActiveContext.
void setIDs(FennID fenn, TarnID tarn);
void setDefaultIDs(FennID fenn, TarnID tarn);

} // namespace ContextRegistry
} // namespace contextmgr
} // namespace quorl
