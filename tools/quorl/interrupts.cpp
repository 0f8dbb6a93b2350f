#include <tools/quorl/interrupts.hpp>

#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <system_error>
#include <unistd.h>

namespace quorl {
namespace cli {

namespace {

int signalWriteFd = -1;

constexpr char kInterrupt = 'i';
constexpr char kQuit = 'q';

extern "C" void onInterrupt(int) {
    int const saved = errno;
    char const byte = kInterrupt;
    [[maybe_unused]] ssize_t const written = ::write(signalWriteFd, &byte, 1);
    errno = saved;
}

void makePipe(int fds[2]) {
    if (::pipe2(fds, O_CLOEXEC) != 0)
        throw std::system_error(errno, std::generic_category(), "pipe");
}

} // namespace

Interrupts::Interrupts(Session& session) : session_(session) {
    makePipe(signalPipe_);
    makePipe(promptPipe_);
    ::fcntl(promptPipe_[0], F_SETFL, O_NONBLOCK);
    ::fcntl(signalPipe_[1], F_SETFL, O_NONBLOCK); // a full pipe drops a Ctrl-C, never blocks
    signalWriteFd = signalPipe_[1];
    watcher_ = std::thread([this] { watch(); });
    struct sigaction action {};
    action.sa_handler = onInterrupt;
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0; // no SA_RESTART: a blocking read at the prompt sees EINTR
    ::sigaction(SIGINT, &action, &previous_);
}

Interrupts::~Interrupts() {
    ::sigaction(SIGINT, &previous_, nullptr);
    char const byte = kQuit;
    while (::write(signalPipe_[1], &byte, 1) < 0 && errno == EAGAIN) {
        // The watcher is draining a burst of Ctrl-C; the quit byte goes in once it has room.
        std::this_thread::yield();
    }
    watcher_.join();
    signalWriteFd = -1;
    for (int fd : {signalPipe_[0], signalPipe_[1], promptPipe_[0], promptPipe_[1]})
        ::close(fd);
}

void Interrupts::start(Session::RequestID const& id) {
    bool interruptNow = false;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        running_ = true;
        id_ = id;
        interrupted_ = pending_;
        interruptNow = pending_;
        pending_ = false;
    }
    if (interruptNow)
        session_.interrupt(id);
}

bool Interrupts::finish() {
    std::lock_guard<std::mutex> lock(mutex_);
    running_ = false;
    return interrupted_;
}

bool Interrupts::takeAtPrompt() {
    char buffer[64];
    bool any = false;
    while (::read(promptPipe_[0], buffer, sizeof buffer) > 0)
        any = true;
    std::lock_guard<std::mutex> lock(mutex_);
    any = any || pending_;
    pending_ = false;
    return any;
}

void Interrupts::watch() {
    for (;;) {
        char byte = 0;
        ssize_t const got = ::read(signalPipe_[0], &byte, 1);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0 || byte == kQuit)
            return;
        Session::RequestID id;
        bool interrupt = false;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (running_) {
                interrupt = true;
                interrupted_ = true;
                id = id_;
            } else {
                pending_ = true;
            }
        }
        if (interrupt) {
            try {
                session_.interrupt(id); // answered through the request's own future
            } catch (std::exception const&) {
                // A session that is closing has nothing left to interrupt.
            }
        } else {
            char const note = kInterrupt;
            [[maybe_unused]] ssize_t const written = ::write(promptPipe_[1], &note, 1);
        }
    }
}

} // namespace cli
} // namespace quorl
