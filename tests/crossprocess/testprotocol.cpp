#include <boost/archive/polymorphic_binary_iarchive.hpp>
#include <boost/archive/polymorphic_binary_oarchive.hpp>

#include <tests/crossprocess/testprotocol.hpp>

#include <quorl/eventmgr/eventmgraccess.hpp>

#include <foundation/msg_svc/exchange/exchangeapi.hpp>

#include <boost/make_shared.hpp>
#include <boost/serialization/base_object.hpp>
#include <boost/serialization/export.hpp>
#include <boost/serialization/string.hpp>

#include <chrono>
#include <thread>

namespace crossprocess {

namespace {
std::atomic<int> pingsHandled{0};
// Kept for the life of the process: ended at exit, it would outlive the counts it updates.
foundation::msg_svc::eventmgr::Connection* pingConnection = nullptr;

struct Tally : TallyApi {
    int sum = 0; // only the actor's thread touches it
    boost::shared_ptr<Reply const> serve(TallyMessage const& m) override {
        sum += m.add;
        return boost::make_shared<EchoReply>(sum);
    }
};
} // namespace

void EchoReply::assignToPromise(
    boost::shared_ptr<boost::promise<boost::shared_ptr<EchoReply const>>> const& p,
    boost::shared_ptr<Reply const> const& r) {
    auto reply = boost::dynamic_pointer_cast<EchoReply const>(r);
    if (reply)
        p->set_value(reply);
    else
        p->set_exception(boost::copy_exception(std::runtime_error("not an EchoReply")));
}

template <class A> void EchoReply::serialize(A& ar, unsigned) {
    ar& boost::serialization::make_nvp("reply", boost::serialization::base_object<Reply>(*this));
    ar& boost::serialization::make_nvp("n", n);
    ar& boost::serialization::make_nvp("body", body);
    ar& boost::serialization::make_nvp("source", source);
}

boost::shared_ptr<Reply const> EchoMessage::deliver(Routing const& routing) const {
    if (n < 0)
        throw std::runtime_error("echo refused " + std::to_string(n));
    return boost::make_shared<EchoReply>(n, body, routing.source());
}

template <class A> void EchoMessage::serialize(A& ar, unsigned) {
    ar& boost::serialization::make_nvp("message",
                                       boost::serialization::base_object<Message>(*this));
    ar& boost::serialization::make_nvp("n", n);
    ar& boost::serialization::make_nvp("body", body);
}

PingEvent::PingEvent(int n)
    : BaseEvent(foundation::msg_svc::eventmgr::typeInformationOf<PingEvent>()), n(n) {}

template <class A> void PingEvent::serialize(A& ar, unsigned) {
    ar& boost::serialization::make_nvp("event",
                                       boost::serialization::base_object<BaseEvent>(*this));
    ar& boost::serialization::make_nvp("n", n);
}

boost::shared_ptr<Reply const> CountMessage::deliver(Routing const& routing) const {
    if (pongs > 0) {
        auto back =
            quorl::eventmgr::createRemoteEventMgr(routing.source(), boost::none, boost::none);
        for (int i = 0; i < pongs; ++i)
            back->notify<PingEvent>(foundation::msg_svc::eventmgr::DeliverQueued, i);
    }
    return boost::make_shared<EchoReply>(pingsHandled.load());
}

template <class A> void CountMessage::serialize(A& ar, unsigned) {
    ar& boost::serialization::make_nvp("message",
                                       boost::serialization::base_object<Message>(*this));
    ar& boost::serialization::make_nvp("pongs", pongs);
}

template <class A> void TallyMessage::serialize(A& ar, unsigned) {
    ar& boost::serialization::make_nvp("message",
                                       boost::serialization::base_object<Message>(*this));
    ar& boost::serialization::make_nvp("add", add);
}

void installServerSide() {
    auto session = quorl::eventmgr::createLocalEventMgr(boost::none);
    pingConnection = session
                         ->subscribe<PingEvent>([](PingEvent const&) {
                             // A slow subscriber: a flush that did not wait for it would count
                             // short.
                             std::this_thread::sleep_for(std::chrono::milliseconds(2));
                             ++pingsHandled;
                         })
                         .release();
    foundation::msg_svc::exchange::registerActor<TallyApi>(
        *foundation::msg_svc::exchange::ExchangeApi::instance(), "crossprocess.tally",
        boost::make_shared<Tally>());
}

} // namespace crossprocess

BOOST_CLASS_EXPORT(crossprocess::EchoReply)
BOOST_CLASS_EXPORT(crossprocess::EchoMessage)
BOOST_CLASS_EXPORT(crossprocess::PingEvent)
BOOST_CLASS_EXPORT(crossprocess::CountMessage)
BOOST_CLASS_EXPORT(crossprocess::TallyMessage)
