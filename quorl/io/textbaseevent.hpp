#pragma once
// TextBaseEvent: publishes a piece of output text of one stream to anyone subscribed, stamped
// with the request id of the context that made it. Immutable once published; user tags
// allowed; may cross exchanges. Constructors throw only std::bad_alloc.
#include <quorl/cmddistributor/requestidadapter.hpp>
#include <quorl/io/streamtypeenum.hpp>

#include <fl/i18n/ustring.hpp>
#include <foundation/msg_svc/eventmgr/baseevent.hpp>

namespace quorl {
namespace io {

class TextBaseEvent : public foundation::msg_svc::eventmgr::BaseEvent,
                      public ::cmddistributor::RequestIdAdapter {
public:
    typedef foundation::msg_svc::eventmgr::BaseEvent EventBaseType;
    static ustring eventTypeName() { return u"quorl::io::TextBaseEvent"; }

    TextBaseEvent(StreamTypeEnum stream, ustring text);
    // A null `text` gives empty text.
    TextBaseEvent(StreamTypeEnum stream, char16_t const* text);
    ~TextBaseEvent() override;

    foundation::msg_svc::eventmgr::BaseEvent* clone() const override;
    std::ostream& fillStream(std::ostream& os) const override;

    StreamTypeEnum getStreamType() const { return stream_; }
    ustring const& getText() const { return text_; }

    bool fieldsEqual(TextBaseEvent const& o) const {
        return stream_ == o.stream_ && text_ == o.text_ && getRequestId() == o.getRequestId();
    }
    using foundation::msg_svc::eventmgr::BaseEvent::operator==;
    using foundation::msg_svc::eventmgr::BaseEvent::operator!=;

protected:
    typedef boost::shared_ptr<foundation::msg_svc::eventmgr::TypeInformation> TypeInfoPtr;

    // Error stream, empty text: the state an archive reads into.
    TextBaseEvent();
    // Copies keep the original's request id.
    TextBaseEvent(TextBaseEvent const&) = default;
    TextBaseEvent(TypeInfoPtr const& info, StreamTypeEnum stream, ustring text);
    TextBaseEvent(TypeInfoPtr const& info, StreamTypeEnum stream, char16_t const* text);
    explicit TextBaseEvent(TypeInfoPtr const& info);

private:
    ZN_SERIALIZABLE()
    StreamTypeEnum stream_;
    ustring text_;
};

} // namespace io
} // namespace quorl

ZN_SERIALIZATION_TRAITS(quorl::io::TextBaseEvent, 1)
BOOST_CLASS_EXPORT_KEY2(quorl::io::TextBaseEvent, "quorl::io::TextBaseEvent")
