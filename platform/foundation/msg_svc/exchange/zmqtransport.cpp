#include <foundation/msg_svc/exchange/zmqtransport.hpp>

#include <foundation/msg_svc/exchange/exchangeapi.hpp>
#include <foundation/msg_svc/exchange/lanes.hpp>
#include <foundation/msg_svc/exchange/replyspin.hpp>

#include <foundation/core/log/diagnosticlogger.hpp>

#include <boost/enable_shared_from_this.hpp>
#include <boost/make_shared.hpp>
#include <boost/throw_exception.hpp>

#include <zmq.hpp>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <mutex>
#include <poll.h>
#include <set>
#include <sstream>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <vector>

namespace foundation {
namespace msg_svc {
namespace exchange {

namespace log = foundation::core::log;

namespace {

log::diagnostic_logger& logger() {
    static log::diagnostic_logger l("foundation::msg_svc::exchange::zmq");
    return l;
}

typedef std::chrono::steady_clock Clock;

std::string env(char const* name) {
    char const* v = std::getenv(name);
    return v ? v : "";
}

bool startsWith(std::string const& s, char const* prefix) {
    return s.compare(0, std::strlen(prefix), prefix) == 0;
}

bool isTcp(std::string const& name) {
    return startsWith(name, "tcp://");
}

std::string systemError(std::string const& what) {
    return what + ": " + std::strerror(errno);
}

std::string octal(unsigned mode) {
    std::ostringstream os;
    os << '0' << std::oct << (mode & 07777);
    return os.str();
}

// Makes `dir` if it is missing (mode 0700, parents too); throws unless it is a directory of
// ours that nobody else may use.
void ensurePrivateDirectory(std::string const& dir) {
    if (::mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) {
        auto slash = dir.find_last_of('/');
        if (errno != ENOENT || slash == std::string::npos || slash == 0)
            throw std::runtime_error(systemError("cannot make directory '" + dir + "'"));
        ensurePrivateDirectory(dir.substr(0, slash));
        if (::mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST)
            throw std::runtime_error(systemError("cannot make directory '" + dir + "'"));
    }
    struct stat st;
    if (::lstat(dir.c_str(), &st) != 0)
        throw std::runtime_error(systemError("cannot inspect directory '" + dir + "'"));
    if (!S_ISDIR(st.st_mode))
        throw std::runtime_error("'" + dir + "' is not a directory");
    if (st.st_uid != ::geteuid())
        throw std::runtime_error("directory '" + dir + "' belongs to another user");
    if (st.st_mode & 077)
        throw std::runtime_error("directory '" + dir + "' must be of mode 0700 (it is " +
                                 octal(st.st_mode) + ")");
}

std::string parentOf(std::string const& path) {
    auto slash = path.find_last_of('/');
    if (slash == std::string::npos)
        return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

std::string readSmallFile(std::string const& path, struct stat* info) {
    int fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0)
        throw std::runtime_error(systemError("cannot read key file '" + path + "'"));
    std::string text;
    char buf[1024];
    ssize_t n;
    if (info && ::fstat(fd, info) != 0) {
        ::close(fd);
        throw std::runtime_error(systemError("cannot inspect key file '" + path + "'"));
    }
    while ((n = ::read(fd, buf, sizeof buf)) > 0 && text.size() < 16384)
        text.append(buf, static_cast<std::size_t>(n));
    ::close(fd);
    return text;
}

void writeFile(std::string const& path, std::string const& text, mode_t mode, bool exclusive) {
    int flags = O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC | (exclusive ? O_EXCL : O_TRUNC);
    int fd = ::open(path.c_str(), flags, mode);
    if (fd < 0)
        throw std::runtime_error(systemError("cannot write '" + path + "'"));
    bool ok = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    ok = ::fsync(fd) == 0 && ok;
    ::close(fd);
    if (!ok)
        throw std::runtime_error(systemError("cannot write '" + path + "'"));
}

bool isZ85Key(std::string const& key) {
    std::uint8_t raw[32];
    return key.size() == 40 && zmq_z85_decode(raw, key.c_str()) != nullptr;
}

// The value of the line "NAME=VALUE" in a key file.
std::string keyLine(std::string const& text, std::string const& name) {
    std::istringstream is(text);
    std::string line;
    while (std::getline(is, line)) {
        while (!line.empty() && (line.back() == '\r' || line.back() == ' '))
            line.pop_back();
        if (startsWith(line, (name + "=").c_str()))
            return line.substr(name.size() + 1);
    }
    return std::string();
}

std::atomic<unsigned> monitorSerial{0};

} // namespace

bool isZmqEndpoint(std::string const& name) {
    return (startsWith(name, "ipc://") || startsWith(name, "tcp://")) && name.size() > 6;
}

std::string ipcPathOf(std::string const& endpoint, std::string const& ipcDirectory) {
    std::string path = endpoint.substr(6);
    if (!path.empty() && path[0] == '/')
        return path;
    std::string dir = ipcDirectory;
    if (dir.empty()) {
        std::string runtime = env("XDG_RUNTIME_DIR");
        dir = runtime.empty() ? "/tmp/quorl-" + std::to_string(::geteuid()) : runtime + "/quorl";
    }
    return dir + "/" + path;
}

std::string defaultKeyFile() {
    std::string file = env("QUORL_KEY_FILE");
    if (!file.empty())
        return file;
    std::string config = env("XDG_CONFIG_HOME");
    if (config.empty()) {
        std::string home = env("HOME");
        if (home.empty())
            throw std::runtime_error("no key file given and HOME is not set");
        config = home + "/.config";
    }
    return config + "/quorl/server.key";
}

CurveKeyPair loadOrCreateKeyFile(std::string const& path) {
    CurveKeyPair keys;
    struct stat st;
    if (::lstat(path.c_str(), &st) != 0 && errno == ENOENT) {
        std::string const dir = parentOf(path);
        if (::access(dir.c_str(), F_OK) != 0)
            ensurePrivateDirectory(dir);
        char pub[41], sec[41];
        if (zmq_curve_keypair(pub, sec) != 0)
            throw std::runtime_error("this ZeroMQ cannot make CURVE keys");
        keys.publicKey = pub;
        keys.secretKey = sec;
        try {
            writeFile(path,
                      "# quorl CURVE key pair: keep private\npublic=" + keys.publicKey +
                          "\nsecret=" + keys.secretKey + "\n",
                      0600, true);
        } catch (std::runtime_error const&) {
            if (errno != EEXIST)
                throw;
            return loadOrCreateKeyFile(path); // made by someone else meanwhile
        }
    } else {
        std::string const text = readSmallFile(path, &st);
        if (st.st_uid != ::geteuid())
            throw std::runtime_error("key file '" + path + "' belongs to another user");
        if (st.st_mode & 077)
            throw std::runtime_error("key file '" + path + "' must be of mode 0600 (it is " +
                                     octal(st.st_mode) + ")");
        keys.publicKey = keyLine(text, "public");
        keys.secretKey = keyLine(text, "secret");
        if (!isZ85Key(keys.publicKey) || !isZ85Key(keys.secretKey))
            throw std::runtime_error("key file '" + path + "' holds no valid CURVE key pair");
    }
    std::string const pubPath = path + ".pub";
    std::string const tmp = pubPath + ".tmp" + std::to_string(::getpid());
    writeFile(tmp, "public=" + keys.publicKey + "\n", 0644, false);
    if (::rename(tmp.c_str(), pubPath.c_str()) != 0)
        throw std::runtime_error(systemError("cannot write '" + pubPath + "'"));
    return keys;
}

std::string readPublicKeyFile(std::string const& path) {
    std::string const text = readSmallFile(path, nullptr);
    std::string key = keyLine(text, "public");
    if (key.empty()) {
        key = text;
        while (!key.empty() && std::isspace(static_cast<unsigned char>(key.back())))
            key.pop_back();
    }
    if (!isZ85Key(key))
        throw std::runtime_error("'" + path + "' holds no CURVE public key");
    return key;
}

namespace {

// Threads of transports stopped from one of their own threads, which end on their own shortly
// after. They are joined by the next thread that makes or stops a transport (or at exit), rather
// than detached, so that what they did last is seen to have happened by the threads that go on.
class EndingThreads {
public:
    ~EndingThreads() { joinOthers(); }
    void add(std::thread&& t) {
        std::lock_guard<std::mutex> lock(mutex_);
        threads_.push_back(std::move(t));
    }
    void joinOthers() {
        std::vector<std::thread> ending;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            for (auto it = threads_.begin(); it != threads_.end();) {
                if (it->get_id() == std::this_thread::get_id()) {
                    ++it;
                    continue;
                }
                ending.push_back(std::move(*it));
                it = threads_.erase(it);
            }
        }
        for (auto& t : ending)
            detail::finish(t);
    }

private:
    std::mutex mutex_;
    std::vector<std::thread> threads_;
};

EndingThreads& endingThreads() {
    static EndingThreads threads;
    return threads;
}

class ZmqTransport : public Transport, public boost::enable_shared_from_this<ZmqTransport> {
public:
    explicit ZmqTransport(ZmqTransportOptions options) : options_(std::move(options)) {}

