#include <foundation/msg_svc/serialization/archives.hpp>

#include <quorl/io/sinktextevent.hpp>

#include <boost/serialization/base_object.hpp>

namespace quorl {
namespace io {

using foundation::msg_svc::eventmgr::BaseEvent;
using foundation::msg_svc::eventmgr::typeInformationOf;

SinkTextEvent::SinkTextEvent(StreamTypeEnum stream, ustring text)
    : TextBaseEvent(typeInformationOf<SinkTextEvent>(), stream, std::move(text)) {}

SinkTextEvent::SinkTextEvent(StreamTypeEnum stream, char16_t const* text)
    : TextBaseEvent(typeInformationOf<SinkTextEvent>(), stream, text) {}

SinkTextEvent::SinkTextEvent() : TextBaseEvent(typeInformationOf<SinkTextEvent>()) {}

SinkTextEvent::SinkTextEvent(TypeInfoPtr const& info, StreamTypeEnum stream, ustring text)
    : TextBaseEvent(info, stream, std::move(text)) {}

SinkTextEvent::SinkTextEvent(TypeInfoPtr const& info, StreamTypeEnum stream, char16_t const* text)
    : TextBaseEvent(info, stream, text) {}

SinkTextEvent::~SinkTextEvent() = default;

BaseEvent* SinkTextEvent::clone() const {
    return new SinkTextEvent(*this);
}

template <class Archive> void SinkTextEvent::serializeExplicit(Archive& ar, unsigned int) {
    ar& boost::serialization::make_nvp("TextBaseEvent",
                                       boost::serialization::base_object<TextBaseEvent>(*this));
}
ZN_SERIALIZE_EXPLICIT(SinkTextEvent)

} // namespace io
} // namespace quorl

BOOST_CLASS_EXPORT_IMPLEMENT(quorl::io::SinkTextEvent)
