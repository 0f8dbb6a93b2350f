#include <quorl/cmddistributor/futureexception.hpp>
#include <quorl/cmddistributor/iipcompletedevent.hpp>
#include <quorl/cmddistributor/promisedelegate.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>

using namespace cmddistributor;
using foundation::msg_svc::exchange::IDType;

namespace {
std::atomic<int> extracted{0};
void countExtraction(IIPCompletedEvent const&) {
    ++extracted;
}
void throwingExtraction(IIPCompletedEvent const&) {
    throw std::runtime_error("bad result");
}
int intExtraction(IIPCompletedEvent const& e) {
    return static_cast<int>(e.getIdOfChangedIIP().serial());
}
} // namespace

TEST(PromiseDelegate, FinisherFirstAndWaiterFirst) {
    IIPCompletedEvent const done(IDType(1, 2), quorl::cmddistributor::ExecutionSuccess);
    {
        // Finisher first: waiting returns at once.
        PromiseDelegateT<void> d(&countExtraction);
        auto f = d.getFuture();
        int const before = extracted.load(); // counts across repeats of the test
        d.setValue(done);
        EXPECT_TRUE(d.isPromiseDone());
        d.waitTillReady();
        f.get();
        EXPECT_EQ(extracted.load(), before + 1);
    }
    {
        // Asking first creates the task and answers false; a waiter blocks until setException.
        PromiseDelegateT<void> d(nullptr);
        auto f = d.getFuture();
        EXPECT_FALSE(d.isPromiseDone());
        auto handle = d.readyHandle(); // what waitTillReady waits on
        ASSERT_TRUE(handle.valid());
        EXPECT_EQ(handle.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
        std::promise<void> returned;
        auto waiterReturned = returned.get_future();
        std::thread waiter([&] {
            d.waitTillReady();
            returned.set_value();
        });
        // Nothing tells that the waiter is blocked, so this wait only gives an early return the
        // time to show; in whichever order the threads run, a correct waiter is still waiting.
        EXPECT_EQ(waiterReturned.wait_for(std::chrono::milliseconds(20)),
                  std::future_status::timeout);
        d.setException(boost::copy_exception(AlreadyCancelledException()));
        EXPECT_EQ(waiterReturned.wait_for(std::chrono::seconds(20)), std::future_status::ready);
        waiter.join();
        EXPECT_EQ(handle.wait_for(std::chrono::seconds(0)), std::future_status::ready);
        EXPECT_TRUE(d.isPromiseDone());
        EXPECT_THROW(f.get(), AlreadyCancelledException);
    }
    {
        // A throwing extraction reaches the future, and the delegate counts as finished.
        PromiseDelegateT<void> d(&throwingExtraction);
        auto f = d.getFuture();
        d.setValue(done);
        EXPECT_TRUE(d.isPromiseDone());
        EXPECT_THROW(f.get(), std::runtime_error);
        // A second completion reports that the promise is already satisfied.
        EXPECT_THROW(d.setValue(done), boost::promise_already_satisfied);
    }
    {
        PromiseDelegateT<int> d(&intExtraction);
        auto f = d.getFuture();
        d.setValue(done);
        EXPECT_EQ(f.get(), 2);
    }
}

TEST(PromiseDelegate, DestructionReleasesWaitersThroughBothDoors) {
    auto d = std::make_unique<PromiseDelegateT<void>>(nullptr);
    auto f = d->getFuture();
    std::atomic<int> callbacks{0};
    d->setWaitCallback([&] { ++callbacks; });
    // The handle waitTillReady waits on, taken while the delegate lives: a waiter must not touch
    // the delegate itself once it may be gone.
    std::shared_future<void> const ready = d->readyHandle();
    ASSERT_TRUE(ready.valid());
    auto waiter = std::async(std::launch::async, [&] { ready.wait(); });
    EXPECT_EQ(waiter.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
    d.reset();
    ASSERT_EQ(waiter.wait_for(std::chrono::seconds(20)), std::future_status::ready);
    EXPECT_THROW(f.get(), boost::broken_promise);
    // The handle does not go through the Boost future, so its wait callback never ran.
    EXPECT_EQ(callbacks.load(), 0);
}

TEST(PromiseDelegate, WaitersAndFinishersRace) {
    // Many rounds of a waiter and a finisher starting together; whoever comes first, the waiter
    // always returns and the future is always ready.
    IIPCompletedEvent const done(IDType(1, 3), quorl::cmddistributor::ExecutionSuccess);
    for (int round = 0; round < 300; ++round) {
        PromiseDelegateT<void> d(nullptr);
        auto f = d.getFuture();
        std::atomic<int> go{0};
        std::thread waiter([&] {
            ++go;
            while (go.load() < 2) {
            }
            d.waitTillReady();
        });
        std::thread finisher([&] {
            ++go;
            while (go.load() < 2) {
            }
            if (round % 2)
                d.setValue(done);
            else
                d.setException(boost::copy_exception(WrongThreadException()));
        });
        waiter.join();
        finisher.join();
        ASSERT_TRUE(d.isPromiseDone());
        ASSERT_TRUE(f.is_ready());
    }
}

TEST(PromiseDelegate, WaitCallbacksRunBeforeAnUnreadyWaitAndTheirErrorsReachGet) {
    struct Counting : SharedWaitCallback::Callable {
        std::atomic<int> calls{0};
        void operator()() override {
            if (++calls == 1)
                throw WrongThreadException();
        }
    };
    // A shared callable is installed itself, not a copy: the calls land on this very object.
    auto counting = std::make_shared<Counting>();
    auto d = std::make_unique<PromiseDelegateT<int>>(&intExtraction);
    auto f = d->getFuture();
    d->setWaitCallback(SharedWaitCallback(counting));
    EXPECT_EQ(counting.use_count(), 2) << "held once, by the promise";
    EXPECT_THROW(f.get(), WrongThreadException);
    EXPECT_FALSE(f.is_ready()) << "a throwing callback leaves the future as it was";

    // A plain function replaces it; an empty one removes any callback.
    std::atomic<int> plain{0};
    d->setWaitCallback([&] {
        ++plain;
        d->setValue(IIPCompletedEvent(IDType(1, 7), quorl::cmddistributor::ExecutionSuccess));
    });
    EXPECT_EQ(counting.use_count(), 1) << "the replaced callable is let go";
    EXPECT_EQ(f.get(), 7);
    EXPECT_EQ(plain.load(), 1);
    EXPECT_EQ(counting->calls.load(), 1);

    auto quiet = std::make_unique<PromiseDelegateT<void>>(nullptr);
    auto g = quiet->getFuture();
    quiet->setWaitCallback(SharedWaitCallback(counting));
    quiet->setWaitCallback(boost::function<void()>());
    // A wait on the unready future would run an installed callback before it times out.
    EXPECT_FALSE(g.timed_wait(boost::posix_time::milliseconds(0)));
    EXPECT_EQ(counting->calls.load(), 1) << "no callback once cleared";
    quiet->setValue(IIPCompletedEvent(IDType(1, 8), quorl::cmddistributor::ExecutionSuccess));
    g.get();
}
