#pragma once
// Interpreter: the interpreter thread of one runtime context (FennID). The thread lives inside
// its own usm context, whose IDs, active event manager and current request id it sets, and runs
// the packets queued on it one after another, each under the fenn mutex, by the PacketRunner of
// the packet's plug-in type. For each packet it publishes the started state event, runs it, and
// completes it: through the packet's EventMgrBypass when one is set (client in this process),
// otherwise by publishing the completion on the packet's event manager. Either way the packet's
// output reaches its client first: the completion event follows the sink events on the same
// manager, and a completion through the bypass waits until they are delivered. A packet that leaves
// the queue without running (cancel, stop) is discarded the same way.
//
// Ownership: the Host owns interpreters through shared pointers; an interpreter owns its thread,
// its context and the queued packets. Threads: enqueue, cancel, runNow and stop may be called
// from any thread (a mutex guards the queue and the running packets); runNow runs the packet at
// once only when called on this interpreter's own thread. stop() must not be called from the
// interpreter's own thread (std::logic_error). Runners' exceptions never leave the thread: they
// become failed completions.
#include <quorl/host/packetexecution.hpp>
#include <quorl/host/packetrunner.hpp>

#include <quorl/cmddistributor/iip.hpp>
#include <quorl/cmddistributor/iipcancelreply.hpp>
#include <quorl/cmddistributor/whentodequeue.hpp>
#include <quorl/contextmgr/fennid.hpp>
#include <quorl/contextmgr/tarnid.hpp>

#include <foundation/msg_svc/eventmgr/eventmgr.hpp>
#include <foundation/msg_svc/exchange/idtype.hpp>
#include <foundation/usm/context.hpp>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace quorl {
namespace host {

// A packet waiting for its turn, with what the enqueue message said about it.
struct QueuedPacket {
    foundation::msg_svc::exchange::IDType id;
    boost::shared_ptr<::cmddistributor::IIP> iip;
    // Where its events go; null for a packet that came over a wire (the interpreter's own
    // manager is used then).
    boost::shared_ptr<foundation::msg_svc::eventmgr::EventMgr> eventMgr;
    cmddistributor::WhenToDequeue::WhenToDequeue when =
        cmddistributor::WhenToDequeue::DequeueDefault;
    bool hasFuture = false;
};

class Interpreter {
public:
    typedef std::function<boost::shared_ptr<PacketRunner>(std::string const& pluginType)>
        RunnerLookup;

    // What a cancel did: the status that IIPCancelReply carries back, as it is.
    typedef ::cmddistributor::IIPCancelReply::CancelStatus CancelOutcome;
    static constexpr CancelOutcome NotFound = ::cmddistributor::IIPCancelReply::CancelNotFound;
    static constexpr CancelOutcome NotCancelled =
        ::cmddistributor::IIPCancelReply::CancelNotCancelled;
    static constexpr CancelOutcome Cancelled = ::cmddistributor::IIPCancelReply::CancelAccepted;
    enum RunNowOutcome { NotQueued, RanHere, MovedToFront };

    // Starts the thread and returns once it is inside its context.
    Interpreter(contextmgr::FennID fennID, contextmgr::TarnID tarnID, RunnerLookup runners);
    // Stops the interpreter if that was not done yet.
    ~Interpreter();
    Interpreter(Interpreter const&) = delete;
    Interpreter& operator=(Interpreter const&) = delete;

    // Queues a packet. Every WhenToDequeue value runs in order of arrival here. After stop the
    // packet is discarded at once.
    void enqueue(QueuedPacket packet);

    // A queued packet is discarded (NotCancelled if it already ran or was discarded); a running
    // one is interrupted at its next safe point when `interrupt` is true (Cancelled), else left
    // alone (NotCancelled); an unknown id is NotFound.
    CancelOutcome cancel(foundation::msg_svc::exchange::IDType const& id, bool interrupt);

    // On this interpreter's thread: runs the queued packet now, nested in the running one.
    // On any other thread: moves it to the head of the queue.
    RunNowOutcome runNow(foundation::msg_svc::exchange::IDType const& id);

    // Stops taking packets, interrupts the running one at its next safe point, discards what is
    // queued and joins the thread. It waits for the running packet: one without safe points (a
    // packaged task) runs to its end first.
    void stop();

    bool isOwnThread() const { return std::this_thread::get_id() == threadId_; }
    contextmgr::FennID getFennID() const { return fennID_; }
    // The context's own manager (the active event manager inside the context).
    boost::shared_ptr<foundation::msg_svc::eventmgr::EventMgr> const& getEventMgr() const {
        return eventMgr_;
    }
    // Packets waiting, and their ids in queue order (snapshots).
    std::size_t queuedCount() const;
    std::vector<foundation::msg_svc::exchange::IDType> queuedIds() const;

private:
    void threadMain(std::promise<void>& ready);
    void runPacket(QueuedPacket const& packet, std::shared_ptr<PacketExecution> const& execution);
    boost::shared_ptr<::cmddistributor::IIPCompletedEvent> execute(QueuedPacket const& packet,
                                                                   PacketExecution& execution);
    void complete(QueuedPacket const& packet, PacketExecution const& execution,
                  boost::shared_ptr<::cmddistributor::IIPCompletedEvent> const& event);
    void discard(QueuedPacket const& packet);
    boost::shared_ptr<foundation::msg_svc::eventmgr::EventMgr>
    managerOf(QueuedPacket const& packet) const;
    void rememberEnded(foundation::msg_svc::exchange::IDType const& id);  // with mutex_ held
    bool hasEnded(foundation::msg_svc::exchange::IDType const& id) const; // with mutex_ held
    void noteQueueChanged();                                              // with mutex_ held

    contextmgr::FennID const fennID_;
    contextmgr::TarnID const tarnID_;
    RunnerLookup const runners_;
    std::shared_ptr<foundation::usm::Context> context_;
    boost::shared_ptr<foundation::msg_svc::eventmgr::EventMgr> eventMgr_;

    mutable std::mutex mutex_; // guards the fields down to endedNext_
    std::condition_variable wake_;
    std::deque<QueuedPacket> queue_;
    // The packets running on the thread, innermost (run-now) last.
    std::vector<std::pair<foundation::msg_svc::exchange::IDType, std::shared_ptr<PacketExecution>>>
        running_;
    bool stopping_ = false;
    // Ids of packets that ran or were discarded: the latest ended packets, oldest overwritten
    // first. Remembering is the common case (every packet) and must not allocate; looking up
    // happens only for a cancel, so a scan will do.
    std::vector<foundation::msg_svc::exchange::IDType> ended_;
    std::size_t endedNext_ = 0;
    // Whether there is a packet to take or a stop to obey, readable without the lock so that the
    // thread can poll it before sleeping.
    std::atomic<bool> hasWork_{false};

    std::mutex stopMutex_; // serializes stop()
    std::thread thread_;
    std::thread::id threadId_;
};

} // namespace host
} // namespace quorl
