#pragma once
// ReplySpin: lets a thread that waits on a reply's future poll for the reply a short while
// before it sleeps.
//
// Waking a sleeping thread costs tens of microseconds where idle processors halt (virtual
// machines, power saving): more than the work of a whole round trip. A reply that comes within
// the spin finds its waiter still running. The price is processor time, at most the bound per
// wait; the spinning thread yields to any other thread that wants the processor.
//
// Ownership and threading: a ReplySpin is a cheap handle to one shared flag; copies (the promise's
// setter, the wait callback) share it. arm() the promise before its future is handed out; call
// ready() once the promise holds its result, value or exception, from any thread. The first wait
// on the future that finds it unready spins until ready() or the bound, whichever comes first,
// then goes on as usual: a timed wait still times out, at the earliest after the spin. Later
// waits (a loop that polls the future, say) do not spin again.
//
//     ReplySpin spin(std::chrono::microseconds(250));
//     auto promise = boost::make_shared<boost::promise<int>>();
//     spin.arm(*promise);
//     auto future = promise->get_future();
//     // on the thread that answers:  promise->set_value(42); spin.ready();
#include <boost/thread/future.hpp>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>

namespace foundation {
namespace msg_svc {
namespace exchange {

class ReplySpin {
public:
    // A bound of zero or less arms nothing: waits sleep at once.
    explicit ReplySpin(std::chrono::microseconds bound)
        : state_(std::make_shared<State>()), bound_(bound) {}

    template <class T> void arm(boost::promise<T>& promise) const {
        if (bound_.count() <= 0)
            return;
        promise.set_wait_callback(Waiter{state_, bound_});
    }

    void ready() const { state_->ready.store(true, std::memory_order_release); }

    // Polls `done` until it holds or `bound` has passed, yielding the processor in between; true
    // if it holds. The poll of every waiter of this kind (a future's, a transport's reader).
    template <class Done> static bool spinUntil(Done&& done, std::chrono::microseconds bound) {
        auto const until = std::chrono::steady_clock::now() + bound;
        for (;;) {
            if (done())
                return true;
            if (std::chrono::steady_clock::now() >= until)
                return false;
            std::this_thread::yield();
        }
    }

private:
    struct State {
        std::atomic<bool> ready{false};
        std::atomic<bool> spun{false}; // a wait has spun already
    };

    // The wait callback. It lives in the promise's shared state: it holds the flags, never the
    // promise, which would keep that state alive for ever.
    struct Waiter {
        typedef void result_type; // for boost::bind
        std::shared_ptr<State> state;
        std::chrono::microseconds bound;
        template <class Promise> void operator()(Promise&) const {
            if (!state->spun.exchange(true, std::memory_order_relaxed)) {
                std::atomic<bool> const& ready = state->ready;
                spinUntil([&ready] { return ready.load(std::memory_order_acquire); }, bound);
            }
        }
    };

    std::shared_ptr<State> state_;
    std::chrono::microseconds bound_;
};

} // namespace exchange
} // namespace msg_svc
} // namespace foundation
