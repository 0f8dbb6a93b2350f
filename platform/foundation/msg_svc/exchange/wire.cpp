#include <foundation/msg_svc/exchange/wire.hpp>

#include <foundation/msg_svc/serialization/guardediarchive.hpp>

#include <boost/archive/polymorphic_binary_oarchive.hpp>

#include <algorithm>
#include <cstring>
#include <sstream>
#include <stdexcept>
#include <typeinfo>

namespace foundation {
namespace msg_svc {
namespace exchange {
namespace wire {

void putLE(std::string& out, std::uint64_t v, int width) {
    char b[8];
    for (int i = 0; i < width; ++i)
        b[i] = static_cast<char>((v >> (8 * i)) & 0xFF);
    out.append(b, static_cast<std::size_t>(width));
}

std::uint64_t getLE(char const* p, int width) {
    std::uint64_t v = 0;
    for (int i = 0; i < width; ++i)
        v |= static_cast<std::uint64_t>(static_cast<unsigned char>(p[i])) << (8 * i);
    return v;
}

namespace {
void putU32(std::string& out, std::uint32_t v) {
    putLE(out, v, 4);
}
void putU64(std::string& out, std::uint64_t v) {
    putLE(out, v, 8);
}

struct Reader {
    char const* bytes;
    std::size_t size;
    std::size_t pos = 0;
    void need(std::size_t n) const {
        if (size - pos < n)
            throw std::runtime_error("truncated frame");
    }
    std::uint64_t uint(int width) {
        need(static_cast<std::size_t>(width));
        std::uint64_t const v = getLE(bytes + pos, width);
        pos += static_cast<std::size_t>(width);
        return v;
    }
    std::string str(std::size_t n) {
        need(n);
        std::string s(bytes + pos, n);
        pos += n;
        return s;
    }
};

// Appends to a string, so that an archive is written where it will be sent from.
class AppendBuffer : public std::streambuf {
public:
    AppendBuffer(std::string& out, std::vector<BlockSpan>* blocks, std::size_t minBlock)
        : out_(out), blocks_(blocks), minBlock_(minBlock) {}

protected:
    std::streamsize xsputn(char const* s, std::streamsize n) override {
        auto const size = static_cast<std::size_t>(n);
        // A large block (an array's data, say) that does not fit makes room for itself at once,
        // rather than through doublings that copy what is written again; still at least doubling,
        // so that many large blocks are not copied over and over.
        if (size >= kLargeBlock && out_.capacity() - out_.size() < size)
            out_.reserve(std::max(out_.size() + size + kLargeBlock, 2 * out_.capacity()));
        if (blocks_ && size >= minBlock_)
            blocks_->push_back(BlockSpan{out_.size(), size});
        out_.append(s, size);
        return n;
    }
    int_type overflow(int_type c) override {
        if (!traits_type::eq_int_type(c, traits_type::eof()))
            out_.push_back(traits_type::to_char_type(c));
        return traits_type::not_eof(c);
    }

private:
    static constexpr std::size_t kLargeBlock = 64 * 1024;
    std::string& out_;
    std::vector<BlockSpan>* blocks_;
    std::size_t minBlock_;
};

template <class T>
void appendObject(std::string& out, T const& object, std::vector<BlockSpan>* blocks = nullptr,
                  std::size_t minBlock = kMinBlockSize) {
    AppendBuffer buffer(out, blocks, minBlock);
    std::ostream os(&buffer);
    {
        // A binary archive converts no characters: it needs no locale of its own, whose making
        // shows in the cost of every small frame.
        boost::archive::polymorphic_binary_oarchive oa(os, boost::archive::no_codecvt);
        T const* p = &object;
        oa << boost::serialization::make_nvp("object", p);
    }
    if (!os)
        throw std::runtime_error("an archive could not be written");
}

template <class T> std::string encodeObject(T const& object) {
    std::string out;
    appendObject(out, object);
    return out;
}

// The frame header with a payload length to be filled in; returns where that length stands.
std::size_t putHeader(std::string& out, FrameKind kind, std::uint64_t correlation,
                      std::string const& queue) {
    out.push_back(static_cast<char>(kind));
    putU64(out, correlation);
    putU32(out, static_cast<std::uint32_t>(queue.size()));
    out += queue;
    std::size_t const at = out.size();
    putU32(out, 0);
    return at;
}

void patchLength(std::string& out, std::size_t at) {
    std::size_t const length = out.size() - at - 4;
    if (length > 0xFFFFFFFFu)
        throw std::length_error("a frame holds at most 4 GiB");
    for (int i = 0; i < 4; ++i)
        out[at + static_cast<std::size_t>(i)] = static_cast<char>((length >> (8 * i)) & 0xFF);
}

// Bytes from another process: read with the guarded archive, which refuses what would make
// Boost.Serialization misbehave on hostile input.
template <class T> boost::shared_ptr<T const> decodeObject(char const* bytes, std::size_t size) {
    serialization::GuardedIArchive::Buffer buffer(bytes, size);
    std::istream is(&buffer);
    serialization::PolymorphicGuardedIArchive ia(is, boost::archive::no_codecvt);
    ia.expectPointerTo(
        boost::serialization::type_info_implementation<T>::type::get_const_instance());
    T* p = nullptr;
    ia >> boost::serialization::make_nvp("object", p);
    if (!p)
        throw std::runtime_error("frame holds no object");
    return boost::shared_ptr<T const>(p);
}
} // namespace

std::string encodeFrame(Frame const& f) {
    if (f.queue.size() > 0xFFFFFFFFu || f.payload.size() > 0xFFFFFFFFu)
        throw std::length_error("a frame holds at most 4 GiB");
    std::string out;
    out.reserve(1 + 8 + 4 + f.queue.size() + 4 + f.payload.size());
    out.push_back(static_cast<char>(f.kind));
    putU64(out, f.correlation);
    putU32(out, static_cast<std::uint32_t>(f.queue.size()));
    out += f.queue;
    putU32(out, static_cast<std::uint32_t>(f.payload.size()));
    out += f.payload;
    return out;
}

void setCorrelation(std::string& bytes, std::uint64_t correlation) {
    if (bytes.size() < 9)
        throw std::invalid_argument("not an encoded frame");
    for (int i = 0; i < 8; ++i)
        bytes[1 + i] = static_cast<char>((correlation >> (8 * i)) & 0xFF);
}

Frame decodeFrame(std::string const& bytes) {
    FrameView const view = viewFrame(bytes);
    return Frame{view.kind, view.correlation, view.queue,
                 std::string(view.payload, view.payloadSize)};
}

FrameView viewFrame(std::string const& bytes) {
    return viewFrame(bytes.data(), bytes.size());
}

FrameView viewFrame(char const* bytes, std::size_t size) {
    if (size < 1)
        throw std::runtime_error("truncated frame");
    auto const kind = static_cast<unsigned char>(bytes[0]);
    // A Blocks frame is unpacked before it is viewed.
    if (kind < static_cast<unsigned char>(FrameKind::Message) ||
        kind > static_cast<unsigned char>(FrameKind::BlockMissing) ||
        kind == static_cast<unsigned char>(FrameKind::Blocks))
        throw std::runtime_error("unknown frame kind " + std::to_string(kind));
    return viewFrame(static_cast<FrameKind>(kind), bytes + 1, size - 1);
}

FrameView viewFrame(FrameKind kind, char const* bytes, std::size_t size) {
    Reader r{bytes, size};
    FrameView f;
    f.kind = kind;
    f.correlation = r.uint(8);
    f.queue = r.str(static_cast<std::size_t>(r.uint(4)));
    f.payloadSize = static_cast<std::size_t>(r.uint(4));
    r.need(f.payloadSize);
    f.payload = bytes + r.pos;
    if (r.pos + f.payloadSize != size)
        throw std::runtime_error("trailing bytes after frame");
    return f;
}

std::string encodeMessageFrame(FrameKind kind, std::uint64_t correlation, std::string const& queue,
                               Message const& message, std::vector<BlockSpan>* blocks,
                               std::size_t minBlock) {
    std::string out;
    std::size_t const at = putHeader(out, kind, correlation, queue);
    appendObject(out, message, blocks, minBlock);
    patchLength(out, at);
    return out;
}

namespace {
// The archive of the default reply ("nothing to report"), which answers most messages (every
// enqueue, for one): written once, and recognised when read, so that it costs no archive.
std::string const& defaultReplyBytes() {
    // Never destroyed: transport threads may still answer while the process ends.
    static std::string const* const bytes =
        new std::string(encodeObject<Reply>(*Reply::defaultReply()));
    return *bytes;
}
bool isDefaultReply(Reply const& reply) {
    return typeid(reply) == typeid(Reply);
}
} // namespace

std::string encodeReplyFrame(std::uint64_t correlation, Reply const& reply,
                             std::vector<BlockSpan>* blocks, std::size_t minBlock) {
    std::string out;
    std::size_t const at = putHeader(out, FrameKind::Reply, correlation, std::string());
    if (isDefaultReply(reply))
        out += defaultReplyBytes();
    else
        appendObject(out, reply, blocks, minBlock);
    patchLength(out, at);
    return out;
}

std::string encodeMessage(Message const& m) {
    return encodeObject(m);
}
boost::shared_ptr<Message const> decodeMessage(std::string const& bytes) {
    return decodeObject<Message>(bytes.data(), bytes.size());
}
boost::shared_ptr<Message const> decodeMessage(char const* bytes, std::size_t size) {
    return decodeObject<Message>(bytes, size);
}
std::string encodeReply(Reply const& r) {
    return encodeObject(r);
}
boost::shared_ptr<Reply const> decodeReply(std::string const& bytes) {
    return decodeReply(bytes.data(), bytes.size());
}
boost::shared_ptr<Reply const> decodeReply(char const* bytes, std::size_t size) {
    std::string const& plain = defaultReplyBytes();
    if (size == plain.size() && std::memcmp(bytes, plain.data(), size) == 0)
        return Reply::defaultReply();
    return decodeObject<Reply>(bytes, size);
}
std::string encodeEvent(eventmgr::BaseEvent const& e) {
    return encodeObject(e);
}
boost::shared_ptr<eventmgr::BaseEvent const> decodeEvent(std::string const& bytes) {
    return decodeObject<eventmgr::BaseEvent>(bytes.data(), bytes.size());
}

} // namespace wire
} // namespace exchange
} // namespace msg_svc
} // namespace foundation
