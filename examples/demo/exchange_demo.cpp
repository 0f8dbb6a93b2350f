// Sends cancel and run-now messages through the process's exchange to host functions
// installed the way an interpreter host installs them, and prints what comes back.
#include <quorl/quorl.hpp>

#include <boost/make_shared.hpp>

#include <iostream>
#include <mutex>
#include <set>

using foundation::msg_svc::exchange::Address;
using foundation::msg_svc::exchange::ExchangeApi;
using foundation::msg_svc::exchange::IDType;
using foundation::msg_svc::exchange::Reply;

namespace {

// A toy interpreter side: packets it knows are queued; cancelling one discards it.
std::mutex queueMutex;
std::set<IDType> queued;

boost::shared_ptr<Reply const> cancelPacket(IDType const& id, bool interrupt) {
    std::lock_guard<std::mutex> lock(queueMutex);
    auto status = queued.erase(id) ? cmddistributor::IIPCancelReply::CancelAccepted
                                   : cmddistributor::IIPCancelReply::CancelNotFound;
    std::cout << "  host: cancel " << id.toString() << (interrupt ? " (interrupt)" : "")
              << " -> " << status << std::endl;
    return boost::make_shared<cmddistributor::IIPCancelReply const>(status);
}

void runPacketNow(IDType const& id) {
    std::lock_guard<std::mutex> lock(queueMutex);
    std::cout << "  host: run now " << id.toString()
              << (queued.erase(id) ? " (ran it)" : " (not queued)") << std::endl;
}

} // namespace

int main() {
    cmddistributor::setCancelFuncPtr(&cancelPacket);
    cmddistributor::setRunNowFuncPtr(&runPacketNow);

    auto exchange = ExchangeApi::instance();
    std::cout << "quorl " << quorl_version << ", exchange " << exchange->getExchangeName()
              << std::endl;
    IDType const first, second, unknown;
    {
        std::lock_guard<std::mutex> lock(queueMutex);
        queued.insert(first);
        queued.insert(second);
    }
    Address const unordered(exchange->getExchangeName(), Address::SpecializedQueues::unordered());
    Address const inOrder(exchange->getExchangeName(), Address::SpecializedQueues::noqueue());

    for (IDType const& id : {first, unknown}) {
        std::cout << "cancel " << id.toString() << std::endl;
        auto reply = foundation::msg_svc::exchange::submitForReply<cmddistributor::IIPCancelReply>(
                         *exchange, boost::make_shared<cmddistributor::IIPCancelMessage>(id, true),
                         unordered)
                         .get();
        std::cout << "  reply:";
        reply->toString(std::cout, 2);
    }
    std::cout << "run now " << second.toString() << std::endl;
    auto reply =
        exchange->submitWithReply(boost::make_shared<cmddistributor::IIPRunNowMessage>(second),
                                  inOrder)
            .get();
    std::cout << "  reply: " << (reply == Reply::defaultReply() ? "default" : "other") << std::endl;
    return 0;
}
