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
#include <vector>

namespace foundation {
namespace msg_svc {
namespace exchange {
namespace wire {

// Message: a reply is wanted. Notice: a message whose sender wants no reply; its correlation
// only names it in the Failure frame that answers a notice the receiver could not decode.
// Reply and Failure answer a Message or Notice of that correlation.
// Blocks: a frame of another kind with its large blocks tabled, those the receiver holds left
// out (see BlockDedup). BlockMissing: the receiver did not hold a block a Blocks frame referred
// to; the payload names the sender's block epoch, the correlation the frame's (0 for a reply).
enum class FrameKind : std::uint8_t {
    Message = 1,
    Reply = 2,
    Failure = 3,
    Notice = 4,
    Blocks = 5,
    BlockMissing = 6
};

// Little-endian unsigned integers of `width` bytes (1 to 8), as frames carry them.
void putLE(std::string& out, std::uint64_t v, int width);
std::uint64_t getLE(char const* p, int width);

// A single write of an archive into a frame, large enough to be worth not sending twice.
struct BlockSpan {
    std::size_t offset = 0; // in the frame
    std::size_t length = 0;
};
// Writes at least this large are recorded as blocks.
constexpr std::size_t kMinBlockSize = std::size_t(1) << 20;

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
// As viewFrame, for a frame of `kind` whose kind byte is not in the buffer: `rest` holds what
// follows it.
FrameView viewFrame(FrameKind kind, char const* rest, std::size_t size);

// A whole frame holding the archive of a message or reply, written in one buffer (no copies of
// the payload). With `blocks`, every single write of at least `minBlock` bytes is recorded there,
// in order.
std::string encodeMessageFrame(FrameKind kind, std::uint64_t correlation, std::string const& queue,
                               Message const& message, std::vector<BlockSpan>* blocks = nullptr,
                               std::size_t minBlock = kMinBlockSize);
std::string encodeReplyFrame(std::uint64_t correlation, Reply const& reply,
                             std::vector<BlockSpan>* blocks = nullptr,
                             std::size_t minBlock = kMinBlockSize);
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
