#pragma once
// WorkspaceDeletedMessage: tells a serving exchange that a client's workspace has ended, so that
// it forgets the provider and holder it published under that id. Sent by the client's
// WorkspaceHolder::workspaceDeleted(workspace); `deliver` runs on a delivery thread of the serving
// exchange, is never refused, and answers Reply::defaultReply(). It goes one hop only.
// Immutable once submitted.
#include <foundation/msg_svc/exchange/idtype.hpp>
#include <foundation/msg_svc/exchange/message.hpp>

namespace quorl {
namespace workspace {

class WorkspaceDeletedMessage : public foundation::msg_svc::exchange::Message {
public:
    explicit WorkspaceDeletedMessage(foundation::msg_svc::exchange::IDType const& wsId);
    WorkspaceDeletedMessage(WorkspaceDeletedMessage const&) = default;
    WorkspaceDeletedMessage(WorkspaceDeletedMessage&&) = default;
    ~WorkspaceDeletedMessage() override;

    boost::shared_ptr<foundation::msg_svc::exchange::Reply const>
    deliver(foundation::msg_svc::exchange::Routing const& routing) const override;
    // The base text, then "wsID: " and the id.
    std::ostream& toString(std::ostream& os, int indent) const override;

    foundation::msg_svc::exchange::IDType getWorkspaceId() const { return wsId_; }

protected:
    bool protectedEquals(foundation::msg_svc::exchange::Message const& other) const override;

private:
    WorkspaceDeletedMessage() : wsId_(0, 0) {}
    ZN_SERIALIZABLE()
    foundation::msg_svc::exchange::IDType wsId_;
};

} // namespace workspace
} // namespace quorl

ZN_SERIALIZATION_TRAITS(quorl::workspace::WorkspaceDeletedMessage, 1)
BOOST_CLASS_EXPORT_KEY2(quorl::workspace::WorkspaceDeletedMessage,
                        "quorl::workspace::WorkspaceDeletedMessage")