    ~ZmqTransport() override { stop(); }

    void start(std::string const& ownName, TransportSink& sink) override {
        if (started_)
            throw std::logic_error("a ZeroMQ transport starts once");
        if (ownName.empty() || ownName.size() > 255)
            throw std::invalid_argument("an exchange on ZeroMQ needs a name of 1 to 255 bytes");
        name_ = ownName;
        sink_ = &sink;
        char pub[41], sec[41];
        if (zmq_curve_keypair(pub, sec) == 0) {
            clientKeys_.publicKey = pub;
            clientKeys_.secretKey = sec;
        }
        wake_ = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
        if (wake_ < 0)
            throw std::runtime_error(systemError("eventfd"));
        try {
            if (isZmqEndpoint(name_))
                bind();
        } catch (...) {
            closeAll();
            throw;
        }
        std::lock_guard<std::mutex> lock(mutex_);
        started_ = true;
        threads_.emplace_back([this] { run(); });
    }

    void send(std::string const& to, std::string const& frame) override {
        std::string copy = frame;
        sendOwned(to, std::move(copy));
    }

    // The calling thread hands the frame to the peer's socket itself (under the socket lock),
    // so that a frame does not wait for the I/O thread to wake up. Only what the I/O thread must
    // act on (a new connection to poll, a failure to report, input the send has seen) wakes it.
    void sendOwned(std::string const& to, std::string&& frame) override {
        checkFrame(to, frame);
        std::lock_guard<std::mutex> lock(mutex_);
        checkRunning();
        if (sendWithHeld(to, std::move(frame)))
            wake(); // under the lock: closeAll may not close the descriptor meanwhile
    }

    // A frame given by a delivery the reading thread runs waits until that thread has polled
    // briefly for more input (or has none to poll for), unless a frame to the same peer goes
    // first: an answer then leaves with what its delivery started (an enqueued packet's events,
    // say) in one send. Any other thread sends at once.
    void sendSoon(std::string const& to, std::string&& frame) override {
        checkFrame(to, frame);
        std::lock_guard<std::mutex> lock(mutex_);
        checkRunning();
        if (leader_ == std::this_thread::get_id() && options_.pollAfterInput.count() > 0) {
            held_.emplace_back(to, std::move(frame));
            holding_.store(true, std::memory_order_release);
            return;
        }
        if (sendWithHeld(to, std::move(frame)))
            wake();
    }

