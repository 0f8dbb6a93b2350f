#include <quorl/io/activecmdwinsinkbufferproxy.hpp>

#include <quorl/eventmgr/eventmgraccess.hpp>
#include <quorl/io/setsendifmoreallows.hpp>
#include <quorl/io/sinktextevent.hpp>

#include <boost/thread/once.hpp>

#include <algorithm>
#include <atomic>
#include <mutex>

namespace quorl {
namespace io {

namespace {

std::atomic<SendFunction> sendFunction{nullptr};

// The log and diary streams, read and replaced with boost::atomic_load/store. The flags say
// whether a stream is set, so that a write without them touches no shared pointer; setters
// change pointer and flag together under streamsMutex.
boost::shared_ptr<std::basic_ostream<char16_t>> logStream;
boost::shared_ptr<std::ostream> diaryStream;
std::atomic<bool> logSet{false};
std::atomic<bool> diarySet{false};
std::mutex streamsMutex;

boost::shared_ptr<std::basic_ostream<char16_t>> currentLog() {
    if (!logSet.load(std::memory_order_acquire))
        return nullptr;
    return boost::atomic_load(&logStream);
}

boost::shared_ptr<std::ostream> currentDiary() {
    if (!diarySet.load(std::memory_order_acquire))
        return nullptr;
    return boost::atomic_load(&diaryStream);
}

// Kept for the process: whether anyone subscribes to SinkTextEvent.
foundation::msg_svc::eventmgr::WatchToken const& textEventWatch() {
    static std::once_flag once;
    static foundation::msg_svc::eventmgr::WatchToken* token = nullptr;
    std::call_once(once, [] {
        token = quorl::eventmgr::createLocalEventMgr(boost::none)->watch<SinkTextEvent>().release();
    });
    return *token;
}

} // namespace

void SetLogStreamPtr(boost::shared_ptr<std::basic_ostream<char16_t>> const& log) {
    std::lock_guard<std::mutex> lock(streamsMutex);
    boost::atomic_store(&logStream, log);
    logSet.store(static_cast<bool>(log), std::memory_order_release);
}

void SetDiaryStreamPtr(boost::shared_ptr<std::ostream> const& diary) {
    std::lock_guard<std::mutex> lock(streamsMutex);
    boost::atomic_store(&diaryStream, diary);
    diarySet.store(static_cast<bool>(diary), std::memory_order_release);
}

void SetSendIfMoreAllows::set(SendFunction send) {
    sendFunction.store(send ? send : &ActiveCmdWinSinkBufferProxy::defaultSend);
}

long long ActiveCmdWinSinkBufferProxy::defaultSend(char16_t const* text, long long length,
                                                   boost::shared_ptr<VeldraSink> const& sink) {
    if (length < 0)
        return length;
    if (!sink)
        return 0;
    VeldraSink::UnicodeBufferPtr const& buffer = sink->getUnicodeOutStreamBuffer();
    return buffer ? buffer->sputn(text, length) : 0;
}

ActiveCmdWinSinkBufferProxy::ActiveCmdWinSinkBufferProxy(StreamTypeEnum stream)
    : streamType_(stream), textEventBuffer_(new SinkTextEventBuffer(stream)), dirty_(false),
      textEventsWatched_(false) {
    SendFunction none = nullptr;
    sendFunction.compare_exchange_strong(none, &defaultSend);
}

ActiveCmdWinSinkBufferProxy::~ActiveCmdWinSinkBufferProxy() = default;

boost::shared_ptr<VeldraSink> ActiveCmdWinSinkBufferProxy::getSink() const {
    return boost::atomic_load(&sink_);
}

void ActiveCmdWinSinkBufferProxy::setSink(boost::shared_ptr<VeldraSink> const& sink) {
    boost::atomic_store(&sink_, sink);
}

ActiveCmdWinSinkBufferProxy::int_type ActiveCmdWinSinkBufferProxy::overflow(int_type c) {
    // Every value is written as one unit, the end-of-file value 0xffff too; since the answer
    // 0xffff means failure, a unit of 0xffff or above is answered with 0.
    char16_t const unit = static_cast<char16_t>(c);
    if (xsputn(&unit, 1) != 1)
        return traits_type::eof();
    return c >= 0xffff ? 0 : c;
}

std::streamsize ActiveCmdWinSinkBufferProxy::xsputn(char16_t const* s, std::streamsize n) {
    if (n < 0)
        return 0;
    boost::shared_ptr<VeldraSink> const sink = getSink();
    mirror(s, n, sink.get());
    dirty_ = true;
    if (!sink) {
        pending_.insert(pending_.end(), s, s + n);
        return n;
    }
    SendFunction const send = sendFunction.load(std::memory_order_acquire);
    if (!pending_.empty()) {
        send(pending_.data(), static_cast<long long>(pending_.size()), sink);
        pending_.clear();
    }
    long long const written = send(s, n, sink);
    sink->setDirty(true);
    return written;
}

void ActiveCmdWinSinkBufferProxy::mirror(char16_t const* s, std::streamsize n,
                                         VeldraSink const* sink) {
    bool const logging = !sink || sink->useLogging();
    if (logging) {
        if (textEventsWatched_)
            textEventBuffer_->sputn(s, n);
        if (auto log = currentLog())
            log->write(s, n);
    }
    if (n > 0) {
        if (auto diary = currentDiary()) {
            if (!sink || sink->useDiary())
                writeDiary(*diary, s, n);
        }
    }
}

void ActiveCmdWinSinkBufferProxy::writeDiary(std::ostream& diary, char16_t const* s,
                                             std::streamsize n) {
    std::streambuf* const out = diary.rdbuf();
    if (!out)
        return;
    // Up to three bytes a unit, four a pair: 5 * n holds any piece in one round; a longer text
    // takes several rounds through the bounded work buffer.
    char work[8192];
    std::size_t const size =
        n < 6 ? 25 : static_cast<std::size_t>(std::min<std::streamsize>(5 * n, sizeof work));
    char16_t const* in = s;
    char16_t const* const end = s + n;
    while (std::size_t const got = diaryConverter_.convert(work, work + size, in, end))
        out->sputn(work, static_cast<std::streamsize>(got));
}

int ActiveCmdWinSinkBufferProxy::sync() {
    int result = 0;
    if (dirty_) {
        boost::shared_ptr<VeldraSink> const sink = getSink();
        bool const logging = !sink || sink->useLogging();
        if (logging) {
            if (auto log = currentLog())
                log->flush();
        }
        if (auto diary = currentDiary()) {
            if (!sink || sink->useDiary())
                diary->flush();
        }
        if (textEventsWatched_ && logging)
            textEventBuffer_->pubsync();
        if (sink) {
            if (VeldraSink::UnicodeBufferPtr const buffer = sink->getUnicodeOutStreamBuffer()) {
                if (!pending_.empty())
                    buffer->sputn(pending_.data(), static_cast<std::streamsize>(pending_.size()));
                pending_.clear();
                dirty_ = false;
                result = buffer->pubsync();
            } else {
                result = -1;
            }
        }
    }
    textEventsWatched_ = textEventWatch().hasSubscriptions();
    return result;
}

} // namespace io
} // namespace quorl
