#pragma once
// quorl::eventmgr::detail::FlushMessage: the service's flush message under this library's name,
// for the session's identity. This library only reads such messages; delivered, it acts as its
// base.
#include <foundation/msg_svc/eventmgr/flushmessage.hpp>

namespace quorl {
namespace eventmgr {
namespace detail {

class FlushMessage : public foundation::msg_svc::eventmgr::detail::FlushMessage {
public:
    FlushMessage();
    ~FlushMessage() override;

private:
    ZN_SERIALIZABLE()
};

} // namespace detail
} // namespace eventmgr
} // namespace quorl

ZN_SERIALIZATION_TRAITS(quorl::eventmgr::detail::FlushMessage, 1)
BOOST_CLASS_EXPORT_KEY2(quorl::eventmgr::detail::FlushMessage,
                        "quorl::eventmgr::detail::FlushMessage")
