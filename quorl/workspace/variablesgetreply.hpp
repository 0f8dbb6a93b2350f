#pragma once
// VariablesGetReply: the client's answer to OneVariableGetMessage and VariablesGetMessage, one
// entry (name, status, value) per asked name, in order. The default-constructed reply is the
// empty one: the workspace is gone. Immutable once made; shared as
// boost::shared_ptr<VariablesGetReply const>; any thread may read it.
#include <quorl/workspace/variableentry.hpp>

#include <foundation/msg_svc/exchange/reply.hpp>

#include <boost/thread/future.hpp>

#include <vector>

namespace quorl {
namespace workspace {

class VariablesGetReply : public foundation::msg_svc::exchange::Reply {
public:
    typedef boost::promise<boost::shared_ptr<VariablesGetReply const>> Promise;

    VariablesGetReply() = default;
    explicit VariablesGetReply(std::vector<VariableEntry>&& varInfo);
    VariablesGetReply(VariablesGetReply const&) = default;
    VariablesGetReply(VariablesGetReply&&) = default;
    ~VariablesGetReply() override;

    std::vector<VariableEntry> const& getVarInfo() const { return varInfo_; }

    // The base text, then "varInfo: " and, per entry, "varName : " with the name and
    // "status : " with the status number. Values are never printed.
    std::ostream& toString(std::ostream& os, int indent) const override;

    // Fulfils `promise` with `reply` as a VariablesGetReply: a null reply stays null; a reply of
    // another type puts std::bad_cast into the promise.
    static void
    assignToPromise(boost::shared_ptr<Promise> const& promise,
                    boost::shared_ptr<foundation::msg_svc::exchange::Reply const> const& reply);

protected:
    bool protectedEquals(foundation::msg_svc::exchange::Reply const& other) const override;

private:
    ZN_SERIALIZABLE()
    std::vector<VariableEntry> varInfo_;
};

} // namespace workspace
} // namespace quorl

ZN_SERIALIZATION_TRAITS(quorl::workspace::VariablesGetReply, 1)
BOOST_CLASS_EXPORT_KEY2(quorl::workspace::VariablesGetReply, "quorl::workspace::VariablesGetReply")
