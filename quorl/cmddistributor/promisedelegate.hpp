#pragma once
// PromiseDelegate: stands between a request's tracking record and the caller's future. The typed
// subclass turns a completion event into the result and holds the boost::promise behind the
// caller's boost::unique_future. Besides that it offers a second way to wait for the same end,
// waitTillReady, which does not go through the Boost future (so it does not start the future's
// wait callback).
//
// A waiter and a finisher meet on one atomic word without a lock: either the waiter sees the
// finished mark and does not wait, or the finisher runs the task the waiter waits on.
// setValue/setException run on an event or interpreter thread, waitTillReady on a client
// thread, isPromiseDone anywhere. Destroying the delegate breaks the caller's future
// (broken_promise) and releases a thread blocked in waitTillReady. A caller must not destroy
// the delegate while another thread is about to enter waitTillReady (only one already blocked
// in it is released safely).
#include <foundation/core/config/boostthreadversion.hpp>
#include <foundation/core/memory/poolallocator.hpp>

#include <boost/function.hpp>
#include <boost/make_shared.hpp>
#include <boost/thread/future.hpp>

#include <atomic>
#include <cstdint>
#include <future>
#include <memory>

namespace cmddistributor {

class IIPCompletedEvent;

// A wait callback that lives behind a shared pointer. PromiseDelegateT::setWaitCallback installs
// a boost::function holding one as it is, without copying the callable again.
class SharedWaitCallback {
public:
    struct Callable {
        virtual ~Callable() = default;
        virtual void operator()() = 0;
    };
    explicit SharedWaitCallback(std::shared_ptr<Callable> callable)
        : callable_(std::move(callable)) {}
    void operator()() const { (*callable_)(); }
    std::shared_ptr<Callable> const& callable() const { return callable_; }

private:
    std::shared_ptr<Callable> callable_;
};

class PromiseDelegate : public foundation::core::memory::PoolAllocated {
public:
    PromiseDelegate() : currentTask_(nullptr) {}
    PromiseDelegate(PromiseDelegate const&) = delete;
    PromiseDelegate& operator=(PromiseDelegate const&) = delete;
    virtual ~PromiseDelegate();

    virtual void setValue(IIPCompletedEvent const& event) = 0;
    virtual void setException(boost::exception_ptr const& exception) = 0;
    virtual void setWaitCallback(boost::function<void()> const& callback) = 0;
    // Blocks until the delegate has been finished (or destroyed).
    virtual void waitTillReady() const;
    // A handle that becomes ready when the delegate is finished or destroyed, and that may be
    // waited on after the delegate is gone; invalid when the delegate is finished already.
    // Waiting on it is waitTillReady without keeping the delegate (or its owner) alive.
    std::shared_future<void> readyHandle() const;
    // True when finished. May create the rendezvous task.
    virtual bool isPromiseDone() const;

protected:
    // Marks the delegate finished, releasing a waiter if there is one.
    void tryRunTask();
    // Orders what waiters did before they blocked before the destruction that releases them.
    void acquireWaiters() const { (void)currentTask_.load(std::memory_order_acquire); }

private:
    struct ReadyTask {
        ReadyTask() : task([] {}), future(task.get_future().share()) {}
        std::packaged_task<void()> task;
        std::shared_future<void> future;
    };
    static ReadyTask* finishedMark() { return reinterpret_cast<ReadyTask*>(~std::uintptr_t(0)); }
    ReadyTask* getCurrentTask() const;

    // null: nobody waited and nothing finished; finishedMark(): finished; else the waiter's task.
    mutable std::atomic<ReadyTask*> currentTask_;
};

template <class T> class PromiseDelegateT : public PromiseDelegate {
public:
    typedef T (*ExtractResult)(IIPCompletedEvent const&);

    explicit PromiseDelegateT(ExtractResult const extractResult) : extractResult_(extractResult) {}
    ~PromiseDelegateT() override {
        acquireWaiters();
        boost::promise<T> broken(std::move(promise_)); // breaks the future before waiters go
    }

    // Called once, before the record is enqueued.
    boost::unique_future<T> getFuture() { return promise_.get_future(); }

    void setValue(IIPCompletedEvent const& event) override {
        try {
            setFromEvent(event, std::is_void<T>());
        } catch (...) {
            promise_.set_exception(boost::current_exception());
        }
        tryRunTask();
    }

    void setException(boost::exception_ptr const& exception) override {
        promise_.set_exception(exception);
        tryRunTask();
    }

    void setWaitCallback(boost::function<void()> const& callback) override {
        // Boost copies the callback several times while installing it. Behind one shared
        // pointer, each copy fits boost::function's inline buffer and allocates nothing.
        std::shared_ptr<SharedWaitCallback::Callable> callable;
        if (auto const* shared = callback.template target<SharedWaitCallback>())
            callable = shared->callable();
        else if (!callback.empty())
            callable = foundation::core::memory::makePooledShared<FunctionCallable>(callback);
        promise_.set_wait_callback(WaitHook{std::move(callable)}); // null: no callback
    }

private:
    struct FunctionCallable : SharedWaitCallback::Callable {
        explicit FunctionCallable(boost::function<void()> const& f) : function(f) {}
        void operator()() override { function(); }
        boost::function<void()> function;
    };
    struct WaitHook {
        typedef void result_type; // boost::bind asks for it
        std::shared_ptr<SharedWaitCallback::Callable> callable;
        void operator()(boost::promise<T>&) const {
            if (callable)
                (*callable)();
        }
    };

    void setFromEvent(IIPCompletedEvent const& event, std::true_type) {
        if (extractResult_)
            extractResult_(event);
        promise_.set_value();
    }
    template <class U = T> void setFromEvent(IIPCompletedEvent const& event, std::false_type) {
        if (!extractResult_)
            throw std::logic_error("PromiseDelegateT: no result extraction for a typed result");
        promise_.set_value(extractResult_(event));
    }

    boost::promise<T> promise_;
    ExtractResult const extractResult_;
};

extern template class PromiseDelegateT<void>;

} // namespace cmddistributor
