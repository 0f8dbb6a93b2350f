#include <foundation/msg_svc/eventmgr/eventmgrfront.hpp>
#include <foundation/msg_svc/eventmgr/interestmessage.hpp>
#include <foundation/msg_svc/exchange/blockdedup.hpp>
#include <foundation/msg_svc/exchange/communicationerrorevent.hpp>
#include <foundation/msg_svc/exchange/exchangeapi.hpp>
#include <foundation/msg_svc/exchange/lanes.hpp>
#include <foundation/msg_svc/exchange/wire.hpp>

#include <foundation/core/log/diagnosticlogger.hpp>
#include <foundation/core/memory/poolallocator.hpp>

#include <boost/make_shared.hpp>
#include <boost/throw_exception.hpp>

#include <atomic>
#include <map>
#include <mutex>
#include <set>
#include <sstream>
#include <unistd.h>
#include <unordered_map>

namespace foundation {
namespace msg_svc {
namespace exchange {

namespace log = foundation::core::log;
using detail::InlineSlot;

namespace {

log::diagnostic_logger& logger() {
    static log::diagnostic_logger l("foundation::msg_svc::exchange");
    return l;
}

std::string describe(boost::exception_ptr const& e) {
    try {
        boost::rethrow_exception(e);
    } catch (std::exception const& x) {
        return x.what();
    } catch (...) {
        return "unknown failure";
    }
}

// Names of the exchanges alive in this process, so that two cannot share a name.
std::mutex namesMutex;
std::set<std::string> liveNames; // guarded by namesMutex

std::string generatedName() {
    static std::atomic<unsigned> n{0};
    unsigned const k = n++; // read once: two exchanges made at once get different names
    return "process:" + std::to_string(::getpid()) + (k ? "." + std::to_string(k) : "");
}

// The exchange whose delivery thread the calling thread is, if any.
thread_local ExchangeApi::Impl const* tlsDeliveringFor = nullptr;

} // namespace

TransportSink::~TransportSink() = default;
Transport::~Transport() = default;

// Completion of one delivery: the reply, or the failure.
typedef std::function<void(boost::shared_ptr<Reply const> const&, boost::exception_ptr const&)>
    Completion;

class ExchangeApi::Impl : public TransportSink {
public:
    explicit Impl(ExchangeConfig const& config)
        : name_(config.name.empty() ? generatedName() : config.name), transport_(config.transport),
          ordered_([this] { tlsDeliveringFor = this; }),
          unordered_(config.maxUnorderedThreads, [this] { tlsDeliveringFor = this; }),
          blocks_(config.blockCacheBytes), replySpin_(config.replySpin) {
        if (transport_) {
            transport_->start(name_, *this);
            interestListener_ =
                eventmgr::detail::addInterestListener([this] { tellAllInterest(); });
        }
    }

    ~Impl() override { stop(); }

    std::string const& name() const { return name_; }

    void stop() {
        bool expected = false;
        if (!stopped_.compare_exchange_strong(expected, true))
            return;
        live_->store(false, std::memory_order_release);
        interestListener_.reset();
        // Replies still awaited fail first: a delivery that waits for one, on a transport or
        // lane thread joined below, would otherwise keep the join waiting for ever.
        std::unordered_map<std::uint64_t, Pending> pending;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            pending.swap(pending_);
        }
        auto stoppedError =
            boost::copy_exception(DeliveryError("exchange '" + name_ + "' was stopped"));
        for (auto& p : pending)
            p.second.done(nullptr, stoppedError);
        if (transport_)
            transport_->stop();
        ordered_.stop();
        unordered_.stop();
        std::map<std::string, std::shared_ptr<Actor>> actors;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            actors.swap(actors_);
        }
        for (auto& a : actors)
            a.second->lane.stop();
    }

    void submit(boost::shared_ptr<Message const> const& message, Address const& address,
                Completion done) {
        if (!message) {
            fail(done, boost::copy_exception(std::invalid_argument("null message")));
            return;
        }
        if (address.exchange() == name_)
            deliverLocal(message, address.queue(), name_, std::move(done));
        else
            sendRemote(message, address, std::move(done));
    }

