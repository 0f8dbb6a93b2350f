#include <foundation/msg_svc/serialization/archives.hpp>

#include <quorl/cmddistributor/iipcancelreply.hpp>

#include <boost/serialization/base_object.hpp>

#include <iomanip>
#include <typeinfo>

namespace cmddistributor {

using foundation::msg_svc::exchange::Reply;

IIPCancelReply::IIPCancelReply(CancelStatus status) : status_(status) {}

IIPCancelReply::~IIPCancelReply() = default;

std::ostream& IIPCancelReply::toString(std::ostream& os, int indent) const {
    Reply::toString(os, 0);
    return os << std::setw(indent + 2) << ' ' << "status: " << static_cast<int>(status_) << '\n';
}

void IIPCancelReply::assignToPromise(boost::shared_ptr<Promise> const& promise,
                                     boost::shared_ptr<Reply const> const& reply) {
    if (!reply) {
        promise->set_value(boost::shared_ptr<IIPCancelReply const>());
        return;
    }
    auto typed = boost::dynamic_pointer_cast<IIPCancelReply const>(reply);
    if (typed)
        promise->set_value(typed);
    else
        promise->set_exception(boost::copy_exception(std::bad_cast()));
}

bool IIPCancelReply::protectedEquals(Reply const& other) const {
    return Reply::protectedEquals(other) &&
           status_ == static_cast<IIPCancelReply const&>(other).status_;
}

template <class Archive> void IIPCancelReply::serializeExplicit(Archive& ar, unsigned int) {
    ar& boost::serialization::make_nvp("reply", boost::serialization::base_object<Reply>(*this));
    int status = static_cast<int>(status_);
    ar& boost::serialization::make_nvp("status", status);
    status_ = static_cast<CancelStatus>(status);
}
ZN_SERIALIZE_EXPLICIT(IIPCancelReply)

} // namespace cmddistributor

BOOST_CLASS_EXPORT_IMPLEMENT(cmddistributor::IIPCancelReply)
