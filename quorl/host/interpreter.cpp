#include <quorl/host/interpreter.hpp>
#include <quorl/host/packetinterrupted.hpp>

#include <quorl/cmddistributor/defaultiipstateevent.hpp>
#include <quorl/cmddistributor/requestidadapter.hpp>
#include <quorl/contextmgr/contextregistry.hpp>
#include <quorl/eventmgr/eventmgraccess.hpp>
#include <quorl/utils/fennmutex.hpp>

#include <foundation/core/log/diagnosticlogger.hpp>
#include <foundation/core/memory/poolallocator.hpp>

#include <boost/make_shared.hpp>

#include <algorithm>
#include <future>
#include <stdexcept>

namespace quorl {
namespace host {

using ::cmddistributor::IIPCompletedEvent;
using ::cmddistributor::RuntimeException;
using foundation::msg_svc::eventmgr::DeliverQueued;
using foundation::msg_svc::eventmgr::EventMgr;
using foundation::msg_svc::exchange::IDType;

namespace {

// How many ended packets an interpreter remembers, to answer a late cancel with "not cancelled"
// instead of "not found".
constexpr std::size_t kEndedMemory = 4096;

foundation::core::log::diagnostic_logger const& logger() {
    static foundation::core::log::diagnostic_logger const log("quorl::host::Interpreter");
    return log;
}

RuntimeException failureOf(cmddistributor::inExecutionStatus status, std::string message) {
    return RuntimeException(status, std::move(message), std::string(), std::string(), {}, {});
}

// Publishes a state event of a packet to whoever watches it (across processes too: what the
// client's process listens to). A packet that crossed an exchange marks its events so that they
// may cross back.
template <class Event>
void publishState(EventMgr& manager, IDType const& id, bool packetWasSerialized) {
    if (!packetWasSerialized) {
        manager.notifyIfWatched<Event>(DeliverQueued, id);
        return;
    }
    if (!manager.isWatched<Event>())
        return;
    auto event = boost::make_shared<Event>(id);
    event->setIIPWasSerialized(true);
    manager.publish(event, DeliverQueued);
}

} // namespace

Interpreter::Interpreter(contextmgr::FennID fennID, contextmgr::TarnID tarnID, RunnerLookup runners)
    : fennID_(fennID), tarnID_(tarnID), runners_(std::move(runners)),
      context_(foundation::usm::Context::create("fenn " + std::to_string(fennID.value))),
      eventMgr_(eventmgr::createLocalEventMgr(tarnID)) {
    std::promise<void> ready;
    auto started = ready.get_future();
    thread_ = std::thread([this, &ready] { threadMain(ready); });
    threadId_ = thread_.get_id();
    try {
        started.get();
    } catch (...) {
        thread_.join();
        throw;
    }
}

Interpreter::~Interpreter() {
    try {
        stop();
    } catch (std::exception const& e) {
        ZN_LOG(logger(), foundation::core::log::error) << "stop: " << e.what();
    }
}

void Interpreter::threadMain(std::promise<void>& ready) {
    foundation::usm::ContextScope scope(context_);
    try {
        contextmgr::ContextRegistry::setIDs(fennID_, tarnID_);
        eventmgr::setActiveEventMgr(eventMgr_);
    } catch (...) {
        ready.set_exception(std::current_exception());
        return;
    }
    ready.set_value();

    bool lastFromThisProcess = false;
    for (;;) {
        QueuedPacket packet;
        auto execution = std::shared_ptr<PacketExecution>();
        // Poll briefly before sleeping: a client in this process sending in bursts then finds the
        // interpreter awake instead of paying a wake-up per packet. Not after a packet from
        // another process, whose next one takes a round trip on the wire to come: polling would
        // only take a core from the threads that carry it.
        int const polls = lastFromThisProcess ? 64 : 0;
        for (int spin = 0; spin < polls && !hasWork_.load(std::memory_order_acquire); ++spin)
            std::this_thread::yield();
        {
            std::unique_lock<std::mutex> lock(mutex_);
            wake_.wait(lock, [this] { return stopping_ || !queue_.empty(); });
            if (stopping_)
                break;
            packet = std::move(queue_.front());
            queue_.pop_front();
            noteQueueChanged();
            execution = foundation::core::memory::makePooledShared<PacketExecution>(
                packet.id, packet.iip, fennID_, managerOf(packet));
            running_.emplace_back(packet.id, execution);
        }
        lastFromThisProcess = !packet.iip->wasSerialized();
        runPacket(packet, execution);
    }

    std::deque<QueuedPacket> left;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        left.swap(queue_);
        noteQueueChanged();
        for (auto const& packet : left)
            rememberEnded(packet.id);
    }
    for (auto const& packet : left)
        discard(packet);
}

void Interpreter::runPacket(QueuedPacket const& packet,
                            std::shared_ptr<PacketExecution> const& execution) {
    boost::shared_ptr<IIPCompletedEvent> event;
    {
        std::lock_guard<foundation::msg_svc::threadutil::CountedMutex> hold(*utils::getFennMutex());
        IDType const previous = ::cmddistributor::RequestIdAdapter::currentRequestId();
        ::cmddistributor::RequestIdAdapter::setRequestId(packet.id);
        try {
            publishState<::cmddistributor::IIPStartedEvent>(*execution->getEventMgr(), packet.id,
                                                            packet.iip->wasSerialized());
        } catch (std::exception const& e) {
            ZN_LOG(logger(), foundation::core::log::error) << "started event: " << e.what();
        }
        event = execute(packet, *execution);
        ::cmddistributor::RequestIdAdapter::setRequestId(previous);
    }
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (auto it = running_.begin(); it != running_.end(); ++it) {
            if (it->second == execution) {
                running_.erase(it);
                break;
            }
        }
        rememberEnded(packet.id);
    }
    complete(packet, *execution, event);
}

