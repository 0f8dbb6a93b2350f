#include <foundation/msg_svc/eventmgr/eventmgrfront.hpp>
#include <foundation/msg_svc/eventmgr/flushmessage.hpp>
#include <foundation/msg_svc/eventmgr/interestmessage.hpp>
#include <foundation/msg_svc/exchange/exchangeapi.hpp>
#include <foundation/msg_svc/exchange/lanes.hpp>
#include <foundation/msg_svc/shutdown/shutdown.hpp>
#include <foundation/msg_svc/threadutil/releasecountedmutexguard.hpp>

#include <foundation/core/log/diagnosticlogger.hpp>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <future>
#include <mutex>
#include <thread>
#include <unordered_map>

namespace foundation {
namespace msg_svc {
namespace eventmgr {

namespace log = foundation::core::log;

namespace {
log::diagnostic_logger& logger() {
    static log::diagnostic_logger l("foundation::msg_svc::eventmgr");
    return l;
}
} // namespace

namespace detail {

typedef EventMgrFront::MutexGetter MutexGetter;

struct Subscription {
    Subscription(EventMgr::Callback cb, std::unique_ptr<SubscriptionCount> c, std::uint64_t s)
        : callback(std::move(cb)), count(std::move(c)), tags(count->matchTags()), seq(s) {}
    EventMgr::Callback callback;
    std::unique_ptr<SubscriptionCount> count;
    TagVector tags; // delivered events hold all of these
    std::uint64_t seq;
    std::atomic<bool> alive{true};

    // Ends the subscription once; true for the call that ended it.
    bool end() {
        if (!alive.exchange(false))
            return false;
        count->decrementSubscriptionCount();
        return true;
    }
};

typedef std::shared_ptr<Subscription> SubscriptionPtr;
// Subscriptions by their first tag. Replaced, never changed, once published (copy on write).
typedef std::unordered_map<ustring, std::vector<SubscriptionPtr>> Table;

// One identity's subscriptions and event thread.
class Hub : public std::enable_shared_from_this<Hub> {
public:
    explicit Hub(EmID id) : id_(id), table_(std::make_shared<Table const>()) {}
    ~Hub() { stop(); }

    EmID const& id() const { return id_; }

    SubscriptionPtr add(EventMgr::Callback const& cb, std::unique_ptr<SubscriptionCount> count) {
        count->incrementSubscriptionCount();
        std::lock_guard<std::mutex> lock(tableMutex_);
        auto sub = std::make_shared<Subscription>(cb, std::move(count), nextSeq_++);
        auto table = std::make_shared<Table>(*table_);
        ustring const key = sub->tags.empty() ? ustring() : sub->tags.front();
        (*table)[key].push_back(sub);
        table_ = table;
        return sub;
    }

    void remove(SubscriptionPtr const& sub) {
        std::lock_guard<std::mutex> lock(tableMutex_);
        ustring const key = sub->tags.empty() ? ustring() : sub->tags.front();
        auto it = table_->find(key);
        if (it == table_->end())
            return;
        auto table = std::make_shared<Table>(*table_);
        auto& list = (*table)[key];
        list.erase(std::remove(list.begin(), list.end(), sub), list.end());
        if (list.empty())
            table->erase(key);
        table_ = table;
    }

    // Queues `event` for the hub's thread. An event that a transport thread delivers from
    // another exchange (inline slot running) is instead dispatched by that thread itself, once
    // it has run the deliveries of its turn and released the exchange's lane, if the hub is idle:
    // that saves waking the hub's thread, and the thread then owns the hub (it is the event
    // thread) until it has dispatched every event queued meanwhile. Should a subscriber block,
    // the transport lets another thread take over the reading.
    void publish(boost::shared_ptr<BaseEvent const> const& event,
                 std::shared_ptr<MutexGetter const> const& getter) {
        msg_svc::detail::InlineSlot* slot = msg_svc::detail::InlineSlot::running();
        bool claimed = false;
        {
            std::lock_guard<std::mutex> lock(queueMutex_);
            if (stopping_)
                return;
            queue_.push_back(Item{event, getter});
            ++enqueued_;
            if (owner_.load() == std::this_thread::get_id()) {
                return; // this thread drains the queue already
            } else if (slot && !slot->hasAfter() && owner_.load() == std::thread::id()) {
                // One hub per turn: the events of a second identity go to its own thread, so
                // that a subscriber of the first that waits for them does not wait for itself.
                owner_.store(std::this_thread::get_id());
                claimed = true;
            } else if (!thread_.joinable()) {
                start();
            }
        }
        if (!claimed) {
            wake_.notify_one();
            return;
        }
        try {
            auto self = shared_from_this();
            tlsClaims.push_back(self);
            slot->after([hub = std::move(self)] { hub->drainClaimed(); });
        } catch (...) {
            release(); // the hub's thread takes the event
            throw;
        }
    }

