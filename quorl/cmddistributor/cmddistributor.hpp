#pragma once
// CmdDistributor: the front that clients talk to. It finds or creates the distributor of a
// runtime context, takes requests (enqueue) and cancels them. CmdDistributor::RequestTracking is
// the client-side record of one request: what to complete when the interpreter has finished and
// what to tell a cancel that waits. DefaultDistributor is the one implementation.
//
// Ownership: a distributor's map owns the records; a record owns its request, promise delegate
// and continuation until the request ends. Threads: every operation may be called from any
// thread; records are completed on event threads (or an interpreter thread, through the bypass)
// while clients cancel them. A record's cancel promise is fulfilled exactly once, always after
// the request's own future.
#include <foundation/core/config/boostthreadversion.hpp>
#include <quorl/cmddistributor/cmdrequest.hpp>
#include <quorl/cmddistributor/promisedelegate.hpp>
#include <quorl/cmddistributor/whentodequeue.hpp>
#include <quorl/contextmgr/fennid.hpp>
#include <quorl/contextmgr/tarnid.hpp>

#include <foundation/core/memory/poolallocator.hpp>
#include <foundation/msg_svc/eventmgr/eventmgr.hpp>
#include <foundation/msg_svc/exchange/idtype.hpp>

#include <boost/enable_shared_from_this.hpp>
#include <boost/optional.hpp>
#include <boost/thread/future.hpp>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>

namespace cmddistributor {

class CmdDistributor : public boost::enable_shared_from_this<CmdDistributor> {
public:
    enum CancelStatus : std::int32_t {
        CancelNotFound = 0,
        CancelNotCancelled = 1,
        CancelDone = 2,
        CancelEndedByStatus4 = 3,
    };

    class RequestTracking;
    struct RequestTrackingDeleter {
        void operator()(RequestTracking* record) const;
    };
    typedef std::unique_ptr<RequestTracking, RequestTrackingDeleter> RequestTrackingPtr;

    // Made on a client thread and usually freed on another: taken from the pool.
    class RequestTracking : public foundation::core::memory::PoolAllocated {
    public:
        RequestTracking(boost::shared_ptr<CmdRequest> request,
                        std::unique_ptr<PromiseDelegate>&& promise, bool trustsContinuation,
                        std::function<void()>&& continuation);

        boost::shared_ptr<CmdRequest> const& getRequest() const { return request_; }
        bool hasPromise() const { return bool(promise_); }
        bool hasContinuation() const { return bool(continuation_); }
        bool needsDeadlockChecking() const {
            return promise_ && (!trustsContinuation_ || !hasContinuation());
        }
        bool isRequestDone() const { return !promise_ || promise_->isPromiseDone(); }
        void waitTillReady() const {
            if (promise_)
                promise_->waitTillReady();
        }
        PromiseDelegate* getPromise() const { return promise_.get(); }
        // See PromiseDelegate::readyHandle; invalid without a promise.
        std::shared_future<void> readyHandle() const {
            return promise_ ? promise_->readyHandle() : std::shared_future<void>();
        }

        void setValue(IIPCompletedEvent const& event);
        void setException(boost::exception_ptr const& exception);
        void setException(boost::exception_ptr&& exception);
        // Takes the cancel's promise; a cancel already pending throws AlreadyCancelledException
        // and leaves `cancelPromise` with the caller.
        void cancel(std::unique_ptr<boost::promise<CancelStatus>>&& cancelPromise);
        void cancelled(CancelStatus const& status);
        CancelStatus getCancelStatus() const { return cancelStatus_.load(); }

    private:
        friend struct RequestTrackingDeleter;
        ~RequestTracking();
        void answerCancel(CancelStatus status);

        bool const trustsContinuation_;
        boost::shared_ptr<CmdRequest> request_;
        std::unique_ptr<PromiseDelegate> promise_;
        std::function<void()> continuation_;
        std::atomic<CancelStatus> cancelStatus_;
        std::atomic<boost::promise<CancelStatus>*> cancelPromise_; // owned when non-null
    };

    virtual ~CmdDistributor();

