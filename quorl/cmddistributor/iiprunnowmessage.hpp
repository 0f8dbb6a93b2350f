#pragma once
// IIPRunNowMessage: asks the interpreter side to run a queued packet at once. Its `deliver` calls
// the run-now handler the host installed with setRunNowFuncPtr, if any, and answers the default
// reply in every case. Immutable once submitted.
#include <quorl/contextmgr/fennid.hpp>

#include <foundation/msg_svc/exchange/idtype.hpp>
#include <foundation/msg_svc/exchange/message.hpp>

namespace cmddistributor {

typedef void (*RunNowFuncPtr)(foundation::msg_svc::exchange::IDType const& id);
typedef bool (*IsRunNowThreadFuncPtr)(quorl::contextmgr::FennID const& fenn);

// Installs the host's run-now handler; the first caller wins, later calls are ignored.
void setRunNowFuncPtr(RunNowFuncPtr handler);
// Installs the query "is the calling thread the run-now thread of that context"; the last
// caller wins (a plain store).
void setIsRunNowThreadFuncPtr(IsRunNowThreadFuncPtr query);
// The installed query's answer; false when none is installed.
bool isRunNowThread(quorl::contextmgr::FennID const& fenn);

class IIPRunNowMessage : public foundation::msg_svc::exchange::Message {
public:
    explicit IIPRunNowMessage(foundation::msg_svc::exchange::IDType const& id);
    IIPRunNowMessage(IIPRunNowMessage const&) = default;
    IIPRunNowMessage(IIPRunNowMessage&&) = default;
    ~IIPRunNowMessage() override;

    boost::shared_ptr<foundation::msg_svc::exchange::Reply const>
    deliver(foundation::msg_svc::exchange::Routing const& routing) const override;
    std::ostream& toString(std::ostream& os, int indent) const override;

    foundation::msg_svc::exchange::IDType const& getId() const { return id_; }

protected:
    bool protectedEquals(foundation::msg_svc::exchange::Message const& other) const override;

private:
    IIPRunNowMessage() : id_(0, 0) {}
    ZN_SERIALIZABLE()
    foundation::msg_svc::exchange::IDType id_;
};

} // namespace cmddistributor

ZN_SERIALIZATION_TRAITS(cmddistributor::IIPRunNowMessage, 1)
BOOST_CLASS_EXPORT_KEY2(cmddistributor::IIPRunNowMessage, "cmddistributor::IIPRunNowMessage")