    void stop() override {
        std::vector<std::thread> threads;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (stopping_)
                return;
            try {
                sendHeld();
            } catch (std::exception const& e) {
                ZN_LOG(logger(), log::warning) << name_ << ": frames lost at stop: " << e.what();
            }
            stopping_ = true;
            if (threads_.empty()) {
                closeAll();
                return;
            }
            wake();
            threads.swap(threads_);
            for (auto const& t : threads)
                if (t.get_id() == std::this_thread::get_id())
                    closer_ = t.get_id();
        }
        followers_.notify_all();
        for (auto& t : threads) {
            if (t.get_id() != std::this_thread::get_id()) {
                t.join();
                continue;
            }
            // Called from a sink call or a delivery on one of our threads: that thread closes the
            // sockets when it leaves its loop; keep this alive until then. Whoever makes or stops
            // a transport next joins it.
            keepAlive_ = shared_from_this();
            endingThreads().add(std::move(t));
        }
        endingThreads().joinOthers();
        std::lock_guard<std::mutex> lock(mutex_);
        if (closer_ == std::thread::id())
            closeAll();
    }

    std::vector<std::string> peers() const {
        std::lock_guard<std::mutex> lock(peersMutex_);
        return std::vector<std::string>(known_.begin(), known_.end());
    }

private:
    // Frames sent as the parts of one message.
    using Batch = std::vector<std::string>;
    static constexpr std::size_t kMaxBatch = 64;

    struct Peer {
        std::string name;
        zmq::socket_t dealer;
        int dealerFd = -1; // signals that the dealer may have changed state
        zmq::socket_t monitor;
        bool ready = false;
        Clock::time_point deadline;
        boost::exception_ptr failure; // set: to be dropped at the end of the loop's turn
    };

    void checkFrame(std::string const& to, std::string const& frame) const {
        if (static_cast<std::int64_t>(frame.size()) > options_.maxFrameSize)
            boost::throw_exception(FrameRefused(
                "a frame of " + std::to_string(frame.size()) + " bytes exceeds the limit of " +
                std::to_string(options_.maxFrameSize) + " bytes for exchange '" + to + "'"));
        if (frame.empty())
            boost::throw_exception(FrameRefused("an empty frame cannot be sent"));
    }

    // Under mutex_.
    void checkRunning() const {
        if (!started_ || stopping_)
            boost::throw_exception(
                DeliveryError("the transport of exchange '" + name_ + "' is stopped"));
    }

    // Hands frames for one peer to its socket (under mutex_); true if the reading thread must
    // look at the sockets again: any operation on a socket may consume the signal of input that
    // arrived meanwhile, which the reading thread would then not see on the socket's descriptor.
    bool sendChecked(std::string const& to, Batch&& frames) {
        std::size_t const peersBefore = peers_.size();
        Peer* used = dispatch(to, std::move(frames));
        return !failed_.empty() || peers_.size() != peersBefore ||
               (used && (used->failure || hasInput(used->dealer))) ||
               (!used && router_ && hasInput(router_));
    }

    // Sends `frame` after the frames held for `to`, with them (under mutex_); true as
    // sendChecked.
    bool sendWithHeld(std::string const& to, std::string&& frame) {
        bool lookAgain = false;
        Batch frames = takeHeld(to);
        while (frames.size() >= kMaxBatch) {
            lookAgain |= sendChecked(to, std::move(frames));
            frames = takeHeld(to);
        }
        frames.push_back(std::move(frame));
        return sendChecked(to, std::move(frames)) || lookAgain;
    }

    // Takes up to kMaxBatch of the frames held for `to`, oldest first (under mutex_).
    Batch takeHeld(std::string const& to) {
        Batch frames;
        if (!holding_.load(std::memory_order_relaxed))
            return frames;
        std::string const peer = to; // `to` may be a held entry's own name
        auto kept = held_.begin();
        for (auto it = held_.begin(); it != held_.end(); ++it) {
            if (it->first != peer || frames.size() >= kMaxBatch) {
                if (kept != it)
                    *kept = std::move(*it);
                ++kept;
                continue;
            }
            frames.push_back(std::move(it->second));
        }
        held_.erase(kept, held_.end());
        holding_.store(!held_.empty(), std::memory_order_relaxed);
        return frames;
    }

    // Sends every held frame (under mutex_); true as sendChecked.
    bool sendHeld() {
        bool lookAgain = false;
        while (!held_.empty()) {
            std::string const to = held_.front().first;
            lookAgain |= sendChecked(to, takeHeld(to));
        }
        return lookAgain;
    }

    // sendHeld from the reading thread, which does not hold `lock`.
    bool sendHeldUnlocked(std::unique_lock<std::mutex>& lock) {
        lock.lock();
        bool lookAgain = true;
        try {
            lookAgain = sendHeld();
        } catch (std::exception const& e) {
            ZN_LOG(logger(), log::error) << name_ << ": transport error: " << e.what();
        }
        lock.unlock();
        return lookAgain;
    }

    void wake() {
        if (wake_ < 0)
            return;
        std::uint64_t one = 1;
        ssize_t n = ::write(wake_, &one, sizeof one);
        (void)n; // a full counter still wakes the loop
    }

    void configureCommon(zmq::socket_t& s) {
        s.set(zmq::sockopt::linger, 0);
        s.set(zmq::sockopt::sndhwm, 0);
        s.set(zmq::sockopt::rcvhwm, 0);
        s.set(zmq::sockopt::maxmsgsize, options_.maxFrameSize);
    }

