#include <foundation/msg_svc/serialization/archives.hpp>

#include <quorl/workspace/variablesgetreply.hpp>

#include <boost/serialization/base_object.hpp>
#include <boost/serialization/vector.hpp>

#include <iomanip>
#include <typeinfo>

namespace quorl {
namespace workspace {

using foundation::msg_svc::exchange::Reply;

VariablesGetReply::VariablesGetReply(std::vector<VariableEntry>&& varInfo)
    : varInfo_(std::move(varInfo)) {}

VariablesGetReply::~VariablesGetReply() = default;

std::ostream& VariablesGetReply::toString(std::ostream& os, int indent) const {
    Reply::toString(os, indent);
    os << std::setw(indent + 2) << ' ' << "varInfo: " << std::endl;
    for (auto const& entry : varInfo_) {
        os << std::setw(indent + 4) << ' ' << "varName : " << entry.first << std::endl;
        os << std::setw(indent + 4) << ' ' << "status : " << static_cast<int>(entry.second.first)
           << std::endl;
    }
    return os;
}

void VariablesGetReply::assignToPromise(boost::shared_ptr<Promise> const& promise,
                                        boost::shared_ptr<Reply const> const& reply) {
    if (!reply) {
        promise->set_value(boost::shared_ptr<VariablesGetReply const>());
        return;
    }
    if (auto typed = boost::dynamic_pointer_cast<VariablesGetReply const>(reply))
        promise->set_value(typed);
    else
        promise->set_exception(boost::copy_exception(std::bad_cast()));
}

bool VariablesGetReply::protectedEquals(Reply const& other) const {
    if (this == &other)
        return true;
    return Reply::protectedEquals(other) &&
           varInfo_ == static_cast<VariablesGetReply const&>(other).varInfo_;
}

template <class Archive> void VariablesGetReply::serializeExplicit(Archive& ar, unsigned int) {
    ar& boost::serialization::make_nvp("VariablesGetReply",
                                       boost::serialization::base_object<Reply>(*this));
    ar& boost::serialization::make_nvp("VarInfo", varInfo_);
}
ZN_SERIALIZE_EXPLICIT(VariablesGetReply)

} // namespace workspace
} // namespace quorl

BOOST_CLASS_EXPORT_IMPLEMENT(quorl::workspace::VariablesGetReply)
