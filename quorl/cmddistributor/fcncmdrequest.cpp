#include <quorl/cmddistributor/fcncmdrequest.hpp>

#include <foundation/core/memory/poolallocator.hpp>

#include <boost/thread/future.hpp>

namespace cmddistributor {

namespace {
// The packet's function. A named class rather than a lambda so that std::function, which keeps
// it on the heap, takes it from the pool.
struct VoidTask : foundation::core::memory::PoolAllocated {
    boost::function<void()> func;
    explicit VoidTask(boost::function<void()>&& f) : func(std::move(f)) {}
    boost::any operator()() const {
        func();
        return boost::any(
            foundation::core::memory::makePooledBoostShared<boost::unique_future<void>>());
    }
};
} // namespace

FcnCmdRequest<void>::FcnCmdRequest(boost::function<void()> func,
                                   boost::shared_ptr<quorl::io::VeldraSink> const& outputSink,
                                   boost::shared_ptr<quorl::io::VeldraSink> const& errorSink)
    : CmdRequest(UnsetIqmStreamID, outputSink, errorSink) {
    if (func.empty())
        func = [] {};
    iip_ = foundation::core::memory::makePooledBoostShared<PackagedTaskIIP>(
        VoidTask{std::move(func)}, getOutputSink(), getErrorSink());
}

FcnCmdRequest<void>::~FcnCmdRequest() = default;

boost::shared_ptr<IIP> FcnCmdRequest<void>::createIIP() {
    return iip_;
}

} // namespace cmddistributor
