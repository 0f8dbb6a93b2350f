#pragma once
// ReleaseRefMessage: tells the process that owns an array that a peer's last reference to it
// has died. Sent by MatrixRefTable::releaseTag to the "TarnServer" actor of the owner's
// exchange, where MatrixRefServiceAPI::serve takes one count off the entry named by
// `serverTag`. Immutable once submitted; `deliver` answers null (a release expects no answer).
//
// Threads: any. Errors: none of its own; archives throw their own exceptions.
#include <quorl/matrixref/matrixrefserviceapi.hpp>

#include <foundation/msg_svc/exchange/actormessage.hpp>

#include <cstdint>

namespace quorl {
namespace matrixref {

class ReleaseRefMessage
    : public foundation::msg_svc::exchange::ActorMessage<ReleaseRefMessage, MatrixRefServiceAPI> {
public:
    explicit ReleaseRefMessage(unsigned long long const& serverTag);
    ReleaseRefMessage(ReleaseRefMessage const&) = default;
    ~ReleaseRefMessage() override;

    std::ostream& toString(std::ostream& os, int indent) const override;

    // The tag in the receiver's table.
    std::uint64_t serverTag() const { return serverTag_; }

protected:
    bool protectedEquals(foundation::msg_svc::exchange::Message const& other) const override;

private:
    ReleaseRefMessage() : serverTag_(0) {}
    ZN_SERIALIZABLE()
    std::uint64_t serverTag_;
};

} // namespace matrixref
} // namespace quorl

ZN_SERIALIZATION_TRAITS(quorl::matrixref::ReleaseRefMessage, 1)
BOOST_CLASS_EXPORT_KEY2(quorl::matrixref::ReleaseRefMessage, "quorl::matrixref::ReleaseRefMessage")
