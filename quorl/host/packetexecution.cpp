#include <quorl/host/packetexecution.hpp>
#include <quorl/host/packetinterrupted.hpp>

#include <quorl/cmddistributor/iipsinkevent.hpp>
#include <quorl/utils/fennmutex.hpp>

#include <foundation/msg_svc/threadutil/releasecountedmutexguard.hpp>

#include <thread>

namespace quorl {
namespace host {

PacketExecution::PacketExecution(
    foundation::msg_svc::exchange::IDType const& id, boost::shared_ptr<::cmddistributor::IIP> iip,
    contextmgr::FennID fennID, boost::shared_ptr<foundation::msg_svc::eventmgr::EventMgr> eventMgr)
    : id_(id), iip_(std::move(iip)), fennID_(fennID), eventMgr_(std::move(eventMgr)) {}

void PacketExecution::output(io::StreamTypeEnum stream, ustring const& text) const {
    wroteOutput_ = true;
    if (eventMgr_)
        eventMgr_->notifyIfWatched<::cmddistributor::IIPSinkEvent>(
            foundation::msg_svc::eventmgr::DeliverQueued, id_, stream, text);
}

void PacketExecution::safePoint() const {
    if (interrupt_.load())
        throw PacketInterrupted();
    foundation::msg_svc::threadutil::ReleaseCountedMutexGuard release(utils::getFennMutex());
    if (release.releasedDepth())
        std::this_thread::yield();
}

} // namespace host
} // namespace quorl
