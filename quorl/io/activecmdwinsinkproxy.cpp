#include <mutex>
#include <quorl/io/activecmdwinsinkproxy.hpp>

#include <foundation/core/io/streambufadaptor.hpp>
#include <foundation/usm/detail.hpp>

#include <foundation/core/memory/poolallocator.hpp>

#include <boost/make_shared.hpp>
#include <boost/thread/once.hpp>

#include <stdexcept>

namespace quorl {
namespace io {

namespace {

typedef foundation::usm::Detail<foundation::usm::scope::Tarn> Store;

// What a context holds for one stream: its buffer proxy and a narrow adaptor in front of it.
struct CmdWinHolder {
    boost::shared_ptr<ActiveCmdWinSinkBufferProxy> buffer;
    VeldraSink::NarrowBufferPtr adaptor;
};

struct CmdWinOutputSlot {};
struct CmdWinErrorSlot {};

std::size_t streamIndex(StreamTypeEnum stream) {
    if (stream != OutputStream && stream != ErrorStream)
        throw std::invalid_argument("ActiveCmdWinSinkProxy: unknown stream type " +
                                    std::to_string(static_cast<int>(stream)) + ".");
    return stream == OutputStream ? 0 : 1;
}

std::uint64_t slotFor(StreamTypeEnum stream) {
    static std::once_flag once;
    static std::uint64_t slots[2] = {0, 0};
    std::call_once(once, [] {
        slots[0] = Store::getNextID(typeid(CmdWinOutputSlot));
        slots[1] = Store::getNextID(typeid(CmdWinErrorSlot));
    });
    return slots[streamIndex(stream)];
}

CmdWinHolder* findHolder(StreamTypeEnum stream) {
    return Store::findAs<CmdWinHolder>(slotFor(stream));
}

CmdWinHolder& holderFor(StreamTypeEnum stream) {
    std::uint64_t const slot = slotFor(stream);
    if (CmdWinHolder* existing = Store::findAs<CmdWinHolder>(slot))
        return *existing;
    CmdWinHolder fresh;
    fresh.buffer = boost::make_shared<ActiveCmdWinSinkBufferProxy>(stream);
    fresh.adaptor = foundation::core::io::make_streambuf_adaptor(fresh.buffer, "");
    return Store::findOrInsertValue(slot, fresh);
}

} // namespace

ActiveCmdWinSinkProxy::ActiveCmdWinSinkProxy(StreamTypeEnum stream) : streamType_(stream) {
    streamIndex(stream);
}

ActiveCmdWinSinkProxy::~ActiveCmdWinSinkProxy() = default;

boost::shared_ptr<ActiveCmdWinSinkProxy> ActiveCmdWinSinkProxy::getInstance(StreamTypeEnum stream) {
    return foundation::core::memory::makePooledBoostShared<ActiveCmdWinSinkProxy>(stream);
}

boost::shared_ptr<VeldraSink> ActiveCmdWinSinkProxy::getCmdWinSink(StreamTypeEnum stream) {
    if (!Store::isRequiredContextActive())
        return nullptr;
    CmdWinHolder const* holder = findHolder(stream);
    return holder ? holder->buffer->getSink() : nullptr;
}

void ActiveCmdWinSinkProxy::setCmdWinSink(StreamTypeEnum stream,
                                          boost::shared_ptr<VeldraSink> const& sink) {
    CmdWinHolder& holder = holderFor(stream);
    if (auto const* proxy = dynamic_cast<ActiveCmdWinSinkProxy const*>(sink.get())) {
        // Such a proxy would hand every write back to this buffer, without end.
        UnicodeBufferPtr const& bound = proxy->VeldraSink::getUnicodeOutStreamBuffer();
        if (bound == holder.buffer || (!bound && proxy->streamType_ == stream))
            throw std::invalid_argument(
                "setCmdWinSink: a command-window proxy cannot be the sink of its own buffer.");
    }
    holder.buffer->setSink(sink);
}

void ActiveCmdWinSinkProxy::ensureBufferCreation() const {
    if (VeldraSink::getUnicodeOutStreamBuffer())
        return;
    CmdWinHolder& holder = holderFor(streamType_);
    // Binding is not a change that callers see: the proxy stands for the same command window.
    const_cast<ActiveCmdWinSinkProxy*>(this)->bindBuffers(holder.buffer, holder.adaptor);
}

void ActiveCmdWinSinkProxy::activate() {
    ensureBufferCreation();
    VeldraSink::getUnicodeOutStreamBuffer()->pubsync();
}

void ActiveCmdWinSinkProxy::deactivate() {
    if (UnicodeBufferPtr const& buffer = VeldraSink::getUnicodeOutStreamBuffer())
        buffer->pubsync();
}

bool ActiveCmdWinSinkProxy::isDirty() const {
    auto const sink = activeSink();
    return sink ? sink->isDirty() : false;
}

void ActiveCmdWinSinkProxy::setDirty(bool dirty) {
    if (auto const sink = activeSink())
        sink->setDirty(dirty);
}

bool ActiveCmdWinSinkProxy::supportsMore() const {
    auto const sink = activeSink();
    return sink ? sink->supportsMore() : fallbackTraits_.supportsMore();
}

bool ActiveCmdWinSinkProxy::supportsHotlinks() const {
    auto const sink = activeSink();
    return sink ? sink->supportsHotlinks() : fallbackTraits_.supportsHotlinks();
}

bool ActiveCmdWinSinkProxy::needsFormattingForDisplay() const {
    auto const sink = activeSink();
    return sink ? sink->needsFormattingForDisplay() : true;
}

bool ActiveCmdWinSinkProxy::useDiary() const {
    auto const sink = activeSink();
    return sink ? sink->useDiary() : true;
}

bool ActiveCmdWinSinkProxy::useEcho() const {
    auto const sink = activeSink();
    return sink ? sink->useEcho() : true;
}

bool ActiveCmdWinSinkProxy::useLogging() const {
    auto const sink = activeSink();
    return sink ? sink->useLogging() : true;
}

VeldraSink::NarrowBufferPtr const& ActiveCmdWinSinkProxy::getOutStreamBuffer() const {
    ensureBufferCreation();
    return VeldraSink::getOutStreamBuffer();
}

VeldraSink::UnicodeBufferPtr const& ActiveCmdWinSinkProxy::getUnicodeOutStreamBuffer() const {
    ensureBufferCreation();
    return VeldraSink::getUnicodeOutStreamBuffer();
}

} // namespace io
} // namespace quorl
