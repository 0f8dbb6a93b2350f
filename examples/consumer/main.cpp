// A program outside the quorl tree: uses the installed headers and libraries.
#include <quorl/quorl.hpp>

#include <boost/make_shared.hpp>

#include <iostream>

int main() {
    using namespace quorl::contextmgr;
    ContextRegistry::setDefaultIDs(BlessedFennID, BlessedTarnID);
    auto exchange = foundation::msg_svc::exchange::ExchangeApi::instance();
    auto reply = foundation::msg_svc::exchange::submitForReply<cmddistributor::IIPCancelReply>(
                     *exchange,
                     boost::make_shared<cmddistributor::IIPCancelMessage>(
                         foundation::msg_svc::exchange::IDType(), false),
                     foundation::msg_svc::exchange::Address(
                         exchange->getExchangeName(),
                         foundation::msg_svc::exchange::Address::SpecializedQueues::unordered()))
                     .get();
    fenn_acquire_mutex();
    bool const held = fenn_mutex_is_acquired();
    fenn_release_mutex();
    std::cout << "consumer: quorl " << quorl_version << ", cancel status " << reply->getStatus()
              << ", fenn mutex " << (held ? "works" : "broken") << ", default context "
              << ContextRegistry::getFennID().value << std::endl;
    return reply->getStatus() == 0 && held ? 0 : 1;
}