    void registerActor(std::string const& service, ActorDispatch const& dispatch) {
        if (service == Address::SpecializedQueues::noqueue() ||
            service == Address::SpecializedQueues::unordered() || service.empty())
            throw std::invalid_argument("'" + service + "' cannot name an actor");
        if (!dispatch)
            throw std::invalid_argument("actor '" + service + "' has no dispatch function");
        std::lock_guard<std::mutex> lock(mutex_);
        if (stopped_)
            boost::throw_exception(DeliveryError("exchange '" + name_ + "' was stopped"));
        if (actors_.count(service))
            throw std::invalid_argument("an actor already serves '" + service + "'");
        auto actor = std::make_shared<Actor>(this, dispatch);
        actors_.emplace(service, actor);
    }

    void unregisterActor(std::string const& service) {
        std::shared_ptr<Actor> actor;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            auto it = actors_.find(service);
            if (it == actors_.end())
                return;
            actor = it->second;
            actors_.erase(it);
        }
        actor->lane.stop();
    }

    bool isDeliveryThread() const { return tlsDeliveringFor == this; }
    std::chrono::microseconds replySpin() const { return replySpin_; }

    // TransportSink
    void receiveFrame(std::string const& from, char const* bytes, std::size_t size) override {
        if (size && bytes[0] == static_cast<char>(wire::FrameKind::Blocks)) {
            // Blocks of it may be kept: they need bytes of their own.
            auto held = boost::make_shared<std::string const>(bytes, size);
            receiveHeldFrame(from, held, held->data(), held->size());
            return;
        }
        receiveHeldFrame(from, nullptr, bytes, size);
    }

    void receiveHeldFrame(std::string const& from, boost::shared_ptr<void const> const& holder,
                          char const* bytes, std::size_t size) override {
        wire::FrameView frame;
        BlockDedup::Unpacked unpacked;
        try {
            if (size && bytes[0] == static_cast<char>(wire::FrameKind::Blocks)) {
                unpacked = blocks_.receive(from, holder, bytes, size);
                if (unpacked.missing) {
                    blockMissing(from, unpacked);
                    return;
                }
                frame = unpacked.frame;
            } else {
                frame = wire::viewFrame(bytes, size);
            }
        } catch (std::exception const& e) {
            ZN_LOG(logger(), log::error)
                << name_ << ": dropped a malformed frame from " << from << ": " << e.what();
            return;
        }
        switch (frame.kind) {
        case wire::FrameKind::Message:
        case wire::FrameKind::Notice:
            receiveMessage(from, frame);
            break;
        case wire::FrameKind::Reply:
        case wire::FrameKind::Failure:
            receiveReply(from, frame);
            break;
        case wire::FrameKind::BlockMissing:
            receiveBlockMissing(from, frame);
            break;
        case wire::FrameKind::Blocks:
            break; // never the kind of an unpacked frame
        }
    }

    void peerFailed(std::string const& peer, boost::exception_ptr const& cause) override {
        blocks_.forget(peer);
        {
            std::lock_guard<std::mutex> lock(interestMutex_);
            interestTold_.erase(peer); // told again should it come back
        }
        eventmgr::detail::forgetPeerInterest(peer);
        std::vector<Completion> failed;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            for (auto it = pending_.begin(); it != pending_.end();) {
                if (it->second.peer == peer) {
                    failed.push_back(std::move(it->second.done));
                    it = pending_.erase(it);
                } else {
                    ++it;
                }
            }
        }
        for (auto& done : failed)
            done(nullptr, cause);
        ZN_LOG(logger(), log::warning)
            << name_ << ": exchange '" << peer << "' failed: " << describe(cause);
        eventmgr::publishToAllIdentities(boost::make_shared<CommunicationErrorEvent>(peer, cause));
    }

