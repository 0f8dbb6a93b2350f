#include <foundation/msg_svc/serialization/archives.hpp>

#include <quorl/workspace/variablessetmessage.hpp>

#include <quorl/matrixref/refexternalform.hpp>

#include <quorl/workspace/variableentry.hpp>
#include <quorl/workspace/workspaceholder.hpp>

#include <foundation/msg_svc/exchange/reply.hpp>

#include <boost/serialization/base_object.hpp>
#include <boost/serialization/string.hpp>
#include <boost/serialization/vector.hpp>

#include <iomanip>

namespace quorl {
namespace workspace {

using foundation::extdata::Array;
using foundation::msg_svc::exchange::IDType;
using foundation::msg_svc::exchange::Message;
using foundation::msg_svc::exchange::Reply;

namespace {
char const* opCodeName(VariablesSetMessage::OpCode op) {
    switch (op) {
    case VariablesSetMessage::VAR_NOOP:
        return "VAR_NOOP";
    case VariablesSetMessage::VAR_SET:
        return "VAR_SET";
    case VariablesSetMessage::VAR_CLEAR:
        return "VAR_CLEAR";
    }
    return "INVALID";
}
} // namespace

VariablesSetMessage::VariablesSetMessage(std::vector<std::string> varNames, std::vector<Array> data,
                                         OpCode opCode, IDType wsId)
    : varNames_(std::move(varNames)), data_(std::move(data)), opCode_(opCode), wsId_(wsId) {}

VariablesSetMessage::~VariablesSetMessage() = default;

boost::shared_ptr<Reply const>
VariablesSetMessage::deliver(foundation::msg_svc::exchange::Routing const& routing) const {
    auto workspace = WorkspaceHolder::getStoredClientWorkspace(wsId_);
    if (!workspace)
        return Reply::defaultReply();
    if (opCode_ == VAR_SET) {
        // References to the sender's arrays become references counted here, released to the
        // sender when the workspace's last copy of them dies.
        std::vector<foundation::extdata::Array> data;
        data.reserve(data_.size());
        for (auto const& value : data_)
            data.push_back(matrixref::refAdoptExternal(value, routing.source()));
        workspace->setVariables(namePointers(varNames_), std::move(data));
    } else if (opCode_ == VAR_CLEAR) {
        for (auto const& n : varNames_)
            workspace->clearVariable(n.c_str());
    }
    return Reply::defaultReply();
}

std::ostream& VariablesSetMessage::toString(std::ostream& os, int indent) const {
    Message::toString(os, indent);
    os << std::setw(indent + 2) << ' ' << "wsID: " << wsId_.toString() << std::endl;
    os << std::setw(indent + 2) << ' ' << "OpCode: " << opCodeName(opCode_) << std::endl;
    writeNameLines(os, indent, varNames_);
    return os;
}

bool VariablesSetMessage::protectedEquals(Message const& other) const {
    auto const& o = static_cast<VariablesSetMessage const&>(other);
    return Message::protectedEquals(other) && varNames_ == o.varNames_ && wsId_ == o.wsId_ &&
           opCode_ == o.opCode_ && data_ == o.data_;
}

template <class Archive> void VariablesSetMessage::serializeExplicit(Archive& ar, unsigned int) {
    ar& boost::serialization::make_nvp("VariablesSetMessage",
                                       boost::serialization::base_object<Message>(*this));
    ar& boost::serialization::make_nvp("wsId", wsId_);
    ar& boost::serialization::make_nvp("varNames", varNames_);
    std::int32_t op = opCode_;
    ar& boost::serialization::make_nvp("OpCode", op);
    opCode_ = static_cast<OpCode>(op);
    ar& boost::serialization::make_nvp("Data", data_);
}
ZN_SERIALIZE_EXPLICIT(VariablesSetMessage)

} // namespace workspace
} // namespace quorl

BOOST_CLASS_EXPORT_IMPLEMENT(quorl::workspace::VariablesSetMessage)
