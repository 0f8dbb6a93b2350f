#include <foundation/msg_svc/serialization/archives.hpp>

#include <quorl/eventmgr/flushmessage.hpp>

#include <boost/serialization/base_object.hpp>

namespace quorl {
namespace eventmgr {
namespace detail {

typedef foundation::msg_svc::eventmgr::detail::FlushMessage Base;

FlushMessage::FlushMessage() : Base(foundation::msg_svc::eventmgr::SessionEmId) {}
FlushMessage::~FlushMessage() = default;

template <class Archive> void FlushMessage::serializeExplicit(Archive& ar, unsigned int version) {
    if (version == 1)
        ar& boost::serialization::make_nvp("quorl::eventmgr::detail::FlushMessage",
                                           boost::serialization::base_object<Base>(*this));
}
ZN_SERIALIZE_EXPLICIT(FlushMessage)

} // namespace detail
} // namespace eventmgr
} // namespace quorl

BOOST_CLASS_EXPORT_IMPLEMENT(quorl::eventmgr::detail::FlushMessage)
