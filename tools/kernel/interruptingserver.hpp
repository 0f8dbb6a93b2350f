#pragma once
// InterruptingServer: a xeus server that wraps another one and calls a handler as soon as an
// interrupt_request arrives on the control channel, before xeus answers it. xeus's own answer
// does not reach the interpreter; this is how the running request gets cancelled while the
// shell thread is busy with it. Everything else is passed through unchanged.
//
// Ownership: owns the wrapped server. Threads: as the wrapped server; the handler runs on the
// control thread and must not block for long.
#include <xeus/xserver.hpp>

#include <functional>
#include <memory>

namespace quorl {
namespace kernel {

class InterruptingServer : public xeus::xserver {
public:
    InterruptingServer(std::unique_ptr<xeus::xserver> inner, std::function<void()> onInterrupt);

private:
    xeus::xcontrol_messenger& get_control_messenger_impl() override;
    void send_shell_impl(xeus::xmessage message) override;
    void send_control_impl(xeus::xmessage message) override;
    void send_stdin_impl(xeus::xmessage message) override;
    void publish_impl(xeus::xpub_message message, xeus::channel c) override;
    void start_impl(xeus::xpub_message message) override;
    void abort_queue_impl(listener const& l, long polling_interval) override;
    void stop_impl() override;
    void update_config_impl(xeus::xconfiguration& config) const override;

    std::unique_ptr<xeus::xserver> inner_;
    std::function<void()> onInterrupt_;
};

} // namespace kernel
} // namespace quorl