boost::shared_ptr<IIPCompletedEvent> Interpreter::execute(QueuedPacket const& packet,
                                                          PacketExecution& execution) {
    std::string const pluginType = packet.iip->getPluginType();
    boost::shared_ptr<PacketRunner> runner = runners_(pluginType);
    if (!runner)
        return boost::make_shared<IIPCompletedEvent>(
            packet.id, failureOf(cmddistributor::ExecutionError,
                                 "no runner for packets of plug-in type \"" + pluginType + "\"."));
    try {
        auto event = runner->run(execution);
        if (!event)
            throw std::logic_error("the runner of \"" + pluginType + "\" gave no completion.");
        return event;
    } catch (PacketInterrupted const& e) {
        return runner->failure(packet.id,
                               failureOf(cmddistributor::ExecutionInterrupted, e.what()));
    } catch (RuntimeException const& e) {
        return runner->failure(packet.id, e);
    } catch (std::exception const& e) {
        return runner->failure(packet.id, failureOf(cmddistributor::ExecutionError, e.what()));
    } catch (...) {
        return runner->failure(packet.id,
                               failureOf(cmddistributor::ExecutionError, "unknown exception."));
    }
}

void Interpreter::complete(QueuedPacket const& packet, PacketExecution const& execution,
                           boost::shared_ptr<IIPCompletedEvent> const& event) {
    try {
        auto const& bypass = packet.iip->getEventMgrBypass();
        if (bypass && *bypass) {
            // The bypass overtakes the event thread: let the packet's sink events reach their
            // sinks before its client hears that it ended (flush gives the fenn mutex up while it
            // waits, for a nested run-now packet).
            if (execution.hasWrittenOutput()) {
                try {
                    execution.getEventMgr()->flush();
                } catch (std::exception const& e) {
                    ZN_LOG(logger(), foundation::core::log::error) << "output flush: " << e.what();
                }
            }
            (*bypass)(*event);
            return;
        }
        event->setIIPWasSerialized(packet.iip->wasSerialized());
        auto manager = managerOf(packet);
        manager->publish(event, DeliverQueued);
    } catch (std::exception const& e) {
        ZN_LOG(logger(), foundation::core::log::error) << "completion: " << e.what();
    }
}

