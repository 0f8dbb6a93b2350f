#pragma once
// Host: the reference interpreter host of this process. start() installs the host functions in
// the library (enqueue, cancel, run-now and the run-now-thread query; installed once per process,
// the library keeps the first) and serves packets from then on: each runtime context (FennID)
// gets its own Interpreter thread, made on the first packet for it. stop() stops and joins every
// interpreter; packets still queued are discarded, so their clients see a discard and not a hang.
// A packet that arrives while the host is stopped is discarded at once. Stop the host before the
// process ends: a running host's threads are left to the end of the process.
//
// Run-now: called on the interpreter thread of the packet's context (as a client waiting on
// that thread for the packet does), it runs the packet at once, nested in the running one, after
// letting an enqueue message still on its way arrive; called on any other thread, it moves the
// packet to the head of its queue.
//
// Packets are run by the PacketRunner registered for their plug-in type; "packaged_task" has one
// from the start. Reserved context ids (AnyFennID and the other negative values) go to the
// default context of HostOptions.
//
// Threads: every function may be called from any thread, except stop(), which must not be called
// from an interpreter thread (std::logic_error). start() on a running host throws
// std::logic_error. The installed functions run on the exchange's delivery threads (enqueue,
// run-now), its unordered lane (cancel) and client threads (the query).
#include <quorl/host/interpreter.hpp>
#include <quorl/host/packetrunner.hpp>

#include <quorl/cmddistributor/iip.hpp>
#include <quorl/cmddistributor/whentodequeue.hpp>
#include <quorl/contextmgr/fennid.hpp>
#include <quorl/contextmgr/tarnid.hpp>

#include <foundation/msg_svc/eventmgr/eventmgr.hpp>
#include <foundation/msg_svc/exchange/idtype.hpp>
#include <foundation/msg_svc/exchange/reply.hpp>
#include <foundation/msg_svc/exchange/routing.hpp>

#include <boost/optional.hpp>
#include <boost/shared_ptr.hpp>

#include <string>
#include <vector>

namespace quorl {
namespace host {

struct HostOptions {
    // The context that packets for a reserved id run in.
    contextmgr::FennID defaultFennID = contextmgr::BlessedFennID;
    // The virtual-machine context of every interpreter of this host.
    contextmgr::TarnID tarnID = contextmgr::BlessedTarnID;
    // Contexts whose interpreters start at once (others start on their first packet).
    std::vector<contextmgr::FennID> fennIDs;
    // Also make defaultFennID and tarnID the process's default context ids.
    bool setDefaultIDs = true;
};

class Host {
public:
    static void start(HostOptions const& options = HostOptions());
    static void stop();
    static bool isRunning();

    // Installs (or replaces) the runner of a plug-in type; kept across stop and start.
    static void registerRunner(std::string const& pluginType,
                               boost::shared_ptr<PacketRunner> const& runner);

    // The interpreter of a context, made if need be; null while the host is stopped.
    static std::shared_ptr<Interpreter> interpreter(contextmgr::FennID const& fennID);

    // The functions start() installs in the library, public for hosts that forward to them.
    static boost::shared_ptr<foundation::msg_svc::exchange::Reply const>
    deliver(foundation::msg_svc::exchange::Routing const& routing,
            boost::shared_ptr<::cmddistributor::IIP> iip,
            foundation::msg_svc::exchange::IDType const& iipId, contextmgr::FennID const& fennId,
            boost::optional<contextmgr::TarnID> const& tarnId,
            boost::shared_ptr<foundation::msg_svc::eventmgr::EventMgr> eventMgr,
            cmddistributor::WhenToDequeue::WhenToDequeue dequeueMode, bool hasFuture);
    static boost::shared_ptr<foundation::msg_svc::exchange::Reply const>
    cancel(foundation::msg_svc::exchange::IDType const& id, bool interrupt);
    static void runNow(foundation::msg_svc::exchange::IDType const& id);
    // True on the interpreter thread of that context (a reserved id names the default one).
    static bool isRunNowThread(contextmgr::FennID const& fennID);
};

} // namespace host
} // namespace quorl
