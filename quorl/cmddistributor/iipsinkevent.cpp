#include <foundation/msg_svc/serialization/archives.hpp>

#include <quorl/cmddistributor/iipsinkevent.hpp>

#include <fl/i18n/conversions.hpp>
#include <foundation/core/diag/terminate.hpp>
#include <foundation/msg_svc/serialization/ustring.hpp>

#include <boost/numeric/conversion/cast.hpp>
#include <boost/serialization/base_object.hpp>

#include <iostream>

namespace cmddistributor {

using foundation::msg_svc::eventmgr::BaseEvent;
using foundation::msg_svc::eventmgr::typeInformationOf;
using foundation::msg_svc::exchange::IDType;
using quorl::io::StreamTypeEnum;

namespace {
ustring textOf(char16_t const* text) {
    return text ? ustring(text) : ustring();
}
} // namespace

IIPSinkEvent::IIPSinkEvent(IDType const& iip, StreamTypeEnum stream, ustring text)
    : BaseEvent(typeInformationOf<IIPSinkEvent>()), stream_(stream), iipId_(iip),
      text_(std::move(text)) {}

IIPSinkEvent::IIPSinkEvent(IDType const& iip, StreamTypeEnum stream, char16_t const* text)
    : BaseEvent(typeInformationOf<IIPSinkEvent>()), stream_(stream), iipId_(iip),
      text_(textOf(text)) {}

IIPSinkEvent::IIPSinkEvent()
    : BaseEvent(typeInformationOf<IIPSinkEvent>()), stream_(quorl::io::ErrorStream), iipId_(0, 0) {}

IIPSinkEvent::IIPSinkEvent(TypeInfoPtr const& info, IDType const& iip, StreamTypeEnum stream,
                           ustring text)
    : BaseEvent(info), stream_(stream), iipId_(iip), text_(std::move(text)) {}

IIPSinkEvent::IIPSinkEvent(TypeInfoPtr const& info, IDType const& iip, StreamTypeEnum stream,
                           char16_t const* text)
    : BaseEvent(info), stream_(stream), iipId_(iip), text_(textOf(text)) {}

IIPSinkEvent::~IIPSinkEvent() = default;

BaseEvent* IIPSinkEvent::clone() const {
    return new IIPSinkEvent(*this);
}

std::ostream& IIPSinkEvent::fillStream(std::ostream& os) const {
    BaseEvent::fillStream(os);
    return os << "IIPID: " << iipId_.toString() << '\n'
              << "STREAMTYPE: " << static_cast<int>(stream_) << '\n'
              << "TEXTLEN: " << text_.size() << '\n'
              << "TEXT: " << fl::i18n::to_string(text_) << '\n';
}

std::int64_t IIPSinkEvent::write(std::basic_streambuf<char16_t>& buffer) const {
    return detail::writeUnits(buffer, text_.data(), text_.size());
}

namespace detail {
std::int64_t writeUnits(std::basic_streambuf<char16_t>& buffer, char16_t const* text,
                        std::uint64_t length) {
    try {
        std::streamsize const n = boost::numeric_cast<std::streamsize>(length);
        std::streamsize const written = buffer.sputn(text, n);
        buffer.pubsync();
        return written;
    } catch (boost::numeric::bad_numeric_cast const& e) {
        std::cerr << e.what() << std::endl;
        foundation::core::diag::terminate("buffer size is larger than streamsize allows.",
                                          "cmddistributor/iipsinkevent");
    }
}
} // namespace detail

template <class Archive> void IIPSinkEvent::serializeExplicit(Archive& ar, unsigned int version) {
    ar& boost::serialization::make_nvp("BaseEvent",
                                       boost::serialization::base_object<BaseEvent>(*this));
    if (version == 1) {
        int stream = stream_;
        ar& boost::serialization::make_nvp("stream", stream);
        ar& boost::serialization::make_nvp("IIP", iipId_);
        ar& boost::serialization::make_nvp("text", text_);
        stream_ = static_cast<StreamTypeEnum>(stream);
    }
}
ZN_SERIALIZE_EXPLICIT(IIPSinkEvent)

} // namespace cmddistributor

BOOST_CLASS_EXPORT_IMPLEMENT(cmddistributor::IIPSinkEvent)
