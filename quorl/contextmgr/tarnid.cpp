#include <foundation/msg_svc/serialization/archives.hpp>

#include <quorl/contextmgr/tarnid.hpp>

namespace quorl {
namespace contextmgr {

template <class Archive> void TarnID::serializeExplicit(Archive& ar, unsigned int) {
    ar& boost::serialization::make_nvp("TarnID", value);
}
ZN_SERIALIZE_EXPLICIT(TarnID)

} // namespace contextmgr
} // namespace quorl
