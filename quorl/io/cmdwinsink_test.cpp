#include <quorl/eventmgr/eventmgraccess.hpp>
#include <quorl/io/activecmdwinsinkproxy.hpp>
#include <quorl/io/cmdwinhostaccess.hpp>
#include <quorl/io/sinktextevent.hpp>

#include <cpp11compat/u16streams.hpp>
#include <foundation/usm/context.hpp>
#include <foundation/usm/detail.hpp>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <sstream>
#include <thread>

using namespace quorl::io;
using foundation::usm::Context;
using foundation::usm::ContextScope;

namespace {

typedef std::basic_ostringstream<char16_t> U16Log;

// Stands for the outside world of one test: the process's log and diary streams.
struct Mirrors {
    boost::shared_ptr<U16Log> log = boost::make_shared<U16Log>();
    boost::shared_ptr<std::ostringstream> diary = boost::make_shared<std::ostringstream>();
    Mirrors() {
        SetLogStreamPtr(log);
        SetDiaryStreamPtr(diary);
    }
    ~Mirrors() {
        SetLogStreamPtr(nullptr);
        SetDiaryStreamPtr(nullptr);
    }
};

// The sink's own buffer: records what arrives, and what the mirrors held at that moment.
class RecordingBuffer : public std::basic_streambuf<char16_t> {
public:
    std::u16string text;
    std::vector<std::u16string> logAtWrite;
    std::vector<std::string> diaryAtWrite;
    int syncs = 0;
    Mirrors* mirrors = nullptr;

protected:
    std::streamsize xsputn(char16_t const* s, std::streamsize n) override {
        if (mirrors) {
            logAtWrite.push_back(mirrors->log->str());
            diaryAtWrite.push_back(mirrors->diary->str());
        }
        text.append(s, static_cast<std::size_t>(n));
        return n;
    }
    int_type overflow(int_type c) override {
        char16_t u = traits_type::to_char_type(c);
        return xsputn(&u, 1) == 1 ? c : traits_type::eof();
    }
    int sync() override {
        ++syncs;
        return 0;
    }
};

class TestSink : public VeldraSink {
public:
    explicit TestSink(boost::shared_ptr<RecordingBuffer> const& b) : VeldraSink(b), buffer(b) {}
    boost::shared_ptr<RecordingBuffer> buffer;
    bool logging = true, diary = true, more = false;
    bool useLogging() const override { return logging; }
    bool useDiary() const override { return diary; }
    bool supportsMore() const override { return more; }
};

boost::shared_ptr<TestSink> newSink() {
    return boost::make_shared<TestSink>(boost::make_shared<RecordingBuffer>());
}

// Reaches a stream buffer's protected overflow through a pointer to the member.
struct StreambufAccess : std::basic_streambuf<char16_t> {
    static auto overflowMember() { return &StreambufAccess::overflow; }
};

std::streamsize put(VeldraSink const& proxy, std::u16string const& s) {
    return proxy.getUnicodeOutStreamBuffer()->sputn(s.data(),
                                                    static_cast<std::streamsize>(s.size()));
}

class TextListener {
public:
    TextListener()
        : manager_(quorl::eventmgr::createLocalEventMgr(boost::none)),
          connection_(manager_->subscribe<SinkTextEvent>([this](SinkTextEvent const& e) {
              std::lock_guard<std::mutex> lock(mutex_);
              texts_ += e.getText();
              ids_.push_back(e.getRequestId());
          })) {}
    std::u16string texts() {
        manager_->flush();
        std::lock_guard<std::mutex> lock(mutex_);
        return texts_;
    }
    std::vector<foundation::msg_svc::exchange::IDType> ids() {
        manager_->flush();
        std::lock_guard<std::mutex> lock(mutex_);
        return ids_;
    }

private:
    boost::shared_ptr<quorl::eventmgr::EventMgr> manager_;
    std::mutex mutex_;
    std::u16string texts_;
    std::vector<foundation::msg_svc::exchange::IDType> ids_;
    std::unique_ptr<foundation::msg_svc::eventmgr::Connection> connection_;
};

} // namespace

