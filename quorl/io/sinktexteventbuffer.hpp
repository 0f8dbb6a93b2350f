#pragma once
// SinkTextEventBuffer: a 16-bit stream buffer that collects text and publishes it as
// SinkTextEvents on a local event manager of the session. Text is published at sync, and also
// as soon as the collected text has outgrown 4096 units, so that a long burst leaves as events
// of a little over 4096 units and the buffer does not stay large afterwards.
//
// Owned by whoever made it (ActiveCmdWinSinkBufferProxy owns one per stream). Used by the
// threads of one context; it locks nothing. Events are made on the writing thread, so they carry
// that context's request id. sync passes on what the event service throws.
#include <quorl/io/streamtypeenum.hpp>

#include <streambuf>
#include <vector>

namespace quorl {
namespace io {

class SinkTextEventBuffer : public std::basic_streambuf<char16_t> {
public:
    // Above this capacity the collected text is published at once and its storage freed.
    static constexpr std::size_t maxRetainedUnits = 4096;

    explicit SinkTextEventBuffer(StreamTypeEnum stream);
    ~SinkTextEventBuffer() override;

    StreamTypeEnum getStreamType() const { return streamType_; }

protected:
    int_type overflow(int_type c) override;
    std::streamsize xsputn(char16_t const* s, std::streamsize n) override;
    int sync() override;

private:
    StreamTypeEnum streamType_;
    std::vector<char16_t> text_;
};

} // namespace io
} // namespace quorl
