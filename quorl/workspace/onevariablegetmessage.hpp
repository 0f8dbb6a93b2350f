#pragma once
// OneVariableGetMessage: asks the client that owns a workspace for one variable. Built on the
// serving side by a LocalVariableProvider; `deliver` runs on a delivery thread of the client's
// exchange. The reply is a VariablesGetReply of one entry that always carries the value; its
// status is StatusUnchanged when the value equals what the holder's cache says the serving side
// has, StatusAbsent when a cached variable has become empty, else StatusValue. The cache is
// not changed. A workspace the client no longer knows is answered with Reply::defaultReply(),
// which the serving side meets as std::bad_cast. Errors of the workspace fail the reply.
// Immutable once submitted.
#include <foundation/msg_svc/exchange/idtype.hpp>
#include <foundation/msg_svc/exchange/message.hpp>

#include <string>

namespace quorl {
namespace workspace {

class OneVariableGetMessage : public foundation::msg_svc::exchange::Message {
public:
    OneVariableGetMessage(std::string varName, foundation::msg_svc::exchange::IDType wsId);
    OneVariableGetMessage(OneVariableGetMessage const&) = default;
    OneVariableGetMessage(OneVariableGetMessage&&) = default;
    ~OneVariableGetMessage() override;

    boost::shared_ptr<foundation::msg_svc::exchange::Reply const>
    deliver(foundation::msg_svc::exchange::Routing const& routing) const override;
    // The base text, then "wsID: " and the id, "varName: " and the name, a line each.
    std::ostream& toString(std::ostream& os, int indent) const override;

    std::string const& getVarName() const { return varName_; }
    foundation::msg_svc::exchange::IDType getWorkspaceId() const { return wsId_; }

protected:
    bool protectedEquals(foundation::msg_svc::exchange::Message const& other) const override;

private:
    OneVariableGetMessage() : wsId_(0, 0) {}
    ZN_SERIALIZABLE()
    std::string varName_;
    foundation::msg_svc::exchange::IDType wsId_;
};

} // namespace workspace
} // namespace quorl

ZN_SERIALIZATION_TRAITS(quorl::workspace::OneVariableGetMessage, 1)
BOOST_CLASS_EXPORT_KEY2(quorl::workspace::OneVariableGetMessage,
                        "quorl::workspace::OneVariableGetMessage")