TEST(CmdWinSink, TextReachesTheMirrorsThenTheSinkAndEarlyTextComesFirst) {
    Mirrors mirrors;
    TextListener listener;
    ContextScope scope(Context::create("interpreter"));
    cmddistributor::RequestIdAdapter::setRequestId(foundation::msg_svc::exchange::IDType(9, 1));
    auto out = ActiveCmdWinSinkProxy::getInstance(OutputStream);
    out->activate(); // binds, and the first sync looks for text-event subscribers

    // No sink yet: the mirrors get the text at once, and it waits.
    EXPECT_EQ(put(*out, u"one "), 4);
    out->getUnicodeOutStreamBuffer()->sputc(u'2');
    EXPECT_EQ(mirrors.log->str(), u"one 2");
    EXPECT_EQ(mirrors.diary->str(), "one 2");
    EXPECT_EQ(out->getUnicodeOutStreamBuffer()->pubsync(), 0);
    EXPECT_EQ(listener.texts(), u"one 2");

    auto sink = newSink();
    sink->buffer->mirrors = &mirrors;
    CmdWinHostAccess::setCmdWinSink(OutputStream, sink);
    EXPECT_EQ(put(*out, u" thr\u00e9e"), 6);
    EXPECT_EQ(sink->buffer->text, u"one 2 thr\u00e9e") << "waiting text goes first, in order";
    ASSERT_EQ(sink->buffer->logAtWrite.size(), 2u);
    EXPECT_EQ(sink->buffer->logAtWrite[1], u"one 2 thr\u00e9e") << "log before the sink";
    EXPECT_EQ(sink->buffer->diaryAtWrite[1], "one 2 thr\xc3\xa9"
                                             "e")
        << "diary before the sink";
    EXPECT_TRUE(sink->isDirty());
    EXPECT_TRUE(out->isDirty()) << "the proxy answers for the active sink";

    // A second proxy of the same stream writes into the same buffer; the narrow side converts.
    auto again = ActiveCmdWinSinkProxy::getInstance(OutputStream);
    EXPECT_EQ(again->getUnicodeOutStreamBuffer(), out->getUnicodeOutStreamBuffer());
    again->getOutStreamBuffer()->sputn(" 4\xe2\x82\xac", 5);
    again->getOutStreamBuffer()->pubsync();
    EXPECT_EQ(sink->buffer->text, u"one 2 thr\u00e9e 4\u20ac");
    EXPECT_GE(sink->buffer->syncs, 1);
    EXPECT_EQ(listener.texts(), u"one 2 thr\u00e9e 4\u20ac");
    for (auto const& id : listener.ids())
        EXPECT_EQ(id, foundation::msg_svc::exchange::IDType(9, 1));
    EXPECT_EQ(mirrors.diary->str(), "one 2 thr\xc3\xa9"
                                    "e 4\xe2\x82\xac");

    // overflow(0xffff) writes that unit like any other and answers 0 (sputc cannot pass it:
    // it maps the unit to U+FFFD first).
    EXPECT_EQ(((*out->getUnicodeOutStreamBuffer()).*StreambufAccess::overflowMember())(0xffff), 0);
    EXPECT_EQ(sink->buffer->text.back(), char16_t(0xffff));

    // The error stream of the same context is separate.
    auto err = ActiveCmdWinSinkProxy::getInstance(ErrorStream);
    EXPECT_NE(err->getUnicodeOutStreamBuffer(), out->getUnicodeOutStreamBuffer());
    EXPECT_FALSE(CmdWinHostAccess::getCmdWinSink(ErrorStream));
}

