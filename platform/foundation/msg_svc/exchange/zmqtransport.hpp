#pragma once
// The transport between exchanges of different processes, on ZeroMQ.
//
// An exchange whose name is an endpoint (`ipc://PATH`, `tcp://HOST:PORT`) binds a ROUTER socket
// there; any other name only connects out. A frame for another exchange goes, per peer, through
// one path, so frames to one peer keep their order: a DEALER socket connected to the peer's
// endpoint (made on first use, its routing id the own exchange's name), or, for a peer that has
// connected to us and has no endpoint of its own we dialled, back through the ROUTER.
//
// Failure: heartbeats and the socket monitor turn a dead or vanished binding peer into
// TransportSink::peerFailed within about a second (a closed connection at once); a peer that never
// completes its handshake (absent, or refusing our key) fails after `connectTimeout`. The
// connection to a failed peer is dropped; the next frame for it connects again, so a peer that
// comes back is used again.
//
// Security: `tcp://` uses CURVE unless `curve` is off. The binding exchange keeps its key pair in
// a key file of mode 0600, made on first start, and writes the public key beside it
// (`KEYFILE.pub`); a connecting exchange needs that public key (options, or the environment:
// QUORL_SERVER_KEY holding the Z85 key, QUORL_SERVER_KEY_FILE naming a file with it). A peer
// without the right key is refused by ZeroMQ during the handshake. `ipc://` names without a
// leading '/' live in a private directory (mode 0700); an absolute ipc path must lie in a
// directory only its owner may use. A frame larger than `maxFrameSize` is refused to its sender
// (FrameRefused, thrown by send) and dropped by the receiver without being read into memory.
//
// Threads: send() may be called from any thread; it hands the frame to the peer's socket on the
// calling thread, under the transport's socket lock, and returns. The transport's I/O threads
// take turns: one at a time connects, watches the sockets and their monitors, reads what arrives
// and calls the sink (never under the socket lock), in the order frames arrived. Deliveries the
// exchange leaves to that thread run on it at once, while another thread (up to eight in all)
// watches: one that still runs a millisecond later has the reading taken over from it, so a
// delivery may block without holding up other frames for long.
// A frame given to sendSoon by a delivery on the reading thread is held until the next frame to
// the same peer, or at most 250 µs: held frames leave with that frame as the parts of one ZeroMQ
// message (a message of up to 64 parts is that many frames, in order).
#include <foundation/msg_svc/exchange/transport.hpp>

#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace foundation {
namespace msg_svc {
namespace exchange {

struct ZmqTransportOptions {
    // Key file of this exchange's CURVE key pair when it binds a tcp endpoint. Empty:
    // $QUORL_KEY_FILE, else $XDG_CONFIG_HOME/quorl/server.key (~/.config/quorl/server.key).
    std::string keyFile;
    // Public keys (Z85, 40 characters) of tcp peers by exchange name; a peer not listed uses
    // `serverPublicKey`, else $QUORL_SERVER_KEY, else the key in $QUORL_SERVER_KEY_FILE.
    std::map<std::string, std::string> peerPublicKeys;
    std::string serverPublicKey;
    // CURVE on tcp; turned off only where encryption is not wanted (plain tcp).
    bool curve = true;
    // Where `ipc://NAME` (no leading '/') lives. Empty: $XDG_RUNTIME_DIR/quorl, else
    // /tmp/quorl-UID.
    std::string ipcDirectory;
    // Largest frame sent or accepted, in bytes; room for a 1 GiB array and its envelope.
    std::int64_t maxFrameSize = (std::int64_t(1) << 30) + (std::int64_t(64) << 20);
    // Heartbeats go both ways at this interval; an exchange that connected to a peer and hears
    // nothing from it for `heartbeatTimeout` drops the connection and fails the peer. A frame
    // from that peer that takes longer than this to arrive counts as silence: raise it for large
    // transfers over slow links.
    std::chrono::milliseconds heartbeatInterval{250};
    std::chrono::milliseconds heartbeatTimeout{1000};
    // How long a binding exchange waits for the answer to its heartbeat; it also bounds how long
    // a frame from a connected peer may take to arrive.
    std::chrono::milliseconds peerHeartbeatTimeout{10000};
    // How long a new connection may take to complete its handshake before its peer fails.
    std::chrono::milliseconds connectTimeout{1000};
    // While frames come (the last one read less than 10 ms ago), the reading thread polls the
    // sockets this long (yielding the core) before it sleeps: a peer in conversation usually
    // writes again soon, and where idle processors halt, waking a sleeping thread costs more than
    // a round trip's own work. Zero: it sleeps at once.
    std::chrono::microseconds pollAfterInput{250};
};

boost::shared_ptr<Transport> makeZmqTransport(ZmqTransportOptions const& options = {});

// The exchanges a ZeroMQ transport is in touch with (connected to it, or connected to by it);
// empty for any other transport.
std::vector<std::string> connectedPeers(Transport const& transport);

// True for the names this transport binds or connects to (`ipc://...`, `tcp://...`).
bool isZmqEndpoint(std::string const& name);

// The path an `ipc://` name lives at, under `ipcDirectory` (or the default) when relative.
std::string ipcPathOf(std::string const& endpoint, std::string const& ipcDirectory = {});

// A CURVE key pair in Z85.
struct CurveKeyPair {
    std::string publicKey;
    std::string secretKey;
};
// Reads the key pair in `path`, or makes one there (mode 0600, with `path`.pub beside it) if the
// file does not exist. Throws std::runtime_error if the file is readable by others or malformed.
CurveKeyPair loadOrCreateKeyFile(std::string const& path);
// Reads a public key (Z85) from a file written by loadOrCreateKeyFile (the key file or its .pub).
std::string readPublicKeyFile(std::string const& path);
// The key file used when ZmqTransportOptions::keyFile is empty.
std::string defaultKeyFile();

} // namespace exchange
} // namespace msg_svc
} // namespace foundation
