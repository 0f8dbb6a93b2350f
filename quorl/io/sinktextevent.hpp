#pragma once
// SinkTextEvent: command-window text mirrored to anyone listening, raised by
// SinkTextEventBuffer. Carries the request id of the context that wrote the text. Immutable
// once published; user tags allowed; may cross exchanges. Constructors throw only
// std::bad_alloc.
#include <quorl/io/textbaseevent.hpp>

namespace quorl {
namespace io {

class SinkTextEvent : public TextBaseEvent {
public:
    typedef TextBaseEvent EventBaseType;
    static ustring eventTypeName() { return u"quorl::io::SinkTextEvent"; }

    SinkTextEvent(StreamTypeEnum stream, ustring text);
    // A null `text` gives empty text.
    SinkTextEvent(StreamTypeEnum stream, char16_t const* text);
    ~SinkTextEvent() override;

    foundation::msg_svc::eventmgr::BaseEvent* clone() const override;

protected:
    // Error stream, empty text: the state an archive reads into.
    SinkTextEvent();
    SinkTextEvent(SinkTextEvent const&) = default;
    SinkTextEvent(TypeInfoPtr const& info, StreamTypeEnum stream, ustring text);
    SinkTextEvent(TypeInfoPtr const& info, StreamTypeEnum stream, char16_t const* text);

private:
    ZN_SERIALIZABLE()
};

} // namespace io
} // namespace quorl

ZN_SERIALIZATION_TRAITS(quorl::io::SinkTextEvent, 1)
BOOST_CLASS_EXPORT_KEY2(quorl::io::SinkTextEvent, "quorl::io::SinkTextEvent")
