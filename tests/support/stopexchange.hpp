#pragma once
// Stops a second exchange of a test process and waits until the process's other exchange has
// heard of it. The loopback transport reports a stopped peer on a thread of its own; a report
// still on its way when main returns would make an event while the process's statics are being
// destroyed.
#include <quorl/eventmgr/eventmgraccess.hpp>

#include <foundation/msg_svc/exchange/communicationerrorevent.hpp>
#include <foundation/msg_svc/exchange/exchangeapi.hpp>

#include <boost/shared_ptr.hpp>

#include <chrono>
#include <future>
#include <memory>
#include <mutex>
#include <string>

namespace quorl_testing {

// True when the report arrived within 20 s.
inline bool stopExchangeAndWaitForReport(
    boost::shared_ptr<foundation::msg_svc::exchange::ExchangeApi>& exchange) {
    using foundation::msg_svc::exchange::CommunicationErrorEvent;
    if (!exchange)
        return true;
    std::string const name = exchange->getExchangeName();
    auto heard = std::make_shared<std::promise<void>>();
    auto once = std::make_shared<std::once_flag>();
    auto manager = quorl::eventmgr::createLocalEventMgr(boost::none);
    auto connection = manager->subscribe<CommunicationErrorEvent>(
        [heard, once, name](CommunicationErrorEvent const& e) {
            if (e.getExchangeName() == name)
                std::call_once(*once, [&heard] { heard->set_value(); });
        });
    exchange.reset();
    return heard->get_future().wait_for(std::chrono::seconds(20)) == std::future_status::ready;
}

} // namespace quorl_testing
