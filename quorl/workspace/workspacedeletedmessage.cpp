#include <foundation/msg_svc/serialization/archives.hpp>

#include <quorl/workspace/workspacedeletedmessage.hpp>

#include <quorl/workspace/workspaceholder.hpp>

#include <foundation/msg_svc/exchange/reply.hpp>

#include <boost/serialization/base_object.hpp>

#include <iomanip>

namespace quorl {
namespace workspace {

using foundation::msg_svc::exchange::IDType;
using foundation::msg_svc::exchange::Message;
using foundation::msg_svc::exchange::Reply;

WorkspaceDeletedMessage::WorkspaceDeletedMessage(IDType const& wsId) : wsId_(wsId) {}

WorkspaceDeletedMessage::~WorkspaceDeletedMessage() = default;

boost::shared_ptr<Reply const>
WorkspaceDeletedMessage::deliver(foundation::msg_svc::exchange::Routing const&) const {
    WorkspaceHolder::workspaceDeleted(wsId_);
    return Reply::defaultReply();
}

std::ostream& WorkspaceDeletedMessage::toString(std::ostream& os, int indent) const {
    Message::toString(os, indent);
    os << std::setw(indent + 2) << ' ' << "wsID: " << wsId_.toString() << std::endl;
    return os;
}

bool WorkspaceDeletedMessage::protectedEquals(Message const& other) const {
    return Message::protectedEquals(other) &&
           wsId_ == static_cast<WorkspaceDeletedMessage const&>(other).wsId_;
}

template <class Archive>
void WorkspaceDeletedMessage::serializeExplicit(Archive& ar, unsigned int) {
    ar& boost::serialization::make_nvp("WorkspaceDeletedMessage",
                                       boost::serialization::base_object<Message>(*this));
    ar& boost::serialization::make_nvp("wsId", wsId_);
}
ZN_SERIALIZE_EXPLICIT(WorkspaceDeletedMessage)

} // namespace workspace
} // namespace quorl

BOOST_CLASS_EXPORT_IMPLEMENT(quorl::workspace::WorkspaceDeletedMessage)
