#include <foundation/msg_svc/serialization/archives.hpp>

#include <quorl/cmddistributor/iipcancelmessage.hpp>
#include <quorl/cmddistributor/iipcancelreply.hpp>

#include <boost/make_shared.hpp>
#include <boost/serialization/base_object.hpp>

#include <atomic>
#include <iomanip>

namespace cmddistributor {

using foundation::msg_svc::exchange::Message;
using foundation::msg_svc::exchange::Reply;

namespace {
std::atomic<CancelFuncPtr> cancelFunc{nullptr};
}

void setCancelFuncPtr(CancelFuncPtr handler) {
    CancelFuncPtr expected = nullptr;
    cancelFunc.compare_exchange_strong(expected, handler);
}

IIPCancelMessage::IIPCancelMessage(foundation::msg_svc::exchange::IDType const& id, bool interrupt)
    : id_(id), interrupt_(interrupt) {}

IIPCancelMessage::~IIPCancelMessage() = default;

boost::shared_ptr<Reply const>
IIPCancelMessage::deliver(foundation::msg_svc::exchange::Routing const&) const {
    if (CancelFuncPtr f = cancelFunc.load())
        return f(id_, interrupt_);
    return boost::make_shared<IIPCancelReply const>(IIPCancelReply::CancelNotFound);
}

std::ostream& IIPCancelMessage::toString(std::ostream& os, int indent) const {
    Message::toString(os, indent);
    os << std::setw(indent + 2) << ' ' << "IIPID: " << id_.toString() << '\n';
    os << std::setw(indent + 2) << ' ' << "INTERRUPT: " << (interrupt_ ? 1 : 0) << '\n';
    return os;
}

bool IIPCancelMessage::protectedEquals(Message const& other) const {
    auto const& o = static_cast<IIPCancelMessage const&>(other);
    return Message::protectedEquals(other) && id_ == o.id_ && interrupt_ == o.interrupt_;
}

template <class Archive> void IIPCancelMessage::serializeExplicit(Archive& ar, unsigned int) {
    ar& boost::serialization::make_nvp("message",
                                       boost::serialization::base_object<Message>(*this));
    ar& boost::serialization::make_nvp("id", id_);
    ar& boost::serialization::make_nvp("interrupt", interrupt_);
}
ZN_SERIALIZE_EXPLICIT(IIPCancelMessage)

} // namespace cmddistributor

BOOST_CLASS_EXPORT_IMPLEMENT(cmddistributor::IIPCancelMessage)
