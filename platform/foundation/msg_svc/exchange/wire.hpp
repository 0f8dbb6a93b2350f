#pragma once
// The byte forms of what crosses between exchanges: frames, and the messages, replies and
// events inside them (Boost binary archive through the polymorphic interface).
// Decoding hostile or truncated bytes raises std::runtime_error or an archive exception; it
// never reads past the buffer.
#include <foundation/msg_svc/eventmgr/baseevent.hpp>
#include <foundation/msg_svc/exchange/message.hpp>
#include <foundation/msg_svc/exchange/reply.hpp>

#include <cstdint>
#include <string>

namespace foundation {
namespace msg_svc {
namespace exchange {
namespace wire {

// Message: a reply is wanted. Notice: a message whose sender wants no reply; its correlation
// only names it in the Failure frame that answers a notice the receiver could not decode.
// Reply and Failure answer a Message or Notice of that correlation.
enum class FrameKind : std::uint8_t { Message = 1, Reply = 2, Failure = 3, Notice = 4 };

struct Frame {
    FrameKind kind = FrameKind::Message;
    std::uint64_t correlation = 0;
    std::string queue;   // Message/Notice: the queue at the receiver
    std::string payload; // Message/Notice/Reply: archive bytes; Failure: the error text
};

std::string encodeFrame(Frame const& frame);
Frame decodeFrame(std::string const& bytes);

// A frame read in place: its payload is a view into the bytes it was read from.
struct FrameView {
    FrameKind kind = FrameKind::Message;
    std::uint64_t correlation = 0;
    std::string queue;
    char const* payload = nullptr;
    std::size_t payloadSize = 0;
};
FrameView viewFrame(std::string const& bytes);
FrameView viewFrame(char const* bytes, std::size_t size);

// A whole frame holding the archive of a message or reply, written in one buffer (no copies of
// the payload).
std::string encodeMessageFrame(FrameKind kind, std::uint64_t correlation, std::string const& queue,
                               Message const& message);
std::string encodeReplyFrame(std::uint64_t correlation, Reply const& reply);
// Rewrites the correlation of an encoded frame in place.
void setCorrelation(std::string& encodedFrame, std::uint64_t correlation);

std::string encodeMessage(Message const& message);
boost::shared_ptr<Message const> decodeMessage(std::string const& bytes);
boost::shared_ptr<Message const> decodeMessage(char const* bytes, std::size_t size);
std::string encodeReply(Reply const& reply);
boost::shared_ptr<Reply const> decodeReply(std::string const& bytes);
boost::shared_ptr<Reply const> decodeReply(char const* bytes, std::size_t size);
std::string encodeEvent(eventmgr::BaseEvent const& event);
boost::shared_ptr<eventmgr::BaseEvent const> decodeEvent(std::string const& bytes);

} // namespace wire
} // namespace exchange
} // namespace msg_svc
} // namespace foundation
