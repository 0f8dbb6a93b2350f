#pragma once
// BlockDedup: an exchange's memory of the large blocks (single archive writes of at least
// wire::kMinBlockSize bytes, an array's data, say) it has sent to and received from each peer,
// so that a block a peer holds already crosses as a reference instead of its bytes.
//
// Sending: the blocks of an encoded frame are hashed (XXH3, 128 bits) before any lock is taken;
// then, under the peer's lock, each block the peer holds becomes a reference and is cut out of
// the frame, the others go as they are and are remembered, and the frame (kind Blocks, with a
// table of its blocks at its end) is handed to the transport under that same lock. Frames to one
// peer keep their order, so the receiver, applying the same rule (least recently used blocks
// evicted first, within the sender's byte capacity), holds what the sender believes it holds.
// The receiver keeps a literal block by keeping the buffer it arrived in, without copying it.
//
// Getting out of step (a peer restarted unnoticed, a smaller capacity at the receiver, a forged
// reference): the receiver answers with BlockMissing, naming its own capacity, and forgets the
// epoch's blocks; the sender starts a new epoch on hearing of it and from then on remembers no
// more for that peer than the peer keeps, and the receiver forgets everything of a peer whose
// frames name a new epoch. Each side starts with a random epoch, so a restarted sender is never
// taken for its previous run. The receiver trusts the hashes of the (authenticated) peer: a
// lying peer only spoils its own frames.
//
// Layout of a Blocks frame: byte 0 is FrameKind::Blocks; then the original frame from its byte 1
// on, referenced blocks left out; then per block {offset u64, length u64, hash 16 bytes,
// reference u8}; then {original kind u8, capacity u64, epoch u64, block count u32}; integers
// little-endian, offsets and lengths in the original frame.
//
// Owned by its exchange (one per exchange); it holds received buffers through the holders the
// transport handed over, released as blocks are evicted or a peer is forgotten.
// Threads: every function may be called from any thread at once. Throws std::runtime_error for
// a malformed Blocks frame, and what the send function throws.
#include <foundation/msg_svc/exchange/wire.hpp>

#include <boost/shared_ptr.hpp>

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace foundation {
namespace msg_svc {
namespace exchange {

class BlockDedup {
public:
    typedef std::array<std::uint64_t, 2> Hash;
    struct Block {
        std::size_t offset = 0;
        std::size_t length = 0;
        Hash hash{};
    };
    // A received frame made whole again.
    struct Unpacked {
        bool missing = false;                 // a referenced block is not held: answer BlockMissing
        std::uint64_t epoch = 0;              // the sender's epoch, for BlockMissing
        wire::FrameKind kind{};               // the original frame's kind
        std::uint64_t correlation{};          // the original frame's correlation (0 if unknown)
        wire::FrameView frame;                // unless missing: the original frame, viewed in place
        std::unique_ptr<std::string> rebuilt; // the frame's bytes when references were filled in
    };

    // At most `capacity` bytes of blocks remembered per peer and direction; 0: off.
    explicit BlockDedup(std::size_t capacity);
    ~BlockDedup();
    BlockDedup(BlockDedup const&) = delete;
    BlockDedup& operator=(BlockDedup const&) = delete;

    bool enabled() const { return capacity_ != 0; }

    static std::vector<Block> hashBlocks(std::string const& frame,
                                         std::vector<wire::BlockSpan> const& spans);

    // Sends `frame`, whose blocks (in order, not overlapping) are `blocks`, to `peer`: as a
    // Blocks frame through `send`, called under the peer's lock. Returns true if any block went
    // as a reference. If `send` throws, the peer's blocks are forgotten (new epoch).
    bool send(std::string const& peer, std::string&& frame, std::vector<Block> const& blocks,
              std::function<void(std::string&&)> const& send);

    // Unpacks a Blocks frame from `peer`; `holder` keeps `bytes` valid for as long as it is
    // held. Throws std::runtime_error if the frame is malformed (nothing is kept then).
    Unpacked receive(std::string const& peer, boost::shared_ptr<void const> const& holder,
                     char const* bytes, std::size_t size);

    // What a BlockMissing frame says: the epoch whose block was missing, and how many bytes of
    // blocks its sender keeps.
    struct Missing {
        std::uint64_t epoch = 0;
        std::uint64_t capacity = 0;
    };
    // The peer did not hold a block of the frames of `missing.epoch`: it forgets them all, and so
    // does this side if that epoch is still current; this side remembers no more for that peer
    // than the peer keeps.
    void blockMissing(std::string const& peer, Missing const& missing);
    // Forgets all blocks of `peer`, both ways (it failed, or was seen anew).
    void forget(std::string const& peer);

    // Reads a BlockMissing frame; throws if it is not one.
    static Missing missing(wire::FrameView const& frame);
    // The payload of this side's BlockMissing frame for `epoch`.
    std::string missingPayload(std::uint64_t epoch) const;

    class Store; // blocks of one peer, least recently used evicted first

private:
    struct Outgoing;
    struct Incoming;
    std::shared_ptr<Outgoing> outgoing(std::string const& peer);
    std::shared_ptr<Incoming> incoming(std::string const& peer);

    std::size_t const capacity_;
    std::mutex mutex_; // guards the two maps (not what they point to)
    std::map<std::string, std::shared_ptr<Outgoing>> out_;
    std::map<std::string, std::shared_ptr<Incoming>> in_;
};

} // namespace exchange
} // namespace msg_svc
} // namespace foundation
