#include <foundation/msg_svc/serialization/archives.hpp>

#include <quorl/cmddistributor/defaultiipstateevent.hpp>
#include <quorl/cmddistributor/iipenqueuemessage.hpp>
#include <quorl/eventmgr/eventmgraccess.hpp>

#include <foundation/core/log/diagnosticlogger.hpp>
#include <foundation/msg_svc/exchange/exchangeapi.hpp>
#include <foundation/msg_svc/exchange/reply.hpp>

#include <boost/serialization/base_object.hpp>
#include <foundation/msg_svc/serialization/optional.hpp>

#include <atomic>
#include <iomanip>

namespace cmddistributor {

using foundation::msg_svc::exchange::IDType;
using foundation::msg_svc::exchange::Message;
using foundation::msg_svc::exchange::Reply;
using quorl::contextmgr::FennID;
using quorl::contextmgr::TarnID;
namespace WTD = quorl::cmddistributor::WhenToDequeue;

namespace {
std::atomic<DeliverFuncPtr> deliverFunc{nullptr};
}

void setDeliverFuncPtr(DeliverFuncPtr handler) {
    DeliverFuncPtr expected = nullptr;
    deliverFunc.compare_exchange_strong(expected, handler);
}

IIPEnqueueMessage::IIPEnqueueMessage(
    boost::shared_ptr<IIP const> const& iip, IDType const& iipId, FennID const& fennId,
    boost::optional<TarnID> const& tarnId,
    boost::shared_ptr<foundation::msg_svc::eventmgr::EventMgr> const& eventMgr,
    WTD::WhenToDequeue dequeueMode, bool hasFuture)
    : iip_(iip), iipId_(iipId), fennId_(fennId), tarnId_(tarnId), eventMgr_(eventMgr),
      dequeueMode_(dequeueMode), hasFuture_(hasFuture) {}

IIPEnqueueMessage::IIPEnqueueMessage()
    : iipId_(0, 0), fennId_(quorl::contextmgr::AnyFennID), dequeueMode_(WTD::DequeueDefault),
      hasFuture_(false) {}

IIPEnqueueMessage::~IIPEnqueueMessage() = default;

boost::shared_ptr<Reply const>
IIPEnqueueMessage::deliver(foundation::msg_svc::exchange::Routing const& routing) const {
    boost::shared_ptr<IIP> iip = boost::const_pointer_cast<IIP>(iip_);
    auto eventMgr = eventMgr_;
    if (!eventMgr && routing.source() !=
                         foundation::msg_svc::exchange::ExchangeApi::instance()->getExchangeName())
        // Read from another exchange: the packet's events go back to the session there.
        eventMgr = quorl::eventmgr::createRemoteEventMgr(routing.source(), tarnId_, boost::none);
    if (DeliverFuncPtr f = deliverFunc.load())
        return f(routing, iip, iipId_, fennId_, tarnId_, eventMgr, dequeueMode_, hasFuture_);
    static std::atomic<bool> warned{false};
    if (!warned.exchange(true)) {
        static foundation::core::log::diagnostic_logger const log(
            "cmddistributor::IIPEnqueueMessage");
        ZN_LOG(log, foundation::core::log::warning)
            << "no deliver function is installed (setDeliverFuncPtr): enqueued packets are "
               "discarded (reported once per process)";
    }
    auto manager = quorl::eventmgr::createLocalEventMgr(boost::optional<TarnID>());
    manager->notifyIfWatched<IIPDiscardedEvent>(foundation::msg_svc::eventmgr::DeliverQueued,
                                                iipId_);
    return Reply::defaultReply();
}

std::ostream& IIPEnqueueMessage::toString(std::ostream& os, int indent) const {
    Message::toString(os, indent);
    os << std::setw(indent + 2) << ' ' << "IIP: ";
    if (iip_)
        iip_->write(os);
    else
        os << "null";
    os << '\n';
    os << std::setw(indent + 2) << ' ' << "hasFuture: " << (hasFuture_ ? "true" : "false") << '\n';
    os << std::setw(indent + 2) << ' ' << "FENNID: " << fennId_.value << "TARNID: ";
    if (tarnId_)
        os << tarnId_->value;
    else
        os << "none";
    return os << '\n';
}

bool IIPEnqueueMessage::protectedEquals(Message const& other) const {
    return Message::protectedEquals(other) &&
           privateEquals(static_cast<IIPEnqueueMessage const&>(other));
}

bool IIPEnqueueMessage::privateEquals(IIPEnqueueMessage const& o) const {
    if (fennId_ != o.fennId_ || bool(tarnId_) != bool(o.tarnId_))
        return false;
    if (tarnId_ && *tarnId_ != *o.tarnId_)
        return false;
    return bool(iip_) == bool(o.iip_) && iipId_ == o.iipId_ && dequeueMode_ == o.dequeueMode_ &&
           hasFuture_ == o.hasFuture_;
}

template <class Archive>
void IIPEnqueueMessage::serializeExplicit(Archive& ar, unsigned int version) {
    ar& boost::serialization::make_nvp("message",
                                       boost::serialization::base_object<Message>(*this));
    if (Archive::is_saving::value) {
        int fenn = fennId_.value;
        ar& boost::serialization::make_nvp("fennid", fenn);
        IIP* raw = const_cast<IIP*>(iip_.get());
        ar& boost::serialization::make_nvp("iip", raw);
        if (version >= 5)
            ar& boost::serialization::make_nvp("iipid", iipId_);
        ar& boost::serialization::make_nvp("tarnid", tarnId_);
        if (version >= 4) {
            ar& boost::serialization::make_nvp("hasFuture", hasFuture_);
        } else if (version >= 2) {
            bool isMtFEval = false;
            ar& boost::serialization::make_nvp("isMtFEval", isMtFEval);
        }
        if (version >= 3) {
            int mode = dequeueMode_;
            ar& boost::serialization::make_nvp("dequeueMode", mode);
        }
        return;
    }
    int fenn = 0;
    ar& boost::serialization::make_nvp("fennid", fenn);
    IIP* raw = nullptr;
    ar& boost::serialization::make_nvp("iip", raw);
    fennId_ = FennID{fenn};
    iip_.reset(raw);
    if (version >= 5)
        ar& boost::serialization::make_nvp("iipid", iipId_);
    ar& boost::serialization::make_nvp("tarnid", tarnId_);
    if (version >= 4) {
        ar& boost::serialization::make_nvp("hasFuture", hasFuture_);
    } else if (version >= 2) {
        bool isMtFEval = false;
        ar& boost::serialization::make_nvp("isMtFEval", isMtFEval); // read and dropped
    }
    if (version >= 3) {
        int mode = 0;
        ar& boost::serialization::make_nvp("dequeueMode", mode);
        dequeueMode_ = static_cast<WTD::WhenToDequeue>(mode);
    } else {
        dequeueMode_ = WTD::DequeueLegacy;
    }
}
ZN_SERIALIZE_EXPLICIT(IIPEnqueueMessage)

} // namespace cmddistributor

BOOST_CLASS_EXPORT_IMPLEMENT(cmddistributor::IIPEnqueueMessage)