TEST(CmdWinSink, SyncWithoutASinkKeepsTheWaitingText) {
    ContextScope scope(Context::create("interpreter"));
    auto err = ActiveCmdWinSinkProxy::getInstance(ErrorStream);
    put(*err, u"early");
    EXPECT_EQ(err->getUnicodeOutStreamBuffer()->pubsync(), 0);
    err->deactivate();
    auto sink = newSink();
    CmdWinHostAccess::setCmdWinSink(ErrorStream, sink);
    // The sync writes the waiting text directly, and syncs the sink's buffer.
    EXPECT_EQ(err->getUnicodeOutStreamBuffer()->pubsync(), 0);
    EXPECT_EQ(sink->buffer->text, u"early");
    EXPECT_EQ(sink->buffer->syncs, 1);
    put(*err, u"!");
    EXPECT_EQ(sink->buffer->text, u"early!") << "the waiting text went out once only";
    // A sync with nothing written since touches nothing.
    err->getUnicodeOutStreamBuffer()->pubsync();
    err->getUnicodeOutStreamBuffer()->pubsync();
    EXPECT_EQ(sink->buffer->syncs, 2);
}

TEST(CmdWinSink, TheSinkDecidesAboutLogAndDiary) {
    Mirrors mirrors;
    TextListener listener;
    ContextScope scope(Context::create("interpreter"));
    auto out = ActiveCmdWinSinkProxy::getInstance(OutputStream);
    auto sink = newSink();
    sink->logging = false;
    CmdWinHostAccess::setCmdWinSink(OutputStream, sink);
    out->activate();
    put(*out, u"quiet");
    out->deactivate();
    EXPECT_EQ(mirrors.log->str(), u"");
    EXPECT_EQ(mirrors.diary->str(), "quiet") << "the diary goes by useDiary alone";
    EXPECT_EQ(listener.texts(), u"") << "no text events without logging";
    sink->diary = false;
    sink->logging = true;
    put(*out, u"loud");
    out->deactivate();
    EXPECT_EQ(mirrors.log->str(), u"loud");
    EXPECT_EQ(mirrors.diary->str(), "quiet");
    EXPECT_EQ(listener.texts(), u"loud");
    EXPECT_EQ(sink->buffer->text, u"quietloud");
    // Switching a mirror off.
    SetLogStreamPtr(nullptr);
    put(*out, u"x");
    EXPECT_EQ(mirrors.log->str(), u"loud");
}

TEST(CmdWinSink, SendFunctionIsReplaceableAndNullRestoresTheDefault) {
    ContextScope scope(Context::create("interpreter"));
    auto out = ActiveCmdWinSinkProxy::getInstance(OutputStream);
    auto sink = newSink();
    CmdWinHostAccess::setCmdWinSink(OutputStream, sink);
    // A send function that pages: it lets through at most three units per call.
    CmdWinHostAccess::setSendFunction(
        [](char16_t const* text, long long n, boost::shared_ptr<VeldraSink> const& to) {
            return ActiveCmdWinSinkBufferProxy::defaultSend(text, n < 3 ? n : 3, to);
        });
    EXPECT_EQ(put(*out, u"abcdef"), 3) << "the writer learns what the send function took";
    CmdWinHostAccess::setSendFunction(nullptr);
    EXPECT_EQ(put(*out, u"ghij"), 4);
    EXPECT_EQ(sink->buffer->text, u"abcghij");
    EXPECT_EQ(ActiveCmdWinSinkBufferProxy::defaultSend(u"x", -5, sink), -5);
}

