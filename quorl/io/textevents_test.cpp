#include <quorl/eventmgr/eventmgraccess.hpp>
#include <quorl/io/sinktextevent.hpp>
#include <quorl/io/sinktexteventbuffer.hpp>

#include <foundation/usm/context.hpp>

#include <gtest/gtest.h>

#include <mutex>

using namespace quorl::io;
using cmddistributor::RequestIdAdapter;
using foundation::msg_svc::eventmgr::BaseEvent;
using foundation::msg_svc::exchange::IDType;
using foundation::usm::Context;
using foundation::usm::ContextScope;

namespace {

// Collects the SinkTextEvents published on the session's manager while it lives.
class Listener {
public:
    Listener()
        : manager_(quorl::eventmgr::createLocalEventMgr(boost::none)),
          connection_(manager_->subscribe<SinkTextEvent>([this](SinkTextEvent const& e) {
              std::lock_guard<std::mutex> lock(mutex_);
              events_.push_back(boost::shared_ptr<BaseEvent>(e.clone()));
          })) {}
    std::vector<boost::shared_ptr<BaseEvent>> take() {
        manager_->flush();
        std::lock_guard<std::mutex> lock(mutex_);
        return std::move(events_);
    }
    static SinkTextEvent const& as(boost::shared_ptr<BaseEvent> const& e) {
        return dynamic_cast<SinkTextEvent const&>(*e);
    }

private:
    boost::shared_ptr<quorl::eventmgr::EventMgr> manager_;
    std::mutex mutex_;
    std::vector<boost::shared_ptr<BaseEvent>> events_;
    std::unique_ptr<foundation::msg_svc::eventmgr::Connection> connection_;
};

} // namespace

TEST(TextEvents, CarryTheRequestIdOfTheContextThatMadeThem) {
    SinkTextEvent const outside(OutputStream, u"a");
    EXPECT_EQ(outside.getRequestId(), IDType(0, 0));
    EXPECT_TRUE(outside == SinkTextEvent(OutputStream, u"a"));
    EXPECT_FALSE(outside == SinkTextEvent(ErrorStream, u"a"));
    EXPECT_FALSE(outside == SinkTextEvent(OutputStream, u"b"));
    IDType const request(7, 4242);
    std::unique_ptr<SinkTextEvent> inside;
    std::unique_ptr<TextBaseEvent> base;
    {
        ContextScope scope(Context::create("interpreter"));
        RequestIdAdapter::setRequestId(request);
        inside.reset(new SinkTextEvent(ErrorStream, static_cast<char16_t const*>(nullptr)));
        base.reset(new TextBaseEvent(OutputStream, ustring(u"b")));
    }
    EXPECT_EQ(inside->getRequestId(), request);
    EXPECT_EQ(base->getRequestId(), request);
    EXPECT_TRUE(inside->getText().empty());
    // A copy keeps the id of the original, wherever it is made.
    std::unique_ptr<BaseEvent> copy(inside->clone());
    EXPECT_TRUE(*copy == *inside);

    EXPECT_TRUE(inside->isKindOf(u"quorl::io::TextBaseEvent"));
    EXPECT_TRUE(inside->isKindOf(u"foundation::msg_svc::eventmgr::BaseEvent"));
    EXPECT_FALSE(base->isKindOf(u"quorl::io::SinkTextEvent"));
    EXPECT_FALSE(*base == TextBaseEvent(OutputStream, u"b")) << "request ids differ";
}

TEST(SinkTextEventBuffer, PublishesAtSyncAndWhenGrownPastTheLimit) {
    Listener listener;
    struct Buffer : SinkTextEventBuffer {
        using SinkTextEventBuffer::SinkTextEventBuffer;
        int_type overflowAt(int_type c) { return overflow(c); }
    } buffer(ErrorStream);
    EXPECT_EQ(buffer.pubsync(), 0);
    EXPECT_TRUE(listener.take().empty()) << "nothing stored, nothing published";

    EXPECT_EQ(buffer.sputc(u'x'), u'x');
    EXPECT_EQ(buffer.overflowAt(std::char_traits<char16_t>::eof()),
              std::char_traits<char16_t>::eof());
    EXPECT_TRUE(listener.take().empty()) << "overflow never publishes";
    IDType const request(11, 12);
    {
        ContextScope scope(Context::create("writer"));
        RequestIdAdapter::setRequestId(request);
        EXPECT_EQ(buffer.pubsync(), 0);
    }
    auto events = listener.take();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(Listener::as(events[0]).getText(), u"x");
    EXPECT_EQ(Listener::as(events[0]).getStreamType(), ErrorStream);
    EXPECT_EQ(Listener::as(events[0]).getRequestId(), request) << "made on the writer's thread";
    EXPECT_EQ(buffer.pubsync(), 0);
    EXPECT_TRUE(listener.take().empty()) << "a sync empties the buffer";

    // A long burst leaves in pieces of a little over 4096 units, in order, with nothing lost.
    ustring burst;
    for (int i = 0; i < 20000; ++i)
        burst.push_back(static_cast<char16_t>(u'a' + i % 26));
    for (std::size_t at = 0; at < burst.size(); at += 1000)
        EXPECT_EQ(buffer.sputn(burst.data() + at, std::min<std::size_t>(1000, burst.size() - at)),
                  static_cast<std::streamsize>(std::min<std::size_t>(1000, burst.size() - at)));
    auto pieces = listener.take();
    ASSERT_GE(pieces.size(), 3u);
    for (auto const& p : pieces) {
        EXPECT_GT(Listener::as(p).getText().size(), SinkTextEventBuffer::maxRetainedUnits);
        EXPECT_LE(Listener::as(p).getText().size(), 2 * SinkTextEventBuffer::maxRetainedUnits);
    }
    buffer.pubsync();
    ustring joined;
    for (auto const& p : listener.take())
        pieces.push_back(p);
    for (auto const& p : pieces)
        joined += Listener::as(p).getText();
    EXPECT_EQ(joined, burst);
}