    // The process's default distributor (key AnyFennID).
    static CmdDistributor& instance();
    // The distributor of a context: a live one registered by create, else one made and kept.
    static boost::shared_ptr<CmdDistributor> instance(quorl::contextmgr::FennID const& id);
    // A distributor bound to an exchange. On the local exchange one per id (null once it died);
    // on another exchange a new one at each call.
    static boost::shared_ptr<CmdDistributor>
    create(quorl::contextmgr::FennID const& id, std::string const& exchangeName,
           boost::optional<quorl::contextmgr::TarnID> const& tarn,
           boost::shared_ptr<foundation::msg_svc::eventmgr::EventMgr> const& eventMgr);

    // Fire and forget.
    virtual void enqueue(boost::shared_ptr<CmdRequest> const& request,
                         quorl::cmddistributor::WhenToDequeue::WhenToDequeue when);
    virtual void enqueue(boost::shared_ptr<CmdRequest> const& request,
                         foundation::msg_svc::exchange::IDType const& id,
                         quorl::cmddistributor::WhenToDequeue::WhenToDequeue when);
    virtual boost::unique_future<CancelStatus>
    cancelRequest(foundation::msg_svc::exchange::IDType const& id, bool interrupt) = 0;
    virtual quorl::contextmgr::FennID getFennID() const = 0;
    virtual std::string const& getExchangeName() const = 0;
    virtual void enqueueTracked(RequestTrackingPtr&& record,
                                foundation::msg_svc::exchange::IDType const& id,
                                quorl::cmddistributor::WhenToDequeue::WhenToDequeue when,
                                std::uint32_t bypassGuard) = 0;

    // Cancels without interrupting; true only when the request was discarded (status 2).
    bool cancel(foundation::msg_svc::exchange::IDType const& id);

    // Enqueues a request with a result; the future carries CmdRequestTraits<R>::extractResult's
    // value or the request's error.
    template <class R, class T = decltype(CmdRequestTraits<R>::extractResult(
                           std::declval<IIPCompletedEvent const&>()))>
    boost::unique_future<T> enqueueWithFuture(
        boost::shared_ptr<R> const& request,
        foundation::msg_svc::exchange::IDType const& id = foundation::msg_svc::exchange::IDType(),
        quorl::cmddistributor::WhenToDequeue::WhenToDequeue when =
            quorl::cmddistributor::WhenToDequeue::DequeueDefault) {
        return enqueueWithContinuation<R, T>(request, std::function<void()>(), id, when);
    }

    // As enqueueWithFuture, and runs `continuation` once the request ended (on the thread that
    // completes it; an exception from it is logged and swallowed).
    template <class R, class T = decltype(CmdRequestTraits<R>::extractResult(
                           std::declval<IIPCompletedEvent const&>()))>
    boost::unique_future<T> enqueueWithContinuation(
        boost::shared_ptr<R> const& request, std::function<void()> continuation,
        foundation::msg_svc::exchange::IDType const& id = foundation::msg_svc::exchange::IDType(),
        quorl::cmddistributor::WhenToDequeue::WhenToDequeue when =
            quorl::cmddistributor::WhenToDequeue::DequeueDefault) {
        if (!request)
            throw std::invalid_argument("request cannot be null.");
        if (!request->getIIP())
            throw std::invalid_argument("request must contain an IIP.");
        auto delegate = std::make_unique<PromiseDelegateT<T>>(&CmdRequestTraits<R>::extractResult);
        boost::unique_future<T> future = delegate->getFuture();
        enqueueTracked(
            makeRequestTracking(request, std::move(delegate), true, std::move(continuation)), id,
            when, 0);
        return future;
    }

protected:
    CmdDistributor();

    static RequestTrackingPtr makeRequestTracking(boost::shared_ptr<CmdRequest> request,
                                                  std::unique_ptr<PromiseDelegate>&& promise,
                                                  bool trustsContinuation,
                                                  std::function<void()>&& continuation);
    static RequestTrackingPtr makeRequestTracking(boost::shared_ptr<CmdRequest> request,
                                                  std::unique_ptr<PromiseDelegate>&& promise,
                                                  bool trustsContinuation);
};

// The gantry flag; nothing in this library reads it but ifRunningGantry.
bool ifRunningGantry();
void setGantryRunning(bool running);

} // namespace cmddistributor
