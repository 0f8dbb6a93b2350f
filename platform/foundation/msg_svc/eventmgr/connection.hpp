#pragma once
// Connection: the handle of one subscription; destroying it (or calling disconnect) ends the
// subscription. It may be destroyed on any thread, including inside its own callback; after
// that the callback is not called again, except for a call already running on the event thread.
// ScopedConnection owns one Connection.
#include <memory>

namespace foundation {
namespace msg_svc {
namespace eventmgr {

class Connection {
public:
    virtual ~Connection();
    virtual void disconnect() = 0;
    virtual bool connected() const = 0;
};

class ScopedConnection {
public:
    ScopedConnection() = default;
    explicit ScopedConnection(std::unique_ptr<Connection> c) : connection_(std::move(c)) {}
    ScopedConnection(ScopedConnection&&) = default;
    ScopedConnection& operator=(ScopedConnection&&) = default;
    virtual ~ScopedConnection();

    // Ends the current subscription, if any, and takes `c`.
    void assign(std::unique_ptr<Connection> c);
    void swap(ScopedConnection& other) { connection_.swap(other.connection_); }
    void reset() { assign(nullptr); }
    bool connected() const { return connection_ && connection_->connected(); }

private:
    std::unique_ptr<Connection> connection_;
};

} // namespace eventmgr
} // namespace msg_svc
} // namespace foundation