private:
    struct Actor {
        Actor(Impl* owner, ActorDispatch d)
            : dispatch(std::move(d)), lane([owner] { tlsDeliveringFor = owner; }) {}
        ActorDispatch dispatch;
        detail::SerialLane lane;
    };

    struct Pending {
        std::string peer;
        Completion done;
        // A message sent with large blocks, kept to be sent again in full should the peer not
        // hold a block it referred to; null otherwise.
        boost::shared_ptr<Message const> message;
        std::string queue;
    };

    // One message on its way to a local lane. A named class rather than a lambda, so that the
    // lane's std::function, which keeps it on the heap, takes it from the pool: it is made on the
    // sending thread and freed on the delivering one.
    struct LocalDelivery : core::memory::PoolAllocated {
        boost::shared_ptr<Message const> message;
        std::string queue;
        std::string source;
        Completion done;
        std::weak_ptr<Actor> actor;
        bool isActor;

        void operator()() const {
            boost::shared_ptr<Reply const> reply;
            boost::exception_ptr error;
            try {
                if (isActor) {
                    auto a = actor.lock();
                    if (!a)
                        boost::throw_exception(DeliveryError("actor '" + queue + "' is gone"));
                    reply = a->dispatch(*message);
                } else {
                    reply = message->deliver(Routing(source, queue));
                }
            } catch (...) {
                error = boost::current_exception();
            }
            if (done) {
                done(reply, error);
            } else if (error) {
                ZN_LOG(logger(), log::error) << "delivery failed: " << describe(error);
            }
        }
    };

    static void fail(Completion const& done, boost::exception_ptr const& e) {
        if (done) {
            done(nullptr, e);
        } else {
            ZN_LOG(logger(), log::error) << "a message could not be delivered: " << describe(e);
        }
    }

    void deliverLocal(boost::shared_ptr<Message const> const& message, std::string const& queue,
                      std::string const& source, Completion done) {
        std::shared_ptr<Actor> actor;
        bool const unordered = queue == Address::SpecializedQueues::unordered();
        if (!unordered && queue != Address::SpecializedQueues::noqueue()) {
            std::lock_guard<std::mutex> lock(mutex_);
            auto it = actors_.find(queue);
            if (it != actors_.end())
                actor = it->second;
        }
        LocalDelivery job{{}, message, queue, source, done, actor, bool(actor)};
        if (InlineSlot* slot = InlineSlot::current()) {
            if (runInline(*slot, std::move(job), bool(actor), unordered))
                return;
        }
        bool posted = actor       ? actor->lane.post(std::move(job))
                      : unordered ? unordered_.post(std::move(job))
                                  : ordered_.post(std::move(job));
        if (!posted)
            fail(done,
                 boost::copy_exception(DeliveryError("exchange '" + name_ + "' was stopped")));
    }

    // Leaves `job` to the transport thread that offered `slot`: it runs the job itself, with no
    // lane thread to wake, and another thread takes over its reading should the job block. The
    // ordered lane is claimed for it, so jobs that arrive meanwhile queue behind it, and ordered
    // jobs read in the same turn join it. An actor's messages stay on the actor's own thread.
    // False if the job is to be posted as usual.
    bool runInline(InlineSlot& slot, LocalDelivery&& job, bool isActor, bool unordered) {
        if (isActor)
            return false;
        detail::SerialLane* lane = unordered ? nullptr : &ordered_;
        bool const joining = !slot.empty();
        // Joining: only while nothing was posted behind the claim, which would go first.
        if (joining ? !slot.joins(lane) || !lane->nothingQueued() : lane && !lane->tryClaim())
            return false;
        // A job of the batch may stop (and so destroy) this exchange: the jobs after it, and the
        // release, then find `live` false and leave it alone, as a stopped lane drops its jobs.
        auto run = [this, live = live_, job = std::move(job)] {
            if (!live->load(std::memory_order_acquire))
                return;
            struct Restore {
                ExchangeApi::Impl const* previous;
                ~Restore() { tlsDeliveringFor = previous; }
            } restore{tlsDeliveringFor};
            tlsDeliveringFor = this;
            job();
        };
        if (joining)
            return slot.append(lane, std::move(run));
        try {
            return slot.offer(lane, std::move(run),
                              lane ? detail::Job([lane, live = live_] {
                                  if (live->load(std::memory_order_acquire))
                                      lane->release();
                              })
                                   : detail::Job());
        } catch (...) {
            if (lane)
                lane->release(); // claimed for a job that could not be taken
            throw;
        }
    }

    void sendRemote(boost::shared_ptr<Message const> const& message, Address const& address,
                    Completion done) {
        std::string const& peer = address.exchange();
        if (!transport_) {
            auto e = boost::copy_exception(DeliveryError("exchange '" + name_ +
                                                         "' cannot reach exchange '" + peer +
                                                         "': it has no transport"));
            fail(done, e);
            eventmgr::publishToAllIdentities(boost::make_shared<CommunicationErrorEvent>(peer, e));
            return;
        }
        tellInterest(peer);
        wire::Frame frame;
        frame.kind = done ? wire::FrameKind::Message : wire::FrameKind::Notice;
        std::string bytes;
        std::vector<wire::BlockSpan> spans;
        std::vector<BlockDedup::Block> hashed;
        try {
            // Encoded before it is numbered: a message that cannot be sent takes no number.
            bytes = wire::encodeMessageFrame(frame.kind, 0, address.queue(), *message,
                                             blocks_.enabled() ? &spans : nullptr);
            hashed = BlockDedup::hashBlocks(bytes, spans); // before any lock
        } catch (...) {
            refuse(done, boost::current_exception(), "could not be encoded");
            return;
        }
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (stopped_) {
                fail(done,
                     boost::copy_exception(DeliveryError("exchange '" + name_ + "' was stopped")));
                return;
            }
            if (done) {
                frame.correlation = nextCorrelation_++;
                Pending p{peer, std::move(done), nullptr, std::string()};
                if (!hashed.empty()) {
                    p.message = message;
                    p.queue = address.queue();
                }
                pending_.emplace(frame.correlation, std::move(p));
            } else {
                frame.correlation = kNoticeBit | nextNotice_++;
            }
        }
        wire::setCorrelation(bytes, frame.correlation);
        try {
            sendFrame(peer, std::move(bytes), hashed);
        } catch (FrameRefused const& refused) {
            // The frame, not the peer, is at fault: only its sender hears of it.
            refuse(takePending(frame.correlation), boost::copy_exception(refused), "was refused");
        } catch (...) {
            auto e = boost::current_exception();
            if (Completion pendingDone = takePending(frame.correlation))
                pendingDone(nullptr, e);
            eventmgr::publishToAllIdentities(boost::make_shared<CommunicationErrorEvent>(peer, e));
        }
    }

    // Tells `peer` which events this process listens to, unless it knows already: ahead of the
    // message about to go there, on the same path, so that the peer knows before it acts on it.
    // A failure is left to that message to report.
    void tellInterest(std::string const& peer) {
        std::uint64_t const version = eventmgr::detail::interestVersion();
        std::lock_guard<std::mutex> lock(interestMutex_);
        auto it = interestTold_.find(peer);
        if (it != interestTold_.end() && it->second == version)
            return;
        try {
            std::string bytes = wire::encodeMessageFrame(
                wire::FrameKind::Notice, 0, Address::SpecializedQueues::noqueue(),
                eventmgr::detail::InterestMessage(eventmgr::detail::watchedTags()));
            {
                std::lock_guard<std::mutex> numbering(mutex_);
                wire::setCorrelation(bytes, kNoticeBit | nextNotice_++);
            }
            transport_->sendOwned(peer, std::move(bytes));
            interestTold_[peer] = version;
        } catch (std::exception const& e) {
            ZN_LOG(logger(), log::debug)
                << name_ << ": could not tell exchange '" << peer << "' its interest: " << e.what();
        }
    }

    // A tag gained its first subscription: every peer told before hears of it now.
    void tellAllInterest() {
        std::vector<std::string> told;
        {
            std::lock_guard<std::mutex> lock(interestMutex_);
            for (auto const& t : interestTold_)
                told.push_back(t.first);
        }
        for (auto const& peer : told)
            tellInterest(peer);
    }

    // The completion waiting for `correlation`, taken out of the pending ones; null if none.
    Completion takePending(std::uint64_t correlation) {
        if (correlation & kNoticeBit)
            return nullptr;
        std::lock_guard<std::mutex> lock(mutex_);
        auto it = pending_.find(correlation);
        if (it == pending_.end())
            return nullptr;
        Completion done = std::move(it->second.done);
        pending_.erase(it);
        return done;
    }

    // A message that cannot be sent at all: its completion fails; without one (submit), the
    // caller hears of it by the exception, since nothing else would tell it.
    static void refuse(Completion const& done, boost::exception_ptr const& cause,
                       char const* what) {
        auto const e = boost::copy_exception(
            DeliveryError(std::string("a message ") + what + ": " + describe(cause)));
        if (done) {
            done(nullptr, e);
            return;
        }
        boost::rethrow_exception(e);
    }

    void sendBack(std::string const& to, wire::Frame const& frame) {
        try {
            if (transport_)
                transport_->send(to, wire::encodeFrame(frame));
        } catch (std::exception const& e) {
            ZN_LOG(logger(), log::error)
                << name_ << ": could not answer exchange '" << to << "': " << e.what();
        }
    }

    // Sends an encoded frame; with large blocks, through the peer's block memory. `soon`: the
    // frame may wait for the next one to `to` (Transport::sendSoon).
    void sendFrame(std::string const& to, std::string&& bytes,
                   std::vector<BlockDedup::Block> const& hashed, bool soon = false) {
        if (hashed.empty()) {
            if (soon)
                transport_->sendSoon(to, std::move(bytes));
            else
                transport_->sendOwned(to, std::move(bytes));
            return;
        }
        blocks_.send(to, std::move(bytes), hashed,
                     [this, &to](std::string&& f) { transport_->sendOwned(to, std::move(f)); });
    }

    void sendBack(std::string const& to, std::string&& bytes,
                  std::vector<BlockDedup::Block> const& hashed = {}, bool soon = false) {
        try {
            if (transport_)
                sendFrame(to, std::move(bytes), hashed, soon);
        } catch (std::exception const& e) {
            ZN_LOG(logger(), log::error)
                << name_ << ": could not answer exchange '" << to << "': " << e.what();
        }
    }

    void receiveMessage(std::string const& from, wire::FrameView const& frame) {
        boost::shared_ptr<Message const> message;
        try {
            message = wire::decodeMessage(frame.payload, frame.payloadSize);
        } catch (std::exception const& e) {
            // The sender must hear of it, whether or not it waits for a reply.
            if (frame.correlation)
                sendBack(from, wire::Frame{wire::FrameKind::Failure, frame.correlation, "",
                                           "exchange '" + name_ +
                                               "' could not decode a message: " + e.what()});
            ZN_LOG(logger(), log::error)
                << name_ << ": dropped an undecodable message from " << from << ": " << e.what();
            return;
        }
        Completion done;
        if (frame.kind == wire::FrameKind::Message) {
            std::uint64_t const corr = frame.correlation;
            bool const soon = message->answerMayWait();
            done = [this, from, corr, soon](boost::shared_ptr<Reply const> const& reply,
                                            boost::exception_ptr const& error) {
                std::string failure;
                if (error) {
                    failure = describe(error);
                } else {
                    try {
                        std::vector<wire::BlockSpan> spans;
                        std::string bytes =
                            wire::encodeReplyFrame(corr, reply ? *reply : *Reply::defaultReply(),
                                                   blocks_.enabled() ? &spans : nullptr);
                        auto const hashed = BlockDedup::hashBlocks(bytes, spans);
                        sendBack(from, std::move(bytes), hashed, soon);
                        return;
                    } catch (std::exception const& e) {
                        failure = std::string("reply could not be encoded: ") + e.what();
                    }
                }
                sendBack(from, wire::Frame{wire::FrameKind::Failure, corr, "", failure});
            };
        }
        deliverLocal(message, frame.queue, from, std::move(done));
    }

    // A frame from `from` referred to a block this exchange does not hold. A message's sender
    // sends it again in full; a reply cannot be had again, so its request fails.
    void blockMissing(std::string const& from, BlockDedup::Unpacked const& unpacked) {
        ZN_LOG(logger(), log::warning)
            << name_ << ": a frame from " << from << " referred to a block not held here";
        bool const isReply =
            unpacked.kind == wire::FrameKind::Reply || unpacked.kind == wire::FrameKind::Failure;
        // Sent before the request fails, so that whatever the requester sends next finds the
        // peer in step again.
        sendBack(from,
                 wire::Frame{wire::FrameKind::BlockMissing, isReply ? 0 : unpacked.correlation, "",
                             blocks_.missingPayload(unpacked.epoch)});
        if (isReply) {
            if (Completion done = takePending(unpacked.correlation))
                done(nullptr, boost::copy_exception(DeliveryError(
                                  "exchange '" + name_ + "' lost the reply from exchange '" + from +
                                  "': it referred to a block no longer held here")));
        }
    }

    void receiveBlockMissing(std::string const& from, wire::FrameView const& frame) {
        BlockDedup::Missing missing;
        try {
            missing = BlockDedup::missing(frame);
        } catch (std::exception const& e) {
            ZN_LOG(logger(), log::error)
                << name_ << ": dropped a malformed frame from " << from << ": " << e.what();
            return;
        }
        blocks_.blockMissing(from, missing);
        if (!frame.correlation)
            return;
        if (frame.correlation & kNoticeBit) {
            std::string const text = "exchange '" + from +
                                     "' could not decode a message: it referred to a block not "
                                     "held there";
            ZN_LOG(logger(), log::error) << name_ << ": " << text;
            eventmgr::publishToAllIdentities(boost::make_shared<CommunicationErrorEvent>(
                from, boost::copy_exception(DeliveryError(text))));
            return;
        }
        boost::shared_ptr<Message const> message;
        std::string queue;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            auto it = pending_.find(frame.correlation);
            if (it == pending_.end() || it->second.peer != from)
                return;
            message = it->second.message;
            queue = it->second.queue;
        }
        if (!message) {
            if (Completion done = takePending(frame.correlation))
                done(nullptr, boost::copy_exception(DeliveryError(
                                  "exchange '" + from + "' did not hold a block of a message")));
            return;
        }
        // Sent again under the same number, every block in full.
        try {
            transport_->sendOwned(from,
                                  wire::encodeMessageFrame(wire::FrameKind::Message,
                                                           frame.correlation, queue, *message));
        } catch (...) {
            if (Completion done = takePending(frame.correlation))
                done(nullptr, boost::current_exception());
        }
    }

    void receiveReply(std::string const& from, wire::FrameView const& frame) {
        if (frame.correlation & kNoticeBit) {
            if (frame.kind != wire::FrameKind::Failure)
                return;
            // A message sent without a reply was not understood there: whoever waits for its
            // effects would wait forever, so the exchange is reported as failing.
            std::string const text(frame.payload, frame.payloadSize);
            ZN_LOG(logger(), log::error) << name_ << ": " << text;
            eventmgr::publishToAllIdentities(boost::make_shared<CommunicationErrorEvent>(
                from, boost::copy_exception(DeliveryError(text))));
            return;
        }
        Completion done;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            auto it = pending_.find(frame.correlation);
            if (it == pending_.end() || it->second.peer != from)
                return; // late or foreign: nobody waits for it
            done = std::move(it->second.done);
            pending_.erase(it);
        }
        if (frame.kind == wire::FrameKind::Failure) {
            done(nullptr, boost::copy_exception(
                              DeliveryError(std::string(frame.payload, frame.payloadSize))));
            return;
        }
        boost::shared_ptr<Reply const> reply;
        try {
            reply = wire::decodeReply(frame.payload, frame.payloadSize);
        } catch (...) {
            done(nullptr, boost::current_exception());
            return;
        }
        done(reply, boost::exception_ptr());
    }

    std::string const name_;
    boost::shared_ptr<Transport> transport_;
    std::atomic<bool> stopped_{false};
    // False once stopped; shared with deliveries left to a transport thread, which may outlive
    // this.
    std::shared_ptr<std::atomic<bool>> const live_ = std::make_shared<std::atomic<bool>>(true);
    mutable std::mutex mutex_; // guards actors_, pending_, nextCorrelation_, nextNotice_
    std::map<std::string, std::shared_ptr<Actor>> actors_;
    std::unordered_map<std::uint64_t, Pending> pending_;
    std::uint64_t nextCorrelation_ = 1;
    std::uint64_t nextNotice_ = 1;
    static constexpr std::uint64_t kNoticeBit = std::uint64_t(1) << 63;
    detail::SerialLane ordered_;
    detail::ElasticLane unordered_;
    BlockDedup blocks_;
    std::chrono::microseconds const replySpin_;
    // The interest version each peer was last told (guarded by interestMutex_, which is held
    // while telling, so that a message sent after a telling follows it).
    std::mutex interestMutex_;
    std::unordered_map<std::string, std::uint64_t> interestTold_;
    std::shared_ptr<void> interestListener_; // set while the exchange runs
};

