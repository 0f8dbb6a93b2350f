#pragma once
// EventMgr: typed publish and subscribe. A manager has an identity (EmID); managers of equal
// identity share subscriptions and one event thread, on which subscribers are called in order
// of publication. EventMgrFront is the concrete manager.
//
// Subscribe with subscribe<T>(callback) (every event that is a T) or with tags (events whose
// tags hold all of them); publish with notify<T>(mode, args...) or, for frequent events that
// usually have no listener, notifyIfWatched<T>(mode, args...), which publishes only if someone
// listens. Every operation may be called from any thread; a subscription may be ended from
// inside its own callback.
#include <foundation/msg_svc/eventmgr/baseevent.hpp>
#include <foundation/msg_svc/eventmgr/connection.hpp>
#include <foundation/msg_svc/eventmgr/emid.hpp>
#include <foundation/msg_svc/eventmgr/subscriptioncount.hpp>
#include <foundation/msg_svc/eventmgr/watchtoken.hpp>

#include <boost/function.hpp>
#include <boost/make_shared.hpp>

#include <memory>

namespace foundation {
namespace msg_svc {
namespace eventmgr {

// Passed through with each publication. 0: an event of a packet's life; 1: output text.
// Both are delivered in order on the event thread.
enum DeliverMode { DeliverQueued = 0, DeliverText = 1 };

class EventMgr {
public:
    typedef std::unique_ptr<detail::SubscriptionCount> (*CountFactory)(TagIterator, TagIterator,
                                                                       std::string const&);
    typedef boost::function<void(BaseEvent const&)> Callback;

    virtual ~EventMgr();
    virtual bool isEventThread() const = 0;
    // Returns when every event published before the call has reached its subscribers.
    virtual void flush() = 0;
    virtual bool equalTo(EventMgr const& other) const = 0;
    virtual std::uint64_t hash() const = 0;
    virtual void terminate() = 0;
    virtual EmID const& getEmId() const = 0;
    virtual EmID const& getRemoteEmId() const = 0;
    virtual std::unique_ptr<Connection> addSubscription(Callback const& callback,
                                                        CountFactory factory, TagIterator begin,
                                                        TagIterator end) = 0;
    virtual std::unique_ptr<WatchToken> addWatch(CountFactory factory, TagIterator begin,
                                                 TagIterator end) = 0;

    // Typed subscription: `callback` receives every event that is a T, as T.
    template <class T, class F> std::unique_ptr<Connection> subscribe(F callback) {
        return subscribe<T>(std::move(callback), TagVector());
    }
    // With tags: events of T's family whose tags hold all of `tags`.
    template <class T, class F>
    std::unique_ptr<Connection> subscribe(F callback, TagVector const& tags) {
        return addSubscription(
            [callback](BaseEvent const& e) { callback(static_cast<T const&>(e)); },
            &detail::subscriptionCountFactory<T>, tags.begin(), tags.end());
    }
    template <class T> std::unique_ptr<WatchToken> watch() {
        static TagVector const none;
        return addWatch(&detail::subscriptionCountFactory<T>, none.begin(), none.end());
    }

    template <class T, class... Args> void notify(DeliverMode mode, Args&&... args) {
        doNotify(boost::make_shared<T const>(std::forward<Args>(args)...), mode);
    }
    template <class T, class... Args> void notifyIfWatched(DeliverMode mode, Args&&... args) {
        if (isWatched<T>())
            notify<T>(mode, std::forward<Args>(args)...);
    }
    // True if someone listens to events of type T published here (a snapshot).
    template <class T> bool isWatched() {
        static TagVector const none;
        std::unique_ptr<WatchToken> w =
            addWatch(&detail::subscriptionCountFactory<T>, none.begin(), none.end());
        return w->hasSubscriptions();
    }
    // Publishes an event made elsewhere.
    void publish(boost::shared_ptr<BaseEvent const> const& event,
                 DeliverMode mode = DeliverQueued) {
        doNotify(event, mode);
    }

protected:
    virtual void doNotify(boost::shared_ptr<BaseEvent const> const& event, DeliverMode mode) = 0;
};

} // namespace eventmgr
} // namespace msg_svc
} // namespace foundation