    // Hands the hubs this thread claimed, and has not begun to dispatch, to their own threads:
    // done before this thread waits for events to be dispatched, which they might be among.
    static void releaseClaims() {
        std::vector<std::shared_ptr<Hub>> claims;
        claims.swap(tlsClaims);
        for (auto& hub : claims)
            hub->releaseIfClaimed();
    }

    void flush(MutexGetter const* getter) {
        if (owner_.load() == std::this_thread::get_id() && !draining_) {
            // Claimed by this thread, which has not begun dispatching (it is still running the
            // deliveries of its turn): what a flush waits for is for it to dispatch, so now.
            drainClaimed();
            return;
        }
        if (onEventThread())
            return; // the events before this call are being delivered by the caller
        releaseClaims();
        std::uint64_t target;
        {
            std::lock_guard<std::mutex> lock(queueMutex_);
            target = enqueued_;
            if (dispatched_ >= target)
                return;
        }
        // Give the subscribers' mutex up before waiting, and take it back after the queue's
        // lock is gone, so that no thread waits for one while holding the other.
        boost::shared_ptr<threadutil::CountedMutex> held;
        if (getter && *getter)
            held = (*getter)();
        threadutil::ReleaseCountedMutexGuard release(held);
        std::unique_lock<std::mutex> lock(queueMutex_);
        done_.wait(lock, [&] { return dispatched_ >= target || stopping_; });
    }

    bool onEventThread() const {
        auto const me = std::this_thread::get_id();
        return me == threadId_.load() || me == owner_.load();
    }

    void stop() {
        {
            std::lock_guard<std::mutex> lock(queueMutex_);
            if (stopping_)
                return;
            stopping_ = true;
        }
        wake_.notify_all();
        done_.notify_all();
        if (!thread_.joinable())
            return;
        // A subscriber blocked forever must not hang the process's exit.
        if (thread_.get_id() == std::this_thread::get_id() || shutdown::isProcessTerminating() ||
            exited_.wait_for(std::chrono::seconds(2)) != std::future_status::ready)
            thread_.detach();
        else
            thread_.join();
    }

private:
    struct Item {
        boost::shared_ptr<BaseEvent const> event;
        std::shared_ptr<MutexGetter const> getter;
    };

    void start() {
        std::promise<void> exited;
        exited_ = exited.get_future();
        thread_ = std::thread([this, p = std::move(exited)]() mutable {
            threadId_.store(std::this_thread::get_id());
            run();
            p.set_value();
        });
    }

    void run() {
        std::vector<SubscriptionPtr> targets;
        auto const me = std::this_thread::get_id();
        std::unique_lock<std::mutex> lock(queueMutex_);
        for (;;) {
            // While another thread owns the hub, it dispatches what is queued.
            wake_.wait(lock, [this] {
                return stopping_ || (!queue_.empty() && owner_.load() == std::thread::id());
            });
            if (stopping_)
                return;
            owner_.store(me);
            drain(lock, targets);
            owner_.store(std::thread::id());
        }
    }

    // Dispatches the queued events in order until none is left (or the hub stops); the caller
    // owns the hub and holds `lock`, which is given up around each dispatch.
    void drain(std::unique_lock<std::mutex>& lock, std::vector<SubscriptionPtr>& targets) {
        while (!stopping_ && !queue_.empty()) {
            Item item = std::move(queue_.front());
            queue_.pop_front();
            lock.unlock();
            dispatch(*item.event, item.getter.get(), targets);
            item = Item();
            lock.lock();
            ++dispatched_;
            done_.notify_all();
        }
    }

    // Run by the thread that claimed the hub in publish, or by flush on it.
    void drainClaimed() {
        tlsClaims.erase(std::remove(tlsClaims.begin(), tlsClaims.end(), shared_from_this()),
                        tlsClaims.end());
        std::vector<SubscriptionPtr> targets;
        std::unique_lock<std::mutex> lock(queueMutex_);
        if (owner_.load() != std::this_thread::get_id() || draining_)
            return; // drained already (by a flush), released, or a flush within the drain
        draining_ = true;
        drain(lock, targets);
        draining_ = false;
        owner_.store(std::thread::id());
    }