    // Both sides send heartbeats, and any message received counts as an answer. A connecting
    // side gives up on a binding peer after `heartbeatTimeout` of silence; a binding side waits
    // `peerHeartbeatTimeout`, since the answers of a peer sending it a large frame queue behind
    // that frame.
    void configureHeartbeats(zmq::socket_t& s, std::chrono::milliseconds patience,
                             std::chrono::milliseconds peerPatience) {
        s.set(zmq::sockopt::heartbeat_ivl, static_cast<int>(options_.heartbeatInterval.count()));
        s.set(zmq::sockopt::heartbeat_timeout, static_cast<int>(patience.count()));
        s.set(zmq::sockopt::heartbeat_ttl, static_cast<int>(peerPatience.count()));
    }

    zmq::socket_t monitorOf(zmq::socket_t& s, int events) {
        std::string const ep = "inproc://quorl-monitor-" + std::to_string(::getpid()) + "-" +
                               std::to_string(monitorSerial++);
        if (zmq_socket_monitor(s.handle(), ep.c_str(), events) != 0)
            throw std::runtime_error(systemError("cannot monitor a socket"));
        zmq::socket_t m(context_, ZMQ_PAIR);
        m.set(zmq::sockopt::linger, 0);
        m.connect(ep);
        return m;
    }

    void bind() {
        router_ = zmq::socket_t(context_, ZMQ_ROUTER);
        configureCommon(router_);
        configureHeartbeats(router_, options_.peerHeartbeatTimeout, options_.heartbeatTimeout);
        router_.set(zmq::sockopt::router_mandatory, 1);
        router_.set(zmq::sockopt::router_handover, 1);
        std::string endpoint = name_;
        if (isTcp(name_)) {
            if (options_.curve) {
                std::string const file =
                    options_.keyFile.empty() ? defaultKeyFile() : options_.keyFile;
                CurveKeyPair keys = loadOrCreateKeyFile(file);
                router_.set(zmq::sockopt::curve_server, 1);
                router_.set(zmq::sockopt::curve_secretkey, keys.secretKey);
            }
        } else {
            std::string const path = ipcPathOf(name_, options_.ipcDirectory);
            ensurePrivateDirectory(parentOf(path));
            endpoint = "ipc://" + path;
        }
        routerFd_ = router_.get(zmq::sockopt::fd);
        routerMonitor_ = monitorOf(
            router_, ZMQ_EVENT_DISCONNECTED | ZMQ_EVENT_HANDSHAKE_FAILED_NO_DETAIL |
                         ZMQ_EVENT_HANDSHAKE_FAILED_PROTOCOL | ZMQ_EVENT_HANDSHAKE_FAILED_AUTH);
        try {
            router_.bind(endpoint);
        } catch (zmq::error_t const& e) {
            throw std::runtime_error("cannot listen on '" + name_ + "': " + e.what());
        }
        ZN_LOG(logger(), log::info) << "exchange listening on " << name_;
    }

    std::string publicKeyOf(std::string const& peer) const {
        auto it = options_.peerPublicKeys.find(peer);
        if (it != options_.peerPublicKeys.end())
            return it->second;
        if (!options_.serverPublicKey.empty())
            return options_.serverPublicKey;
        std::string key = env("QUORL_SERVER_KEY");
        if (!key.empty())
            return key;
        std::string file = env("QUORL_SERVER_KEY_FILE");
        if (!file.empty())
            return readPublicKeyFile(file);
        throw DeliveryError("no CURVE public key for exchange '" + peer +
                            "': give its public key (QUORL_SERVER_KEY or QUORL_SERVER_KEY_FILE)");
    }

    Peer& connect(std::string const& peerName) {
        auto peer = std::make_unique<Peer>();
        peer->name = peerName;
        peer->dealer = zmq::socket_t(context_, ZMQ_DEALER);
        configureCommon(peer->dealer);
        configureHeartbeats(peer->dealer, options_.heartbeatTimeout, options_.peerHeartbeatTimeout);
        peer->dealer.set(zmq::sockopt::routing_id, name_);
        peer->dealer.set(zmq::sockopt::reconnect_ivl, 100);
        std::string endpoint = peerName;
        if (isTcp(peerName)) {
            if (options_.curve) {
                std::string const key = publicKeyOf(peerName);
                if (!isZ85Key(key))
                    throw DeliveryError("the CURVE public key for exchange '" + peerName +
                                        "' is not a 40-character Z85 key");
                peer->dealer.set(zmq::sockopt::curve_serverkey, key);
                peer->dealer.set(zmq::sockopt::curve_publickey, clientKeys_.publicKey);
                peer->dealer.set(zmq::sockopt::curve_secretkey, clientKeys_.secretKey);
            }
        } else {
            endpoint = "ipc://" + ipcPathOf(peerName, options_.ipcDirectory);
        }
        peer->monitor =
            monitorOf(peer->dealer, ZMQ_EVENT_HANDSHAKE_SUCCEEDED | ZMQ_EVENT_DISCONNECTED |
                                        ZMQ_EVENT_HANDSHAKE_FAILED_NO_DETAIL |
                                        ZMQ_EVENT_HANDSHAKE_FAILED_PROTOCOL |
                                        ZMQ_EVENT_HANDSHAKE_FAILED_AUTH);
        try {
            peer->dealer.connect(endpoint);
        } catch (zmq::error_t const& e) {
            throw DeliveryError("cannot connect to exchange '" + peerName + "': " + e.what());
        }
        peer->dealerFd = peer->dealer.get(zmq::sockopt::fd);
        peer->deadline = Clock::now() + options_.connectTimeout;
        Peer& ref = *peer;
        peers_[peerName] = std::move(peer);
        peersChanged_ = true;
        return ref;
    }

