#include <foundation/msg_svc/exchange/blockdedup.hpp>

#include <boost/make_shared.hpp>
#include <xxhash.h>

#include <algorithm>
#include <cstring>
#include <list>
#include <random>
#include <stdexcept>
#include <unordered_map>

namespace foundation {
namespace msg_svc {
namespace exchange {

namespace {

constexpr std::size_t kEntrySize = 8 + 8 + 16 + 1;
constexpr std::size_t kTrailerSize = 1 + 8 + 8 + 4;
// No frame is larger: a payload and a queue name of at most 4 GiB each, and a header.
constexpr std::uint64_t kMaxFrame = (std::uint64_t(1) << 33) + 64;

using wire::getLE;
using wire::putLE;

std::uint64_t newEpoch() {
    static std::mutex m;
    static std::mt19937_64 gen{[] {
        std::random_device rd;
        return (std::uint64_t(rd()) << 32) ^ rd();
    }()};
    std::lock_guard<std::mutex> lock(m);
    return gen();
}

struct HashOf {
    std::size_t operator()(BlockDedup::Hash const& h) const {
        return static_cast<std::size_t>(h[0]);
    }
};

} // namespace

class BlockDedup::Store {
public:
    struct Entry {
        Hash hash;
        std::size_t length;
        boost::shared_ptr<void const> holder; // receiving side: keeps `data` valid
        char const* data;
    };

    // The block held under `hash` with that length, made the most recently used; null if none.
    Entry const* touch(Hash const& hash, std::size_t length) {
        auto it = index_.find(hash);
        if (it == index_.end() || it->second->length != length)
            return nullptr;
        lru_.splice(lru_.begin(), lru_, it->second);
        return &*it->second;
    }

    // Holds a block sent or received as is, if it fits, evicting the least recently used.
    void insert(Hash const& hash, std::size_t length, boost::shared_ptr<void const> holder,
                char const* data, std::size_t capacity) {
        auto it = index_.find(hash);
        if (it != index_.end()) {
            bytes_ -= it->second->length;
            lru_.erase(it->second);
            index_.erase(it);
        }
        if (length > capacity)
            return;
        lru_.push_front(Entry{hash, length, std::move(holder), data});
        index_[hash] = lru_.begin();
        bytes_ += length;
        while (bytes_ > capacity) {
            bytes_ -= lru_.back().length;
            index_.erase(lru_.back().hash);
            lru_.pop_back();
        }
    }

