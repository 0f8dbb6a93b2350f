#include <foundation/msg_svc/serialization/archives.hpp>

#include <quorl/io/textbaseevent.hpp>

#include <fl/i18n/conversions.hpp>
#include <foundation/msg_svc/serialization/ustring.hpp>

#include <boost/serialization/base_object.hpp>

namespace quorl {
namespace io {

using foundation::msg_svc::eventmgr::BaseEvent;
using foundation::msg_svc::eventmgr::typeInformationOf;

namespace {
ustring textOf(char16_t const* text) {
    return text ? ustring(text) : ustring();
}
} // namespace

TextBaseEvent::TextBaseEvent(StreamTypeEnum stream, ustring text)
    : BaseEvent(typeInformationOf<TextBaseEvent>()), stream_(stream), text_(std::move(text)) {}

TextBaseEvent::TextBaseEvent(StreamTypeEnum stream, char16_t const* text)
    : BaseEvent(typeInformationOf<TextBaseEvent>()), stream_(stream), text_(textOf(text)) {}

TextBaseEvent::TextBaseEvent()
    : BaseEvent(typeInformationOf<TextBaseEvent>()), stream_(ErrorStream) {}

TextBaseEvent::TextBaseEvent(TypeInfoPtr const& info, StreamTypeEnum stream, ustring text)
    : BaseEvent(info), stream_(stream), text_(std::move(text)) {}

TextBaseEvent::TextBaseEvent(TypeInfoPtr const& info, StreamTypeEnum stream, char16_t const* text)
    : BaseEvent(info), stream_(stream), text_(textOf(text)) {}

TextBaseEvent::TextBaseEvent(TypeInfoPtr const& info) : BaseEvent(info), stream_(ErrorStream) {}

TextBaseEvent::~TextBaseEvent() = default;

BaseEvent* TextBaseEvent::clone() const {
    return new TextBaseEvent(*this);
}

std::ostream& TextBaseEvent::fillStream(std::ostream& os) const {
    BaseEvent::fillStream(os);
    return os << "STREAMTYPE: " << static_cast<int>(stream_) << '\n'
              << "TEXTLEN: " << text_.size() << '\n'
              << "TEXT: " << fl::i18n::to_string(text_) << '\n'
              << "REQUEST_ID: " << getRequestId().toString() << '\n';
}

template <class Archive> void TextBaseEvent::serializeExplicit(Archive& ar, unsigned int version) {
    ar& boost::serialization::make_nvp("TextBaseEvent",
                                       boost::serialization::base_object<BaseEvent>(*this));
    ar& boost::serialization::make_nvp(
        "TextBaseEvent-RequestId",
        boost::serialization::base_object<cmddistributor::RequestIdAdapter>(*this));
    if (version == 1) {
        int stream = stream_;
        ar& boost::serialization::make_nvp("stream", stream);
        ar& boost::serialization::make_nvp("text", text_);
        stream_ = static_cast<StreamTypeEnum>(stream);
    }
}
ZN_SERIALIZE_EXPLICIT(TextBaseEvent)

} // namespace io
} // namespace quorl

BOOST_CLASS_EXPORT_IMPLEMENT(quorl::io::TextBaseEvent)
