#include <tests/crossprocess/serverprocess.hpp>

#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <netinet/in.h>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace crossprocess {

namespace {

int remainingMs(std::chrono::steady_clock::time_point deadline) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    return left.count() < 0 ? 0 : static_cast<int>(left.count());
}

// Reads what is there without blocking; false at end of file.
bool drain(int fd, std::string& into) {
    char buf[4096];
    for (;;) {
        ssize_t n = ::read(fd, buf, sizeof buf);
        if (n > 0) {
            into.append(buf, static_cast<std::size_t>(n));
            continue;
        }
        if (n == 0)
            return false;
        return errno == EAGAIN || errno == EINTR;
    }
}

pid_t spawn(std::string const& program, std::vector<std::string> const& args, int& out, int& err) {
    int o[2], e[2];
    if (::pipe2(o, O_CLOEXEC) != 0 || ::pipe2(e, O_CLOEXEC) != 0)
        throw std::runtime_error("pipe failed");
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(program.c_str()));
    for (auto const& a : args)
        argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    pid_t pid = ::fork();
    if (pid < 0)
        throw std::runtime_error("fork failed");
    if (pid == 0) {
        ::dup2(o[1], 1);
        ::dup2(e[1], 2);
        ::execv(program.c_str(), argv.data());
        ::_exit(127);
    }
    ::close(o[1]);
    ::close(e[1]);
    ::fcntl(o[0], F_SETFL, O_NONBLOCK);
    ::fcntl(e[0], F_SETFL, O_NONBLOCK);
    out = o[0];
    err = e[0];
    return pid;
}

int decode(int status) {
    if (WIFEXITED(status))
        return WEXITSTATUS(status);
    if (WIFSIGNALED(status))
        return 128 + WTERMSIG(status);
    return -1;
}

} // namespace

ServerProcess::ServerProcess(std::string program, std::vector<std::string> args) {
    pid_ = spawn(program, args, out_, err_);
}

ServerProcess::~ServerProcess() {
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        int status;
        ::waitpid(pid_, &status, 0);
    }
    if (out_ >= 0)
        ::close(out_);
    if (err_ >= 0)
        ::close(err_);
}

bool ServerProcess::waitForLine(std::string const& text, std::chrono::milliseconds patience) {
    auto const deadline = std::chrono::steady_clock::now() + patience;
    for (;;) {
        for (std::size_t nl; (nl = output_.find('\n', scanned_)) != std::string::npos;) {
            bool const found =
                output_.substr(scanned_, nl - scanned_).find(text) != std::string::npos;
            scanned_ = nl + 1;
            if (found)
                return true;
        }
        int const ms = remainingMs(deadline);
        if (ms == 0 || out_ < 0)
            return false;
        pollfd p{out_, POLLIN, 0};
        if (::poll(&p, 1, ms) > 0 && !drain(out_, output_)) {
            ::close(out_);
            out_ = -1;
        }
    }
}

std::string const& ServerProcess::errors() {
    if (err_ >= 0)
        drain(err_, errors_);
    return errors_;
}

void ServerProcess::signal(int sig) {
    if (pid_ > 0)
        ::kill(pid_, sig);
}

int ServerProcess::wait(std::chrono::milliseconds patience) {
    if (pid_ <= 0)
        return -1;
    auto const deadline = std::chrono::steady_clock::now() + patience;
    for (;;) {
        int status;
        pid_t r = ::waitpid(pid_, &status, WNOHANG);
        if (r == pid_) {
            pid_ = -1;
            if (out_ >= 0)
                drain(out_, output_);
            errors();
            return decode(status);
        }
        int const ms = remainingMs(deadline);
        if (ms == 0)
            return -1;
        // The child's output closes when it ends: wait on that instead of polling the pid.
        int fd = out_ >= 0 ? out_ : err_;
        if (fd >= 0) {
            pollfd p{fd, POLLIN, 0};
            if (::poll(&p, 1, std::min(ms, 50)) > 0) {
                std::string& into = fd == out_ ? output_ : errors_;
                if (!drain(fd, into)) {
                    ::close(fd);
                    (fd == out_ ? out_ : err_) = -1;
                }
            }
        } else {
            // Both outputs closed: the child has ended or is about to.
            if (::waitpid(pid_, &status, 0) == pid_) {
                pid_ = -1;
                return decode(status);
            }
        }
    }
}

RunResult runToEnd(std::string const& program, std::vector<std::string> const& args) {
    ServerProcess p(program, args);
    RunResult r;
    r.code = p.wait(std::chrono::seconds(30));
    r.out = p.output();
    r.err = p.errors();
    return r;
}

int freeTcpPort() {
    int s = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = 0;
    socklen_t len = sizeof a;
    if (::bind(s, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 ||
        ::getsockname(s, reinterpret_cast<sockaddr*>(&a), &len) != 0) {
        ::close(s);
        throw std::runtime_error("no free port");
    }
    ::close(s);
    return ntohs(a.sin_port);
}

PrivateDir::PrivateDir() {
    char tmpl[] = "/tmp/quorl-xp-XXXXXX";
    char* made = ::mkdtemp(tmpl);
    if (!made)
        throw std::runtime_error("mkdtemp failed");
    path_ = made;
}

PrivateDir::~PrivateDir() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
}

} // namespace crossprocess
