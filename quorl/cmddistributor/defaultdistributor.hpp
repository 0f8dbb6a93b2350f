#pragma once
// DefaultDistributor: the distributor of one runtime context towards one exchange. It keeps the
// requests in flight in a concurrent map by id, submits IIPEnqueueMessage and IIPCancelMessage,
// and turns what comes back (completion, discard, sink text, communication failure, shutdown)
// into fulfilled futures and written output.
//
// Ownership: the map owns the tracking records; subscriptions and the bypass hold weak pointers,
// so nothing here keeps a distributor alive. Distributors made by instance() are kept by a
// process-wide map for the life of the process; those made by create() by their callers.
// Threads: client threads enqueue and cancel; event threads (and an interpreter thread, through
// the bypass) complete. There is no distributor-wide lock: a request is finished exactly once
// because every completion path removes the record from the map before acting on it. The fenn
// mutex is never taken here, only given up around blocking waits.
// Failures: a repeated id throws std::logic_error "attempting to enqueue the same CmdRequest
// twice."; a packet that cannot be serialized, bound for another exchange, is refused with
// std::invalid_argument and never sent. A failed submission reaches the request's future (or the
// caller, without one); so does a failure at the receiving end (an undecodable message, a
// deliver that throws), which also ends the request's tracking. An exchange failure ends every
// tracked request with a RuntimeException of status 5; a shutdown drops them (broken_promise).
#include <quorl/cmddistributor/cmddistributor.hpp>

#include <foundation/core/config/boostthreadversion.hpp>
#include <foundation/core/log/diagnosticlogger.hpp>
#include <foundation/msg_svc/eventmgr/connection.hpp>
#include <foundation/msg_svc/exchange/address.hpp>
#include <foundation/msg_svc/exchange/communicationerrorevent.hpp>
#include <foundation/msg_svc/threadutil/concurrentmap.hpp>

#include <boost/exception_ptr.hpp>
#include <boost/function.hpp>
#include <boost/thread/once.hpp>

#include <mutex>

namespace cmddistributor {

class IIPSinkEvent;

class DefaultDistributor : public CmdDistributor {
public:
    typedef foundation::msg_svc::threadutil::ConcurrentMap<foundation::msg_svc::exchange::IDType,
                                                           std::shared_ptr<RequestTracking>>
        TrackingMap;

    // Serves `fennID` on the process's own exchange.
    explicit DefaultDistributor(quorl::contextmgr::FennID const& fennID);
    // Serves `fennID` on `exchangeName`, publishing and listening through `eventMgr`.
    DefaultDistributor(quorl::contextmgr::FennID const& fennID, std::string const& exchangeName,
                       boost::optional<quorl::contextmgr::TarnID> const& tarnID,
                       boost::shared_ptr<foundation::msg_svc::eventmgr::EventMgr> const& eventMgr);
    ~DefaultDistributor() override;

    boost::unique_future<CancelStatus>
    cancelRequest(foundation::msg_svc::exchange::IDType const& id, bool interrupt) override;
    quorl::contextmgr::FennID getFennID() const override { return fennID_; }
    std::string const& getExchangeName() const override { return exchangeName_; }
    void enqueueTracked(RequestTrackingPtr&& record,
                        foundation::msg_svc::exchange::IDType const& id,
                        quorl::cmddistributor::WhenToDequeue::WhenToDequeue when,
                        std::uint32_t bypassGuard) override;

    bool isLocal() const { return isLocal_; }
    // Requests in flight (a whole-table operation: for tests and diagnostics).
    std::size_t trackedCount() const;

private:
    void subscribe();
    void completed(IIPCompletedEvent const& event);
    void cancelled(foundation::msg_svc::exchange::IDType const& id);
    void sinkEvent(IIPSinkEvent const& event);
    void communicationError(foundation::msg_svc::exchange::CommunicationErrorEvent const& event);
    void shutdown();
    boost::shared_ptr<CmdRequest> getRequest(foundation::msg_svc::exchange::IDType const& id) const;
    void failSubmission(foundation::msg_svc::exchange::IDType const& id);
    boost::function<void(boost::exception_ptr const&)>
    deliveryFailedHandler(foundation::msg_svc::exchange::IDType const& id);
    void deliveryFailed(foundation::msg_svc::exchange::IDType const& id,
                        boost::exception_ptr const& error);

    std::unique_ptr<TrackingMap> tracking_;
    quorl::contextmgr::FennID fennID_;
    std::string exchangeName_;
    std::string localExchangeName_;
    foundation::msg_svc::exchange::Address address_;
    boost::optional<quorl::contextmgr::TarnID> tarnID_;
    boost::shared_ptr<foundation::msg_svc::eventmgr::EventMgr> eventMgr_;
    std::atomic<bool> shuttingDown_;
    foundation::core::log::diagnostic_logger log_;
    bool clearOnDestruction_;
    std::once_flag subscribeOnce_;
    IIP::EventMgrBypass bypass_; // made once in subscribe(); copied into each local packet
    foundation::msg_svc::eventmgr::ScopedConnection sinkConnection_;
    foundation::msg_svc::eventmgr::ScopedConnection completedConnection_;
    foundation::msg_svc::eventmgr::ScopedConnection discardedConnection_;
    foundation::msg_svc::eventmgr::ScopedConnection localShutdownConnection_;
    foundation::msg_svc::eventmgr::ScopedConnection remoteShutdownConnection_;
    foundation::msg_svc::eventmgr::ScopedConnection commErrorConnection_;
    bool isLocal_;
};

} // namespace cmddistributor
