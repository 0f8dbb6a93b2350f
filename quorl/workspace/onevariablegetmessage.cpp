#include <foundation/msg_svc/serialization/archives.hpp>

#include <quorl/workspace/onevariablegetmessage.hpp>

#include <quorl/workspace/variablesgetreply.hpp>
#include <quorl/workspace/workspaceholder.hpp>

#include <boost/make_shared.hpp>
#include <foundation/msg_svc/exchange/reply.hpp>

#include <boost/serialization/base_object.hpp>
#include <boost/serialization/string.hpp>

#include <iomanip>

namespace quorl {
namespace workspace {

using foundation::extdata::Array;
using foundation::msg_svc::exchange::IDType;
using foundation::msg_svc::exchange::Message;
using foundation::msg_svc::exchange::Reply;

OneVariableGetMessage::OneVariableGetMessage(std::string varName, IDType wsId)
    : varName_(std::move(varName)), wsId_(wsId) {}

OneVariableGetMessage::~OneVariableGetMessage() = default;

boost::shared_ptr<Reply const>
OneVariableGetMessage::deliver(foundation::msg_svc::exchange::Routing const&) const {
    auto holder = WorkspaceHolder::getWorkspaceHolder(wsId_);
    auto workspace = WorkspaceHolder::getStoredClientWorkspace(wsId_);
    if (!workspace)
        return Reply::defaultReply();
    Array value = workspace->getVariable(varName_.c_str());
    VariableStatus status = IVariableInfo::StatusValue;
    if (holder) {
        auto const& cache = holder->getVariableStore();
        auto cached = cache.find(varName_);
        if (cached != cache.end()) {
            if (value == cached->second.second)
                status = IVariableInfo::StatusUnchanged;
            else if (value == Array())
                status = IVariableInfo::StatusAbsent;
        }
    }
    std::vector<VariableEntry> entries;
    entries.emplace_back(varName_, VariableValue(status, std::move(value)));
    return boost::make_shared<VariablesGetReply const>(std::move(entries));
}

std::ostream& OneVariableGetMessage::toString(std::ostream& os, int indent) const {
    Message::toString(os, indent);
    os << std::setw(indent + 2) << ' ' << "wsID: " << wsId_.toString() << std::endl;
    os << std::setw(indent + 2) << ' ' << "varName: " << varName_ << std::endl;
    return os;
}

bool OneVariableGetMessage::protectedEquals(Message const& other) const {
    auto const& o = static_cast<OneVariableGetMessage const&>(other);
    return Message::protectedEquals(other) && varName_ == o.varName_ && wsId_ == o.wsId_;
}

template <class Archive> void OneVariableGetMessage::serializeExplicit(Archive& ar, unsigned int) {
    ar& boost::serialization::make_nvp("OneVariableGetMessage",
                                       boost::serialization::base_object<Message>(*this));
    ar& boost::serialization::make_nvp("wsId", wsId_);
    ar& boost::serialization::make_nvp("varName", varName_);
}
ZN_SERIALIZE_EXPLICIT(OneVariableGetMessage)

} // namespace workspace
} // namespace quorl

BOOST_CLASS_EXPORT_IMPLEMENT(quorl::workspace::OneVariableGetMessage)
