#include <tools/kernel/interruptingserver.hpp>

namespace quorl {
namespace kernel {

InterruptingServer::InterruptingServer(std::unique_ptr<xeus::xserver> inner,
                                       std::function<void()> onInterrupt)
    : inner_(std::move(inner)), onInterrupt_(std::move(onInterrupt)) {
    // The wrapped server hands every message to us; xeus registers its listeners on us.
    inner_->register_shell_listener(
        [this](xeus::xmessage m) { notify_shell_listener(std::move(m)); });
    inner_->register_stdin_listener(
        [this](xeus::xmessage m) { notify_stdin_listener(std::move(m)); });
    inner_->register_internal_listener(
        [this](nl::json m) { return notify_internal_listener(std::move(m)); });
    inner_->register_control_listener([this](xeus::xmessage m) {
        if (m.header().value("msg_type", std::string()) == "interrupt_request" && onInterrupt_) {
            onInterrupt_();
        }
        notify_control_listener(std::move(m));
    });
}

xeus::xcontrol_messenger& InterruptingServer::get_control_messenger_impl() {
    return inner_->get_control_messenger();
}

void InterruptingServer::send_shell_impl(xeus::xmessage message) {
    inner_->send_shell(std::move(message));
}

void InterruptingServer::send_control_impl(xeus::xmessage message) {
    inner_->send_control(std::move(message));
}

void InterruptingServer::send_stdin_impl(xeus::xmessage message) {
    inner_->send_stdin(std::move(message));
}

void InterruptingServer::publish_impl(xeus::xpub_message message, xeus::channel c) {
    inner_->publish(std::move(message), c);
}

void InterruptingServer::start_impl(xeus::xpub_message message) {
    inner_->start(std::move(message));
}

void InterruptingServer::abort_queue_impl(listener const& l, long polling_interval) {
    inner_->abort_queue(l, polling_interval);
}

void InterruptingServer::stop_impl() {
    inner_->stop();
}

void InterruptingServer::update_config_impl(xeus::xconfiguration& config) const {
    inner_->update_config(config);
}

} // namespace kernel
} // namespace quorl
