// The library end to end in one process: the reference host runs an interpreter thread per
// context; packaged tasks go to it through the distributor and come back through futures; one
// request is cancelled while it waits in the queue, another while it runs.
#include <quorl/host/host.hpp>

#include <quorl/quorl.hpp>

#include <boost/make_shared.hpp>

#include <atomic>
#include <chrono>
#include <iostream>
#include <thread>

using namespace cmddistributor;

namespace {

char const* cancelName(CmdDistributor::CancelStatus s) {
    switch (s) {
    case CmdDistributor::CancelNotFound:
        return "not found";
    case CmdDistributor::CancelNotCancelled:
        return "not cancelled";
    case CmdDistributor::CancelDone:
        return "cancelled";
    case CmdDistributor::CancelEndedByStatus4:
        return "interrupted";
    }
    return "?";
}

template <class F> boost::shared_ptr<FcnCmdRequest<void>> task(F f) {
    return boost::make_shared<FcnCmdRequest<void>>(f, nullptr, nullptr);
}

} // namespace

int main() {
    quorl::host::Host::start();
    auto distributor = CmdDistributor::instance(quorl::contextmgr::BlessedFennID);
    std::cout << "quorl " << quorl_version << ", exchange "
              << foundation::msg_svc::exchange::ExchangeApi::instance()->getExchangeName()
              << std::endl;

    // Three tasks in order on the interpreter thread.
    std::atomic<long> sum{0};
    for (int i = 1; i <= 3; ++i) {
        auto f = distributor->enqueueWithFuture(task([i, &sum] { sum += i * 100; }));
        f.get();
        std::cout << "task " << i << " done, sum " << sum.load() << std::endl;
    }

    // A task that fails: its error comes back through the future.
    try {
        distributor->enqueueWithFuture(task([] { throw std::runtime_error("division by zero"); }))
            .get();
    } catch (RuntimeException const& e) {
        std::cout << "failing task: status " << e.getExecutionStatus() << ", \"" << e.what() << "\""
                  << std::endl;
    }

    // Keep the interpreter busy, then cancel a request that waits behind it.
    std::atomic<bool> release{false};
    auto busy = distributor->enqueueWithFuture(task([&release] {
        while (!release)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }));
    foundation::msg_svc::exchange::IDType const queuedId;
    auto queued = distributor->enqueueWithFuture(task([] {}), queuedId);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    std::thread releaser([&release] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        release = true;
    });
    auto status = distributor->cancelRequest(queuedId, false).get();
    std::cout << "cancel of a queued request: " << cancelName(status) << std::endl;
    try {
        queued.get();
    } catch (AlreadyCancelledException const& e) {
        std::cout << "  its future reports " << e.what() << std::endl;
    }
    releaser.join();
    busy.get();
    std::cout << "cancel of a finished request: "
              << cancelName(distributor->cancelRequest(queuedId, true).get()) << std::endl;

    quorl::host::Host::stop();
    return 0;
}