namespace {
std::mutex instanceMutex;
boost::shared_ptr<ExchangeApi> processExchange; // guarded by instanceMutex
ExchangeConfig processConfig;                   // guarded by instanceMutex

// Stops the process's exchange before the statics it uses die.
struct ProcessExchangeCleanup {
    ~ProcessExchangeCleanup() {
        boost::shared_ptr<ExchangeApi> e;
        {
            std::lock_guard<std::mutex> lock(instanceMutex);
            e.swap(processExchange);
        }
        if (e)
            e->stop();
    }
};

struct MakeShared : ExchangeApi {
    explicit MakeShared(ExchangeConfig const& c) : ExchangeApi(c) {}
};
} // namespace

boost::shared_ptr<ExchangeApi> ExchangeApi::instance() {
    static ProcessExchangeCleanup cleanup;
    std::lock_guard<std::mutex> lock(instanceMutex);
    if (!processExchange)
        processExchange = create(processConfig);
    return processExchange;
}

void ExchangeApi::configure(ExchangeConfig const& config) {
    std::lock_guard<std::mutex> lock(instanceMutex);
    if (processExchange)
        throw std::logic_error(
            "the process's exchange exists already; configure it before first use");
    processConfig = config;
}

boost::shared_ptr<ExchangeApi> ExchangeApi::create(ExchangeConfig const& config) {
    ExchangeConfig c = config;
    if (c.name.empty())
        c.name = generatedName();
    {
        std::lock_guard<std::mutex> lock(namesMutex);
        if (!liveNames.insert(c.name).second)
            throw std::invalid_argument("an exchange named '" + c.name + "' exists already");
    }
    try {
        return boost::make_shared<MakeShared>(c);
    } catch (...) {
        std::lock_guard<std::mutex> lock(namesMutex);
        liveNames.erase(c.name);
        throw;
    }
}

