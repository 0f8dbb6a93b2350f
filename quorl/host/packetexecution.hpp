#pragma once
// PacketExecution: one packet while it runs on an interpreter thread, as its runner sees it: the
// packet and its id, where its output goes, and the safe points at which it can be interrupted
// and at which the interpreter lets other threads take the fenn mutex.
//
// Made by the interpreter on its own thread for the length of one run; a runner must not keep it.
// Every operation but requestInterrupt() and isInterruptRequested() belongs to the interpreter
// thread. safePoint() throws PacketInterrupted once an interrupt was requested; output() passes
// on what the event manager throws.
#include <quorl/cmddistributor/iip.hpp>
#include <quorl/contextmgr/fennid.hpp>
#include <quorl/io/streamtypeenum.hpp>

#include <fl/i18n/ustring.hpp>
#include <foundation/msg_svc/eventmgr/eventmgr.hpp>
#include <foundation/msg_svc/exchange/idtype.hpp>

#include <boost/shared_ptr.hpp>

#include <atomic>

namespace quorl {
namespace host {

class PacketExecution {
public:
    PacketExecution(foundation::msg_svc::exchange::IDType const& id,
                    boost::shared_ptr<::cmddistributor::IIP> iip, contextmgr::FennID fennID,
                    boost::shared_ptr<foundation::msg_svc::eventmgr::EventMgr> eventMgr);
    PacketExecution(PacketExecution const&) = delete;
    PacketExecution& operator=(PacketExecution const&) = delete;

    foundation::msg_svc::exchange::IDType const& getId() const { return id_; }
    boost::shared_ptr<::cmddistributor::IIP> const& getIIP() const { return iip_; }
    contextmgr::FennID getFennID() const { return fennID_; }
    // The manager on which this packet's events are published.
    boost::shared_ptr<foundation::msg_svc::eventmgr::EventMgr> const& getEventMgr() const {
        return eventMgr_;
    }

    // Sends text of the packet to its client as an IIPSinkEvent (to whoever watches).
    void output(io::StreamTypeEnum stream, ustring const& text) const;
    // Whether output() was called: the completion must then wait until that text is delivered.
    bool hasWrittenOutput() const { return wroteOutput_; }

    // Throws PacketInterrupted if an interrupt was requested; otherwise gives the fenn mutex up
    // for a moment, so that waiting threads (and event handlers that need it) get their turn.
    void safePoint() const;

    // Any thread: asks the packet to stop at its next safe point.
    void requestInterrupt() { interrupt_.store(true); }
    bool isInterruptRequested() const { return interrupt_.load(); }
    // The flag itself, for code that polls it at its own safe points (any thread may set it).
    std::atomic<bool> const& interruptFlag() const { return interrupt_; }

private:
    foundation::msg_svc::exchange::IDType id_;
    boost::shared_ptr<::cmddistributor::IIP> iip_;
    contextmgr::FennID fennID_;
    boost::shared_ptr<foundation::msg_svc::eventmgr::EventMgr> eventMgr_;
    std::atomic<bool> interrupt_{false};
    mutable bool wroteOutput_ = false; // the interpreter thread's only
};

} // namespace host
} // namespace quorl
