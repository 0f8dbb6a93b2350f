#include <foundation/msg_svc/serialization/archives.hpp>

#include <quorl/matrixref/releaserefmessage.hpp>

#include <boost/serialization/base_object.hpp>

#include <iomanip>

namespace quorl {
namespace matrixref {

using foundation::msg_svc::exchange::Message;

ReleaseRefMessage::ReleaseRefMessage(unsigned long long const& serverTag) : serverTag_(serverTag) {}

ReleaseRefMessage::~ReleaseRefMessage() = default;

std::ostream& ReleaseRefMessage::toString(std::ostream& os, int indent) const {
    Message::toString(os, indent);
    os << std::setw(indent + 2) << ' ' << "MatrixRef tag: " << serverTag_ << '\n';
    return os;
}

bool ReleaseRefMessage::protectedEquals(Message const& other) const {
    auto const& o = static_cast<ReleaseRefMessage const&>(other);
    return Message::protectedEquals(other) && serverTag_ == o.serverTag_;
}

template <class Archive>
void ReleaseRefMessage::serializeExplicit(Archive& ar, unsigned int version) {
    if (version != 1)
        return;
    ar& boost::serialization::make_nvp("Message",
                                       boost::serialization::base_object<Message>(*this));
    ar& boost::serialization::make_nvp("Tag", serverTag_);
}
ZN_SERIALIZE_EXPLICIT(ReleaseRefMessage)

} // namespace matrixref
} // namespace quorl

BOOST_CLASS_EXPORT_IMPLEMENT(quorl::matrixref::ReleaseRefMessage)
