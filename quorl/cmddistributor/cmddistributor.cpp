#include <quorl/cmddistributor/cmddistributor.hpp>
#include <quorl/cmddistributor/futureexception.hpp>
#include <quorl/cmddistributor/iipcompletedevent.hpp>

#include <foundation/core/log/diagnosticlogger.hpp>

#include <boost/exception/diagnostic_information.hpp>

namespace cmddistributor {

namespace {
std::atomic<bool> gantryRunning{false};
} // namespace

boost::exception_ptr const& alreadyCancelledExceptionPtr() {
    static boost::exception_ptr const discarded =
        boost::copy_exception(AlreadyCancelledException());
    return discarded;
}

bool ifRunningGantry() {
    return gantryRunning.load(std::memory_order_relaxed);
}

void setGantryRunning(bool running) {
    gantryRunning.store(running, std::memory_order_relaxed);
}

void CmdDistributor::RequestTrackingDeleter::operator()(RequestTracking* record) const {
    delete record;
}

CmdDistributor::RequestTracking::RequestTracking(boost::shared_ptr<CmdRequest> request,
                                                 std::unique_ptr<PromiseDelegate>&& promise,
                                                 bool trustsContinuation,
                                                 std::function<void()>&& continuation)
    : trustsContinuation_(trustsContinuation), request_(std::move(request)),
      promise_(std::move(promise)), cancelStatus_(CancelNotCancelled), cancelPromise_(nullptr) {
    if (continuation) {
        continuation_ = [f = std::move(continuation)]() {
            try {
                f();
            } catch (...) {
                foundation::core::log::diagnostic_logger log("cmddistributor::RequestTracking");
                if (log.is_enabled(foundation::core::log::error)) {
                    log.write(foundation::core::log::error,
                              "Unhandled exception caught from CmdRequest continuation: " +
                                  boost::current_exception_diagnostic_information());
                }
            }
        };
    }
}

CmdDistributor::RequestTracking::~RequestTracking() {
    answerCancel(cancelStatus_.load());
    continuation_ = nullptr;
    promise_.reset();
    request_.reset();
}

void CmdDistributor::RequestTracking::answerCancel(CancelStatus status) {
    if (boost::promise<CancelStatus>* p = cancelPromise_.exchange(nullptr)) {
        try {
            p->set_value(status);
        } catch (...) {
        }
        delete p;
    }
}

void CmdDistributor::RequestTracking::setValue(IIPCompletedEvent const& event) {
    if (promise_) {
        if (auto e = event.getException())
            promise_->setException(toExceptionPtr(*e));
        else
            promise_->setValue(event);
    }
    if (continuation_)
        continuation_();
    CancelStatus const status =
        event.getExecutionStatus() == quorl::cmddistributor::ExecutionInterrupted
            ? CancelEndedByStatus4
            : CancelNotCancelled;
    cancelStatus_.store(status);
    answerCancel(status);
}

void CmdDistributor::RequestTracking::setException(boost::exception_ptr const& exception) {
    // The exception is looked at before the client can have it: rethrowing copies the exception
    // object, and Boost counts the copies of its error information without atomics, so two
    // threads must not rethrow the same exception at once.
    bool cancelledBefore = exception == alreadyCancelledExceptionPtr();
    if (!cancelledBefore) {
        try {
            boost::rethrow_exception(exception);
        } catch (AlreadyCancelledException const&) {
            cancelledBefore = true;
        } catch (...) {
        }
    }
    if (promise_)
        promise_->setException(exception);
    if (continuation_)
        continuation_();
    if (cancelledBefore)
        cancelStatus_.store(CancelDone);
    answerCancel(cancelStatus_.load());
}

void CmdDistributor::RequestTracking::setException(boost::exception_ptr&& exception) {
    boost::exception_ptr const e(std::move(exception));
    setException(e);
}

void CmdDistributor::RequestTracking::cancel(
    std::unique_ptr<boost::promise<CancelStatus>>&& cancelPromise) {
    boost::promise<CancelStatus>* expected = nullptr;
    if (!cancelPromise_.compare_exchange_strong(expected, cancelPromise.get()))
        throw AlreadyCancelledException();
    cancelPromise.release();
}

void CmdDistributor::RequestTracking::cancelled(CancelStatus const& status) {
    cancelStatus_.store(status);
    answerCancel(status);
}

CmdDistributor::CmdDistributor() = default;
CmdDistributor::~CmdDistributor() = default;

void CmdDistributor::enqueue(boost::shared_ptr<CmdRequest> const& request,
                             quorl::cmddistributor::WhenToDequeue::WhenToDequeue when) {
    enqueue(request, foundation::msg_svc::exchange::IDType(), when);
}

void CmdDistributor::enqueue(boost::shared_ptr<CmdRequest> const& request,
                             foundation::msg_svc::exchange::IDType const& id,
                             quorl::cmddistributor::WhenToDequeue::WhenToDequeue when) {
    boost::shared_ptr<CmdRequest> copy = request;
    RequestTrackingPtr record = makeRequestTracking(copy, nullptr, false);
    enqueueTracked(std::move(record), id, when, 0);
}

bool CmdDistributor::cancel(foundation::msg_svc::exchange::IDType const& id) {
    return cancelRequest(id, false).get() == CancelDone;
}

CmdDistributor::RequestTrackingPtr
CmdDistributor::makeRequestTracking(boost::shared_ptr<CmdRequest> request,
                                    std::unique_ptr<PromiseDelegate>&& promise,
                                    bool trustsContinuation, std::function<void()>&& continuation) {
    return RequestTrackingPtr(new RequestTracking(std::move(request), std::move(promise),
                                                  trustsContinuation, std::move(continuation)));
}

CmdDistributor::RequestTrackingPtr
CmdDistributor::makeRequestTracking(boost::shared_ptr<CmdRequest> request,
                                    std::unique_ptr<PromiseDelegate>&& promise,
                                    bool trustsContinuation) {
    return makeRequestTracking(std::move(request), std::move(promise), trustsContinuation,
                               std::function<void()>());
}

} // namespace cmddistributor