    void releaseIfClaimed() {
        {
            std::lock_guard<std::mutex> lock(queueMutex_);
            if (owner_.load() != std::this_thread::get_id() || draining_)
                return;
        }
        release();
    }

    // Gives a claim up unused: the hub's thread takes what is queued.
    void release() {
        {
            std::lock_guard<std::mutex> lock(queueMutex_);
            owner_.store(std::thread::id());
            if (!stopping_ && !thread_.joinable())
                start();
        }
        wake_.notify_one();
    }

    void dispatch(BaseEvent const& event, MutexGetter const* getter,
                  std::vector<SubscriptionPtr>& targets) {
        std::shared_ptr<Table const> table;
        {
            std::lock_guard<std::mutex> lock(tableMutex_);
            table = table_;
        }
        if (table->empty())
            return;
        TagRange tags = event.getTypeInformation().getTags();
        targets.clear();
        for (auto t = tags.begin(); t != tags.end(); ++t) {
            if (std::find(tags.begin(), t, *t) != t)
                continue; // a repeated tag: its subscriptions are collected already
            auto it = table->find(*t);
            if (it == table->end())
                continue;
            for (auto const& sub : it->second) {
                bool all = true;
                for (auto const& need : sub->tags) {
                    if (std::find(tags.begin(), tags.end(), need) == tags.end()) {
                        all = false;
                        break;
                    }
                }
                if (all)
                    targets.push_back(sub);
            }
        }
        if (targets.empty())
            return;
        std::sort(
            targets.begin(), targets.end(),
            [](SubscriptionPtr const& a, SubscriptionPtr const& b) { return a->seq < b->seq; });
        boost::shared_ptr<threadutil::CountedMutex> mutex;
        if (getter && *getter)
            mutex = (*getter)();
        if (mutex)
            mutex->lock();
        for (auto const& sub : targets) {
            if (!sub->alive.load())
                continue;
            try {
                sub->callback(event);
            } catch (std::exception const& e) {
                ZN_LOG(logger(), log::error) << "a subscriber threw: " << e.what();
            } catch (...) {
                ZN_LOG(logger(), log::error) << "a subscriber threw a non-standard exception";
            }
        }
        if (mutex)
            mutex->unlock();
        targets.clear();
    }

