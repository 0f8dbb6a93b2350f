#pragma once
// VariablesGetMessage: asks the client that owns a workspace for several variables at once, one
// request and one reply for the whole list. Built on the serving side by a LocalVariableProvider;
// `deliver` runs on a delivery thread of the client's exchange. The reply is a VariablesGetReply
// with one entry per name, in order. A value the holder's cache says the serving side already
// has goes out as StatusUnchanged with an empty array instead of the value; every name's status
// and value as the workspace reported them are then recorded in the holder's cache. A workspace
// the client no longer knows gets the empty reply. Errors of the workspace fail the reply.
// Immutable once submitted.
#include <quorl/workspace/variableentry.hpp>

#include <foundation/extdata/array/variableinfo.hpp>
#include <foundation/msg_svc/exchange/idtype.hpp>
#include <foundation/msg_svc/exchange/message.hpp>

#include <string>
#include <vector>

namespace quorl {
namespace workspace {

class VariablesGetMessage : public foundation::msg_svc::exchange::Message {
public:
    VariablesGetMessage(std::vector<std::string> varNames,
                        foundation::msg_svc::exchange::IDType wsId);
    VariablesGetMessage(VariablesGetMessage const&) = default;
    VariablesGetMessage(VariablesGetMessage&&) = default;
    ~VariablesGetMessage() override;

    boost::shared_ptr<foundation::msg_svc::exchange::Reply const>
    deliver(foundation::msg_svc::exchange::Routing const& routing) const override;
    // The base text, then "wsID: " and the id, "varNames: ", and one line per name.
    std::ostream& toString(std::ostream& os, int indent) const override;

    std::vector<std::string> const& getVarNames() const { return varNames_; }
    foundation::msg_svc::exchange::IDType getWorkspaceId() const { return wsId_; }

protected:
    bool protectedEquals(foundation::msg_svc::exchange::Message const& other) const override;

private:
    VariablesGetMessage() : wsId_(0, 0) {}
    // The entries to send for what the workspace answered, updating the cache.
    static std::vector<VariableEntry>
    processGetValues(foundation::extdata::array::VariableInfo const& info,
                     std::vector<std::string> const& names, VariableCache& cache);

    ZN_SERIALIZABLE()
    std::vector<std::string> varNames_;
    foundation::msg_svc::exchange::IDType wsId_;
};

} // namespace workspace
} // namespace quorl

ZN_SERIALIZATION_TRAITS(quorl::workspace::VariablesGetMessage, 1)
BOOST_CLASS_EXPORT_KEY2(quorl::workspace::VariablesGetMessage,
                        "quorl::workspace::VariablesGetMessage")
