#include <quorl/host/evalrunner.hpp>
#include <quorl/host/fevalrunner.hpp>
#include <quorl/host/host.hpp>
#include <quorl/host/packagedtaskrunner.hpp>

#include <quorl/cmddistributor/iipcancelmessage.hpp>
#include <quorl/cmddistributor/iipcancelreply.hpp>
#include <quorl/cmddistributor/iipenqueuemessage.hpp>
#include <quorl/cmddistributor/iiprunnowmessage.hpp>
#include <quorl/contextmgr/contextregistry.hpp>
#include <quorl/matrixref/matrixref.hpp>
#include <quorl/matrixref/matrixrefservice.hpp>
#include <quorl/utils/fennmutex.hpp>

#include <foundation/cppmicroservices/framework.hpp>

#include <foundation/msg_svc/exchange/address.hpp>
#include <foundation/msg_svc/exchange/exchangeapi.hpp>
#include <foundation/msg_svc/threadutil/releasecountedmutexguard.hpp>

#include <boost/make_shared.hpp>

#include <map>
#include <mutex>
#include <stdexcept>

namespace quorl {
namespace host {

using foundation::msg_svc::exchange::IDType;
using foundation::msg_svc::exchange::Reply;

namespace {

struct HostState {
    std::mutex mutex; // guards everything below
    bool running = false;
    HostOptions options;
    std::map<contextmgr::FennID, std::shared_ptr<Interpreter>> interpreters;
    std::map<std::string, boost::shared_ptr<PacketRunner>> runners;
};

HostState& state() {
    static HostState* s = [] {
        auto* made = new HostState; // lives for the whole process: interpreter threads use it
        made->runners["packaged_task"] = boost::make_shared<PackagedTaskRunner>();
        auto eval = boost::make_shared<EvalRunner>();
        made->runners["user eval"] = eval;
        made->runners["internal eval"] = eval;
        made->runners["cmddistributor::feval_plugin"] = boost::make_shared<FEvalRunner>();
        return made;
    }();
    return *s;
}

boost::shared_ptr<PacketRunner> runnerOf(std::string const& pluginType) {
    HostState& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    auto it = s.runners.find(pluginType);
    return it == s.runners.end() ? boost::shared_ptr<PacketRunner>() : it->second;
}

contextmgr::FennID resolve(HostOptions const& options, contextmgr::FennID const& id) {
    return id.value < 0 ? options.defaultFennID : id;
}

// With the state's mutex held.
std::shared_ptr<Interpreter> interpreterLocked(HostState& s, contextmgr::FennID const& id) {
    if (!s.running)
        return nullptr;
    contextmgr::FennID const fenn = resolve(s.options, id);
    auto& slot = s.interpreters[fenn];
    if (!slot)
        slot = std::make_shared<Interpreter>(fenn, s.options.tarnID, &runnerOf);
    return slot;
}

std::vector<std::shared_ptr<Interpreter>> allInterpreters() {
    HostState& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    std::vector<std::shared_ptr<Interpreter>> all;
    for (auto const& entry : s.interpreters)
        all.push_back(entry.second);
    return all;
}

bool anyArrayConverts(hvArray_tag const*) {
    return true;
}

// What peers of the process's exchange rely on: the data-array bundles (client workspaces travel
// as external arrays), the reference table, and its release service ("TarnServer") on the
// exchange, so that references handed out here are freed when a peer's last copy dies.
void prepareExchange() {
    foundation::cppmicroservices::startFramework();
    matrixref::detail::refInitMatrixReferences({}, &anyArrayConverts);
    try {
        matrixref::MatrixRefService::registerWith(
            *foundation::msg_svc::exchange::ExchangeApi::instance());
    } catch (std::invalid_argument const&) {
        // The hosting program registered a service of its own.
    }
}

} // namespace

void Host::start(HostOptions const& options) {
    static std::once_flag installed;
    std::call_once(installed, [] {
        ::cmddistributor::setDeliverFuncPtr(&Host::deliver);
        ::cmddistributor::setCancelFuncPtr(&Host::cancel);
        ::cmddistributor::setRunNowFuncPtr(&Host::runNow);
        prepareExchange();
    });
    // The last caller wins for this one: install it at every start.
    ::cmddistributor::setIsRunNowThreadFuncPtr(&Host::isRunNowThread);

    HostState& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (s.running)
        throw std::logic_error("the host is running already.");
    s.options = options;
    s.running = true;
    if (options.setDefaultIDs)
        contextmgr::ContextRegistry::setDefaultIDs(options.defaultFennID, options.tarnID);
    try {
        interpreterLocked(s, options.defaultFennID);
        for (auto const& fenn : options.fennIDs)
            interpreterLocked(s, fenn);
    } catch (...) {
        s.running = false;
        throw;
    }
}

void Host::stop() {
    std::map<contextmgr::FennID, std::shared_ptr<Interpreter>> stopping;
    {
        HostState& s = state();
        std::lock_guard<std::mutex> lock(s.mutex);
        for (auto const& entry : s.interpreters)
            if (entry.second->isOwnThread())
                throw std::logic_error("the host cannot be stopped from an interpreter thread.");
        s.running = false;
        stopping.swap(s.interpreters);
    }
    for (auto const& entry : stopping)
        entry.second->stop();
}

bool Host::isRunning() {
    HostState& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    return s.running;
}

void Host::registerRunner(std::string const& pluginType,
                          boost::shared_ptr<PacketRunner> const& runner) {
    HostState& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.runners[pluginType] = runner;
}

std::shared_ptr<Interpreter> Host::interpreter(contextmgr::FennID const& fennID) {
    HostState& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    return interpreterLocked(s, fennID);
}

boost::shared_ptr<Reply const>
Host::deliver(foundation::msg_svc::exchange::Routing const&,
              boost::shared_ptr<::cmddistributor::IIP> iip, IDType const& iipId,
              contextmgr::FennID const& fennId, boost::optional<contextmgr::TarnID> const&,
              boost::shared_ptr<foundation::msg_svc::eventmgr::EventMgr> eventMgr,
              cmddistributor::WhenToDequeue::WhenToDequeue dequeueMode, bool hasFuture) {
    QueuedPacket packet;
    packet.id = iipId;
    packet.iip = std::move(iip);
    packet.eventMgr = std::move(eventMgr);
    packet.when = dequeueMode;
    packet.hasFuture = hasFuture;
    if (!packet.iip)
        throw std::invalid_argument("an enqueue message without a packet.");
    std::shared_ptr<Interpreter> target = interpreter(fennId);
    if (!target) {
        // Stopped: a throwaway interpreter would be wasteful; discard straight away.
        auto const& bypass = packet.iip->getEventMgrBypass();
        if (bypass && *bypass)
            (*bypass)(::cmddistributor::IIPDiscardedEvent(iipId));
        else if (packet.eventMgr)
            packet.eventMgr->notifyIfWatched<::cmddistributor::IIPDiscardedEvent>(
                foundation::msg_svc::eventmgr::DeliverQueued, iipId);
        return Reply::defaultReply();
    }
    target->enqueue(std::move(packet));
    return Reply::defaultReply();
}

boost::shared_ptr<Reply const> Host::cancel(IDType const& id, bool interrupt) {
    auto outcome = Interpreter::NotFound;
    for (auto const& each : allInterpreters()) {
        auto answer = each->cancel(id, interrupt);
        if (answer != Interpreter::NotFound) {
            outcome = answer;
            break;
        }
    }
    return boost::make_shared<::cmddistributor::IIPCancelReply>(outcome);
}

void Host::runNow(IDType const& id) {
    auto all = allInterpreters();
    std::shared_ptr<Interpreter> own;
    for (auto const& each : all)
        if (each->isOwnThread())
            own = each;
    if (own) {
        // Only here can the packet run at once. Its enqueue message may still be on its way:
        // a run-now message through the same ordered queue arrives after it, and once it has
        // been delivered the packet is queued (if it is ours at all).
        if (own->runNow(id) != Interpreter::NotQueued)
            return;
        auto exchange = foundation::msg_svc::exchange::ExchangeApi::instance();
        auto delivered = exchange->submitWithReply(
            boost::make_shared<::cmddistributor::IIPRunNowMessage>(id),
            foundation::msg_svc::exchange::Address(
                exchange->getExchangeName(),
                foundation::msg_svc::exchange::Address::SpecializedQueues::noqueue()));
        {
            // Deliveries ahead of it may need the fenn mutex.
            foundation::msg_svc::threadutil::ReleaseCountedMutexGuard release(
                utils::getFennMutex());
            delivered.wait();
        }
        own->runNow(id);
        return;
    }
    for (auto const& each : all)
        if (each->runNow(id) != Interpreter::NotQueued)
            return;
}

bool Host::isRunNowThread(contextmgr::FennID const& fennID) {
    HostState& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (!s.running)
        return false;
    auto it = s.interpreters.find(resolve(s.options, fennID));
    return it != s.interpreters.end() && it->second->isOwnThread();
}

} // namespace host
} // namespace quorl
