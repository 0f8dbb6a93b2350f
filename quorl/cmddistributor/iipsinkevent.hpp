#pragma once
// IIPSinkEvent: a piece of one packet's output, sent from the interpreter side to the client
// that owns the packet, whose distributor writes it to that request's own sink. Immutable once
// published; user tags allowed; may cross exchanges. Constructors throw only std::bad_alloc;
// write passes on what the target buffer throws, and ends the process (diag::terminate) if
// the text is longer than a stream can take in one write.
#include <quorl/io/streamtypeenum.hpp>

#include <fl/i18n/ustring.hpp>
#include <foundation/msg_svc/eventmgr/baseevent.hpp>
#include <foundation/msg_svc/exchange/idtype.hpp>

#include <cstdint>
#include <streambuf>

namespace cmddistributor {

class IIPSinkEvent : public foundation::msg_svc::eventmgr::BaseEvent {
public:
    typedef foundation::msg_svc::eventmgr::BaseEvent EventBaseType;
    static ustring eventTypeName() { return u"cmddistributor::IIPSinkEvent"; }

    IIPSinkEvent(foundation::msg_svc::exchange::IDType const& iip, quorl::io::StreamTypeEnum stream,
                 ustring text);
    // A null `text` gives empty text.
    IIPSinkEvent(foundation::msg_svc::exchange::IDType const& iip, quorl::io::StreamTypeEnum stream,
                 char16_t const* text);
    ~IIPSinkEvent() override;

    foundation::msg_svc::eventmgr::BaseEvent* clone() const override;
    std::ostream& fillStream(std::ostream& os) const override;

    foundation::msg_svc::exchange::IDType getIIPId() const { return iipId_; }
    quorl::io::StreamTypeEnum getStreamType() const { return stream_; }
    ustring const& getText() const { return text_; }

    // Writes the text to `buffer` and syncs it; returns what sputn wrote.
    std::int64_t write(std::basic_streambuf<char16_t>& buffer) const;

    bool fieldsEqual(IIPSinkEvent const& o) const {
        return stream_ == o.stream_ && iipId_ == o.iipId_ && text_ == o.text_;
    }

protected:
    typedef boost::shared_ptr<foundation::msg_svc::eventmgr::TypeInformation> TypeInfoPtr;

    // Error stream, null id, empty text: the state an archive reads into.
    IIPSinkEvent();
    IIPSinkEvent(IIPSinkEvent const&) = default;
    IIPSinkEvent(TypeInfoPtr const& info, foundation::msg_svc::exchange::IDType const& iip,
                 quorl::io::StreamTypeEnum stream, ustring text);
    IIPSinkEvent(TypeInfoPtr const& info, foundation::msg_svc::exchange::IDType const& iip,
                 quorl::io::StreamTypeEnum stream, char16_t const* text);

private:
    ZN_SERIALIZABLE()
    quorl::io::StreamTypeEnum stream_;
    foundation::msg_svc::exchange::IDType iipId_;
    ustring text_;
};

namespace detail {
// Writes `length` units and syncs `buffer`; returns what sputn wrote. A length beyond what a
// stream size can hold ends the process through diag::terminate.
std::int64_t writeUnits(std::basic_streambuf<char16_t>& buffer, char16_t const* text,
                        std::uint64_t length);
} // namespace detail

} // namespace cmddistributor

ZN_SERIALIZATION_TRAITS(cmddistributor::IIPSinkEvent, 1)
BOOST_CLASS_EXPORT_KEY2(cmddistributor::IIPSinkEvent, "cmddistributor::IIPSinkEvent")
