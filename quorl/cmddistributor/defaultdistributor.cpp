#include <quorl/cmddistributor/defaultdistributor.hpp>
#include <quorl/cmddistributor/evaliip.hpp>
#include <quorl/cmddistributor/futureexception.hpp>
#include <quorl/cmddistributor/iipcancelmessage.hpp>
#include <quorl/cmddistributor/iipcancelreply.hpp>
#include <quorl/cmddistributor/iipcompletedevent.hpp>
#include <quorl/cmddistributor/iipenqueuemessage.hpp>
#include <quorl/cmddistributor/iiprunnowmessage.hpp>
#include <quorl/cmddistributor/iipsinkevent.hpp>
#include <quorl/eventmgr/eventmgraccess.hpp>
#include <quorl/eventmgr/tarnshutdownevent.hpp>
#include <quorl/io/activecmdwinsinkproxy.hpp>
#include <quorl/utils/fennmutex.hpp>

#include <foundation/core/except/exception.hpp>
#include <foundation/core/log/tracescope.hpp>
#include <foundation/core/memory/poolallocator.hpp>
#include <foundation/msg_svc/exchange/exchangeapi.hpp>
#include <foundation/msg_svc/exchange/replyspin.hpp>
#include <foundation/msg_svc/threadutil/concurrenttbbhashmap.hpp>
#include <foundation/msg_svc/threadutil/releasecountedmutexguard.hpp>
#include <foundation/usm/detail.hpp>

#include <boost/make_shared.hpp>

#include <atomic>
#include <chrono>
#include <mutex>

namespace cmddistributor {

using foundation::msg_svc::eventmgr::EventMgr;
using foundation::msg_svc::exchange::Address;
using foundation::msg_svc::exchange::ExchangeApi;
using foundation::msg_svc::exchange::IDType;
using foundation::msg_svc::threadutil::ConcurrentMap;
using foundation::msg_svc::threadutil::ConcurrentTBBHashMap;
using foundation::msg_svc::threadutil::ReleaseCountedMutexGuard;
using quorl::contextmgr::FennID;
using quorl::contextmgr::TarnID;
namespace log = foundation::core::log;
using foundation::core::memory::makePooledBoostShared;
using foundation::core::memory::makePooledShared;
using foundation::core::memory::PoolAllocator;

namespace {

// ---- Deadlock checkers: wait callbacks that keep a blocked client from stopping the work it
// waits for (by holding the fenn mutex, or by being the thread that would run the request).

class DeadlockChecker : public SharedWaitCallback::Callable {
public:
    // `spin`: how long the first wait polls for the result before it sleeps (see ReplySpin);
    // for requests to another process, whose results cross the wire.
    DeadlockChecker(boost::shared_ptr<EventMgr> eventMgr,
                    std::weak_ptr<CmdDistributor::RequestTracking> tracking, bool checkRunNowThread,
                    FennID fennID, std::chrono::microseconds spin = std::chrono::microseconds(0))
        : eventMgr_(std::move(eventMgr)), tracking_(std::move(tracking)),
          checkRunNowThread_(checkRunNowThread), fennID_(fennID), spin_(spin) {}
    void operator()() override {
        if (checkRunNowThread_ && isRunNowThread(fennID_)) {
            if (isDone())
                return;
            unblock();
            if (isDone())
                return;
            throw WrongThreadException();
        }
        // Only a waiter that holds the fenn mutex must give it up while it waits (the request
        // may need it to run). Any other waiter goes on to the future's own wait, which keeps a
        // timed wait's limit even while an interpreter holds the mutex.
        if (quorl::utils::getFennMutex()->isLockedByCaller()) {
            // Wait on the delegate's own handle, not on the record: holding the record here
            // would keep a request that a shutdown drops from ever being released.
            std::shared_future<void> ready;
            if (auto record = tracking_.lock())
                ready = record->readyHandle();
            if (ready.valid()) {
                ReleaseCountedMutexGuard release(quorl::utils::getFennMutex());
                ready.wait();
            }
            return;
        }
        // Not while holding the fenn mutex, which the result's delivery may need.
        if (spin_.count() > 0 && !spun_.exchange(true))
            foundation::msg_svc::exchange::ReplySpin::spinUntil([this] { return isDone(); }, spin_);
    }

    bool isDone() const {
        auto record = tracking_.lock();
        return !record || record->isRequestDone();
    }

