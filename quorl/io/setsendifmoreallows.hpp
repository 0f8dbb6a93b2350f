#pragma once
// SetSendIfMoreAllows: the door through which the host installs the function that hands
// command-window text to the active sink, where it applies paging ("more"). Only friends call
// set; CmdWinHostAccess is the host's friend. Installing is atomic and may happen on any thread
// while others write. Throws nothing.
#include <quorl/io/activecmdwinsinkbufferproxy.hpp>

namespace quorl {
namespace io {

class CmdWinHostAccess;

class SetSendIfMoreAllows {
public:
    SetSendIfMoreAllows& operator=(SetSendIfMoreAllows const&) { return *this; }
    SetSendIfMoreAllows& operator=(SetSendIfMoreAllows&&) { return *this; }

private:
    friend class CmdWinHostAccess;
    SetSendIfMoreAllows() = default;
    // Installs `send`; null restores the default, which writes to the sink's buffer.
    static void set(SendFunction send);
};

} // namespace io
} // namespace quorl