    EmID const id_;
    std::mutex tableMutex_; // guards table_ (the pointer) and nextSeq_
    std::shared_ptr<Table const> table_;
    std::uint64_t nextSeq_ = 1;
    std::mutex queueMutex_; // guards queue_, counters, stopping_, thread_ start
    std::condition_variable wake_;
    std::condition_variable done_;
    std::deque<Item> queue_;
    std::uint64_t enqueued_ = 0;
    std::uint64_t dispatched_ = 0;
    bool stopping_ = false;
    bool draining_ = false; // a claiming thread dispatches (guarded by queueMutex_)
    std::thread thread_;
    std::atomic<std::thread::id> threadId_{};
    // The thread that dispatches the hub's events now, or is to (a claiming delivery thread);
    // none while the hub is idle. Written under queueMutex_.
    std::atomic<std::thread::id> owner_{};
    // The hubs the calling thread has claimed and not yet begun to dispatch.
    static thread_local std::vector<std::shared_ptr<Hub>> tlsClaims;
    std::future<void> exited_;
};

thread_local std::vector<std::shared_ptr<Hub>> Hub::tlsClaims;

namespace {
struct HubRegistry {
    std::mutex mutex; // guards hubs and defaultGetter
    std::unordered_map<EmID, std::shared_ptr<Hub>> hubs;
    std::shared_ptr<MutexGetter const> defaultGetter;
    ~HubRegistry() {
        std::unordered_map<EmID, std::shared_ptr<Hub>> h;
        {
            std::lock_guard<std::mutex> lock(mutex);
            h.swap(hubs);
        }
        for (auto& e : h)
            e.second->stop();
    }
};
HubRegistry& registry() {
    static HubRegistry r;
    return r;
}
} // namespace

std::shared_ptr<Hub> hubFor(EmID const& id) {
    HubRegistry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    auto& hub = r.hubs[id];
    if (!hub)
        hub = std::make_shared<Hub>(id);
    return hub;
}

// The hub of an identity that some front in this process has made, or null. Events from other
// exchanges go only to these: an identity nobody here made has no subscriber, and making hubs
// (and their threads) for every identity a peer names would let a peer exhaust the process.
std::shared_ptr<Hub> existingHub(EmID const& id) {
    HubRegistry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    auto it = r.hubs.find(id);
    return it == r.hubs.end() ? nullptr : it->second;
}

std::vector<std::shared_ptr<Hub>> allHubs() {
    HubRegistry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    std::vector<std::shared_ptr<Hub>> v;
    for (auto& e : r.hubs)
        v.push_back(e.second);
    return v;
}

std::shared_ptr<MutexGetter const> defaultGetter() {
    HubRegistry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    return r.defaultGetter;
}

// The subscriptions made through one front, so that terminate() can end them.
class FrontState {
public:
    void track(std::weak_ptr<Subscription> const& sub) {
        std::lock_guard<std::mutex> lock(mutex_);
        subs_.erase(
            std::remove_if(subs_.begin(), subs_.end(),
                           [](std::weak_ptr<Subscription> const& w) { return w.expired(); }),
            subs_.end());
        subs_.push_back(sub);
    }
    std::vector<std::weak_ptr<Subscription>> terminate() {
        std::lock_guard<std::mutex> lock(mutex_);
        terminated_ = true;
        return std::move(subs_);
    }
    bool terminated() const { return terminated_.load(); }

private:
    std::mutex mutex_; // guards subs_
    std::vector<std::weak_ptr<Subscription>> subs_;
    std::atomic<bool> terminated_{false};
};

class HubConnection : public Connection {
public:
    HubConnection(std::weak_ptr<Hub> hub, std::weak_ptr<Subscription> sub)
        : hub_(std::move(hub)), sub_(std::move(sub)) {}
    ~HubConnection() override { disconnect(); }
    void disconnect() override {
        auto sub = sub_.lock();
        sub_.reset();
        if (!sub || !sub->end())
            return;
        if (auto hub = hub_.lock())
            hub->remove(sub);
    }
    bool connected() const override {
        auto sub = sub_.lock();
        return sub && sub->alive.load();
    }

private:
    std::weak_ptr<Hub> hub_;
    std::weak_ptr<Subscription> sub_;
};

class CountWatch : public WatchToken {
public:
    explicit CountWatch(std::unique_ptr<SubscriptionCount> c) : count_(std::move(c)) {}
    bool hasSubscriptions() const override { return count_->hasSubscriptions(); }
    std::uint64_t getSubscriptionCount() const override { return count_->getSubscriptionCount(); }
    static void* operator new(std::size_t size) { return allocateCountObject(size); }
    static void operator delete(void* p, std::size_t size) noexcept { releaseCountObject(p, size); }

private:
    std::unique_ptr<SubscriptionCount> count_;
};

// The answer of a watch on a manager of another process: what that process said, when asked.
class FixedWatch : public WatchToken {
public:
    explicit FixedWatch(bool watched) : watched_(watched) {}
    bool hasSubscriptions() const override { return watched_; }
    std::uint64_t getSubscriptionCount() const override { return watched_ ? 1 : 0; }
    static void* operator new(std::size_t size) { return allocateCountObject(size); }
    static void operator delete(void* p, std::size_t size) noexcept { releaseCountObject(p, size); }

private:
    bool watched_;
};

} // namespace detail

EventMgr::~EventMgr() = default;

EventMgrFront::EventMgrFront(MutexGetter const& mutexGetter, EmID const& emId)
    : mutexGetter_(mutexGetter ? std::make_shared<MutexGetter const>(mutexGetter) : nullptr),
      emId_(emId), remoteEmId_(emId), hub_(detail::hubFor(emId)),
      state_(std::make_shared<detail::FrontState>()) {}

EventMgrFront::EventMgrFront(std::string const& remoteExchange, MutexGetter const& mutexGetter,
                             EmID const& emId, EmID const& remoteEmId)
    : remoteExchange_(remoteExchange),
      mutexGetter_(mutexGetter ? std::make_shared<MutexGetter const>(mutexGetter) : nullptr),
      emId_(emId), remoteEmId_(remoteEmId), hub_(detail::hubFor(emId)),
      state_(std::make_shared<detail::FrontState>()) {
    if (remoteExchange_.empty())
        throw std::invalid_argument("a remote event manager needs an exchange name");
}

EventMgrFront::~EventMgrFront() = default;

bool EventMgrFront::isEventThread() const {
    return hub_->onEventThread();
}

void EventMgrFront::flush() {
    if (!isRemote()) {
        hub_->flush(mutexGetter_.get());
        return;
    }
    auto exchange = exchange::ExchangeApi::instance();
    if (remoteExchange_ == exchange->getExchangeName()) {
        detail::hubFor(remoteEmId_)->flush(mutexGetter_.get());
        return;
    }
    auto future = exchange->submitWithReply(
        boost::make_shared<detail::FlushMessage>(remoteEmId_),
        exchange::Address(remoteExchange_, exchange::Address::SpecializedQueues::noqueue()));
    boost::shared_ptr<threadutil::CountedMutex> held;
    if (mutexGetter_ && *mutexGetter_)
        held = (*mutexGetter_)();
    threadutil::ReleaseCountedMutexGuard release(held);
    future.get();
}

bool EventMgrFront::equalTo(EventMgr const& other) const {
    auto const* o = dynamic_cast<EventMgrFront const*>(&other);
    return o && o->remoteExchange_ == remoteExchange_ && o->emId_ == emId_ &&
           o->remoteEmId_ == remoteEmId_;
}

std::uint64_t EventMgrFront::hash() const {
    std::uint64_t h = emId_.value() * 1000003u ^ remoteEmId_.value();
    return h ^ std::hash<std::string>()(remoteExchange_);
}

void EventMgrFront::terminate() {
    for (auto& w : state_->terminate()) {
        if (auto sub = w.lock()) {
            if (sub->end())
                hub_->remove(sub);
        }
    }
}

std::unique_ptr<Connection> EventMgrFront::addSubscription(Callback const& callback,
                                                           CountFactory factory, TagIterator begin,
                                                           TagIterator end) {
    if (!callback)
        throw std::invalid_argument("addSubscription: empty callback");
    if (!factory)
        throw std::invalid_argument("addSubscription: no subscription count factory");
    if (state_->terminated())
        throw std::logic_error("addSubscription: the event manager was terminated");
    auto sub = hub_->add(callback, factory(begin, end, std::string()));
    state_->track(sub);
    return std::unique_ptr<Connection>(new detail::HubConnection(hub_, sub));
}

std::unique_ptr<WatchToken> EventMgrFront::addWatch(CountFactory factory, TagIterator begin,
                                                    TagIterator end) {
    auto count = factory(begin, end, std::string());
    // A manager in another process: what that process said it listens to, if it did.
    if (isRemote() && remoteExchange_ != exchange::ExchangeApi::instance()->getExchangeName()) {
        auto const known = detail::peerInterest(remoteExchange_);
        return std::unique_ptr<WatchToken>(
            new detail::FixedWatch(!known || count->coversAnyOf(*known)));
    }
    return std::unique_ptr<WatchToken>(new detail::CountWatch(std::move(count)));
}

void EventMgrFront::doNotify(boost::shared_ptr<BaseEvent const> const& event, DeliverMode mode) {
    if (!event)
        throw std::invalid_argument("notify: null event");
    if (state_->terminated())
        return;
    if (!isRemote()) {
        hub_->publish(event, mutexGetter_);
        return;
    }
    auto exchange = exchange::ExchangeApi::instance();
    if (remoteExchange_ == exchange->getExchangeName()) {
        detail::hubFor(remoteEmId_)->publish(event, mutexGetter_);
        return;
    }
    if (!event->canBeSerialized()) {
        ZN_LOG(logger(), log::info)
            << "an event that cannot be serialized was not sent to '" << remoteExchange_ << "'";
        return;
    }
    exchange->submit(
        boost::make_shared<detail::EventMessage>(remoteEmId_, event, mode),
        exchange::Address(remoteExchange_, exchange::Address::SpecializedQueues::noqueue()));
}

void publishLocally(EmID const& emId, boost::shared_ptr<BaseEvent const> const& event) {
    if (auto hub = detail::existingHub(emId))
        hub->publish(event, detail::defaultGetter());
}

void publishToAllIdentities(boost::shared_ptr<BaseEvent const> const& event) {
    auto getter = detail::defaultGetter();
    detail::hubFor(SessionEmId); // the session always hears it
    for (auto& hub : detail::allHubs())
        hub->publish(event, getter);
}

void flushLocally(EmID const& emId) {
    auto getter = detail::defaultGetter();
    if (auto hub = detail::existingHub(emId))
        hub->flush(getter.get());
}

void setDefaultMutexGetter(EventMgrFront::MutexGetter const& getter) {
    auto& r = detail::registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    r.defaultGetter = getter ? std::make_shared<EventMgrFront::MutexGetter const>(getter) : nullptr;
}

} // namespace eventmgr
} // namespace msg_svc
} // namespace foundation