    virtual void unblock() {
        if (eventMgr_)
            eventMgr_->flush();
    }

protected:
    boost::shared_ptr<EventMgr> eventMgr_;
    std::weak_ptr<CmdDistributor::RequestTracking> tracking_;
    bool checkRunNowThread_;
    FennID fennID_;
    std::chrono::microseconds spin_;
    std::atomic<bool> spun_{false}; // only the first wait spins
};

class RequestDeadlockChecker : public DeadlockChecker {
public:
    RequestDeadlockChecker(Address address, IDType requestID, boost::shared_ptr<EventMgr> eventMgr,
                           std::weak_ptr<CmdDistributor::RequestTracking> tracking,
                           bool checkRunNowThread, FennID fennID, std::chrono::microseconds spin)
        : DeadlockChecker(std::move(eventMgr), std::move(tracking), checkRunNowThread, fennID,
                          spin),
          address_(std::move(address)), requestID_(requestID) {}

    void unblock() override {
        // Only an interpreter of this exchange is ever a run-now thread: the run-now message is
        // delivered here, on the waiting thread, so that the host's run-now handler can run the
        // request out of turn on the very thread that waits for it.
        IIPRunNowMessage(requestID_)
            .deliver(foundation::msg_svc::exchange::Routing(address_.exchange(), address_.queue()));
        if (isDone())
            return;
        if (eventMgr_)
            eventMgr_->flush();
    }

private:
    Address address_;
    IDType requestID_;
};

// boost::function copies its target: keep the checker's virtual dispatch through a pointer, which
// the promise delegate installs without another copy.
template <class Checker> boost::function<void()> asCallback(std::shared_ptr<Checker>&& checker) {
    return SharedWaitCallback(std::move(checker));
}

// ---- Process-wide registries of distributors.

typedef ConcurrentTBBHashMap<ConcurrentMap<FennID, boost::shared_ptr<DefaultDistributor>>>
    SharedMap;
typedef ConcurrentTBBHashMap<ConcurrentMap<FennID, boost::weak_ptr<DefaultDistributor>>> WeakMap;

struct Registries {
    SharedMap shared;
    WeakMap weak;
};

Registries& registries() {
    static std::once_flag once;
    static Registries* r = nullptr;
    // Never destroyed: the distributors made by instance() live for the whole process.
    std::call_once(once, [] { r = new Registries; });
    return *r;
}

std::string const& cachedLocalExchangeName() {
    static std::string const name = ExchangeApi::instance()->getExchangeName();
    return name;
}

std::string describeException(boost::exception_ptr const& error) {
    try {
        boost::rethrow_exception(error);
    } catch (foundation::core::except::IUserException const& e) {
        return e.GetMessageTxt();
    } catch (std::exception const& e) {
        return e.what();
    } catch (...) {
        return "communication failure";
    }
}

RuntimeException communicationFailure(std::string const& message) {
    // Any exception's text may hold malformed UTF-8: convert leniently.
    return RuntimeException(quorl::cmddistributor::ExecutionCommunicationError,
                            foundation::core::except::detail::widenLenient(message), std::string(),
                            std::string(), {}, {});
}

// What a request's future reports for a failed enqueue: a RuntimeException as itself, a failure
// of the exchange (unreachable, stopped, or the far end's refusal) as a communication failure,
// anything else as it is.
boost::exception_ptr asRequestFailure(boost::exception_ptr const& error) {
    try {
        boost::rethrow_exception(error);
    } catch (RuntimeException const& e) {
        return toExceptionPtr(e);
    } catch (foundation::msg_svc::exchange::DeliveryError const& e) {
        return toExceptionPtr(communicationFailure(e.what()));
    } catch (...) {
        return error;
    }
}

// The failure of an enqueue that the exchange reports while submitWithHandler still runs, kept
// for enqueueTracked on the same thread, which treats it as a submit that threw.
struct FailedSubmission {
    IDType id;
    boost::exception_ptr error;
    FailedSubmission* outer;
};
thread_local FailedSubmission* tlsFailedSubmission = nullptr;

} // namespace

// ---- Finding a distributor

CmdDistributor& CmdDistributor::instance() {
    auto d = registries().shared.getOrCreate(quorl::contextmgr::AnyFennID, [] {
        return boost::make_shared<DefaultDistributor>(quorl::contextmgr::AnyFennID);
    });
    return *d;
}

boost::shared_ptr<CmdDistributor> CmdDistributor::instance(FennID const& id) {
    Registries& r = registries();
    if (auto weak = r.weak.find(id)) {
        if (auto live = weak->lock())
            return live;
    }
    return r.shared.getOrCreate(id, [id] { return boost::make_shared<DefaultDistributor>(id); });
}

boost::shared_ptr<CmdDistributor>
CmdDistributor::create(FennID const& id, std::string const& exchangeName,
                       boost::optional<TarnID> const& tarn,
                       boost::shared_ptr<EventMgr> const& eventMgr) {
    if (exchangeName != cachedLocalExchangeName())
        return boost::make_shared<DefaultDistributor>(id, exchangeName, tarn, eventMgr);
    boost::shared_ptr<DefaultDistributor> made;
    auto weak = registries().weak.getOrCreate(id, [&] {
        made = boost::make_shared<DefaultDistributor>(id, exchangeName, tarn, eventMgr);
        return boost::weak_ptr<DefaultDistributor>(made);
    });
    return weak.lock();
}

// ---- Construction and destruction

DefaultDistributor::DefaultDistributor(FennID const& fennID)
    : tracking_(new ConcurrentTBBHashMap<TrackingMap>()), fennID_(fennID),
      exchangeName_(ExchangeApi::instance()->getExchangeName()), localExchangeName_(exchangeName_),
      address_(exchangeName_, Address::SpecializedQueues::noqueue()),
      eventMgr_(quorl::eventmgr::createRemoteEventMgr(exchangeName_, boost::none, boost::none)),
      shuttingDown_(false), log_("cmddistributor::DefaultDistributor"), clearOnDestruction_(false),
      isLocal_(true) {}

DefaultDistributor::DefaultDistributor(FennID const& fennID, std::string const& exchangeName,
                                       boost::optional<TarnID> const& tarnID,
                                       boost::shared_ptr<EventMgr> const& eventMgr)
    : tracking_(new ConcurrentTBBHashMap<TrackingMap>()), fennID_(fennID),
      exchangeName_(exchangeName), localExchangeName_(ExchangeApi::instance()->getExchangeName()),
      address_(exchangeName_, Address::SpecializedQueues::noqueue()), tarnID_(tarnID),
      eventMgr_(eventMgr), shuttingDown_(false), log_("cmddistributor::DefaultDistributor"),
      clearOnDestruction_(true), isLocal_(exchangeName_ == localExchangeName_) {}

DefaultDistributor::~DefaultDistributor() {
    try {
        for (auto* c :
             {&sinkConnection_, &completedConnection_, &discardedConnection_,
              &localShutdownConnection_, &remoteShutdownConnection_, &commErrorConnection_}) {
            foundation::msg_svc::eventmgr::ScopedConnection empty;
            c->swap(empty);
        }
        if (!shuttingDown_.load() && tracking_) {
            if (clearOnDestruction_)
                tracking_->clear();
            else
                (void)tracking_.release(); // left unreleased on purpose at process end
        }
    } catch (...) {
    }
}

std::size_t DefaultDistributor::trackedCount() const {
    return tracking_ ? tracking_->size() : 0;
}

// ---- Subscriptions

void DefaultDistributor::subscribe() {
    std::call_once(subscribeOnce_, [this] {
        boost::weak_ptr<DefaultDistributor> weak =
            boost::static_pointer_cast<DefaultDistributor>(shared_from_this());
        if (!eventMgr_)
            throw std::logic_error("DefaultDistributor: no event manager");
        // The same handlers serve the events and the bypass. Each holds only the weak pointer, so
        // copying them into a packet allocates nothing.
        auto const onCompleted = [weak](IIPCompletedEvent const& e) {
            if (auto self = weak.lock())
                self->completed(e);
        };
        auto const onDiscarded = [weak](IIPDiscardedEvent const& e) {
            if (auto self = weak.lock())
                self->cancelled(e.getIdOfChangedIIP());
        };
        bypass_ = IIP::EventMgrBypass(onCompleted, onDiscarded);
        sinkConnection_.assign(eventMgr_->subscribe<IIPSinkEvent>([weak](IIPSinkEvent const& e) {
            if (auto self = weak.lock())
                self->sinkEvent(e);
        }));
        completedConnection_.assign(eventMgr_->subscribe<IIPCompletedEvent>(onCompleted));
        discardedConnection_.assign(eventMgr_->subscribe<IIPDiscardedEvent>(onDiscarded));
        remoteShutdownConnection_.assign(eventMgr_->subscribe<quorl::eventmgr::TARNShutdownEvent>(
            [weak](quorl::eventmgr::TARNShutdownEvent const&) {
                if (auto self = weak.lock())
                    self->shutdown();
            }));
        auto local = quorl::eventmgr::createLocalEventMgr(boost::none);
        localShutdownConnection_.assign(quorl::eventmgr::createShutdownEventMgr()
                                            ->subscribe<quorl::eventmgr::TARNShutdownEvent>(
                                                [weak](quorl::eventmgr::TARNShutdownEvent const&) {
                                                    if (auto self = weak.lock())
                                                        self->shutdown();
                                                }));
        typedef foundation::msg_svc::exchange::CommunicationErrorEvent CommErr;
        commErrorConnection_.assign(local->subscribe<CommErr>(
            [weak](CommErr const& e) {
                if (auto self = weak.lock())
                    self->communicationError(e);
            },
            {CommErr::ExchangeSpecificEventType(exchangeName_)}));
    });
}

// ---- The road of a request

void DefaultDistributor::enqueueTracked(RequestTrackingPtr&& record, IDType const& id,
                                        quorl::cmddistributor::WhenToDequeue::WhenToDequeue when,
                                        std::uint32_t bypassGuard) {
    if (!record)
        return;
    subscribe();
    boost::shared_ptr<IIP> const iip = record->getRequest()->getIIP();

    if (isLocal_ && record->hasPromise() && (bypassGuard == 0 || !record->hasContinuation()) &&
        !*iip->getEventMgrBypass())
        iip->setEventMgrBypass(bypass_);

    std::shared_ptr<RequestTracking> shared(record.release(), RequestTrackingDeleter(),
                                            PoolAllocator<RequestTracking>());

    if (shared->hasPromise() && shared->needsDeadlockChecking()) {
        // A result from another process may be polled for briefly before the waiter sleeps.
        auto const spin =
            isLocal_ ? std::chrono::microseconds(0) : ExchangeApi::instance()->replySpin();
        shared->getPromise()->setWaitCallback(asCallback(makePooledShared<RequestDeadlockChecker>(
            address_, id, eventMgr_, shared, isLocal_, fennID_, spin)));
    }
    bool const hasFuture = shared->hasPromise();

    if (!shuttingDown_.load()) {
        if (!tracking_->insert(std::make_pair(id, shared)))
            throw std::logic_error("attempting to enqueue the same CmdRequest twice.");
    }

    // An eval packet bound for another exchange tells its workspace holder where it goes and
    // where the client's workspace is served, so the far interpreter can reach back to it.
    if (!isLocal_) {
        if (auto* eval = dynamic_cast<EvalIIP*>(iip.get()))
            eval->setExchangeNames(exchangeName_, localExchangeName_);
    }

    try {
        if (!iip)
            throw std::invalid_argument("request must contain an IIP.");
        if (!isLocal_ && !iip->canBeSerialized())
            throw std::invalid_argument(
                "a packet of plug-in type \"" + iip->getPluginType() +
                "\" cannot be serialized, so it cannot be sent to exchange '" + exchangeName_ +
                "'.");
        // The exchange answers every enqueue: a failure at the far end (a packet it cannot decode,
        // a deliver that throws) comes back to the record. A failure while submitting is caught
        // here and goes the same way as a submit that throws.
        FailedSubmission failedNow{id, boost::exception_ptr(), tlsFailedSubmission};
        tlsFailedSubmission = &failedNow;
        try {
            ExchangeApi::instance()->submitWithHandler(
                makePooledBoostShared<IIPEnqueueMessage>(iip, id, fennID_, tarnID_, eventMgr_, when,
                                                         hasFuture),
                address_, ExchangeApi::ReplyHandler(), deliveryFailedHandler(id));
        } catch (...) {
            tlsFailedSubmission = failedNow.outer;
            throw;
        }
        tlsFailedSubmission = failedNow.outer;
        if (failedNow.error)
            boost::rethrow_exception(failedNow.error);
    } catch (...) {
        failSubmission(id);
    }
}

boost::function<void(boost::exception_ptr const&)>
DefaultDistributor::deliveryFailedHandler(IDType const& id) {
    boost::weak_ptr<DefaultDistributor> weak =
        boost::static_pointer_cast<DefaultDistributor>(shared_from_this());
    return [weak, id](boost::exception_ptr const& error) {
        for (FailedSubmission* f = tlsFailedSubmission; f; f = f->outer) {
            if (f->id == id) {
                f->error = error; // still inside enqueueTracked on this thread
                return;
            }
        }
        if (auto self = weak.lock())
            self->deliveryFailed(id, error);
    };
}

void DefaultDistributor::deliveryFailed(IDType const& id, boost::exception_ptr const& error) {
    auto record = tracking_->remove(id);
    if (!record)
        return;
    ZN_LOG(log_, log::warning) << "the enqueue of request " << id.toString()
                               << " failed: " << describeException(error);
    (*record)->setException(asRequestFailure(error));
}

void DefaultDistributor::failSubmission(IDType const& id) {
    auto record = tracking_->remove(id);
    if (!record)
        return; // dropped: nobody is left to hear of it
    if (!(*record)->hasPromise())
        throw;
    (*record)->setException(asRequestFailure(boost::current_exception()));
}

// ---- Handlers

void DefaultDistributor::completed(IIPCompletedEvent const& event) {
    log::trace_scope scope(log_, "completed");
    ZN_LOG(log_, log::debug) << " event=" << [&] {
        std::ostringstream s;
        event.fillStream(s);
        return s.str();
    }();
    if (auto record = tracking_->remove(event.getIdOfChangedIIP()))
        (*record)->setValue(event);
}

void DefaultDistributor::cancelled(IDType const& id) {
    log::trace_scope scope(log_, "cancelled");
    ZN_LOG(log_, log::debug) << " id=" << id.toString();
    if (auto record = tracking_->remove(id))
        (*record)->setException(alreadyCancelledExceptionPtr());
}

boost::shared_ptr<CmdRequest> DefaultDistributor::getRequest(IDType const& id) const {
    if (auto record = tracking_->find(id))
        return (*record)->getRequest();
    return nullptr;
}

void DefaultDistributor::sinkEvent(IIPSinkEvent const& event) {
    auto request = getRequest(event.getIIPId());
    if (!request)
        return;
    auto const& sink = event.getStreamType() == quorl::io::ErrorStream ? request->getErrorSink()
                                                                       : request->getOutputSink();
    if (!sink)
        return;
    if (auto const* proxy = dynamic_cast<quorl::io::ActiveCmdWinSinkProxy const*>(sink.get())) {
        // A request made outside any context names no command window that could take its text.
        if (!proxy->VeldraSink::getUnicodeOutStreamBuffer() &&
            !foundation::usm::Detail<foundation::usm::scope::Tarn>::isRequiredContextActive())
            return;
    }
    if (auto const& buffer = sink->getUnicodeOutStreamBuffer()) {
        event.write(*buffer);
        sink->setDirty(true);
    }
}

void DefaultDistributor::communicationError(
    foundation::msg_svc::exchange::CommunicationErrorEvent const& event) {
    boost::exception_ptr const failurePtr =
        toExceptionPtr(communicationFailure(describeException(event.getException())));
    while (tracking_->size() != 0) {
        std::vector<IDType> ids;
        ids.reserve(tracking_->size());
        tracking_->forEach(
            [&ids](std::pair<IDType const, std::shared_ptr<RequestTracking>> const& e) {
                ids.push_back(e.first);
            });
        for (auto const& id : ids) {
            if (auto record = tracking_->remove(id))
                (*record)->setException(failurePtr);
        }
    }
}

void DefaultDistributor::shutdown() {
    shuttingDown_.exchange(true);
    tracking_->clear();
}

// ---- Cancel

boost::unique_future<CmdDistributor::CancelStatus>
DefaultDistributor::cancelRequest(IDType const& id, bool interrupt) {
    auto promise = std::make_unique<boost::promise<CancelStatus>>();
    boost::unique_future<CancelStatus> result = promise->get_future();
    std::shared_ptr<RequestTracking> record;
    if (auto found = tracking_->find(id))
        record = std::move(*found); // the only strong reference this function holds
    if (!record) {
        promise->set_value(CancelNotFound);
        return result;
    }
    promise->set_wait_callback(boost::function<void(boost::promise<CancelStatus>&)>(
        [checker = std::make_shared<DeadlockChecker>(
             eventMgr_, std::weak_ptr<RequestTracking>(record), isLocal_, fennID_)](
            boost::promise<CancelStatus>&) { (*checker)(); }));
    record->cancel(std::move(promise));

    Address const to(exchangeName_, Address::SpecializedQueues::unordered());
    auto reply = foundation::msg_svc::exchange::submitForReply<IIPCancelReply>(
        *ExchangeApi::instance(), boost::make_shared<IIPCancelMessage>(id, interrupt), to);
    IIPCancelReply::CancelStatus status;
    {
        ReleaseCountedMutexGuard release(quorl::utils::getFennMutex());
        auto r = reply.get();
        status = r ? r->getStatus() : IIPCancelReply::CancelNotFound;
    }
    switch (status) {
    case IIPCancelReply::CancelNotFound:
        record->cancelled(CancelNotFound);
        break;
    case IIPCancelReply::CancelNotCancelled:
        record->cancelled(CancelNotCancelled);
        break;
    case IIPCancelReply::CancelAccepted: {
        // A request that ended before its cancel promise was installed is no longer in the map:
        // letting the record go here makes its destructor answer the cancel.
        record.reset();
        ReleaseCountedMutexGuard release(quorl::utils::getFennMutex());
        result.wait();
        break;
    }
    default:
        break;
    }
    return result;
}

} // namespace cmddistributor
