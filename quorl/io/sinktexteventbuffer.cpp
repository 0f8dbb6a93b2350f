#include <quorl/io/sinktexteventbuffer.hpp>

#include <quorl/eventmgr/eventmgraccess.hpp>
#include <quorl/io/sinktextevent.hpp>

namespace quorl {
namespace io {

SinkTextEventBuffer::SinkTextEventBuffer(StreamTypeEnum stream) : streamType_(stream) {}

SinkTextEventBuffer::~SinkTextEventBuffer() = default;

SinkTextEventBuffer::int_type SinkTextEventBuffer::overflow(int_type c) {
    if (traits_type::eq_int_type(c, traits_type::eof()))
        return c;
    text_.push_back(traits_type::to_char_type(c));
    return c;
}

std::streamsize SinkTextEventBuffer::xsputn(char16_t const* s, std::streamsize n) {
    if (n <= 0)
        return 0;
    text_.insert(text_.end(), s, s + n);
    if (text_.capacity() > maxRetainedUnits)
        sync();
    return n;
}

int SinkTextEventBuffer::sync() {
    if (text_.empty())
        return 0;
    ustring text(text_.begin(), text_.end());
    quorl::eventmgr::createLocalEventMgr(boost::none)
        ->notify<SinkTextEvent>(foundation::msg_svc::eventmgr::DeliverText, streamType_,
                                std::move(text));
    if (text_.capacity() <= maxRetainedUnits)
        text_.clear();
    else
        std::vector<char16_t>().swap(text_);
    return 0;
}

} // namespace io
} // namespace quorl
