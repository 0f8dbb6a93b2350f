#include <foundation/msg_svc/exchange/exchangeapi.hpp>
#include <foundation/msg_svc/exchange/lanes.hpp>
#include <foundation/msg_svc/exchange/transport.hpp>

#include <boost/make_shared.hpp>
#include <boost/throw_exception.hpp>

#include <map>
#include <mutex>

namespace foundation {
namespace msg_svc {
namespace exchange {

namespace {

// Routes frames between the loopback transports of this process, on one thread of its own, so
// that a sink never runs on the sender's stack.
class LoopbackHub {
public:
    static LoopbackHub& instance() {
        static LoopbackHub* hub = new LoopbackHub; // outlives every exchange
        return *hub;
    }

    void attach(std::string const& name, TransportSink* sink) {
        std::lock_guard<std::mutex> lock(mutex_);
        if (sinks_.count(name))
            throw std::invalid_argument("a loopback transport named '" + name + "' is started");
        sinks_[name] = sink;
    }

    void detach(std::string const& name) {
        std::vector<std::string> peers;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (!sinks_.erase(name))
                return;
            for (auto& s : sinks_)
                peers.push_back(s.first);
        }
        // Wait until no call into the detached sink runs (unless we are that call).
        if (!lane_.onLaneThread()) {
            std::lock_guard<std::mutex> calling(callMutex_);
        }
        auto gone = boost::copy_exception(DeliveryError("exchange '" + name + "' stopped"));
        for (auto const& peer : peers) {
            lane_.post([this, peer, name, gone] {
                call(peer, [&](TransportSink& s) { s.peerFailed(name, gone); });
            });
        }
    }

    void send(std::string const& from, std::string const& to, std::string&& bytes) {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (!sinks_.count(to))
                boost::throw_exception(
                    DeliveryError("no exchange named '" + to + "' in this process"));
        }
        // Shared, so that the receiver may keep parts of it.
        auto frame = boost::make_shared<std::string const>(std::move(bytes));
        lane_.post([this, from, to, frame] {
            if (!call(to, [&](TransportSink& s) {
                    s.receiveHeldFrame(from, frame, frame->data(), frame->size());
                })) {
                // The receiver went away after the send: tell the sender.
                auto e = boost::copy_exception(DeliveryError("exchange '" + to + "' stopped"));
                call(from, [&](TransportSink& s) { s.peerFailed(to, e); });
            }
        });
    }

private:
    template <class F> bool call(std::string const& name, F f) {
        std::lock_guard<std::mutex> calling(callMutex_);
        TransportSink* sink;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            auto it = sinks_.find(name);
            if (it == sinks_.end())
                return false;
            sink = it->second;
        }
        f(*sink);
        return true;
    }

    std::mutex mutex_;     // guards sinks_
    std::mutex callMutex_; // held while a sink is called
    std::map<std::string, TransportSink*> sinks_;
    detail::SerialLane lane_;
};

class LoopbackTransport : public Transport {
public:
    void start(std::string const& ownName, TransportSink& sink) override {
        LoopbackHub::instance().attach(ownName, &sink);
        name_ = ownName;
    }
    void send(std::string const& to, std::string const& frame) override {
        LoopbackHub::instance().send(name_, to, std::string(frame));
    }
    void sendOwned(std::string const& to, std::string&& frame) override {
        LoopbackHub::instance().send(name_, to, std::move(frame));
    }
    void stop() override {
        if (!name_.empty())
            LoopbackHub::instance().detach(name_);
        name_.clear();
    }

private:
    std::string name_;
};

} // namespace

boost::shared_ptr<Transport> makeLoopbackTransport() {
    return boost::make_shared<LoopbackTransport>();
}

} // namespace exchange
} // namespace msg_svc
} // namespace foundation