    static zmq::message_t toMessage(std::string&& frame) {
        if (frame.size() < kSmallFrame)
            return zmq::message_t(frame.data(), frame.size());
        auto* held = new std::string(std::move(frame));
        return zmq::message_t(
            &(*held)[0], held->size(),
            [](void*, void* hint) { delete static_cast<std::string*>(hint); }, held);
    }

    void fail(std::string const& peer, std::string const& why) {
        ZN_LOG(logger(), log::warning) << name_ << ": " << why;
        failed_.emplace_back(peer, boost::copy_exception(DeliveryError(why)));
    }

    void failPeer(Peer& peer, std::string const& why) {
        if (!peer.failure)
            peer.failure = boost::copy_exception(DeliveryError(why));
    }

    // Sends frames to `to` (the caller holds mutex_), as the parts of one message: they arrive
    // together, for one wake-up of each side's threads. Returns the peer whose dealer it used, or
    // null if they went through the ROUTER or nowhere.
    Peer* dispatch(std::string const& to, Batch&& frames) {
        auto it = peers_.find(to);
        if (it != peers_.end()) {
            // A failed peer's frames are dropped: its failure is reported by the I/O thread.
            if (!it->second->failure && !sendParts(it->second->dealer, frames))
                failPeer(*it->second, "exchange '" + to + "' does not take frames");
            return it->second.get();
        }
        if (router_ && inbound_.count(to)) {
            if (routeBack(to, frames))
                return nullptr;
            inbound_.erase(to);
            peersChanged_ = true;
            fail(to, "exchange '" + to + "' went away");
            return nullptr;
        }
        if (!isZmqEndpoint(to)) {
            fail(to, "no route to exchange '" + to +
                         "': it is not connected and its name is not an endpoint");
            return nullptr;
        }
        try {
            Peer& peer = connect(to);
            if (!sendParts(peer.dealer, frames))
                failPeer(peer, "exchange '" + to + "' does not take frames");
            return &peer;
        } catch (std::exception const& e) {
            auto p = peers_.find(to);
            if (p != peers_.end()) {
                peers_.erase(p);
                peersChanged_ = true;
            }
            fail(to, e.what());
            return nullptr;
        }
    }

    static bool hasInput(zmq::socket_t& s) { return s.get(zmq::sockopt::events) & ZMQ_POLLIN; }

    // A frame read off a socket, handed to the sink once the socket lock is released.
    struct Received {
        std::string from;
        zmq::message_t body;
    };

    // Sends frames as the parts of one message, after `more` parts already sent; false if the
    // socket did not take them.
    static bool sendParts(zmq::socket_t& s, Batch& frames, bool more = false) {
        for (std::size_t i = 0; i < frames.size(); ++i) {
            auto const flags = i + 1 < frames.size()
                                   ? zmq::send_flags::sndmore | zmq::send_flags::dontwait
                                   : zmq::send_flags::dontwait;
            if (!s.send(toMessage(std::move(frames[i])), flags)) {
                if (more || i > 0) // the parts sent would join the next message's
                    throw DeliveryError("a socket refused part of a message");
                return false;
            }
        }
        return true;
    }

    // Sends through the ROUTER to a peer that connected to us; false if it is gone. No frames:
    // an empty message (a probe).
    bool routeBack(std::string const& to, Batch& frames) {
        try {
            zmq::message_t id(to.data(), to.size());
            if (!router_.send(id, zmq::send_flags::sndmore | zmq::send_flags::dontwait))
                return false;
            if (frames.empty())
                return bool(router_.send(zmq::message_t(), zmq::send_flags::dontwait));
            return sendParts(router_, frames, true);
        } catch (zmq::error_t const& e) {
            if (e.num() == EHOSTUNREACH)
                return false;
            throw;
        }
    }

    // Reads one multipart message: Nothing if none was waiting, Malformed if it did not have
    // `least` to `most` parts (it is drained all the same).
    enum class Read { Nothing, Malformed, Whole };
    // A receive that finds nothing has also taken in what the socket's descriptor signalled, so
    // the socket is read until then rather than asked first whether it holds input (each asking
    // costs system calls).
    static Read readParts(zmq::socket_t& s, std::vector<zmq::message_t>& parts, std::size_t least,
                          std::size_t most) {
        parts.clear();
        bool ok = true;
        do {
            zmq::message_t part;
            if (!s.recv(part, zmq::recv_flags::dontwait))
                return parts.empty() ? Read::Nothing : Read::Malformed;
            if (parts.size() < most)
                parts.push_back(std::move(part));
            else
                ok = false; // more parts than a message has: drained and dropped
        } while (s.get(zmq::sockopt::rcvmore));
        return ok && parts.size() >= least ? Read::Whole : Read::Malformed;
    }

    // Reads up to a turn's worth of frames; true if more may be waiting.
    bool readRouter(std::vector<Received>& received) {
        std::vector<zmq::message_t> parts;
        for (int i = 0; i < 64; ++i) {
            // The peer's name, then its frames.
            Read const read = readParts(router_, parts, 2, 1 + kMaxBatch);
            if (read == Read::Nothing)
                return false;
            if (read == Read::Malformed) {
                ZN_LOG(logger(), log::error) << name_ << ": dropped a malformed message";
                continue;
            }
            std::string from(static_cast<char const*>(parts[0].data()), parts[0].size());
            if (inbound_.insert(from).second)
                peersChanged_ = true;
            for (std::size_t p = 1; p < parts.size(); ++p) {
                if (parts[p].size() != 0) // else a probe
                    received.push_back(Received{from, std::move(parts[p])});
            }
        }
        return true; // a turn's worth read: look again at once
    }

