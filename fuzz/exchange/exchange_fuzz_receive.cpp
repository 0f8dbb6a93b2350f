// libFuzzer target: the receive path of an exchange for bytes from another process. A frame is
// decoded, then the message, reply or event it carries (every class the library exports), then
// the receiver reads what it got: its text form, and a second round trip compared with it.
// A frame of large blocks is unpacked first, by a receiver that holds nothing from before.
#include <fuzz/exchange/fuzzblobmessage.hpp>
#include <quorl/quorl.hpp>

#include <foundation/msg_svc/eventmgr/flushmessage.hpp>
#include <foundation/msg_svc/exchange/blockdedup.hpp>
#include <foundation/msg_svc/exchange/wire.hpp>

#include <boost/make_shared.hpp>

#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>

namespace wire = foundation::msg_svc::exchange::wire;

namespace {

template <class T>
void readBack(T const& object, boost::shared_ptr<T const> (*decode)(std::string const&),
              std::string (*encode)(T const&)) {
    std::ostringstream text;
    object.toString(text, 0);
    std::string once;
    try {
        once = encode(object);
    } catch (std::exception const&) {
        return; // loaded but not sendable (a class that refuses to be written)
    }
    auto again = decode(once);
    if (!again)
        std::abort(); // what was written must read back
    (void)(*again == object);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    auto const bytes =
        boost::make_shared<std::string const>(reinterpret_cast<char const*>(data), size);
    wire::Frame frame;
    try {
        if (size && data[0] == static_cast<std::uint8_t>(wire::FrameKind::Blocks)) {
            foundation::msg_svc::exchange::BlockDedup receiver(std::size_t(1) << 30);
            auto const u = receiver.receive("peer", bytes, bytes->data(), bytes->size());
            if (u.missing)
                return 0;
            frame = wire::Frame{u.frame.kind, u.frame.correlation, u.frame.queue,
                                std::string(u.frame.payload, u.frame.payloadSize)};
        } else {
            frame = wire::decodeFrame(*bytes);
        }
    } catch (std::exception const&) {
        return 0;
    }
    try {
        switch (frame.kind) {
        case wire::FrameKind::Message:
        case wire::FrameKind::Notice:
            readBack<foundation::msg_svc::exchange::Message>(
                *wire::decodeMessage(frame.payload), &wire::decodeMessage, &wire::encodeMessage);
            break;
        case wire::FrameKind::Reply:
            readBack<foundation::msg_svc::exchange::Reply>(*wire::decodeReply(frame.payload),
                                                           &wire::decodeReply, &wire::encodeReply);
            break;
        case wire::FrameKind::Failure: {
            // The failure text is only shown; events travel inside messages, but are also read
            // alone from the same payload to reach every event class directly.
            auto event = wire::decodeEvent(frame.payload);
            std::ostringstream text;
            event->fillStream(text);
            (void)(*event == *event);
            break;
        }
        case wire::FrameKind::BlockMissing:
            (void)foundation::msg_svc::exchange::BlockDedup::missing(wire::viewFrame(*bytes));
            break;
        case wire::FrameKind::Blocks:
            std::abort(); // an unpacked frame is never of this kind
        }
    } catch (std::exception const&) {
    }
    return 0;
}