TEST(CmdWinSink, TraitsFollowTheActiveSinkOrTheCommandWindowDefaults) {
    auto out = ActiveCmdWinSinkProxy::getInstance(OutputStream);
    EXPECT_FALSE(CmdWinHostAccess::getCmdWinSink(OutputStream)) << "outside any context";
    auto expectDefaults = [&] {
        EXPECT_FALSE(out->isDirty());
        EXPECT_FALSE(out->supportsMore());
        EXPECT_FALSE(out->supportsHotlinks());
        EXPECT_TRUE(out->needsFormattingForDisplay());
        EXPECT_TRUE(out->useDiary());
        EXPECT_TRUE(out->useEcho());
        EXPECT_TRUE(out->useLogging());
    };
    expectDefaults();
    out->deactivate(); // unbound: nothing to do, and it does not bind
    EXPECT_FALSE(out->usingInitialBuffers());
    EXPECT_THROW(out->activate(), foundation::usm::NoActiveContext);

    auto ctx = Context::create("interpreter");
    ContextScope scope(ctx);
    expectDefaults();
    auto sink = newSink();
    sink->more = true;
    sink->diary = false;
    CmdWinHostAccess::setCmdWinSink(OutputStream, sink);
    EXPECT_TRUE(out->supportsMore());
    EXPECT_FALSE(out->useDiary());
    EXPECT_FALSE(out->needsFormattingForDisplay());
    out->setDirty(true);
    EXPECT_TRUE(sink->isDirty());
    EXPECT_FALSE(out->usingInitialBuffers());
    out->activate();
    EXPECT_TRUE(out->usingInitialBuffers());
    CmdWinHostAccess::setCmdWinSink(OutputStream, nullptr);
    expectDefaults();

    // A proxy cannot be the sink of its own buffer: that would loop forever.
    EXPECT_THROW(CmdWinHostAccess::setCmdWinSink(OutputStream, out), std::invalid_argument);
    EXPECT_THROW(CmdWinHostAccess::setCmdWinSink(OutputStream,
                                                 ActiveCmdWinSinkProxy::getInstance(OutputStream)),
                 std::invalid_argument);
    EXPECT_THROW(ActiveCmdWinSinkProxy(static_cast<StreamTypeEnum>(7)), std::invalid_argument);
    EXPECT_THROW(CmdWinHostAccess::setCmdWinSink(static_cast<StreamTypeEnum>(-1), sink),
                 std::invalid_argument);
}

TEST(CmdWinSink, EachContextHasItsOwnWindow) {
    auto a = Context::create("a"), b = Context::create("b");
    auto sinkA = newSink(), sinkB = newSink();
    auto proxyA = ActiveCmdWinSinkProxy::getInstance(OutputStream);
    {
        ContextScope in(a);
        CmdWinHostAccess::setCmdWinSink(OutputStream, sinkA);
        proxyA->activate();
    }
    {
        ContextScope in(b);
        CmdWinHostAccess::setCmdWinSink(OutputStream, sinkB);
        auto proxyB = ActiveCmdWinSinkProxy::getInstance(OutputStream);
        put(*proxyB, u"to b");
        put(*proxyA, u"to a"); // bound to a at its first use
    }
    EXPECT_EQ(sinkA->buffer->text, u"to a");
    EXPECT_EQ(sinkB->buffer->text, u"to b");
}

TEST(CmdWinSink, SwappingTheSinkWhileWritingLosesNothing) {
    auto ctx = Context::create("interpreter");
    std::vector<boost::shared_ptr<TestSink>> sinks;
    for (int i = 0; i < 4; ++i)
        sinks.push_back(newSink());
    std::atomic<bool> done{false};
    std::thread host([&] {
        ContextScope in(ctx);
        for (int round = 0; !done; ++round) {
            // Null now and then, so that text also waits for a sink.
            CmdWinHostAccess::setCmdWinSink(
                OutputStream,
                round % 5 == 4 ? nullptr : sinks[static_cast<std::size_t>(round % 4)]);
            std::this_thread::yield();
        }
    });
    std::u16string written;
    {
        ContextScope in(ctx);
        auto out = ActiveCmdWinSinkProxy::getInstance(OutputStream);
        for (int i = 0; i < 20000; ++i) {
            std::u16string const piece(1 + i % 7, static_cast<char16_t>(u'a' + i % 26));
            written += piece;
            put(*out, piece);
        }
        done = true;
        host.join();
        CmdWinHostAccess::setCmdWinSink(OutputStream, sinks[0]);
        out->deactivate(); // hands over what still waits
    }
    std::size_t arrived = 0;
    for (auto const& s : sinks)
        arrived += s->buffer->text.size();
    EXPECT_EQ(arrived, written.size());
}