    bool readDealer(Peer& peer, std::vector<Received>& received) {
        std::vector<zmq::message_t> parts;
        for (int i = 0; i < 64 && !peer.failure; ++i) {
            Read const read = readParts(peer.dealer, parts, 1, kMaxBatch);
            if (read == Read::Nothing)
                return false;
            if (read == Read::Malformed) {
                ZN_LOG(logger(), log::error)
                    << name_ << ": dropped a malformed message from " << peer.name;
                continue;
            }
            for (auto& part : parts) {
                if (part.size() != 0)
                    received.push_back(Received{peer.name, std::move(part)});
            }
        }
        return !peer.failure;
    }

    // The next monitor event, or 0.
    static std::uint16_t readEvent(zmq::socket_t& monitor) {
        zmq::message_t ev;
        if (!monitor.recv(ev, zmq::recv_flags::dontwait))
            return 0;
        std::uint16_t event = 0;
        if (ev.size() >= 2)
            std::memcpy(&event, ev.data(), 2);
        while (monitor.get(zmq::sockopt::rcvmore)) {
            zmq::message_t rest;
            (void)monitor.recv(rest, zmq::recv_flags::dontwait);
        }
        return event;
    }

    static bool handshakeFailed(std::uint16_t e) {
        return e == ZMQ_EVENT_HANDSHAKE_FAILED_NO_DETAIL ||
               e == ZMQ_EVENT_HANDSHAKE_FAILED_PROTOCOL || e == ZMQ_EVENT_HANDSHAKE_FAILED_AUTH;
    }

    void readPeerMonitor(Peer& peer) {
        while (std::uint16_t e = readEvent(peer.monitor)) {
            if (e == ZMQ_EVENT_HANDSHAKE_SUCCEEDED) {
                peer.ready = true;
            } else if (e == ZMQ_EVENT_DISCONNECTED) {
                failPeer(peer,
                         "exchange '" + peer.name + "' closed the connection or stopped answering");
            } else if (handshakeFailed(e)) {
                failPeer(peer, "exchange '" + peer.name +
                                   "' refused the handshake (is its public key right?)");
            }
        }
    }

    void readRouterMonitor() {
        while (std::uint16_t e = readEvent(routerMonitor_)) {
            if (e == ZMQ_EVENT_DISCONNECTED) {
                // Which peer left is not told: ask each one we route back to, now and once the
                // socket has dropped the route.
                auto now = Clock::now();
                probes_.push_back(now + std::chrono::milliseconds(20));
                probes_.push_back(now + std::chrono::milliseconds(300));
            } else if (handshakeFailed(e)) {
                ZN_LOG(logger(), log::warning)
                    << name_ << ": refused a connection whose handshake failed";
            }
        }
    }

    void probeInbound() {
        for (auto it = inbound_.begin(); it != inbound_.end();) {
            Batch probe;
            if (peers_.count(*it) || routeBack(*it, probe)) {
                ++it;
                continue;
            }
            std::string gone = *it;
            it = inbound_.erase(it);
            peersChanged_ = true;
            fail(gone, "exchange '" + gone + "' went away");
        }
    }

    long nextTimeoutMs(Clock::time_point now) const {
        Clock::time_point next = now + std::chrono::seconds(1);
        for (auto const& p : peers_)
            if (!p.second->ready)
                next = std::min(next, p.second->deadline);
        for (auto const& t : probes_)
            next = std::min(next, t);
        auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(next - now).count();
        return std::max<long>(0, static_cast<long>(ms) + 1);
    }

    // The I/O threads take turns: one, the leader, waits on the descriptors that signal the
    // data sockets (so that other threads may send on the sockets meanwhile) and on the monitors,
    // reads under the socket lock and hands the frames to the sink without it. A delivery the
    // sink leaves in the leader's slot is run by the leader itself, waking no other thread, while
    // another thread watches: if the delivery is still running a tick later, the watcher takes
    // over the reading, so a delivery may block without stopping it. The watcher ticks only while
    // deliveries come (it goes idle after a quiet spell); while a thread is neither leading nor
    // watching, it waits to be needed.
    void run() {
        std::unique_lock<std::mutex> lock(mutex_);
        while (!stopping_) {
            if (leader_ == std::thread::id()) {
                leader_ = std::this_thread::get_id();
                lead(lock);
                continue;
            }
            if (!watching_ && (running_ || Clock::now() - lastRun_ < kWatchSpan)) {
                watching_ = true;
                bool const tookOver = watch(lock);
                watching_ = false;
                if (tookOver)
                    lead(lock);
                continue;
            }
            ++idle_;
            followers_.wait(lock);
            --idle_;
        }
        if (leader_ == std::this_thread::get_id())
            leader_ = std::thread::id();
        boost::shared_ptr<ZmqTransport> self; // dies after the lock is released
        if (closer_ == std::this_thread::get_id()) {
            self = std::move(keepAlive_);
            closeAll();
        }
        lock.unlock();
    }

    // Ticks while the leader runs deliveries; true once this thread has taken the lead from a
    // leader whose delivery outlasted a tick. False when stopping or after a quiet spell. (The
    // lead is only ever given up at stop.)
    bool watch(std::unique_lock<std::mutex>& lock) {
        std::uint64_t seen = runSerial_;
        while (!stopping_) {
            followers_.wait_for(lock, kTakeOverAfter);
            if (stopping_)
                return false;
            if (running_ && runSerial_ == seen) {
                leader_ = std::this_thread::get_id();
                running_ = false; // the old leader learns it no longer leads when its run ends
                wake();           // the sockets may hold input that signalled nobody
                return true;
            }
            if (!running_ && Clock::now() - lastRun_ >= kWatchSpan)
                return false;
            seen = runSerial_;
        }
        return false;
    }

