#pragma once
// The seam between an exchange and the carrier of its traffic to other exchanges.
//
// An exchange encodes every message, reply and failure bound for another exchange into a frame
// (bytes) and hands it to its Transport; frames that arrive are handed back through the
// TransportSink the exchange passed to `start`. A transport never sees message objects, so any
// carrier (in-process loopback, sockets) fits without changes to the exchange.
//
// Threads: `send` may be called from any thread at once. The sink's functions may be called
// from any thread the transport owns; they only queue work and return quickly.
#include <boost/exception_ptr.hpp>
#include <boost/shared_ptr.hpp>

#include <cstddef>
#include <stdexcept>
#include <string>
#include <utility>

namespace foundation {
namespace msg_svc {
namespace exchange {

// A frame a transport will not carry (too large, say). Thrown by send(); the peer itself is not
// at fault, so only the frame's sender hears of it.
class FrameRefused : public std::runtime_error {
public:
    explicit FrameRefused(std::string const& what) : std::runtime_error(what) {}
};

class TransportSink {
public:
    virtual ~TransportSink();
    // A frame sent to this exchange by the exchange named `from`; the bytes are the caller's and
    // valid for the call only.
    virtual void receiveFrame(std::string const& from, char const* frame, std::size_t size) = 0;
    // As receiveFrame, for bytes that stay valid as long as `holder` lives: the sink may keep
    // parts of the frame by keeping the holder, without copying them.
    virtual void receiveHeldFrame(std::string const& from,
                                  boost::shared_ptr<void const> const& holder, char const* frame,
                                  std::size_t size) {
        (void)holder;
        receiveFrame(from, frame, size);
    }
    // The exchange named `peer` failed or went away; `cause` says why.
    virtual void peerFailed(std::string const& peer, boost::exception_ptr const& cause) = 0;
};

class Transport {
public:
    virtual ~Transport();
    // Binds the transport to its exchange's name; frames for that name go to `sink` from now on.
    // The sink outlives the transport's use of it: the exchange calls stop() before it dies.
    virtual void start(std::string const& ownName, TransportSink& sink) = 0;
    // Sends a frame. A failure to send is reported by throwing, or later through peerFailed.
    virtual void send(std::string const& to, std::string const& frame) = 0;
    // As send, for a frame the caller gives up (a transport may then carry it without a copy).
    virtual void sendOwned(std::string const& to, std::string&& frame) { send(to, frame); }
    // As sendOwned, for a frame that may wait a little to go out with the next frame to `to`
    // (one send, one wake-up at each end, instead of two). Frames to one peer keep their order.
    virtual void sendSoon(std::string const& to, std::string&& frame) {
        sendOwned(to, std::move(frame));
    }
    // Stops delivering to the sink; returns when no call into the sink is running.
    virtual void stop() = 0;
};

// A transport between exchanges of one process: frames are passed as bytes to the exchange of
// that name. Sending to a name no exchange has started with fails the peer at once.
boost::shared_ptr<Transport> makeLoopbackTransport();

} // namespace exchange
} // namespace msg_svc
} // namespace foundation