    void clear() {
        index_.clear();
        lru_.clear();
        bytes_ = 0;
    }

private:
    std::list<Entry> lru_; // most recently used first
    std::unordered_map<Hash, std::list<Entry>::iterator, HashOf> index_;
    std::size_t bytes_ = 0;
};

struct BlockDedup::Outgoing {
    explicit Outgoing(std::size_t c) : capacity(c) {}
    std::mutex mutex; // held from the state change to the end of the transport's send
    std::uint64_t epoch = newEpoch();
    std::size_t capacity; // ours, or less if the peer keeps less
    Store store;
    void reset() {
        store.clear();
        epoch = newEpoch();
    }
};

struct BlockDedup::Incoming {
    std::mutex mutex;
    bool seen = false;
    std::uint64_t epoch = 0;
    bool broken = false; // a block of this epoch was missing: nothing more of it is trusted
    Store store;
};

BlockDedup::BlockDedup(std::size_t capacity) : capacity_(capacity) {}
BlockDedup::~BlockDedup() = default;

std::shared_ptr<BlockDedup::Outgoing> BlockDedup::outgoing(std::string const& peer) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto& p = out_[peer];
    if (!p)
        p = std::make_shared<Outgoing>(capacity_);
    return p;
}

std::shared_ptr<BlockDedup::Incoming> BlockDedup::incoming(std::string const& peer) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto& p = in_[peer];
    if (!p)
        p = std::make_shared<Incoming>();
    return p;
}

std::vector<BlockDedup::Block> BlockDedup::hashBlocks(std::string const& frame,
                                                      std::vector<wire::BlockSpan> const& spans) {
    std::vector<Block> blocks;
    blocks.reserve(spans.size());
    for (auto const& s : spans) {
        if (s.offset < 1 || s.offset > frame.size() || frame.size() - s.offset < s.length)
            throw std::out_of_range("a block lies outside its frame");
        XXH128_hash_t const h = XXH3_128bits(frame.data() + s.offset, s.length);
        blocks.push_back(Block{s.offset, s.length, Hash{{h.low64, h.high64}}});
    }
    return blocks;
}

bool BlockDedup::send(std::string const& peer, std::string&& frame,
                      std::vector<Block> const& blocks,
                      std::function<void(std::string&&)> const& send) {
    if (frame.empty())
        throw std::invalid_argument("not an encoded frame");
    auto const out = outgoing(peer);
    std::lock_guard<std::mutex> lock(out->mutex);
    std::vector<bool> isReference(blocks.size());
    bool anyReference = false;
    for (std::size_t i = 0; i < blocks.size(); ++i) {
        Block const& b = blocks[i];
        if (out->store.touch(b.hash, b.length)) {
            isReference[i] = anyReference = true;
        } else {
            out->store.insert(b.hash, b.length, nullptr, nullptr, out->capacity);
        }
    }
    // The table is written before the frame is cut, from the offsets in the whole frame.
    std::string table;
    table.reserve(blocks.size() * kEntrySize + kTrailerSize);
    for (std::size_t i = 0; i < blocks.size(); ++i) {
        putLE(table, blocks[i].offset, 8);
        putLE(table, blocks[i].length, 8);
        putLE(table, blocks[i].hash[0], 8);
        putLE(table, blocks[i].hash[1], 8);
        table.push_back(isReference[i] ? 1 : 0);
    }
    table.push_back(frame[0]);
    putLE(table, out->capacity, 8);
    putLE(table, out->epoch, 8);
    putLE(table, blocks.size(), 4);
    if (anyReference) {
        // Cut the referenced blocks out in place: only what follows the first one moves.
        std::size_t write = 0, read = 0;
        for (std::size_t i = 0; i < blocks.size(); ++i) {
            if (!isReference[i])
                continue;
            std::size_t const keep = blocks[i].offset - read;
            if (write != read)
                std::memmove(&frame[write], &frame[read], keep);
            write += keep;
            read = blocks[i].offset + blocks[i].length;
        }
        std::size_t const rest = frame.size() - read;
        if (write != read)
            std::memmove(&frame[write], &frame[read], rest);
        frame.resize(write + rest);
    }
    frame[0] = static_cast<char>(wire::FrameKind::Blocks);
    frame += table; // within the capacity the cut blocks left
    if (frame.size() < frame.capacity() / 2)
        frame.shrink_to_fit(); // the frame may wait to be sent: free what the blocks took
    try {
        send(std::move(frame));
    } catch (...) {
        out->reset(); // the peer may not have the frame: neither side can tell what it holds
        throw;
    }
    return anyReference;
}

BlockDedup::Unpacked BlockDedup::receive(std::string const& peer,
                                         boost::shared_ptr<void const> const& holder,
                                         char const* bytes, std::size_t size) {
    if (size < 1 + kTrailerSize || bytes[0] != static_cast<char>(wire::FrameKind::Blocks))
        throw std::runtime_error("truncated block frame");
    char const* const trailer = bytes + size - kTrailerSize;
    Unpacked result;
    auto const kind = static_cast<unsigned char>(trailer[0]);
    // The kinds a frame with blocks may have had before it was packed.
    if (kind < static_cast<unsigned char>(wire::FrameKind::Message) ||
        kind > static_cast<unsigned char>(wire::FrameKind::Notice))
        throw std::runtime_error("block frame of unknown kind " + std::to_string(kind));
    result.kind = static_cast<wire::FrameKind>(kind);
    std::uint64_t const senderCapacity = getLE(trailer + 1, 8);
    result.epoch = getLE(trailer + 9, 8);
    std::uint64_t const count = getLE(trailer + 17, 4);
    if (count > (size - 1 - kTrailerSize) / kEntrySize)
        throw std::runtime_error("block table larger than its frame");
    char const* const table = trailer - count * kEntrySize;
    char const* const body = bytes + 1; // the original frame from its byte 1, blocks cut out
    std::size_t const bodySize = static_cast<std::size_t>(table - body);

    // Checked whole before anything is kept: in order, not overlapping, inside the frame.
    struct Entry {
        std::uint64_t offset, length;
        Hash hash;
        bool reference;
    };
    std::vector<Entry> entries;
    entries.reserve(count);
    std::uint64_t end = 1, referenced = 0;
    for (std::uint64_t i = 0; i < count; ++i) {
        char const* e = table + i * kEntrySize;
        Entry x{getLE(e, 8), getLE(e + 8, 8), Hash{{getLE(e + 16, 8), getLE(e + 24, 8)}}, false};
        auto const flag = static_cast<unsigned char>(e[32]);
        if (flag > 1)
            throw std::runtime_error("block table entry of unknown form");
        x.reference = flag == 1;
        if (x.length == 0 || x.offset < end || x.offset > kMaxFrame || x.length > kMaxFrame)
            throw std::runtime_error("block table out of order");
        end = x.offset + x.length;
        if (x.reference)
            referenced += x.length;
        if (referenced > kMaxFrame)
            throw std::runtime_error("block table refers to too much");
        entries.push_back(x);
    }
    std::uint64_t const wholeSize = 1 + bodySize + referenced;
    // Literal blocks are kept by keeping the buffer they arrived in, unless they are the lesser
    // part of it: then each is copied, so that what is held stays within twice the capacity.
    std::uint64_t literal = 0;
    for (auto const& x : entries)
        literal += x.reference ? 0 : x.length;
    bool const keepBuffer = holder && 2 * literal >= size;
    if (end > wholeSize)
        throw std::runtime_error("block beyond the end of its frame");
    if (bodySize >= 8 && (!count || entries.front().offset >= 9))
        result.correlation = getLE(body, 8);

    // Under the peer's lock, the table is applied in order, as the sender applied it.
    struct Piece {
        std::uint64_t offset, length;
        char const* data;
        boost::shared_ptr<void const> holder;
    };
    std::vector<Piece> filled;
    {
        auto const in = incoming(peer);
        std::lock_guard<std::mutex> lock(in->mutex);
        if (!in->seen || in->epoch != result.epoch) {
            in->store.clear();
            in->seen = true;
            in->epoch = result.epoch;
            in->broken = false;
        }
        std::size_t const capacity =
            static_cast<std::size_t>(std::min<std::uint64_t>(senderCapacity, capacity_));
        std::uint64_t cut = 0; // bytes of referenced blocks before the current entry
        for (auto const& x : entries) {
            if (x.reference) {
                Store::Entry const* held =
                    in->broken ? nullptr
                               : in->store.touch(x.hash, static_cast<std::size_t>(x.length));
                if (!held) {
                    in->broken = true;
                    in->store.clear();
                    result.missing = true;
                    return result;
                }
                filled.push_back(Piece{x.offset, x.length, held->data, held->holder});
                cut += x.length;
            } else if (!in->broken && capacity) {
                char const* data = body + (x.offset - 1 - cut);
                auto const length = static_cast<std::size_t>(x.length);
                if (length > capacity) { // not kept, as at the sender
                    in->store.insert(x.hash, length, nullptr, nullptr, capacity);
                    continue;
                }
                boost::shared_ptr<void const> keep = holder;
                if (!keepBuffer) {
                    auto copy = boost::make_shared<std::string const>(data, length);
                    data = copy->data();
                    keep = copy;
                }
                in->store.insert(x.hash, length, keep, data, capacity);
            }
        }
    }
    if (filled.empty()) {
        result.frame = wire::viewFrame(result.kind, body, bodySize);
        return result;
    }
    result.rebuilt.reset(new std::string);
    std::string& whole = *result.rebuilt;
    whole.reserve(static_cast<std::size_t>(wholeSize));
    whole.push_back(static_cast<char>(result.kind));
    std::size_t from = 0; // in body
    for (auto const& p : filled) {
        std::size_t const upTo = static_cast<std::size_t>(p.offset) - whole.size();
        whole.append(body + from, upTo);
        from += upTo;
        whole.append(p.data, static_cast<std::size_t>(p.length));
    }
    whole.append(body + from, bodySize - from);
    result.frame = wire::viewFrame(whole.data(), whole.size());
    return result;
}

void BlockDedup::blockMissing(std::string const& peer, Missing const& missing) {
    auto const out = outgoing(peer);
    std::lock_guard<std::mutex> lock(out->mutex);
    if (missing.capacity < out->capacity) {
        out->capacity = static_cast<std::size_t>(missing.capacity);
        out->reset(); // what was remembered beyond the peer's capacity is not held there
    } else if (out->epoch == missing.epoch) {
        out->reset();
    }
}

void BlockDedup::forget(std::string const& peer) {
    std::shared_ptr<Outgoing> out;
    std::shared_ptr<Incoming> in;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        // The sending state stays (reset, under its lock), so that frames keep their order.
        auto o = out_.find(peer);
        if (o != out_.end())
            out = o->second;
        auto i = in_.find(peer);
        if (i != in_.end()) {
            in = i->second;
            in_.erase(i);
        }
    }
    if (out) {
        std::lock_guard<std::mutex> lock(out->mutex);
        out->reset();
        out->capacity = capacity_; // the peer seen anew may keep more
    }
    if (in) {
        std::lock_guard<std::mutex> lock(in->mutex);
        in->store.clear();
    }
}

BlockDedup::Missing BlockDedup::missing(wire::FrameView const& frame) {
    if (frame.kind != wire::FrameKind::BlockMissing || frame.payloadSize != 16)
        throw std::runtime_error("not a block-missing frame");
    return Missing{getLE(frame.payload, 8), getLE(frame.payload + 8, 8)};
}

std::string BlockDedup::missingPayload(std::uint64_t epoch) const {
    std::string out;
    putLE(out, epoch, 8);
    putLE(out, capacity_, 8);
    return out;
}

} // namespace exchange
} // namespace msg_svc
} // namespace foundation