    // Makes sure some thread can take over the reading from the leader (under mutex_): the
    // watcher, an idle thread (woken, outside the lock, when `notify` is set), or a new one.
    bool canBeWatched(bool& notify) {
        if (watching_)
            return true;
        if (idle_ > 0) {
            notify = true;
            return true;
        }
        if (threads_.size() >= kMaxThreads)
            return false;
        try {
            threads_.emplace_back([this] { run(); });
            return true;
        } catch (std::system_error const& e) {
            ZN_LOG(logger(), log::warning) << name_ << ": no thread to read with: " << e.what();
            return false;
        }
    }

    // Leads (the caller holds `lock` and is leader_) until stopped or until another thread took
    // the lead while this one ran a delivery; returns with `lock` held.
    void lead(std::unique_lock<std::mutex>& lock) {
        std::vector<zmq::pollitem_t> items;
        std::vector<Peer*> order;
        std::vector<Received> received;
        std::vector<std::pair<std::string, boost::exception_ptr>> failed;
        detail::InlineSlot slot;
        Clock::time_point lastInput;
        // One lock per turn: read what the sockets hold, drop the peers that failed, and list the
        // sockets to wait on next; then, without it, hand over what was read, and wait. A send
        // that changes what must be waited on wakes the wait.
        while (!stopping_) {
            dropFailedPeers();
            failed.swap(failed_);
            items.clear();
            order.clear();
            items.push_back({nullptr, wake_, ZMQ_POLLIN, 0});
            if (router_) {
                items.push_back({nullptr, routerFd_, ZMQ_POLLIN, 0});
                items.push_back({routerMonitor_.handle(), 0, ZMQ_POLLIN, 0});
            }
            for (auto& p : peers_) {
                order.push_back(p.second.get());
                items.push_back({nullptr, p.second->dealerFd, ZMQ_POLLIN, 0});
                items.push_back({p.second->monitor.handle(), 0, ZMQ_POLLIN, 0});
            }
            long const timeoutMs = inputLeft_ || !failed.empty() ? 0 : nextTimeoutMs(Clock::now());
            bool const canRunHere = watching_ || idle_ > 0 || threads_.size() < kMaxThreads;
            lock.unlock();

            {
                detail::InlineSlot::Scope offered(canRunHere ? &slot : nullptr);
                for (auto& r : received) {
                    if (r.body.size() < kSmallFrame) {
                        sink_->receiveFrame(r.from, static_cast<char const*>(r.body.data()),
                                            r.body.size());
                        continue;
                    }
                    // Shared, so that the sink may keep parts of the frame without a copy.
                    auto body = boost::make_shared<zmq::message_t>(std::move(r.body));
                    sink_->receiveHeldFrame(r.from, body, static_cast<char const*>(body->data()),
                                            body->size());
                }
            }
            if (!received.empty())
                lastInput = Clock::now();
            received.clear();
            for (auto& f : failed)
                sink_->peerFailed(f.first, f.second);
            failed.clear();
            if (!slot.empty()) {
                bool notify = false;
                lock.lock();
                bool const watched = !stopping_ && canBeWatched(notify);
                if (watched) {
                    running_ = true;
                    ++runSerial_;
                    lastRun_ = Clock::now();
                }
                lock.unlock();
                if (notify)
                    followers_.notify_one(); // an idle thread becomes the watcher
                slot.runAll();
                lock.lock();
                if (leader_ != std::this_thread::get_id())
                    return; // taken over while the delivery ran
                running_ = false;
                if (stopping_)
                    break;
                lock.unlock();
            }

            try {
                // While frames keep coming (a wake-up often reads nothing: the sockets'
                // descriptors signal more than new frames).
                bool const conversing = Clock::now() - lastInput < kConversation;
                bool const poll = conversing && timeoutMs > 0;
                bool ready = false;
                if (holding_.load(std::memory_order_acquire)) {
                    // Held frames wait for the next frame to their peer, at most kHoldFor.
                    ready = poll && pollBriefly(items, std::min(kHoldFor, options_.pollAfterInput));
                    ready |= sendHeldUnlocked(lock);
                }
                if (!ready)
                    ready = poll && pollBriefly(items, options_.pollAfterInput);
                if (!ready)
                    zmq::poll(items.data(), items.size(), std::chrono::milliseconds(timeoutMs));
            } catch (std::exception const& e) {
                ZN_LOG(logger(), log::error) << name_ << ": transport error: " << e.what();
            }
            lock.lock();
            if (stopping_)
                break; // stopped meanwhile (perhaps from a sink call): nothing more reaches it
            try {
                inputLeft_ = turn(items, order, received);
            } catch (std::exception const& e) {
                ZN_LOG(logger(), log::error) << name_ << ": transport error: " << e.what();
            }
        }
    }

    // How long after the last frame read the reading thread still polls before it sleeps.
    static constexpr std::chrono::milliseconds kConversation{10};

    // How long a frame given to sendSoon waits at most for the next frame to its peer.
    static constexpr std::chrono::microseconds kHoldFor{250};

    // Polls `items` for up to `bound`, yielding between polls; true once one is ready (a
    // wake-up included: a stop or a change of the sockets ends it too). Each poll asks the kernel
    // about the descriptors alone (a ZeroMQ socket's own descriptor signals that its state may
    // have changed); only when one signals does ZeroMQ look at the sockets, which costs it more
    // system calls. A spinning thread so leaves the core to others sooner.
    static bool pollBriefly(std::vector<zmq::pollitem_t>& items, std::chrono::microseconds bound) {
        if (bound.count() <= 0)
            return false;
        std::vector<pollfd> fds(items.size());
        for (std::size_t i = 0; i < items.size(); ++i) {
            fds[i].fd =
                items[i].socket
                    ? zmq::socket_ref(zmq::from_handle, items[i].socket).get(zmq::sockopt::fd)
                    : items[i].fd;
            fds[i].events = POLLIN;
        }
        return ReplySpin::spinUntil(
            [&] {
                return ::poll(fds.data(), fds.size(), 0) > 0 &&
                       zmq::poll(items.data(), items.size(), std::chrono::milliseconds(0)) > 0;
            },
            bound);
    }

