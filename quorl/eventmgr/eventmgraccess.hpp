#pragma once
// The library's event managers: the active one of the current context, and new local and
// remote ones whose identity follows a context's TarnID and whose subscribers run under the fenn
// mutex while someone holds it. Managers are cheap: make one per publication if need be;
// managers of equal identity share subscriptions. Any thread may call these.
#include <quorl/contextmgr/tarnid.hpp>

#include <foundation/msg_svc/eventmgr/eventmgr.hpp>

#include <boost/optional.hpp>
#include <boost/shared_ptr.hpp>

namespace quorl {
namespace eventmgr {

typedef foundation::msg_svc::eventmgr::EventMgr EventMgr;

// The active context's manager; empty outside a context or before one was set.
boost::optional<boost::shared_ptr<EventMgr>> getActiveEventMgr();
// Sets the active context's manager, replacing any; outside a context it throws
// foundation::usm::NoActiveContext.
void setActiveEventMgr(boost::shared_ptr<EventMgr> manager);

// The identity of a context's manager: the session for an empty or undefined TarnID, else the
// TarnID's value.
foundation::msg_svc::eventmgr::EmID emIdOf(boost::optional<contextmgr::TarnID> const& tarn);

boost::shared_ptr<EventMgr> createLocalEventMgr(boost::optional<contextmgr::TarnID> const& tarn);
// The local manager on which this process hears TARNShutdownEvent: the session's, whichever
// context the caller is in. Distributors and ScopedFactoryRegistration both listen here, so one
// shutdown event reaches all of them.
boost::shared_ptr<EventMgr> createShutdownEventMgr();
boost::shared_ptr<EventMgr>
createRemoteEventMgr(std::string const& exchange,
                     boost::optional<contextmgr::TarnID> const& localTarn,
                     boost::optional<contextmgr::TarnID> const& remoteTarn);

} // namespace eventmgr
} // namespace quorl
