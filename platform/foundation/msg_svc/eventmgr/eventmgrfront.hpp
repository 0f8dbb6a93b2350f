#pragma once
// EventMgrFront: the event manager. A front is a cheap handle: fronts of equal identity share
// the subscriptions and the event thread of that identity, which live for the process.
//
// Local front: events published through it go to the subscribers of its identity, called on the
// identity's event thread, in order of publication, under the mutex that the getter returns
// (if any) at delivery time.
// Remote front: events published through it are serialized and sent to the named exchange,
// where they reach the subscribers of the remote identity; events whose canBeSerialized() is
// false are dropped there, with a log record. An exchange name equal to the own exchange's
// publishes locally under the remote identity. Subscriptions on a remote front are made on its
// local identity, where the far side's events for it arrive. A watch on a front towards another
// exchange always reports a subscriber, since the far side's subscribers are not known here.
//
// flush() is a barrier (remotely through a FlushMessage). A caller holding the getter's mutex
// gives it up while it waits, so subscribers that need it can run. Called on the event thread
// itself, flush returns at once: the events before it are being delivered by the caller.
// terminate() ends the subscriptions made through this front and drops later publications.
#include <foundation/msg_svc/eventmgr/eventmgr.hpp>
#include <foundation/msg_svc/threadutil/countedmutex.hpp>

#include <functional>
#include <memory>
#include <string>

namespace foundation {
namespace msg_svc {
namespace eventmgr {

namespace detail {
class Hub;
class FrontState;
} // namespace detail

class EventMgrFront : public EventMgr {
public:
    typedef std::function<boost::shared_ptr<threadutil::CountedMutex>()> MutexGetter;

    EventMgrFront(MutexGetter const& mutexGetter, EmID const& emId);
    EventMgrFront(std::string const& remoteExchange, MutexGetter const& mutexGetter,
                  EmID const& emId, EmID const& remoteEmId);
    ~EventMgrFront() override;

    bool isEventThread() const override;
    void flush() override;
    bool equalTo(EventMgr const& other) const override;
    std::uint64_t hash() const override;
    void terminate() override;
    EmID const& getEmId() const override { return emId_; }
    EmID const& getRemoteEmId() const override { return remoteEmId_; }
    std::unique_ptr<Connection> addSubscription(Callback const& callback, CountFactory factory,
                                                TagIterator begin, TagIterator end) override;
    std::unique_ptr<WatchToken> addWatch(CountFactory factory, TagIterator begin,
                                         TagIterator end) override;

    bool isRemote() const { return !remoteExchange_.empty(); }
    std::string const& remoteExchange() const { return remoteExchange_; }

protected:
    void doNotify(boost::shared_ptr<BaseEvent const> const& event, DeliverMode mode) override;

private:
    std::string remoteExchange_;
    std::shared_ptr<MutexGetter const> mutexGetter_;
    EmID emId_;
    EmID remoteEmId_;
    std::shared_ptr<detail::Hub> hub_;          // the local identity's hub
    std::shared_ptr<detail::FrontState> state_; // this front's subscriptions, terminated flag
};

// Publishes `event` to the subscribers of `emId` in this process (used for events that arrive
// from other exchanges). Only identities that a front of this process made are served: others
// have no subscriber, and no thread is started for them.
void publishLocally(EmID const& emId, boost::shared_ptr<BaseEvent const> const& event);
// Publishes `event` to the subscribers of every identity that has a hub in this process.
void publishToAllIdentities(boost::shared_ptr<BaseEvent const> const& event);
// Waits until every event published to `emId` before the call has been delivered (at once for
// an identity no front of this process made).
void flushLocally(EmID const& emId);
// The mutex getter for events that arrive from other exchanges (publishLocally,
// publishToAllIdentities); none by default.
void setDefaultMutexGetter(EventMgrFront::MutexGetter const& getter);

} // namespace eventmgr
} // namespace msg_svc
} // namespace foundation