ExchangeApi::ExchangeApi(ExchangeConfig const& config) : impl_(new Impl(config)) {}

ExchangeApi::~ExchangeApi() {
    std::string name = impl_->name();
    impl_.reset();
    std::lock_guard<std::mutex> lock(namesMutex);
    liveNames.erase(name);
}

boost::unique_future<boost::shared_ptr<Reply const>>
ExchangeApi::submitWithReply(boost::shared_ptr<Message const> const& message,
                             Address const& address) {
    auto promise = std::make_shared<boost::promise<boost::shared_ptr<Reply const>>>();
    ReplySpin const spin = makeReplySpin();
    spin.arm(*promise);
    auto future = promise->get_future();
    impl_->submit(message, address,
                  [promise, spin](boost::shared_ptr<Reply const> const& reply,
                                  boost::exception_ptr const& error) {
                      if (error)
                          promise->set_exception(error);
                      else
                          promise->set_value(reply);
                      spin.ready();
                  });
    return future;
}

ReplySpin ExchangeApi::makeReplySpin() const {
    return ReplySpin(impl_->replySpin());
}

std::chrono::microseconds ExchangeApi::replySpin() const {
    return impl_->replySpin();
}

void ExchangeApi::submit(boost::shared_ptr<Message const> const& message, Address const& address) {
    impl_->submit(message, address, nullptr);
}

