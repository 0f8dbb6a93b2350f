#include <foundation/msg_svc/serialization/archives.hpp>

#include <quorl/workspace/variablesgetmessage.hpp>

#include <quorl/workspace/variablesgetreply.hpp>
#include <quorl/workspace/workspaceholder.hpp>

#include <boost/make_shared.hpp>
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

VariablesGetMessage::VariablesGetMessage(std::vector<std::string> varNames, IDType wsId)
    : varNames_(std::move(varNames)), wsId_(wsId) {}

VariablesGetMessage::~VariablesGetMessage() = default;

boost::shared_ptr<Reply const>
VariablesGetMessage::deliver(foundation::msg_svc::exchange::Routing const&) const {
    std::vector<std::string> const names = varNames_;
    std::vector<char const*> const pointers = namePointers(names);
    auto workspace = WorkspaceHolder::getStoredClientWorkspace(wsId_);
    if (!workspace)
        return boost::make_shared<VariablesGetReply const>();
    auto info = workspace->getVariables(pointers);
    auto holder = WorkspaceHolder::getWorkspaceHolder(wsId_);
    if (!holder)
        return boost::make_shared<VariablesGetReply const>();
    return boost::make_shared<VariablesGetReply const>(
        processGetValues(info, names, holder->getVariableStore()));
}

std::vector<VariableEntry>
VariablesGetMessage::processGetValues(foundation::extdata::array::VariableInfo const& info,
                                      std::vector<std::string> const& names, VariableCache& cache) {
    std::vector<VariableEntry> entries;
    entries.reserve(names.size());
    for (std::size_t i = 0; i < names.size(); ++i) {
        Array value = info.getValue(i);
        VariableStatus const status = info.getStatus(i);
        auto cached = cache.find(names[i]);
        if (status == IVariableInfo::StatusValue && cached != cache.end() &&
            value == cached->second.second) {
            // What the serving side holds already: the value stays here.
            entries.emplace_back(names[i], VariableValue(IVariableInfo::StatusUnchanged, Array()));
        } else {
            entries.emplace_back(names[i], VariableValue(status, value));
        }
        if (cached == cache.end())
            cache.emplace(names[i], VariableValue(status, std::move(value)));
        else
            cached->second = VariableValue(status, std::move(value));
    }
    return entries;
}

std::ostream& VariablesGetMessage::toString(std::ostream& os, int indent) const {
    Message::toString(os, indent);
    os << std::setw(indent + 2) << ' ' << "wsID: " << wsId_.toString() << std::endl;
    writeNameLines(os, indent, varNames_);
    return os;
}

bool VariablesGetMessage::protectedEquals(Message const& other) const {
    auto const& o = static_cast<VariablesGetMessage const&>(other);
    return Message::protectedEquals(other) && varNames_ == o.varNames_ && wsId_ == o.wsId_;
}

template <class Archive> void VariablesGetMessage::serializeExplicit(Archive& ar, unsigned int) {
    ar& boost::serialization::make_nvp("VariablesGetMessage",
                                       boost::serialization::base_object<Message>(*this));
    ar& boost::serialization::make_nvp("wsId", wsId_);
    ar& boost::serialization::make_nvp("varNames", varNames_);
}
ZN_SERIALIZE_EXPLICIT(VariablesGetMessage)

} // namespace workspace
} // namespace quorl

BOOST_CLASS_EXPORT_IMPLEMENT(quorl::workspace::VariablesGetMessage)
