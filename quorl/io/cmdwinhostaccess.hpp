#pragma once
// CmdWinHostAccess: the host's door to the command-window output road. The host (and only the
// host, or a test acting as one) sets the active sink of each stream of the current context and
// installs the send function that applies paging. Same threads and failures as the functions
// it forwards to.
#include <quorl/io/activecmdwinsinkproxy.hpp>
#include <quorl/io/setsendifmoreallows.hpp>

namespace quorl {
namespace io {

class CmdWinHostAccess {
public:
    static boost::shared_ptr<VeldraSink> getCmdWinSink(StreamTypeEnum stream) {
        return ActiveCmdWinSinkProxy::getCmdWinSink(stream);
    }
    static void setCmdWinSink(StreamTypeEnum stream, boost::shared_ptr<VeldraSink> const& sink) {
        ActiveCmdWinSinkProxy::setCmdWinSink(stream, sink);
    }
    // Null restores the default send function.
    static void setSendFunction(SendFunction send) { SetSendIfMoreAllows::set(send); }
};

} // namespace io
} // namespace quorl