void Interpreter::discard(QueuedPacket const& packet) {
    try {
        auto const& bypass = packet.iip
                                 ? packet.iip->getEventMgrBypass()
                                 : boost::shared_ptr<::cmddistributor::IIP::EventMgrBypass>();
        if (bypass && *bypass) {
            (*bypass)(::cmddistributor::IIPDiscardedEvent(packet.id));
            return;
        }
        publishState<::cmddistributor::IIPDiscardedEvent>(
            *managerOf(packet), packet.id, packet.iip && packet.iip->wasSerialized());
    } catch (std::exception const& e) {
        ZN_LOG(logger(), foundation::core::log::error) << "discard: " << e.what();
    }
}

boost::shared_ptr<EventMgr> Interpreter::managerOf(QueuedPacket const& packet) const {
    return packet.eventMgr ? packet.eventMgr : eventMgr_;
}

void Interpreter::rememberEnded(IDType const& id) {
    if (ended_.size() < kEndedMemory) {
        ended_.push_back(id);
        return;
    }
    ended_[endedNext_] = id;
    endedNext_ = (endedNext_ + 1) % kEndedMemory;
}

bool Interpreter::hasEnded(IDType const& id) const {
    return std::find(ended_.begin(), ended_.end(), id) != ended_.end();
}

void Interpreter::noteQueueChanged() {
    hasWork_.store(stopping_ || !queue_.empty(), std::memory_order_release);
}

void Interpreter::enqueue(QueuedPacket packet) {
    {
        std::unique_lock<std::mutex> lock(mutex_);
        if (!stopping_) {
            queue_.push_back(std::move(packet));
            noteQueueChanged();
            lock.unlock();
            wake_.notify_one();
            return;
        }
        rememberEnded(packet.id);
    }
    discard(packet);
}

Interpreter::CancelOutcome Interpreter::cancel(IDType const& id, bool interrupt) {
    QueuedPacket removed;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        auto queued = std::find_if(queue_.begin(), queue_.end(),
                                   [&id](QueuedPacket const& p) { return p.id == id; });
        if (queued == queue_.end()) {
            for (auto const& running : running_) {
                if (running.first == id) {
                    if (!interrupt)
                        return NotCancelled;
                    running.second->requestInterrupt();
                    return Cancelled;
                }
            }
            return hasEnded(id) ? NotCancelled : NotFound;
        }
        removed = std::move(*queued);
        queue_.erase(queued);
        noteQueueChanged();
        rememberEnded(id);
    }
    discard(removed);
    return Cancelled;
}

Interpreter::RunNowOutcome Interpreter::runNow(IDType const& id) {
    QueuedPacket packet;
    std::shared_ptr<PacketExecution> execution;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        auto queued = std::find_if(queue_.begin(), queue_.end(),
                                   [&id](QueuedPacket const& p) { return p.id == id; });
        if (queued == queue_.end())
            return NotQueued;
        if (!isOwnThread()) {
            QueuedPacket moved = std::move(*queued);
            queue_.erase(queued);
            queue_.push_front(std::move(moved));
            return MovedToFront;
        }
        packet = std::move(*queued);
        queue_.erase(queued);
        noteQueueChanged();
        execution = foundation::core::memory::makePooledShared<PacketExecution>(
            packet.id, packet.iip, fennID_, managerOf(packet));
        running_.emplace_back(packet.id, execution);
    }
    runPacket(packet, execution);
    return RanHere;
}

void Interpreter::stop() {
    if (isOwnThread())
        throw std::logic_error("an interpreter cannot stop itself.");
    std::lock_guard<std::mutex> serial(stopMutex_);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
        noteQueueChanged();
        for (auto const& running : running_)
            running.second->requestInterrupt();
        wake_.notify_all();
    }
    if (thread_.joinable())
        thread_.join();
}

std::size_t Interpreter::queuedCount() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return queue_.size();
}

std::vector<IDType> Interpreter::queuedIds() const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<IDType> ids;
    for (auto const& packet : queue_)
        ids.push_back(packet.id);
    return ids;
}

} // namespace host
} // namespace quorl