    // One turn of the loop, under mutex_: reads what the sockets hold and checks the deadlines.
    // True if a socket still holds input.
    bool turn(std::vector<zmq::pollitem_t> const& items, std::vector<Peer*> const& order,
              std::vector<Received>& received) {
        if (items[0].revents & ZMQ_POLLIN) {
            std::uint64_t n;
            ssize_t r = ::read(wake_, &n, sizeof n);
            (void)r;
        }
        bool more = false;
        std::size_t i = 1;
        if (router_) {
            // A socket's descriptor only says that something changed: always look.
            more = readRouter(received);
            if (items[2].revents & ZMQ_POLLIN)
                readRouterMonitor();
            i = 3;
        }
        for (Peer* peer : order) {
            if (items[i + 1].revents & ZMQ_POLLIN)
                readPeerMonitor(*peer);
            if (!peer->failure && readDealer(*peer, received))
                more = true;
            i += 2;
        }
        // Peers connected by senders since the poll began are read next turn (the send woke
        // the loop).
        auto const now = Clock::now();
        for (auto& p : peers_) {
            if (!p.second->ready && !p.second->failure && now >= p.second->deadline)
                failPeer(*p.second, "exchange '" + p.first + "' did not answer within " +
                                        std::to_string(options_.connectTimeout.count()) + " ms");
        }
        if (!probes_.empty() &&
            std::any_of(probes_.begin(), probes_.end(), [&](auto t) { return t <= now; })) {
            probes_.erase(
                std::remove_if(probes_.begin(), probes_.end(), [&](auto t) { return t <= now; }),
                probes_.end());
            probeInbound();
        }
        return more;
    }

    // Drops the connections of failed peers, their failures moving to failed_ (under mutex_).
    void dropFailedPeers() {
        for (auto it = peers_.begin(); it != peers_.end();) {
            if (it->second->failure) {
                ZN_LOG(logger(), log::warning)
                    << name_ << ": dropping the connection to " << it->first;
                failed_.emplace_back(it->first, it->second->failure);
                inbound_.erase(it->first);
                it = peers_.erase(it);
                peersChanged_ = true;
            } else {
                ++it;
            }
        }
        if (!peersChanged_)
            return;
        peersChanged_ = false;
        std::set<std::string> known = inbound_;
        for (auto const& p : peers_)
            known.insert(p.first);
        std::lock_guard<std::mutex> lock(peersMutex_);
        known_.swap(known);
    }

    void closeAll() {
        peers_.clear();
        if (routerMonitor_)
            routerMonitor_.close();
        if (router_)
            router_.close();
        context_.close();
        if (wake_ >= 0)
            ::close(wake_);
        wake_ = -1;
    }

    ZmqTransportOptions const options_;
    std::string name_;
    TransportSink* sink_ = nullptr;
    CurveKeyPair clientKeys_;
    int wake_ = -1;
    bool started_ = false;
    zmq::context_t context_;
    boost::shared_ptr<ZmqTransport> keepAlive_; // while a stopped transport's own thread ends

    // Guards the sockets (ZeroMQ sockets may change threads between calls with a memory barrier
    // between them, never be used by two at once) and everything below up to peersMutex_.
    std::mutex mutex_;
    zmq::socket_t router_;
    int routerFd_ = -1;
    zmq::socket_t routerMonitor_; // read by the leading I/O thread only
    std::map<std::string, std::unique_ptr<Peer>> peers_;
    std::set<std::string> inbound_; // peers that connected to the ROUTER
    std::vector<Clock::time_point> probes_;
    std::vector<std::pair<std::string, boost::exception_ptr>> failed_; // reported by the loop
    bool peersChanged_ = false; // peers_ or inbound_ changed since known_ was made
    bool stopping_ = false;

    mutable std::mutex peersMutex_; // guards known_
    std::set<std::string> known_;   // a copy of the peers for other threads

    // Frames below this size are copied rather than shared between owners.
    static constexpr std::size_t kSmallFrame = 65536;

    // The I/O threads, under mutex_.
    static constexpr std::size_t kMaxThreads = 8;
    static constexpr std::chrono::milliseconds kTakeOverAfter{1};
    static constexpr std::chrono::milliseconds kWatchSpan{50};
    std::vector<std::thread> threads_;
    std::condition_variable followers_; // threads neither leading nor watching wait here
    std::size_t idle_ = 0;
    std::thread::id leader_;
    bool watching_ = false;
    bool running_ = false;        // the leader runs a delivery
    std::uint64_t runSerial_ = 0; // deliveries the leaders have started
    Clock::time_point lastRun_;   // when the last of them started
    std::thread::id closer_; // a thread of ours that stop() was called on: it closes the sockets
    bool inputLeft_ = false; // a socket held input after the last turn: do not wait for a signal
    // Frames given to sendSoon by the reading thread's deliveries, oldest first, with their peers.
    std::vector<std::pair<std::string, std::string>> held_;
    std::atomic<bool> holding_{false}; // held_ is not empty (written under mutex_)
};

} // namespace

boost::shared_ptr<Transport> makeZmqTransport(ZmqTransportOptions const& options) {
    endingThreads().joinOthers();
    return boost::make_shared<ZmqTransport>(options);
}

std::vector<std::string> connectedPeers(Transport const& transport) {
    auto const* z = dynamic_cast<ZmqTransport const*>(&transport);
    return z ? z->peers() : std::vector<std::string>();
}

} // namespace exchange
} // namespace msg_svc
} // namespace foundation
