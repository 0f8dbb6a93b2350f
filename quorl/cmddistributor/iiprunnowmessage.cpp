#include <foundation/msg_svc/serialization/archives.hpp>

#include <quorl/cmddistributor/iiprunnowmessage.hpp>

#include <foundation/msg_svc/exchange/reply.hpp>

#include <boost/serialization/base_object.hpp>

#include <atomic>
#include <iomanip>

namespace cmddistributor {

using foundation::msg_svc::exchange::Message;
using foundation::msg_svc::exchange::Reply;

namespace {
std::atomic<RunNowFuncPtr> runNowFunc{nullptr};
std::atomic<IsRunNowThreadFuncPtr> isRunNowThreadFunc{nullptr};
} // namespace

void setRunNowFuncPtr(RunNowFuncPtr handler) {
    RunNowFuncPtr expected = nullptr;
    runNowFunc.compare_exchange_strong(expected, handler);
}

void setIsRunNowThreadFuncPtr(IsRunNowThreadFuncPtr query) {
    isRunNowThreadFunc.store(query);
}

bool isRunNowThread(quorl::contextmgr::FennID const& fenn) {
    IsRunNowThreadFuncPtr f = isRunNowThreadFunc.load();
    return f ? f(fenn) : false;
}

IIPRunNowMessage::IIPRunNowMessage(foundation::msg_svc::exchange::IDType const& id) : id_(id) {}

IIPRunNowMessage::~IIPRunNowMessage() = default;

boost::shared_ptr<Reply const>
IIPRunNowMessage::deliver(foundation::msg_svc::exchange::Routing const&) const {
    if (RunNowFuncPtr f = runNowFunc.load())
        f(id_);
    return Reply::defaultReply();
}

std::ostream& IIPRunNowMessage::toString(std::ostream& os, int indent) const {
    Message::toString(os, indent);
    return os << std::setw(indent + 2) << ' ' << "IIPID: " << id_.toString() << '\n';
}

bool IIPRunNowMessage::protectedEquals(Message const& other) const {
    return Message::protectedEquals(other) &&
           id_ == static_cast<IIPRunNowMessage const&>(other).id_;
}

template <class Archive> void IIPRunNowMessage::serializeExplicit(Archive& ar, unsigned int) {
    ar& boost::serialization::make_nvp("message",
                                       boost::serialization::base_object<Message>(*this));
    ar& boost::serialization::make_nvp("id", id_);
}
ZN_SERIALIZE_EXPLICIT(IIPRunNowMessage)

} // namespace cmddistributor

BOOST_CLASS_EXPORT_IMPLEMENT(cmddistributor::IIPRunNowMessage)