void ExchangeApi::submitWithHandler(boost::shared_ptr<Message const> const& message,
                                    Address const& address, ReplyHandler const& handler) {
    submitWithHandler(message, address, handler, [](boost::exception_ptr const& e) {
        ZN_LOG(logger(), log::error) << "a message could not be delivered: " << describe(e);
    });
}

void ExchangeApi::submitWithHandler(boost::shared_ptr<Message const> const& message,
                                    Address const& address, ReplyHandler const& handler,
                                    ErrorHandler const& onError) {
    impl_->submit(message, address,
                  [handler, onError](boost::shared_ptr<Reply const> const& reply,
                                     boost::exception_ptr const& error) {
                      if (error) {
                          if (onError)
                              onError(error);
                      } else if (handler) {
                          handler(reply);
                      }
                  });
}

std::string ExchangeApi::getExchangeName() const {
    return impl_->name();
}

void ExchangeApi::registerActor(std::string const& serviceName, ActorDispatch const& dispatch) {
    impl_->registerActor(serviceName, dispatch);
}

void ExchangeApi::unregisterActor(std::string const& serviceName) {
    impl_->unregisterActor(serviceName);
}

bool ExchangeApi::isDeliveryThread() const {
    return impl_->isDeliveryThread();
}

void ExchangeApi::stop() {
    impl_->stop();
}

} // namespace exchange
} // namespace msg_svc
} // namespace foundation
