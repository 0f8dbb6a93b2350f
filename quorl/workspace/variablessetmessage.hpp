#pragma once
// VariablesSetMessage: asks the client that owns a workspace to set (VAR_SET) or clear
// (VAR_CLEAR) variables; any other opcode does nothing. Built on the serving side by a
// LocalVariableProvider; `deliver` runs on a delivery thread of the client's exchange and always
// answers Reply::defaultReply(). A workspace the client no longer knows is left alone; errors of
// the workspace fail the reply. The holder's cache is not touched. Immutable once submitted.
#include <foundation/extdata/array.hpp>
#include <foundation/msg_svc/exchange/idtype.hpp>
#include <foundation/msg_svc/exchange/message.hpp>

#include <cstdint>
#include <string>
#include <vector>

namespace quorl {
namespace workspace {

class VariablesSetMessage : public foundation::msg_svc::exchange::Message {
public:
    // 32-bit on the wire.
    enum OpCode : std::int32_t { VAR_NOOP = 0, VAR_SET = 1, VAR_CLEAR = 2 };

    VariablesSetMessage(std::vector<std::string> varNames,
                        std::vector<foundation::extdata::Array> data, OpCode opCode,
                        foundation::msg_svc::exchange::IDType wsId);
    VariablesSetMessage(VariablesSetMessage const&) = default;
    VariablesSetMessage(VariablesSetMessage&&) = default;
    ~VariablesSetMessage() override;

    boost::shared_ptr<foundation::msg_svc::exchange::Reply const>
    deliver(foundation::msg_svc::exchange::Routing const& routing) const override;
    // The base text, then "wsID: " and the id, "OpCode: " and the opcode's name ("INVALID" for
    // an unknown one), "varNames: ", and one line per name. Values are never printed.
    std::ostream& toString(std::ostream& os, int indent) const override;

    OpCode const& getOpCode() const { return opCode_; }
    std::vector<std::string> getVarNames() const { return varNames_; }
    std::vector<foundation::extdata::Array> getVarData() const { return data_; }
    foundation::msg_svc::exchange::IDType getWorkspaceId() const { return wsId_; }

protected:
    bool protectedEquals(foundation::msg_svc::exchange::Message const& other) const override;

private:
    VariablesSetMessage() : opCode_(VAR_NOOP), wsId_(0, 0) {}
    ZN_SERIALIZABLE()
    std::vector<std::string> varNames_;
    std::vector<foundation::extdata::Array> data_;
    OpCode opCode_;
    foundation::msg_svc::exchange::IDType wsId_;
};

} // namespace workspace
} // namespace quorl

ZN_SERIALIZATION_TRAITS(quorl::workspace::VariablesSetMessage, 1)
BOOST_CLASS_EXPORT_KEY2(quorl::workspace::VariablesSetMessage,
                        "quorl::workspace::VariablesSetMessage")
